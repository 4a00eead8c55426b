#pragma once

#include "agent/Export.h"
#include "agent/vnt/common/Ret.h"

#include <chrono>
#include <string>

namespace agent {

/// Opens an outgoing connection and holds its descriptor.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ITCPConnector {
public:
    virtual ~ITCPConnector();

    /// Forgets the descriptor without closing it: the caller has taken the socket over.
    virtual void clear() = 0;
    virtual void close() = 0;
    virtual ::vnt::common::Ret connect() = 0;

    /// The descriptor; 0 means none.
    virtual int fd() const = 0;

    /// @return 0 for success
    virtual int setNonBlocking() = 0;

    /// Keepalive in seconds, and Nagle's algorithm off.
    virtual ::vnt::common::Ret sockOpts(int keepIdle, int keepCount, int keepInterval) = 0;

    virtual std::string getHost() const = 0;
    virtual std::chrono::seconds getConnectTimeout() const = 0;
};

/// A TCP connection over IPv4, non-blocking and close-on-exec.
///
///     TCPConnector connector("backup.example.com", 9443, std::chrono::seconds(30));
///     if (Ret ret = connector.connect(); ret.code != 0) return ret;
///     SocketIo::write(connector.fd(), idleTimeout, size, data);
///
/// Descriptor 0 is never a live socket here: users take 0 for "not connected". A socket that the system numbers 0,
/// because standard input was closed, is refused.
///
/// Failures are results, never exceptions. One after the socket was made leaves it in the connector, open; the next
/// connect(), close() or the destructor closes it.
/// Threads: one at a time. Block signals in threads that connect: one that arrives during the wait ends it with EINTR.
class AGENTKIT_API TCPConnector : public ITCPConnector {
public:
    /// Opens nothing.
    /// @param host            an IPv4 address with dots, or a name
    /// @param port            in host byte order
    /// @param connectTimeout  for the connection alone; looking up a name takes as long as it takes. 0 does not wait, a
    ///                        negative one waits without limit.
    TCPConnector(const std::string& host, int port, std::chrono::seconds connectTimeout);
    TCPConnector(const TCPConnector&) = delete;
    TCPConnector& operator=(const TCPConnector&) = delete;
    ~TCPConnector() override;

    void clear() override;
    void close() override;

    /// Closes what is open and connects anew.
    /// @return  code -1 without a host, the host error of IPUtils::resolveHost() if the name is unknown (-1 if that is
    ///          0), 110 after the time-out, else an errno value. If the connection is refused, only the text tells so;
    ///          the code is what errno held at that moment, normally 115 (EINPROGRESS), and its users look at the text.
    ::vnt::common::Ret connect() override;

    int fd() const override;
    int setNonBlocking() override;

    /// To be called once connected. Without keepIdle above 0, only keepalive as such and Nagle are set.
    /// @param keepIdle      seconds of silence before the first probe
    /// @param keepCount     probes without an answer that end the connection
    /// @param keepInterval  seconds between probes
    ::vnt::common::Ret sockOpts(int keepIdle, int keepCount, int keepInterval) override;

    std::string getHost() const override;
    std::chrono::seconds getConnectTimeout() const override;

private:
    ::vnt::common::Ret waitUntilConnected();

    std::string m_host;
    std::chrono::seconds m_connectTimeout;
    int m_fd = 0; // 0: none
    int m_port;   // host byte order
};

} // namespace agent
