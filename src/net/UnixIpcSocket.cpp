#include "agent/transport/ipc/UnixIpcSocket.h"

#include "core/UniqueFd.h"

#include "agent/PosixError.h"
#include "agent/ScopeExit.h"
#include "agent/StringUtils.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace agent::transport::ipc {

namespace {

constexpr int kNone = -1;
constexpr int kBacklog = 10;
constexpr int kReadAttempts = 30;
constexpr int kAttemptMilliseconds = 100;
constexpr std::size_t kMaxPath = sizeof(sockaddr_un::sun_path) - 1; // 107 bytes

// What does not fit is cut off here, so that the name that is removed is the one that was bound.
std::string socketPath(const std::wstring& path)
{
    const std::string bytes = StringUtils::WStrToStr(path);
    if (bytes.empty() || bytes.find('\0') != std::string::npos)
        throw std::invalid_argument("Must provide a proper socket path.");
    return bytes.substr(0, kMaxPath);
}

sockaddr_un addressOf(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, kMaxPath);
    return address;
}

UniqueFd makeSocket()
{
    return UniqueFd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
}

// The socket's own mode becomes that of its file: at no time can other users connect.
bool bindPrivately(int fd, const std::string& path)
{
    const sockaddr_un address = addressOf(path);
    return ::fchmod(fd, S_IRUSR | S_IWUSR) == 0 &&
           ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

// A member initializer uses the server before the constructor's body could look at it.
UnixIpcSocket& existing(const std::shared_ptr<UnixIpcSocket>& server)
{
    if (!server) throw std::invalid_argument("Must provide a valid server socket.");
    return *server;
}

} // namespace

IIpc::~IIpc() = default;

UnixIpcSocket::UnixIpcSocket(info::Logger& logger, const std::wstring& path, EIpcRole role)
    : m_logger(logger)
    , m_path(socketPath(path))
    , m_role(role)
{
    if (m_role != EIpcRole::Server) return;
    m_fd = createServerConnection();
    if (m_fd == kNone) throw std::runtime_error("Failed to create server connection.");
    m_disconnected = false;
}

UnixIpcSocket::UnixIpcSocket(std::shared_ptr<UnixIpcSocket> server)
    : m_logger(existing(server).m_logger)
    , m_path(server->m_path)
    , m_role(EIpcRole::Connection)
    , m_server(std::move(server))
{
    if (m_server->m_role != EIpcRole::Server) throw std::invalid_argument("Socket should be configured as server.");
}

UnixIpcSocket::~UnixIpcSocket()
{
    try_ignore([this] { UnixIpcSocket::disconnect(); }, m_logger);
}

int UnixIpcSocket::createServerConnection()
{
    UniqueFd fd = makeSocket();
    if (!fd.isOpen()) {
        logError("Failed to create server unix socket.");
        return kNone;
    }
    (void)::unlink(m_path.c_str()); // one that an earlier run has left
    if (!bindPrivately(fd.get(), m_path)) {
        logError("Failed to bind socket.");
        return kNone;
    }
    if (::listen(fd.get(), kBacklog) != 0) {
        logError("Failed to listen socket.");
        (void)::unlink(m_path.c_str()); // nobody will answer there
        return kNone;
    }
    return fd.release();
}

int UnixIpcSocket::createClientConnection() const
{
    UniqueFd fd = makeSocket();
    if (!fd.isOpen()) {
        logError("Failed to create client unix socket.");
        return kNone;
    }
    const sockaddr_un address = addressOf(m_path);
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        logError("Failed to connect client unix socket.");
        return kNone;
    }
    return fd.release();
}

bool UnixIpcSocket::connect()
{
    if (m_role != EIpcRole::Connection) {
        logError("Invalid socket role");
        return false;
    }
    if (m_fd != kNone) disconnect();

    if (m_server) {
        m_fd = ::accept4(m_server->m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        const int error = errno;
        if (m_fd == kNone) logError(PosixError("Failed to accept connection.", error).what());
    } else {
        m_fd = createClientConnection();
    }
    m_disconnected = m_fd == kNone;
    return !m_disconnected;
}

bool UnixIpcSocket::connected() const
{
    if (m_fd != kNone && m_disconnected) return false;
    return m_role == EIpcRole::Server || hasPeer();
}

bool UnixIpcSocket::hasPeer() const
{
    sockaddr_un address{};
    socklen_t length = sizeof address;
    return ::getpeername(m_fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
}

void UnixIpcSocket::disconnect()
{
    if (m_fd == kNone) return;
    const int result = ::close(std::exchange(m_fd, kNone));
    const int error = errno;
    m_disconnected = true;
    if (result != 0) logError(PosixError("Failed to close ipc socket: ", error).what());
    if (m_role == EIpcRole::Server && ::unlink(m_path.c_str()) != 0) {
        const int unlinkError = errno;
        logError(PosixError("Failed to delete ipc socket: ", unlinkError).what());
    }
}

bool UnixIpcSocket::read(char* buffer, unsigned int size, unsigned int& count)
{
    if (m_role == EIpcRole::Server || m_fd == kNone) return false;
    for (int attempt = 0; attempt < kReadAttempts; ++attempt) {
        pollfd wait{m_fd, POLLIN, 0};
        const int ready = ::poll(&wait, 1, kAttemptMilliseconds);
        if (ready == 0) continue;
        if (ready < 0 || (wait.revents & POLLNVAL) != 0) {
            m_disconnected = true;
            return false;
        }
        const ssize_t result = ::read(m_fd, buffer, size);
        if (result > 0) {
            count = static_cast<unsigned int>(result);
            return true;
        }
        if (result == -1 && errno == EAGAIN) continue;
        if (result == 0 || errno == ECONNRESET) m_disconnected = true; // the peer has closed; with data of ours unread
        return false;
    }
    return false;
}

void UnixIpcSocket::write(const std::string& text)
{
    if (m_role != EIpcRole::Connection || m_fd == kNone) return;
    if (::send(m_fd, text.data(), text.size(), MSG_NOSIGNAL) < 0) {
        const int error = errno;
        throw PosixError("Failed to write responce to socket : ", error);
    }
}

void UnixIpcSocket::logError(const std::string& text) const
{
    info::Logger::Entry(m_logger, info::Logger::ERROR) << text;
}

} // namespace agent::transport::ipc
