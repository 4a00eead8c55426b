#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace agent::test {

/// A fresh directory that disappears, with all that is in it, at the end of the scope.
class TempDir {
public:
    TempDir() { (void)::mkdtemp(m_path.data()); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() { std::filesystem::remove_all(m_path); }

    const std::string& path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + '/' + name; }

    /// Creates a file and returns its full name.
    std::string file(const std::string& name, const std::string& content) const
    {
        std::ofstream(*this / name, std::ios::binary) << content;
        return *this / name;
    }

private:
    std::string m_path = (std::filesystem::temp_directory_path() / "agentkit_test_XXXXXX").string();
};

/// The whole content of a file, read without help from the library.
inline std::string contentOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// Descriptors open in this process, to prove that none was leaked.
inline auto openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return std::distance(begin(all), end(all));
}

} // namespace agent::test
