#include "agent/Certificate.h"

#include "core/Io.h"

#include "agent/GnuTlsError.h"
#include "agent/SSLCertificateThumbprint.h"

#include <fcntl.h>
#include <gnutls/abstract.h>

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace agent {

namespace {

constexpr std::size_t kMaximumFileSize = 50'000;
constexpr std::string_view kNetscapeCommentOid = "2.16.840.1.113730.1.13"; // netscape-comment
constexpr unsigned int kMaximumExtensions = 100;
constexpr std::size_t kLongestShortForm = 127; // X.690, 8.1.3.4: longer DER values have their length in several bytes
constexpr char kIA5String = 22;                // X.680, 8.4: the universal tag

struct ReleaseTrustList {
    // 0: the authorities stay their owners'.
    void operator()(gnutls_x509_trust_list_t list) const noexcept { gnutls_x509_trust_list_deinit(list, 0); }
};
struct ReleasePublicKey {
    void operator()(gnutls_pubkey_t key) const noexcept { gnutls_pubkey_deinit(key); }
};
using TrustListPtr = std::unique_ptr<std::remove_pointer_t<gnutls_x509_trust_list_t>, ReleaseTrustList>;
using PublicKeyPtr = std::unique_ptr<std::remove_pointer_t<gnutls_pubkey_t>, ReleasePublicKey>;

/// An array of certificates as GnuTLS hands it over; owns the array and what is in it.
class Certificates {
public:
    Certificates() = default;
    Certificates(const Certificates&) = delete;
    Certificates& operator=(const Certificates&) = delete;
    ~Certificates()
    {
        for (unsigned int i = 0; i < m_size; ++i) gnutls_x509_crt_deinit(m_list[i]); // null is fine
        gnutls_free(m_list);
    }

    int import(const gnutls_datum_t& buffer, gnutls_x509_crt_fmt_t format)
    {
        return gnutls_x509_crt_list_import2(&m_list, &m_size, &buffer, format, 0);
    }

    /// Moves the certificates of another array to the end of this one.
    /// @return false if there is no memory; both are unchanged then
    bool append(Certificates& other)
    {
        const std::size_t bytes = (std::size_t{m_size} + other.m_size) * sizeof(void*); // of handles
        auto* const grown = static_cast<gnutls_x509_crt_t*>(gnutls_realloc(m_list, bytes));
        if (grown == nullptr) return false;
        m_list = grown;
        for (unsigned int i = 0; i < other.m_size; ++i) m_list[m_size++] = std::exchange(other.m_list[i], nullptr);
        return true;
    }

    unsigned int size() const { return m_size; }
    gnutls_x509_crt_t release(unsigned int i) { return std::exchange(m_list[i], nullptr); }

private:
    gnutls_x509_crt_t* m_list = nullptr;
    unsigned int m_size = 0;
};

std::string readFile(const Path& path)
{
    const auto refuse = [&](const char* reason) {
        return std::invalid_argument("Failed to import file " + path.u8string() + " as certificate (" + reason + ")");
    };
    const UniqueFd fd = io::open(path, O_RDONLY | O_NONBLOCK); // a pipe without a writer would keep us for good
    std::string content(kMaximumFileSize + 1, '\0');
    std::size_t size = 0;
    ssize_t count = 0;
    do {
        count = io::read(fd.get(), content.data() + size, content.size() - size);
        if (count < 0) throw refuse("failed to open file");
        size += static_cast<std::size_t>(count);
    } while (count != 0);
    if (size > kMaximumFileSize) throw refuse("file too large");
    content.resize(size);
    return content;
}

/// The text of a name, from the GnuTLS function that gives it. An empty name is an error to GnuTLS, but not to us.
template <typename GetName>
std::string nameOf(gnutls_x509_crt_t certificate, GetName getName)
{
    std::size_t size = 0;
    (void)getName(certificate, nullptr, &size);
    std::string text(size, '\0');
    if (size == 0 || getName(certificate, text.data(), &size) < 0) return {};
    text.resize(std::min(size, text.size()));
    if (text.ends_with('\0')) text.pop_back();
    return text;
}

/// The dotted identifier of an extension; empty where it is longer than the one that we look for.
std::string extensionOid(gnutls_x509_crt_t certificate, unsigned int index, int& result)
{
    std::array<char, kNetscapeCommentOid.size() + 1> oid{};
    std::size_t size = oid.size();
    unsigned int critical = 0;
    result = gnutls_x509_crt_get_extension_info(certificate, index, oid.data(), &size, &critical);
    if (result < 0) return {};
    const std::string_view text(oid.data(), std::min(size, oid.size()));
    return std::string(text.substr(0, text.find('\0')));
}

} // namespace

ICertificate::~ICertificate() = default;

void Certificate::Release::operator()(gnutls_x509_crt_t certificate) const noexcept
{
    gnutls_x509_crt_deinit(certificate);
}

Certificate::Certificate(info::Logger& logger)
    : m_logger(logger)
    , m_issuer("")
    , m_subject("")
{
}

Certificate::Certificate(info::Logger& logger, gnutls_x509_crt_t certificate)
    : Certificate(logger)
{
    m_certificate.reset(certificate);
    loadCertificateMembers();
}

Certificate::Certificate(info::Logger& logger, const Path& path)
    : Certificate(logger)
{
    std::string content = readFile(path);
    const gnutls_datum_t buffer{
        reinterpret_cast<unsigned char*>(content.data()), static_cast<unsigned int>(content.size())};
    parseCerts(&buffer, 1, GNUTLS_X509_FMT_PEM);
}

Certificate::Certificate(info::Logger& logger, Cert which, gnutls_session_t session)
    : Certificate(logger)
{
    if (session == nullptr) throw std::invalid_argument("Bad session");
    const gnutls_datum_t* chain = nullptr;
    unsigned int count = 1;
    switch (which) {
    case Cert::Local:
        chain = gnutls_certificate_get_ours(session);
        if (chain == nullptr) throw std::runtime_error("Failed to load local certificate");
        break;
    case Cert::Peer: {
        unsigned int status = 0;
        if (gnutls_certificate_verify_peers2(session, &status) != 0)
            throw std::runtime_error("Failed to verify peer certificate");
        chain = gnutls_certificate_get_peers(session, &count);
        if (chain == nullptr || count == 0) throw std::runtime_error("Failed to load peer certificate");
        break;
    }
    default:
        throw std::invalid_argument("Internal error occurred loading certificate");
    }
    parseCerts(chain, static_cast<int>(count), GNUTLS_X509_FMT_DER);
}

Certificate::~Certificate() = default;

std::string Certificate::getIssuer() const
{
    return m_issuer.getCommonName();
}

std::string Certificate::getName() const
{
    return m_subject.getCommonName();
}

std::string Certificate::getNameBlob() const
{
    return m_subject.getCommonName();
}

std::string Certificate::getIssuerBlob() const
{
    return m_issuer.getCommonName();
}

int Certificate::getDeviceId() const
{
    return m_subject.getDeviceId();
}

std::time_t Certificate::getActivationTime() const
{
    return m_activationTime;
}

std::time_t Certificate::getExpirationTime() const
{
    return m_expirationTime;
}

std::shared_ptr<Certificate> Certificate::getIssuerCertificate() const
{
    return m_issuerCertificate;
}

std::shared_ptr<Certificate> Certificate::getIssuerCertFromChain() const
{
    return m_issuerCertificate;
}

std::shared_ptr<SSLCertificateThumbprint> Certificate::getThumbprint() const
{
    auto thumbprint = std::make_shared<SSLCertificateThumbprint>(m_logger);
    thumbprint->setCertificateContents(m_certificate.get());
    return thumbprint;
}

std::shared_ptr<ISSLClient> Certificate::makeClientStream(
    std::shared_ptr<ITCPConnector> /*connector*/, const std::chrono::seconds& /*timeout*/) const
{
    throw std::runtime_error("Not implemented");
}

std::vector<gnutls_x509_crt_t> Certificate::getChain() const
{
    std::vector<gnutls_x509_crt_t> chain;
    for (const Certificate* link = this; link != nullptr; link = link->m_issuerCertificate.get())
        if (link->m_certificate != nullptr) chain.push_back(link->m_certificate.get());
    return chain;
}

bool Certificate::gnutlsCertificateVerify( // NOLINT(readability-make-member-*): the interface's
    const Certificate& local, unsigned int& status, std::vector<std::string>& errors)
{
    const auto authorities = local.getChain();
    auto chain = getChain();
    const auto verify = [&] {
        gnutls_x509_trust_list_t newList = nullptr;
        if (const int result = gnutls_x509_trust_list_init(&newList, 0); result < 0) return result;
        const TrustListPtr list(newList);
        // Of its result, the count of those added, nothing is asked: what is missing is not trusted.
        (void)gnutls_x509_trust_list_add_cas(
            list.get(), authorities.data(), static_cast<unsigned int>(authorities.size()), 0);
        return gnutls_x509_trust_list_verify_crt(
            list.get(), chain.data(), static_cast<unsigned int>(chain.size()), 0, &status, nullptr);
    };
    if (verify() != 0) {
        errors.emplace_back("Internal error - failed to verify client cert against local certificate");
        return true;
    }

    constexpr std::pair<unsigned int, const char*> kReasons[] = {
        {GNUTLS_CERT_NOT_ACTIVATED, "Cert invalid activation time"},
        {GNUTLS_CERT_SIGNER_NOT_FOUND, "Cert signer not found"},
        {GNUTLS_CERT_EXPIRED, "Cert expired"},
    };
    for (const auto& [bit, text] : kReasons)
        if ((status & bit) != 0) errors.emplace_back(text);
    return (status & GNUTLS_CERT_INVALID) != 0;
}

int Certificate::gnutlsCertificateVerifyData(unsigned int flags, const void* data, const void* signature) const
{
    if (m_certificate == nullptr)
        throw std::runtime_error("Internal error occurred verifying certificate data: uninitialized certificate");
    const std::time_t now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    if (now > m_expirationTime) return GNUTLS_E_EXPIRED;
    if (now < m_activationTime)
        throw std::runtime_error("Error occurred verifying certificate data: Local certificate is not yet activated. "
                                 "Verify that system time is accurate.");

    gnutls_pubkey_t newKey = nullptr;
    if (gnutls_pubkey_init(&newKey) != 0)
        throw std::runtime_error("Failed to initialize pubkey to verify pair ticket signature");
    const PublicKeyPtr key(newKey);
    if (gnutls_pubkey_import_x509(key.get(), m_certificate.get(), 0) != 0)
        throw std::runtime_error("Failed to load local certificate for pair ticket signature verification");
    if (data == nullptr || signature == nullptr) return GNUTLS_E_INVALID_REQUEST;
    return gnutls_pubkey_verify_data2(key.get(), GNUTLS_SIGN_RSA_SHA1, flags, static_cast<const gnutls_datum_t*>(data),
        static_cast<const gnutls_datum_t*>(signature));
}

bool Certificate::hasNSComment(const std::string& comment) const
{
    for (unsigned int index = 0; index < kMaximumExtensions; ++index) {
        int result = 0;
        const std::string oid = extensionOid(m_certificate.get(), index, result);
        if (result == GNUTLS_E_REQUESTED_DATA_NOT_AVAILABLE) return false;
        if (oid == kNetscapeCommentOid && nsCommentExtensionDataMatches(index, comment)) return true;
    }
    return false;
}

bool Certificate::nsCommentExtensionDataMatches(unsigned long extensionIndex, const std::string& comment) const
{
    if (comment.size() > kLongestShortForm || extensionIndex > std::numeric_limits<unsigned int>::max()) return false;
    std::array<char, kLongestShortForm + 2> value{}; // tag, length, text
    std::size_t size = comment.size() + 2;
    if (gnutls_x509_crt_get_extension_data(
            m_certificate.get(), static_cast<unsigned int>(extensionIndex), value.data(), &size) < 0)
        return false;
    return size == comment.size() + 2 && value[0] == kIA5String && value[1] == static_cast<char>(comment.size()) &&
           comment.compare(0, comment.size(), value.data() + 2, comment.size()) == 0;
}

void Certificate::parseCerts(const gnutls_datum_t* data, int count, gnutls_x509_crt_fmt_t format)
{
    Certificates all;
    for (int i = 0; i < count; ++i) {
        Certificates some;
        if (const int result = some.import(data[i], format); result != 0 || some.size() == 0)
            throw GnuTlsError("Failed to import certificate (import error)", result);
        if (!all.append(some))
            throw GnuTlsError("Failed to import certificate (memory allocation error)", GNUTLS_E_MEMORY_ERROR);
    }
    if (all.size() == 0) throw GnuTlsError("Failed to import certificate (import error)", 0);

    // From the last to the first, so that each finds the one that it is to be linked to.
    std::shared_ptr<Certificate> issuer;
    for (unsigned int i = all.size() - 1; i > 0; --i) {
        auto link = std::make_shared<Certificate>(m_logger);
        link->m_certificate.reset(all.release(i));
        link->loadCertificateMembers();
        link->m_issuerCertificate = std::exchange(issuer, link);
    }
    m_certificate.reset(all.release(0));
    m_issuerCertificate = std::move(issuer);
    loadCertificateMembers();
}

void Certificate::loadCertificateMembers()
{
    m_issuer = DistinguishedName(nameOf(m_certificate.get(), gnutls_x509_crt_get_issuer_dn));
    m_subject = DistinguishedName(nameOf(m_certificate.get(), gnutls_x509_crt_get_dn));
    m_activationTime = gnutls_x509_crt_get_activation_time(m_certificate.get());
    m_expirationTime = gnutls_x509_crt_get_expiration_time(m_certificate.get());
}

} // namespace agent
