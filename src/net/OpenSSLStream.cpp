#include "agent/OpenSSLStream.h"

#include "net/SocketBio.h"

#include "agent/PosixError.h"
#include "agent/ScopeExit.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

namespace agent {

using ::vnt::common::Ret;
using ::vnt::common::RetNoLog;

namespace {

using info::Logger;
using Clock = std::chrono::steady_clock;

template <auto Release>
struct Releaser {
    template <typename T>
    void operator()(T* handle) const noexcept
    {
        Release(handle);
    }
};
using BioPtr = std::unique_ptr<BIO, Releaser<BIO_free_all>>;
using KeyPtr = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;
using X509Ptr = std::unique_ptr<X509, Releaser<X509_free>>;

constexpr std::uint64_t kRefusedProtocols = SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1;

std::string orEmpty(const char* text)
{
    return text != nullptr ? text : "";
}

/// Empties the thread's error queue into one line.
std::string pumpErrorQueueToString()
{
    if (ERR_peek_error() == 0) return {}; // a stream for nothing would cost as much as encrypting a kilobyte
    std::ostringstream text;
    text.imbue(std::locale::classic());
    int i = 0;
    while (const unsigned long code = ERR_get_error()) {
        if (i != 0) text << " / ";
        text << i++ << ": Error: 0x" << std::hex << code << std::dec << " | Library: '"
             << orEmpty(ERR_lib_error_string(code)) << "' | Func: 'OPENSSL_internal' | Reason: '"
             << orEmpty(ERR_reason_error_string(code)) << "'";
    }
    return text.str();
}

std::string errorName(int sslError)
{
    static const std::map<int, std::string> names{
        {SSL_ERROR_NONE, "SSL_ERROR_NONE"},
        {SSL_ERROR_SSL, "SSL_ERROR_SSL"},
        {SSL_ERROR_WANT_READ, "SSL_ERROR_WANT_READ"},
        {SSL_ERROR_WANT_WRITE, "SSL_ERROR_WANT_WRITE"},
        {SSL_ERROR_WANT_X509_LOOKUP, "SSL_ERROR_WANT_X509_LOOKUP"},
        {SSL_ERROR_SYSCALL, "SSL_ERROR_SYSCALL"},
        {SSL_ERROR_ZERO_RETURN, "SSL_ERROR_ZERO_RETURN"},
        {SSL_ERROR_WANT_CONNECT, "SSL_ERROR_WANT_CONNECT"},
        {SSL_ERROR_WANT_ACCEPT, "SSL_ERROR_WANT_ACCEPT"},
    };
    const auto found = names.find(sslError);
    return found != names.end() ? found->second : "Unknown SSL error: " + std::to_string(sslError);
}

// An unmet wish for a password: nobody is there to be asked.
int noPassword(char* /*buffer*/, int /*size*/, int /*isForWriting*/, void* /*data*/)
{
    return 0;
}

BioPtr bioOf(const std::string& text)
{
    if (text.size() > INT_MAX) return nullptr;
    return BioPtr(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

X509Ptr parseCertificate(const std::string& pem)
{
    const BioPtr bio = bioOf(pem);
    return X509Ptr(bio ? PEM_read_bio_X509(bio.get(), nullptr, noPassword, nullptr) : nullptr);
}

KeyPtr parseKey(const std::string& pem)
{
    const BioPtr bio = bioOf(pem);
    return KeyPtr(bio ? PEM_read_bio_PrivateKey(bio.get(), nullptr, noPassword, nullptr) : nullptr);
}

Ret initSSLOnce()
{
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    if (OPENSSL_init_ssl(0, nullptr) < 0) return {ENOENT, "Could not initialize the OpenSSL library."};
    OPENSSL_init_crypto(OPENSSL_INIT_ADD_ALL_CIPHERS | OPENSSL_INIT_ADD_ALL_DIGESTS, nullptr);
    return {};
}

// Only the call that does the work sees its failure.
Ret initialize()
{
    static std::once_flag once;
    Ret ret;
    std::call_once(once, [&] { ret = initSSLOnce(); });
    return ret;
}

/// Lets a connection write without SIGPIPE; it has its descriptor already.
bool setQuietBio(SSL* connection, int fd)
{
    const BIO_METHOD* const method = quietSocketMethod();
    BioPtr bio(method != nullptr ? BIO_new(method) : nullptr);
    if (!bio) return false;
    BIO_set_fd(bio.get(), fd, BIO_NOCLOSE);
    BIO* const owned = bio.release();
    SSL_set_bio(connection, owned, owned);
    // The machine's configuration may ask for TLS in the kernel. Alerts would then need messages with a record type,
    // which this way of writing does not make: the peer would take them for data.
    SSL_clear_options(connection, SSL_OP_ENABLE_KTLS);
    return true;
}

/// Sends the name, and has the server's certificate checked for it.
bool setHost(SSL* connection, const std::string& host)
{
    // An empty name would switch the check off, and a NUL would cut the name.
    if (host.empty() || host.find('\0') != std::string::npos) return false;
    return SSL_set_tlsext_host_name(connection, host.c_str()) != 0 && SSL_set1_host(connection, host.c_str()) != 0;
}

void logName(Logger& logger, const char* what, const X509_NAME* name)
{
    std::array<char, 256> text{};
    const bool isThere =
        name != nullptr && X509_NAME_oneline(name, text.data(), static_cast<int>(text.size())) != nullptr;
    Logger::Entry entry(logger, Logger::DEBUG);
    entry << what << " from server cert";
    if (isThere) {
        entry << ": " << text.data();
    } else {
        entry << " is missing.";
    }
}

int asInt(unsigned int size)
{
    return static_cast<int>(std::min<unsigned int>(size, INT_MAX));
}

} // namespace

void OpenSSLStream::Free::operator()(SSL_CTX* context) const noexcept
{
    SSL_CTX_free(context);
}

void OpenSSLStream::Free::operator()(SSL* connection) const noexcept
{
    SSL_free(connection);
}

ISSLStream::~ISSLStream() = default;

ISSLClient::~ISSLClient() = default;

OpenSSLStream::OpenSSLStream(Logger& logger, std::shared_ptr<ITCPConnector> connector,
    std::shared_ptr<ISSLCertificateStore> store, std::chrono::seconds timeout)
    : m_logger(logger)
    , m_store(std::move(store))
    , m_connector(std::move(connector))
    , m_timeout(timeout)
{
    if (!m_connector) throw std::invalid_argument("ITCPConnector is nullptr");
    Logger::Entry(m_logger, Logger::DEBUG) << "ssl socket number " << m_connector->fd();
}

OpenSSLStream::~OpenSSLStream()
{
    try {
        shutdownSSL();
        if (const std::string queue = pumpErrorQueueToString(); !queue.empty())
            Logger::Entry(m_logger, Logger::ERROR) << "operator(): " << queue; // the prefix that log scanners know
    } catch (...) {                                                            // there is nobody left to tell
    }
}

void OpenSSLStream::connect()
{
    Ret::throw_on_error(initSSLClient());
    Ret::throw_on_error(connectToPeer());
}

void OpenSSLStream::read(void* buffer, unsigned int size, unsigned int& bytesRead)
{
    unsigned int count = 0;
    while (size != 0 && count == 0) Ret::throw_on_error(sslRead(buffer, size, count));
    bytesRead = count;
}

void OpenSSLStream::write(const void* buffer, unsigned int size)
{
    const auto* rest = static_cast<const char*>(buffer);
    while (size != 0) {
        unsigned int count = 0;
        Ret::throw_on_error(sslWrite(rest, size, count));
        rest += count;
        size -= count;
    }
}

void OpenSSLStream::close()
{
    shutdownSSL();
}

int OpenSSLStream::getFileDescriptor() const
{
    return m_connector->fd();
}

std::shared_ptr<ICertificate> OpenSSLStream::getPeerCertificate() const
{
    throw std::logic_error("getPeerCertificate is not implemented");
}

X509_STORE* OpenSSLStream::getCertificateStore() const
{
    std::unique_ptr<X509_STORE, Releaser<X509_STORE_free>> store(X509_STORE_new());
    if (store && X509_STORE_set_default_paths(store.get()) != 1) store.reset();
    return store.release();
}

// --- setting up ---------------------------------------------------------------------------------------------------

Ret OpenSSLStream::initSSLClient()
{
    if (Ret ret = initialize(); ret.code != 0) return ret;
    if (m_context) return {EALREADY, "SSL client has already be initialized."};
    if (!m_store) return {ENOENT, "ISSLCertificateStore is nullptr"};

    std::string certificatePem;
    std::string keyPem;
    const auto forgetKey = make_scope_exit([&] { OPENSSL_cleanse(keyPem.data(), keyPem.size()); });
    m_store->exportCertificatePrivateKeyPair(certificatePem, keyPem);
    const X509Ptr certificate = parseCertificate(certificatePem);
    if (!certificate) return {ENOENT, "Can't load certificate string"};
    const KeyPtr key = parseKey(keyPem);
    if (!key) return {ENOENT, "Can't load key string"};

    m_context.reset(SSL_CTX_new(TLS_client_method()));
    if (!m_context) return {EINVAL, "Unable to create ssl context: " + pumpErrorQueueToString()};
    if (Ret ret = disableProtocols(); ret.code != 0) return ret;
    X509_STORE* const authorities = getCertificateStore();
    if (authorities == nullptr) return {ENOENT, "Can't load CA store"};
    SSL_CTX_set_cert_store(m_context.get(), authorities); // the context's own now
    SSL_CTX_set_verify(m_context.get(), SSL_VERIFY_PEER, nullptr);

    if (SSL_CTX_use_certificate(m_context.get(), certificate.get()) != 1)
        return {EINVAL, "Unable to load client certificate into ssl context: " + pumpErrorQueueToString()};
    if (SSL_CTX_use_PrivateKey(m_context.get(), key.get()) != 1)
        return {EINVAL, "Unable to load client key into ssl context: " + pumpErrorQueueToString()};
    return {};
}

Ret OpenSSLStream::disableProtocols()
{
    if ((SSL_CTX_set_options(m_context.get(), kRefusedProtocols) & kRefusedProtocols) != kRefusedProtocols)
        return {EINVAL, "Unable to set SSL options for limiting protocol negotiation"};
    return {};
}

// --- shaking hands ------------------------------------------------------------------------------------------------

Ret OpenSSLStream::connectToPeer()
{
    if (m_connection) return {EALREADY, "ssl connection has already be made."};
    if (Ret ret = prepareConnection(); ret.code != 0) return ret;
    if (Ret ret = shakeHands(); ret.code != 0) return ret;
    return checkPeer();
}

Ret OpenSSLStream::prepareConnection()
{
    m_connection.reset(SSL_new(m_context.get()));
    if (!m_connection) return {EINVAL, "Unable to create ssl connection structure: " + pumpErrorQueueToString()};
    SSL* const connection = m_connection.get();
    const int fd = getFileDescriptor();
    if (SSL_set_fd(connection, fd) != 1 || !setQuietBio(connection, fd))
        return {EINVAL, "Unable to set ssl fd: " + pumpErrorQueueToString()};
    if (!setHost(connection, m_connector->getHost()))
        return {EINVAL, "Unable to set ssl verify host: " + pumpErrorQueueToString()};
    SSL_set_hostflags(connection, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    return {};
}

Ret OpenSSLStream::shakeHands()
{
    const auto start = Clock::now();
    while (true) {
        logErrorQueue("connectToPeer");
        errno = 0;
        const Ret ret = getSSLFunctionRet(SSL_connect(m_connection.get()), true);
        if (ret.code == SSL_ERROR_NONE) return {};
        if (std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start) >= m_timeout)
            return {ETIMEDOUT, "SSL_connect timed out after " + std::to_string(m_timeout.count())};

        Ret wait;
        switch (ret.code) {
        case SSL_ERROR_WANT_WRITE:
            wait = handleWantWrite();
            break;
        case SSL_ERROR_WANT_READ:
            wait = handleWantRead();
            break;
        case SSL_ERROR_ZERO_RETURN:
            return {ECONNABORTED, "Error on ssl connect: " + ret.message};
        default:
            return {EINVAL, "Error on ssl connect: " + ret.message};
        }
        if (wait.code != 0) return wait;
    }
}

Ret OpenSSLStream::checkPeer()
{
    const X509Ptr peer(SSL_get1_peer_certificate(m_connection.get()));
    if (!peer) return {EINVAL, "SSL client connection did not receive server certificate."};
    if (SSL_get_verify_result(m_connection.get()) != X509_V_OK)
        return {EINVAL, "SSL failed to verify server certificate"};

    Logger::Entry(m_logger, Logger::INFO) << "SSL verified server certificate";
    Logger::Entry(m_logger, Logger::INFO)
        << "SSL connection completed using " << SSL_CIPHER_get_name(SSL_get_current_cipher(m_connection.get()));
    logName(m_logger, "Subject", X509_get_subject_name(peer.get()));
    logName(m_logger, "Issuer", X509_get_issuer_name(peer.get()));
    return {};
}

// --- waiting ------------------------------------------------------------------------------------------------------

// A wait that is interrupted by a signal is returned as failed: callers tell the two directions by its text.
Ret OpenSSLStream::waitFor(short events, const char* failure, const char* timedOut) const
{
    const timespec limit{m_timeout.count(), 0};
    pollfd wait{getFileDescriptor(), events, 0};
    int ready = wait.fd < 0 ? 0 : ::ppoll(&wait, 1, m_timeout.count() == 0 ? nullptr : &limit, nullptr);
    if (wait.fd < 0 || (ready > 0 && (wait.revents & POLLNVAL) != 0)) {
        errno = EBADF;
        ready = -1;
    }
    if (ready < 0) {
        const int error = errno;
        return {error, failure + std::to_string(error)};
    }
    if (ready == 0) return {ETIMEDOUT, timedOut};
    return {};
}

Ret OpenSSLStream::handleWantRead() const
{
    return waitFor(POLLIN, "Error waiting for socket to become readable: ", "Want read timed out.");
}

Ret OpenSSLStream::handleWantWrite() const
{
    return waitFor(POLLOUT, "Error waiting for socket to become writable: ", "Want write timed out.");
}

// --- results ------------------------------------------------------------------------------------------------------

// To be called right after the OpenSSL function, which itself is called with errno 0 and an empty queue.
Ret OpenSSLStream::getSSLFunctionRet(int result, bool quiet)
{
    const int error = errno;
    const int sslError = SSL_get_error(m_connection.get(), result);
    if (sslError == SSL_ERROR_NONE) return {};
    if (sslError == SSL_ERROR_SSL || sslError == SSL_ERROR_SYSCALL) m_hasFailed = true;

    const std::string name = sslError == SSL_ERROR_SYSCALL && error != 0 ? PosixError("SSL_ERROR_SYSCALL", error).what()
                                                                         : errorName(sslError);
    const std::string message = "Error: " + name + " |  Error Queue: " + pumpErrorQueueToString();
    if (quiet) return RetNoLog(sslError, message);
    return {sslError, message};
}

void OpenSSLStream::logErrorQueue(const char* before)
{
    if (const std::string queue = pumpErrorQueueToString(); !queue.empty())
        Logger::Entry(m_logger, Logger::ERROR) << "Error Queue before " << before << ": " << queue;
}

// --- data ---------------------------------------------------------------------------------------------------------

Ret OpenSSLStream::sslRead(void* buffer, unsigned int size, unsigned int& bytesRead)
{
    bytesRead = 0;
    if (!m_connection) return {ENOTCONN, "SSL_read without a connection"};
    logErrorQueue("sslRead");
    errno = 0;
    const int count = SSL_read(m_connection.get(), buffer, asInt(size));
    if (count <= 0) return notMoved(count, "Read", "SSL_read");
    bytesRead = static_cast<unsigned int>(count);
    return {};
}

Ret OpenSSLStream::sslWrite(const void* buffer, unsigned int size, unsigned int& bytesWritten)
{
    bytesWritten = 0;
    if (!m_connection) return {ENOTCONN, "SSL_write without a connection"};
    logErrorQueue("sslWrite");
    errno = 0;
    const int count = SSL_write(m_connection.get(), buffer, asInt(size));
    if (count <= 0) return notMoved(count, "Write", "SSL_write");
    bytesWritten = static_cast<unsigned int>(count);
    return {};
}

// Success if another try is worth it. To be called right after the OpenSSL function.
Ret OpenSSLStream::notMoved(int result, const std::string& direction, const std::string& function)
{
    const Ret ret = getSSLFunctionRet(result, true);
    switch (ret.code) {
    case SSL_ERROR_NONE:
        Logger::Entry(m_logger, Logger::DEBUG)
            << direction << " returned SSL_ERROR_NONE(" << ret.code << ") " << ret.message;
        return {};
    case SSL_ERROR_WANT_READ:
        return handleWantRead();
    case SSL_ERROR_WANT_WRITE:
        return handleWantWrite();
    case SSL_ERROR_ZERO_RETURN:
        // Only reading tells more, as log scanners know it.
        return {ECONNRESET, direction + " returned EOF, remote closed socket." +
                                (direction == "Read" ? ' ' + ret.message : std::string())};
    default:
        return {ret.code, "SSL error on " + function + ": " + ret.message};
    }
}

// --- closing ------------------------------------------------------------------------------------------------------

void OpenSSLStream::shutdownSSL()
{
    if (m_connection) notifyPeer();
    m_connection.reset();
    m_hasFailed = false;
    m_context.reset();
}

void OpenSSLStream::notifyPeer()
{
    const bool isUnfinished = SSL_in_init(m_connection.get()) != 0;
    if (isUnfinished || m_hasFailed) {
        Logger::Entry(m_logger, Logger::DEBUG)
            << "skipping ssl shutdown because of: "
            << (isUnfinished ? "never initialized a connection" : "previous ssl error");
        return;
    }
    Logger::Entry(m_logger, Logger::DEBUG) << "Starting ssl shutdown.";
    logErrorQueue("shutdownSSL");
    errno = 0;
    if (const int result = SSL_shutdown(m_connection.get()); result < 0) {
        if (const Ret ret = getSSLFunctionRet(result, true); ret.code != 0)
            Logger::Entry(m_logger, Logger::ERROR)
                << "Error shutting down ssl connection(" << ret.code << "): " << ret.message;
    }
    Logger::Entry(m_logger, Logger::DEBUG) << "Completed ssl shutdown.";
}

} // namespace agent
