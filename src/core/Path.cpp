#include "agent/Path.h"

#include "agent/StringUtils.h"

#include <utility>

namespace agent {

Path::Path(std::string path)
{
    concat(std::move(path));
}

Path::Path(const char* path)
    : Path(std::string(path))
{
}

Path Path::convert(std::string path)
{
    return {std::move(path)};
}

Path Path::convert(const std::wstring& path)
{
    return {StringUtils::WStrToStr(path)};
}

Path& Path::concat(std::string s)
{
    if (s.empty()) return *this;
    if (m_path.ends_with('/') && s.starts_with('/')) m_path.pop_back();
    m_path.empty() ? m_path = std::move(s) : m_path += s;
    if (m_path.ends_with('/') && m_path != "/") m_path.pop_back();
    return *this;
}

Path& Path::append(std::string s)
{
    if (s.starts_with('/')) s.erase(0, 1);
    if (s.ends_with('/')) s.pop_back();
    return s.empty() ? *this : concat("/" + s);
}

Path Path::filePath() const
{
    const auto slash = m_path.rfind('/');
    if (slash == std::string::npos) return {};
    return {slash == 0 ? "/" : m_path.substr(0, slash)};
}

std::string Path::fileName() const
{
    return m_path.substr(m_path.rfind('/') + 1);
} // npos + 1 is 0

Path operator/(Path left, const Path& right)
{
    return std::move(left.append(right.u8string()));
}

Path operator/(Path left, const std::string& right)
{
    return std::move(left.append(right));
}

Path operator/(Path left, const char* right)
{
    return std::move(left.append(right));
}

Path operator+(Path left, const Path& right)
{
    return std::move(left.concat(right.u8string()));
}

Path operator+(Path left, const std::string& right)
{
    return std::move(left.concat(right));
}

Path operator+(Path left, const char* right)
{
    return std::move(left.concat(right));
}

} // namespace agent
