#pragma once

#include <sys/types.h>

#include <cstddef>

namespace agent {

/// `write(2)` without SIGPIPE, whatever the program does with that signal; result and `errno` are those of the call.
ssize_t writeWithoutSignal(int fd, const void* data, std::size_t size);

} // namespace agent
