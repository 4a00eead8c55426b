#pragma once

#include "core/UniqueFd.h"

#include "agent/Path.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstddef>
#include <string>

/// System calls as the library makes them: interrupted ones go on, descriptors are close-on-exec. Results and
/// `errno` are those of the calls.
namespace agent::io {

/// Repeats a call for as long as a signal interrupts it.
template <typename Call>
auto retry(Call call)
{
    auto result = call();
    while (result == -1 && errno == EINTR) result = call();
    return result;
}

/// `open` with O_CLOEXEC.
UniqueFd open(const Path& path, int flags, mode_t mode = 0);

/// Up to `size` bytes; 0 at the end, -1 on failure.
ssize_t read(int fd, void* buffer, std::size_t size);

/// Writes everything, in as many pieces as it takes; false on failure.
bool writeAll(int fd, const char* data, std::size_t size);

/// Closes now, for the sake of the error: a file system may report a failed write only then.
bool close(UniqueFd fd);

/// @throws PosixError  "stat64(\"" + path + "\") failed"
struct stat64 statOf(const Path& path);

/// The path in double quotes, as messages show it.
std::string quoted(const Path& path);

/// "name(\"path\") failed", the text of a failed system call.
std::string failed(const std::string& call, const Path& path);

} // namespace agent::io
