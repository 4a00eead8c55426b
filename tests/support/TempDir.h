#pragma once

#include <filesystem>
#include <string>

namespace agent::test {

/// A fresh directory that disappears, with all that is in it, at the end of the scope.
class TempDir {
public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();

    const std::string& path() const { return m_path; }

    /// The full name of an entry; nothing is created.
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

    /// Creates a file and returns its full name.
    std::string file(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

/// The whole content of a file, read without help from the library.
std::string contentOf(const std::string& path);

/// Descriptors open in this process, to prove that none was leaked.
std::size_t openDescriptors();

} // namespace agent::test
