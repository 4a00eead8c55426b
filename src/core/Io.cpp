#include "core/Io.h"

#include "agent/PosixError.h"

#include <fcntl.h>

#include <algorithm>

namespace agent::io {

UniqueFd open(const Path& path, int flags, mode_t mode)
{
    return UniqueFd(retry([&] { return ::open(path.u8string().c_str(), flags | O_CLOEXEC, mode); }));
}

ssize_t read(int fd, void* buffer, std::size_t size)
{
    return retry([=] { return ::read(fd, buffer, size); });
}

bool writeAll(int fd, const char* data, std::size_t size)
{
    while (size != 0) {
        const ssize_t written = retry([=] { return ::write(fd, data, size); });
        if (written < 0) return false;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool close(UniqueFd fd)
{
    // After EINTR the descriptor is gone all the same, and what was written is with the kernel.
    return ::close(fd.release()) == 0 || errno == EINTR;
}

struct stat64 statOf(const Path& path)
{
    struct stat64 status {};
    if (::stat64(path.u8string().c_str(), &status) != 0) {
        const int error = errno;
        throw PosixError(failed("stat64", path), error);
    }
    return status;
}

std::string quoted(const Path& path)
{
    return "\"" + path.u8string() + "\"";
}

std::string failed(const std::string& call, const Path& path)
{
    return call + "(" + quoted(path) + ") failed";
}

} // namespace agent::io
