#include "net/WriteWithoutSignal.h"

#include "core/SigpipeGuard.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace agent {

ssize_t writeWithoutSignal(int fd, const void* data, std::size_t size)
{
    const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
    if (sent != -1 || errno != ENOTSOCK) return sent;
    const SigpipeGuard guard;
    return ::write(fd, data, size);
}

} // namespace agent
