#include "ImageFile.h"

#include "agent/PosixError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace backup {

namespace {

[[noreturn]] void throwErrno(const std::string& call, const std::string& path)
{
    const int error = errno;
    throw agent::PosixError(call + "(\"" + path + "\") failed", error);
}

} // namespace

ImageFile::ImageFile(const std::string& path, Access access)
    : m_path(path)
    // A FIFO given by mistake must not keep us waiting for a writer.
    , m_fd(::open(path.c_str(), (access == Access::ReadOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC | O_NONBLOCK))
{
    if (m_fd < 0) throwErrno("open", path);
    struct stat status {};
    const bool isKnown = ::fstat(m_fd, &status) == 0;
    if (!isKnown || !S_ISREG(status.st_mode)) {
        const int error = errno;
        (void)::close(m_fd);
        if (!isKnown) throw agent::PosixError("fstat(\"" + path + "\") failed", error);
        throw std::runtime_error("\"" + path + "\" is not a regular file");
    }
    m_size = static_cast<unsigned long>(status.st_size);
    m_device = status.st_dev;
    m_inode = status.st_ino;
}

ImageFile::~ImageFile()
{
    (void)::close(m_fd);
}

bool ImageFile::isSameFileAs(const ImageFile& other) const
{
    return m_device == other.m_device && m_inode == other.m_inode;
}

void ImageFile::read(unsigned long offset, char* buffer, std::size_t size) const
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::pread(m_fd, buffer + done, size - done, static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throwErrno("pread", m_path);
        if (count == 0) {
            throw std::runtime_error("\"" + m_path + "\" ended at byte " + std::to_string(offset + done) +
                                     ", expected " + std::to_string(m_size) + " bytes");
        }
        done += static_cast<std::size_t>(count);
    }
}

void ImageFile::write(unsigned long offset, const char* buffer, std::size_t size) const
{
    std::size_t done = 0;
    while (done < size) {
        const ssize_t count = ::pwrite(m_fd, buffer + done, size - done, static_cast<off_t>(offset + done));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) throwErrno("pwrite", m_path);
        done += static_cast<std::size_t>(count);
    }
}

void ImageFile::sync() const
{
    if (::fsync(m_fd) != 0) throwErrno("fsync", m_path);
}

} // namespace backup
