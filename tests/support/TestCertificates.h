#pragma once

// Certificates, keys and a TLS server for tests, made on the spot so that none expires in the repository.

#include "agent/StringUtils.h"

#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace agent::test {

struct CertificateSpec {
    std::vector<std::pair<const char*, std::string>> subject = {{"CN", "test"}};
    std::string names = {};  // as OpenSSL's configuration has them: "DNS:a.example,IP:127.0.0.1"
    long validFrom = -3600;  // seconds from now
    long validUntil = 86400; // seconds from now
    bool isRsa = false;      // else P-256
    std::vector<std::pair<const char*, std::string>> extensions = {}; // identifier and DER value
};

/// A certificate with its key; one without an issuer signs itself and may issue others.
class Identity {
public:
    explicit Identity(const CertificateSpec& spec, const Identity* issuer = nullptr)
        : m_key(spec.isRsa ? EVP_RSA_gen(2048) : EVP_EC_gen("P-256"), EVP_PKEY_free)
        , m_certificate(X509_new(), X509_free)
    {
        X509* const x509 = m_certificate.get();
        static long serial = 1;
        X509_set_version(x509, X509_VERSION_3);
        ASN1_INTEGER_set(X509_get_serialNumber(x509), serial++);
        X509_gmtime_adj(X509_getm_notBefore(x509), spec.validFrom);
        X509_gmtime_adj(X509_getm_notAfter(x509), spec.validUntil);
        for (const auto& [field, value] : spec.subject)
            X509_NAME_add_entry_by_txt(X509_get_subject_name(x509), field, MBSTRING_UTF8,
                reinterpret_cast<const unsigned char*>(value.data()), static_cast<int>(value.size()), -1, 0);
        X509_set_issuer_name(x509, X509_get_subject_name(issuer != nullptr ? issuer->m_certificate.get() : x509));
        X509_set_pubkey(x509, m_key.get());
        if (issuer == nullptr) extend("basicConstraints", "critical,CA:TRUE");
        if (!spec.names.empty()) extend("subjectAltName", spec.names);
        for (const auto& [oid, value] : spec.extensions)
            extend(oid, "DER:" + StringUtils::byte_array_to_hex(
                                     reinterpret_cast<const unsigned char*>(value.data()), value.size()));
        X509_sign(x509, issuer != nullptr ? issuer->m_key.get() : m_key.get(), EVP_sha256());
    }

    X509* x509() const { return m_certificate.get(); }
    EVP_PKEY* key() const { return m_key.get(); }
    std::string pem() const
    {
        return written([this](BIO* bio) { PEM_write_bio_X509(bio, x509()); });
    }
    std::string keyPem(const char* password = nullptr) const
    {
        const EVP_CIPHER* const cipher = password != nullptr ? EVP_aes_128_cbc() : nullptr;
        return written([&](BIO* bio) {
            PEM_write_bio_PKCS8PrivateKey(bio, key(), cipher, nullptr, 0, nullptr, const_cast<char*>(password));
        });
    }

private:
    static std::string written(const std::function<void(BIO*)>& write)
    {
        const std::unique_ptr<BIO, decltype(&BIO_free_all)> bio(BIO_new(BIO_s_mem()), BIO_free_all);
        write(bio.get());
        char* data = nullptr;
        const long size = BIO_get_mem_data(bio.get(), &data);
        return {data, static_cast<std::size_t>(size)};
    }
    void extend(const char* name, const std::string& value) const
    {
        X509_EXTENSION* const extension = X509V3_EXT_conf(nullptr, nullptr, name, value.c_str());
        X509_add_ext(x509(), extension, -1);
        X509_EXTENSION_free(extension);
    }

    std::shared_ptr<EVP_PKEY> m_key;
    std::shared_ptr<X509> m_certificate;
};

/// Accepts one connection on 127.0.0.1, on a thread of its own.
class TcpServer {
public:
    /// @param serve  is given the connection's descriptor, which is closed after it
    explicit TcpServer(std::function<void(int)> serve)
    {
        auto* const address = reinterpret_cast<sockaddr*>(&m_address);
        socklen_t length = sizeof m_address;
        (void)::bind(m_listener, address, length);
        (void)::listen(m_listener, 1);
        (void)::getsockname(m_listener, address, &length);
        m_thread = std::thread([this, serve = std::move(serve)] {
            sigset_t sigpipe; // a client that leaves early ends nothing but this connection
            sigemptyset(&sigpipe);
            sigaddset(&sigpipe, SIGPIPE);
            ::pthread_sigmask(SIG_BLOCK, &sigpipe, nullptr);
            const int fd = ::accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) serve(fd);
            ::close(fd);
        });
    }
    TcpServer(const TcpServer&) = delete;
    TcpServer& operator=(const TcpServer&) = delete;
    ~TcpServer()
    {
        ::shutdown(m_listener, SHUT_RDWR); // for a client that never came
        m_thread.join();
        ::close(m_listener);
    }
    int port() const { return ntohs(m_address.sin_port); }

private:
    sockaddr_in m_address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    int m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread m_thread;
};

struct TlsServerOptions {
    const Identity& identity;
    const Identity* clientAuthority = nullptr; ///< clients have to show a certificate of it; null: none need one
    int version = 0;                           ///< the only one spoken; 0: all
};

/// What a TcpServer has to do to serve TLS with blocking calls. `serve` gets the connection after its handshake.
inline std::function<void(int)> tls(const TlsServerOptions& options, std::function<void(SSL*)> serve)
{
    const std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    SSL_CTX_use_certificate(context.get(), options.identity.x509());
    SSL_CTX_use_PrivateKey(context.get(), options.identity.key());
    if (options.clientAuthority != nullptr) {
        X509_STORE_add_cert(SSL_CTX_get_cert_store(context.get()), options.clientAuthority->x509());
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT, nullptr);
    }
    SSL_CTX_set_min_proto_version(context.get(), options.version);
    SSL_CTX_set_max_proto_version(context.get(), options.version);
    SSL_CTX_set_security_level(context.get(), 0); // so that old versions are there for clients to refuse
    return [context, serve = std::move(serve)](int fd) {
        const std::unique_ptr<SSL, decltype(&SSL_free)> connection(SSL_new(context.get()), SSL_free);
        SSL_set_fd(connection.get(), fd);
        if (SSL_accept(connection.get()) == 1) serve(connection.get());
    };
}

} // namespace agent::test
