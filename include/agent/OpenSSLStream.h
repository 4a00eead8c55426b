#pragma once

#include "agent/Certificate.h"
#include "agent/CertificateStore.h"
#include "agent/Export.h"
#include "agent/TCPConnector.h"
#include "agent/info/Logger.h"
#include "agent/vnt/common/Ret.h"

#include <openssl/ssl.h>

#include <chrono>
#include <memory>
#include <string>

namespace agent {

/// A TLS connection.
///
/// The order of its virtual functions, and that its users inherit it virtually, is part of the binary interface.
class AGENTKIT_API ISSLStream {
public:
    virtual ~ISSLStream();

    virtual std::shared_ptr<ICertificate> getPeerCertificate() const = 0;
    virtual int getFileDescriptor() const = 0;

    /// Reads what is there, at least one byte; waits for it.
    virtual void read(void* buffer, unsigned int size, unsigned int& bytesRead) = 0;

    /// Writes everything.
    virtual void write(const void* buffer, unsigned int size) = 0;
    virtual void close() = 0;
};

/// The client's end of a TLS connection. The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ISSLClient : public virtual ISSLStream {
public:
    ~ISSLClient() override;

    virtual void connect() = 0;
};

/// TLS 1.2 or 1.3 over a socket that a connector has opened, with both ends authenticated: we by the certificate and
/// key of a store, the server by the authorities that the system trusts (`SSL_CERT_FILE` and `SSL_CERT_DIR`, read
/// anew for each connection) and by the connector's host name or address.
///
///     TCPConnector::connect(), then
///     OpenSSLStream stream(logger, connector, store, std::chrono::seconds(30));
///     stream.connect();
///     stream.write(request, size);
///     stream.read(answer, sizeof answer, count);
///
/// The trust chain that the store keeps is not used for the server. Ciphers are OpenSSL's and the system's choice.
/// The socket should be non-blocking; it stays the connector's, which closes it. Close the stream first: OpenSSL keeps
/// the descriptor's number, and would write to whatever file or connection has got it since.
///
/// Failures are PosixError with codes like `errno`: 2 what is needed is missing, 22 OpenSSL refuses, or the server
/// is not who it should be, 103 the server ends the connection in order (close notify) during the handshake, 104 it
/// does so later, 107 not connected, 110 time-out, 114 connected already, what a failed wait said, and for everything
/// that goes wrong later OpenSSL's own SSL_ERROR numbers: a connection that just breaks off is 1 or 5.
/// Threads: one at a time. Block signals in threads that use it: one that arrives during a wait ends it with EINTR.
/// No SIGPIPE is raised.
class AGENTKIT_API OpenSSLStream : public virtual ISSLClient {
public:
    /// @param logger   borrowed; must outlive the stream
    /// @param store    null shows when connecting only
    /// @param timeout  for the handshake as a whole, which a time-out of 0 ends as soon as it has to wait, and for
    ///                 each wait for the socket, where 0 is no limit
    /// @throws std::invalid_argument  without a connector
    OpenSSLStream(info::Logger& logger, std::shared_ptr<ITCPConnector> connector,
        std::shared_ptr<ISSLCertificateStore> store, std::chrono::seconds timeout);
    OpenSSLStream(const OpenSSLStream&) = delete;
    OpenSSLStream& operator=(const OpenSSLStream&) = delete;

    /// Closes as close() does; failures are logged.
    ~OpenSSLStream() override;

    /// Shakes hands. Once only, also if the handshake fails; after close() it can be called anew.
    /// @throws what the store throws when asked for certificate and key
    void connect() override;

    /// A size of 0 reads nothing. A buffer larger than 2 GiB is not filled beyond that.
    void read(void* buffer, unsigned int size, unsigned int& bytesRead) override;

    /// After a failure, a time-out too, part of it may have been sent, and the next write would fail: close the stream.
    void write(const void* buffer, unsigned int size) override;

    /// Tells the peer (close notify), unless the connection was never completed or has failed, and does not wait for
    /// the answer. Does not close the socket.
    void close() override;

    /// The connector's.
    int getFileDescriptor() const override;

    /// @throws std::logic_error  always
    std::shared_ptr<ICertificate> getPeerCertificate() const override;

    /// A new store with the authorities that the system trusts; the caller's. Null if there is no memory.
    X509_STORE* getCertificateStore() const;

private:
    struct Free {
        void operator()(SSL_CTX* context) const noexcept;
        void operator()(SSL* connection) const noexcept;
    };

    ::vnt::common::Ret initSSLClient();
    ::vnt::common::Ret disableProtocols();
    ::vnt::common::Ret connectToPeer();
    ::vnt::common::Ret prepareConnection();
    ::vnt::common::Ret shakeHands();
    ::vnt::common::Ret checkPeer();
    ::vnt::common::Ret waitFor(short events, const char* failure, const char* timedOut) const;
    ::vnt::common::Ret handleWantRead() const;
    ::vnt::common::Ret handleWantWrite() const;
    ::vnt::common::Ret getSSLFunctionRet(int result, bool quiet);
    ::vnt::common::Ret sslRead(void* buffer, unsigned int size, unsigned int& bytesRead);
    ::vnt::common::Ret sslWrite(const void* buffer, unsigned int size, unsigned int& bytesWritten);
    ::vnt::common::Ret notMoved(int result, const std::string& direction, const std::string& function);
    void shutdownSSL();
    void notifyPeer();
    void logErrorQueue(const char* before);

    info::Logger& m_logger;
    std::shared_ptr<ISSLCertificateStore> m_store;
    std::shared_ptr<ITCPConnector> m_connector;
    std::chrono::seconds m_timeout;
    std::unique_ptr<SSL_CTX, Free> m_context;
    std::unique_ptr<SSL, Free> m_connection;
    bool m_hasFailed = false; // an OpenSSL call failed for good: no shutdown may be tried
};

} // namespace agent
