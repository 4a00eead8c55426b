#include "agent/TCPConnector.h"

#include "agent/IPUtils.h"
#include "agent/PosixError.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>

namespace agent {

using ::vnt::common::Ret;

namespace {

bool resolve(const std::string& host, in_addr& address, int& hostError)
{
    if (::inet_pton(AF_INET, host.c_str(), &address) == 1) return true;
    address.s_addr = static_cast<in_addr_t>(IPUtils().resolveHost(host.c_str(), hostError));
    return address.s_addr != 0;
}

// The seconds count as an int, and so does the product: a time-out of 25 days and more wraps.
int pollMilliseconds(std::chrono::seconds timeout)
{
    return static_cast<int>(static_cast<unsigned int>(timeout.count()) * 1000U);
}

/// An option of a socket, and what to say if it cannot be set.
struct Option {
    int level;
    int name;
    int value;
    const char* failure;
};

std::optional<Ret> set(int fd, const Option& option)
{
    if (::setsockopt(fd, option.level, option.name, &option.value, sizeof option.value) == 0) return std::nullopt;
    const int error = errno;
    return Ret(error, PosixError(option.failure, error).what());
}

// As long as it takes keepalive to give up; capped, since the option is an int.
int userTimeoutMilliseconds(int keepIdle, int keepCount, int keepInterval)
{
    constexpr std::int64_t kMostSeconds = INT32_MAX / 1000;
    const std::int64_t seconds = std::int64_t{keepInterval} * keepCount + keepIdle;
    return static_cast<int>(std::clamp(seconds, -kMostSeconds, kMostSeconds) * 1000);
}

} // namespace

ITCPConnector::~ITCPConnector() = default;

TCPConnector::TCPConnector(const std::string& host, int port, std::chrono::seconds connectTimeout)
    : m_host(host)
    , m_connectTimeout(connectTimeout)
    , m_port(port)
{
}

TCPConnector::~TCPConnector()
{
    TCPConnector::close();
}

void TCPConnector::clear()
{
    m_fd = 0;
}

void TCPConnector::close()
{
    if (m_fd == 0) return;
    (void)::close(m_fd);
    m_fd = 0;
}

int TCPConnector::fd() const
{
    return m_fd;
}

int TCPConnector::setNonBlocking()
{
    if (m_fd == 0) return 1;
    int one = 1;
    return ::ioctl(m_fd, FIONBIO, &one);
}

Ret TCPConnector::connect()
{
    if (m_host.empty()) return {-1, "No hostname provided to TCPConnector."};
    if (m_fd != 0) close();

    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(m_port));
    int hostError = 0;
    if (!resolve(m_host, address.sin_addr, hostError))
        return {hostError, "Unable to gethostbyname for: " + m_host + ", h_errno " + std::to_string(hostError)};

    m_fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) {
        const int error = errno;
        m_fd = 0;
        return {error, "Unable to create socket. errno: " + std::to_string(error)};
    }
    const bool isZero = m_fd == 0;
    if (setNonBlocking() != 0) {
        const int error = errno;
        if (isZero) (void)::close(STDIN_FILENO); // nobody would: 0 means that there is no socket
        return {error, "Unable to set socket nonblocking: errno: " + std::to_string(error)};
    }
    if (::connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        const int error = errno;
        if (error != EINPROGRESS && error != EALREADY && error != EAGAIN)
            return {error, "Unable to connect to host " + m_host + ", errno: " + std::to_string(error)};
    }
    return waitUntilConnected();
}

Ret TCPConnector::waitUntilConnected()
{
    pollfd wait{m_fd, POLLWRNORM, 0};
    if (::poll(&wait, 1, pollMilliseconds(m_connectTimeout)) < 0) {
        const int error = errno;
        return {error, "Unable to connect to host " + m_host + ", errno: " + std::to_string(error)};
    }
    if ((wait.revents & POLLWRNORM) == 0) {
        errno = ETIMEDOUT;
        return {ETIMEDOUT, "Unable to connect to host " + m_host + ", timed out waiting for connection " +
                               std::to_string(m_connectTimeout.count()) + " seconds."};
    }

    int pending = 0;
    socklen_t length = sizeof pending;
    const int result = ::getsockopt(m_fd, SOL_SOCKET, SO_ERROR, &pending, &length);
    const int error = errno; // also the code of a pending error: users of this class look at the text for that
    if (result != 0)
        return {error, "Unable to check connect to host " + m_host + ", errno " + std::to_string(error) + "."};
    if (pending != 0)
        return {error, "Unable to check connect to host " + m_host + ", so_error " + std::to_string(pending) + "."};
    return {};
}

Ret TCPConnector::sockOpts(int keepIdle, int keepCount, int keepInterval)
{
    if (auto failure = set(m_fd, {SOL_SOCKET, SO_KEEPALIVE, 1, "Unable to set keepalive on socket."})) return *failure;
    if (keepIdle > 0) {
        const int userTimeout = userTimeoutMilliseconds(keepIdle, keepCount, keepInterval);
        for (const Option& option : {
                 Option{IPPROTO_TCP, TCP_USER_TIMEOUT, userTimeout, "Unable to set user timeout."},
                 Option{IPPROTO_TCP, TCP_KEEPIDLE, keepIdle, "Unable to set keepidle."},
                 Option{IPPROTO_TCP, TCP_KEEPINTVL, keepInterval, "Unable to set keepintvl."},
                 Option{IPPROTO_TCP, TCP_KEEPCNT, keepCount, "Unable to set keepcnt."},
             }) {
            if (auto failure = set(m_fd, option)) return *failure;
        }
    }
    if (auto failure = set(m_fd, {IPPROTO_TCP, TCP_NODELAY, 1, "Unable to disable the Nagle algorithm."}))
        return *failure;
    return {};
}

std::string TCPConnector::getHost() const
{
    return m_host;
}

std::chrono::seconds TCPConnector::getConnectTimeout() const
{
    return m_connectTimeout;
}

} // namespace agent
