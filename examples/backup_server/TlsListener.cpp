#include "TlsListener.h"

#include "agent/PosixError.h"
#include "agent/ssl/ErrorQueue.h"

#include <netinet/in.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <stdexcept>
#include <string>

namespace backup {

namespace {

constexpr timeval kPatience{60, 0};

void require(bool isDone, const std::string& what)
{
    if (!isDone) throw std::runtime_error(what + " failed: " + agent::ssl::pumpOpenSSLErrorQueueToString());
}

[[noreturn]] void throwErrno(const char* call)
{
    const int error = errno;
    throw agent::PosixError(call, error);
}

std::unique_ptr<BIO, decltype(&BIO_free_all)> bioOf(const std::string& pem)
{
    return {BIO_new_mem_buf(pem.data(), static_cast<int>(pem.size())), BIO_free_all};
}

std::unique_ptr<X509, decltype(&X509_free)> certificateOf(const std::string& pem)
{
    return {PEM_read_bio_X509(bioOf(pem).get(), nullptr, nullptr, nullptr), X509_free};
}

// Closing a socket with unread data resets the connection, and the alert that tells the client why would be lost.
void discardRest(int socket)
{
    constexpr timeval kShortPatience{1, 0};
    (void)::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &kShortPatience, sizeof kShortPatience);
    (void)::shutdown(socket, SHUT_WR);
    std::array<char, 4096> buffer;
    int reads = 100; // a client that goes on sending is not waited for
    while (reads-- > 0 && ::read(socket, buffer.data(), buffer.size()) > 0) {
    }
}

} // namespace

TlsConnection::TlsConnection(SSL_CTX* context, int socket)
    : m_socket(socket)
    , m_connection(SSL_new(context), SSL_free)
{
    (void)::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &kPatience, sizeof kPatience);
    (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience);
    try {
        if (!m_connection || SSL_set_fd(m_connection.get(), socket) != 1) fail("setting up");
        if (SSL_accept(m_connection.get()) != 1) fail("the handshake");
    } catch (...) {
        discardRest(socket);
        (void)::close(socket);
        throw;
    }
}

TlsConnection::~TlsConnection()
{
    (void)SSL_shutdown(m_connection.get());
    (void)::close(m_socket);
}

void TlsConnection::read(void* data, unsigned int size)
{
    for (std::size_t done = 0, count = 0; done < size; done += count) {
        ERR_clear_error();
        if (SSL_read_ex(m_connection.get(), static_cast<char*>(data) + done, size - done, &count) != 1) fail("reading");
    }
}

void TlsConnection::write(const void* data, unsigned int size)
{
    std::size_t count = 0;
    ERR_clear_error();
    if (SSL_write_ex(m_connection.get(), data, size, &count) != 1) fail("writing");
}

void TlsConnection::fail(const char* doing)
{
    const int error = errno;
    const std::string queue = agent::ssl::pumpOpenSSLErrorQueueToString();
    if (queue.empty()) throw agent::PosixError(std::string(doing) + ": the client is gone or silent", error);
    throw std::runtime_error(std::string(doing) + " failed: " + queue.substr(0, queue.find('\n')));
}

TlsListener::TlsListener(unsigned int port, const agent::ISSLCertificateStore& store)
    : m_context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free)
    , m_socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    std::string certificate;
    std::string key;
    std::string authority;
    store.exportCertificatePrivateKeyPair(certificate, key);
    store.exportTrustChain(authority);
    SSL_CTX* const context = m_context.get();
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> privateKey(
        PEM_read_bio_PrivateKey(bioOf(key).get(), nullptr, nullptr, nullptr), EVP_PKEY_free);
    require(SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION) == 1, "requiring TLS 1.2");
    require(SSL_CTX_use_certificate(context, certificateOf(certificate).get()) == 1, "loading the certificate");
    require(SSL_CTX_use_PrivateKey(context, privateKey.get()) == 1, "loading the private key");
    require(X509_STORE_add_cert(SSL_CTX_get_cert_store(context), certificateOf(authority).get()) == 1,
        "loading the clients' authority");
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);

    sockaddr_in address{AF_INET, htons(static_cast<std::uint16_t>(port)), {htonl(INADDR_LOOPBACK)}, {}};
    const int one = 1;
    (void)::setsockopt(m_socket, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    if (::bind(m_socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) throwErrno("bind failed");
    if (::listen(m_socket, 8) != 0) throwErrno("listen failed");
}

TlsListener::~TlsListener()
{
    (void)::close(m_socket);
}

unsigned int TlsListener::port() const
{
    sockaddr_in address{};
    socklen_t length = sizeof address;
    if (::getsockname(m_socket, reinterpret_cast<sockaddr*>(&address), &length) != 0) throwErrno("getsockname failed");
    return ntohs(address.sin_port);
}

std::unique_ptr<TlsConnection> TlsListener::accept()
{
    const int socket = ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC);
    if (socket < 0) throwErrno("accept failed");
    return std::make_unique<TlsConnection>(m_context.get(), socket);
}

} // namespace backup
