#include "TempDir.h"

#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace agent::test {

TempDir::TempDir()
    : m_path((std::filesystem::temp_directory_path() / "agentkit_test_XXXXXX").string())
{
    if (::mkdtemp(m_path.data()) == nullptr) throw std::runtime_error("cannot create " + m_path);
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string TempDir::file(const std::string& name, const std::string& content) const
{
    std::ofstream(*this / name, std::ios::binary) << content;
    return *this / name;
}

std::string contentOf(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::size_t openDescriptors()
{
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<std::size_t>(std::distance(begin(all), end(all)));
}

} // namespace agent::test
