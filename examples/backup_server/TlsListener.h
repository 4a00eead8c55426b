#pragma once

#include "agent/CertificateStore.h"

#include <openssl/ssl.h>

#include <memory>

namespace backup {

/// A client that has shown a certificate we trust. Every failure is an exception; a client that is silent for a minute
/// is one.
class TlsConnection {
public:
    /// @param socket  the connection's own from now on
    TlsConnection(SSL_CTX* context, int socket);
    TlsConnection(const TlsConnection&) = delete;
    TlsConnection& operator=(const TlsConnection&) = delete;
    ~TlsConnection();

    /// Both move all of it.
    void read(void* data, unsigned int size);
    void write(const void* data, unsigned int size);

private:
    [[noreturn]] static void fail(const char* doing);

    int m_socket;
    std::unique_ptr<SSL, decltype(&SSL_free)> m_connection;
};

/// Waits for clients on 127.0.0.1.
class TlsListener {
public:
    /// @param port   0: any that is free
    /// @param store  our certificate and key; its trust chain is the authority of the clients
    TlsListener(unsigned int port, const agent::ISSLCertificateStore& store);
    TlsListener(const TlsListener&) = delete;
    TlsListener& operator=(const TlsListener&) = delete;
    ~TlsListener();

    unsigned int port() const;

    /// Waits for the next client and shakes hands with it.
    /// @throws std::runtime_error  if that fails; the next one may do better
    std::unique_ptr<TlsConnection> accept();

private:
    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_context;
    int m_socket;
};

} // namespace backup
