#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <memory>
#include <string>

namespace agent::transport::ipc {

/// What a socket is for.
enum class EIpcRole : int {
    Server = 0,     ///< listens
    Connection = 1, ///< a client, or what a server has accepted
};

/// A channel to another process of the agent.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IIpc {
public:
    virtual ~IIpc();

    virtual bool connect() = 0;
    virtual bool connected() const = 0;
    virtual void disconnect() = 0;

    /// @param size   room in the buffer, bytes
    /// @param count  bytes read; unchanged on failure
    virtual bool read(char* buffer, unsigned int size, unsigned int& count) = 0;
    virtual void write(const std::string& text) = 0;
};

/// A stream socket with a name in the file system: a server, its accepted connections, or a client.
///
///     auto server = std::make_shared<UnixIpcSocket>(logger, L"/run/agent.sock", EIpcRole::Server);
///     UnixIpcSocket accepted(server);
///     if (accepted.connect() && accepted.read(buffer, sizeof buffer, count)) accepted.write("done");
///
///     UnixIpcSocket client(logger, L"/run/agent.sock", EIpcRole::Connection);
///     if (client.connect()) client.write("start");
///
/// Of the path the first 107 bytes count. Only the user who made the server can connect to it.
///
/// Failures are false results, and log lines at ERROR.
/// Threads: one at a time. Block signals in threads that use this: one that arrives during a wait ends it as a failure.
class AGENTKIT_API UnixIpcSocket : public IIpc {
public:
    /// A server listens at once, in the place of whatever was at the path; a client is not connected yet.
    /// @param logger  borrowed; must outlive this and the connections that are accepted from it
    /// @param path    neither empty nor with a NUL inside
    /// @throws std::invalid_argument  for such a path
    /// @throws std::runtime_error     if the server cannot be made; the log has the reason
    UnixIpcSocket(info::Logger& logger, const std::wstring& path, EIpcRole role);

    /// A connection that connect() will accept from a server.
    /// @throws std::invalid_argument  without a server, or if it is none
    explicit UnixIpcSocket(std::shared_ptr<UnixIpcSocket> server);

    UnixIpcSocket(const UnixIpcSocket&) = delete;
    UnixIpcSocket& operator=(const UnixIpcSocket&) = delete;

    /// Disconnects.
    ~UnixIpcSocket() override;

    /// Connects to the server, or waits for a client to accept; a connection that is held is closed first. Without time
    /// limit: a client waits as well while ten others do that the server has not accepted yet.
    /// @return  false for a server, too
    bool connect() override;

    /// Of a connection: whether it was made and has not been seen to end. What the peer does shows only when reading.
    /// @return  true for a server, always
    bool connected() const override;

    /// Closes the socket. A server also removes the file at its path, even if another server has taken the path over;
    /// it cannot be started again.
    void disconnect() override;

    /// Reads once, what is there, after at most about three seconds.
    /// @param size  at least 1: no byte read is taken for the peer's close
    /// @return      false after silence, too; connected() then tells whether to go on
    bool read(char* buffer, unsigned int size, unsigned int& count) override;

    /// Sends the text in one call, which waits for as long as the peer does not read; without connection, does nothing.
    /// A text of which the system takes a part, because a signal arrives, is not completed.
    /// @throws agent::PosixError  if nothing could be sent
    void write(const std::string& text) override;

    /// A new listening socket at the path, in the place of whatever was there; what constructs a server.
    /// @return  its descriptor, the caller's; -1 on failure
    int createServerConnection();

    /// A new socket connected to the server at the path; what connects a client.
    /// @return  its descriptor, the caller's; -1 on failure
    int createClientConnection() const;

private:
    bool hasPeer() const;
    void logError(const std::string& text) const;

    info::Logger& m_logger;
    std::string m_path; // as bound, at most 107 bytes
    EIpcRole m_role;
    std::shared_ptr<UnixIpcSocket> m_server; // to accept from
    bool m_disconnected = true;
    int m_fd = -1;
};

} // namespace agent::transport::ipc
