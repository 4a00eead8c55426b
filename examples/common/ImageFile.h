#pragma once

#include <cstddef>
#include <string>

namespace backup {

/// A volume image: a regular file read and written at given offsets. Every failure is an exception whose
/// text names the file.
class ImageFile {
public:
    enum class Access { ReadOnly, ReadWrite };

    ImageFile(const std::string& path, Access access);
    ImageFile(const ImageFile&) = delete;
    ImageFile& operator=(const ImageFile&) = delete;
    ~ImageFile();

    const std::string& path() const { return m_path; }
    unsigned long size() const { return m_size; } ///< bytes, as of the opening

    /// Whether both are the same file, under whatever names.
    bool isSameFileAs(const ImageFile& other) const;

    /// Reads exactly `size` bytes; a file that ends before is an error.
    void read(unsigned long offset, char* buffer, std::size_t size) const;

    /// Writes all of the buffer.
    void write(unsigned long offset, const char* buffer, std::size_t size) const;

    /// Returns when the content is on the disk.
    void sync() const;

private:
    std::string m_path;
    int m_fd;
    unsigned long m_size = 0;
    unsigned long m_device = 0;
    unsigned long m_inode = 0;
};

} // namespace backup
