#include "agent/vnt/SocketIo.h"

#include "core/SigpipeGuard.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <string>

namespace agent::vnt {

using ::vnt::common::Ret;

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kTurnMilliseconds = 1000;

bool isOver(std::chrono::seconds timeout, Clock::time_point since)
{
    return timeout.count() != 0 && std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - since) > timeout;
}

// The same words for both directions: log scanners know no others.
Ret timedOut(std::chrono::seconds timeout)
{
    errno = ETIMEDOUT;
    return {ETIMEDOUT, "Socket read timeout after " + std::to_string(timeout.count()) + " seconds"};
}

// Events that were not asked for (a hang-up) end every wait at once: without this, a turn would take no time.
void pauseTurn()
{
    const timespec tenMilliseconds{0, 10'000'000};
    (void)::nanosleep(&tenMilliseconds, nullptr);
}

// `write(2)` without SIGPIPE, whatever the program does with that signal. Pipes are no sockets, and cannot be sent to.
ssize_t writeWithoutSignal(int fd, const void* data, std::size_t size)
{
    const ssize_t sent = ::send(fd, data, size, MSG_NOSIGNAL);
    if (sent != -1 || errno != ENOTSOCK) return sent;
    const SigpipeGuard guard;
    return ::write(fd, data, size);
}

Ret closedByPeer(int fd)
{
    const int error = errno;
    int pending = 0;
    socklen_t length = sizeof pending;
    const int result = ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &pending, &length);
    return {ENOTCONN, "Unable to read from socket, connection closed, errno: " + std::to_string(error) + " so_error: " +
                          std::to_string(static_cast<unsigned int>(pending)) + " ret: " + std::to_string(result)};
}

} // namespace

Ret SocketIo::read(int fd, std::chrono::seconds timeout, unsigned int& len, void* buf)
{
    return readWithOptions(fd, timeout, len, buf);
}

Ret SocketIo::readWithOptions(int fd, std::chrono::seconds timeout, unsigned int& len, void* buf)
{
    const auto start = Clock::now();
    pollfd wait{fd, POLLRDNORM, 0};
    while (true) {
        if (isOver(timeout, start)) return timedOut(timeout);
        const int ready = ::poll(&wait, 1, kTurnMilliseconds);
        if (ready == -1) {
            const int error = errno;
            return {error, "poll failed for read, errno: " + std::to_string(error)};
        }
        if (ready == 0) continue;
        if ((wait.revents & POLLRDNORM) != 0) break;
        pauseTurn();
    }

    const ssize_t count = ::read(fd, buf, len);
    if (count == -1) {
        const int error = errno;
        return {error, "Unable to read from socket, errno " + std::to_string(error)};
    }
    if (count == 0) return closedByPeer(fd);
    len = static_cast<unsigned int>(count);
    return {};
}

Ret SocketIo::write(int fd, std::chrono::seconds timeout, unsigned int len, const void* buf)
{
    const auto* const data = static_cast<const char*>(buf);
    auto lastProgress = Clock::now();
    unsigned int written = 0;
    pollfd wait{fd, POLLWRNORM, 0};
    while (written < len) {
        if (isOver(timeout, lastProgress)) return timedOut(timeout);
        const int ready = ::poll(&wait, 1, kTurnMilliseconds);
        const int error = errno;
        if (ready == 0) continue;
        if ((wait.revents & POLLNVAL) != 0) return {error, "Unable to poll socket, invalid poll request"};
        if ((wait.revents & POLLHUP) != 0) return {error, "Unable to poll socket, other end hung up."};
        if ((wait.revents & POLLWRNORM) == 0) {
            pauseTurn();
            continue;
        }
        if (ready == -1) return {error, "Unable to write to socket, errno: " + std::to_string(error)};

        lastProgress = Clock::now();
        // Unchecked, see the header: -1 wraps around.
        written += static_cast<unsigned int>(writeWithoutSignal(fd, data + written, len - written));
    }
    return {};
}

} // namespace agent::vnt
