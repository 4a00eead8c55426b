#include "agent/SSLCertificateThumbprint.h"

#include "agent/File.h"
#include "agent/GnuTlsError.h"
#include "agent/StringUtils.h"
#include "agent/file/Operations.h"

#include <gnutls/gnutls.h>

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>

namespace agent {

namespace {

constexpr std::size_t kSha1Size = 20; // bytes
constexpr std::size_t kDigits = 2 * kSha1Size;

struct ReleaseCertificate {
    void operator()(gnutls_x509_crt_t certificate) const noexcept { gnutls_x509_crt_deinit(certificate); }
};
using CertificatePtr = std::unique_ptr<gnutls_x509_crt_int, ReleaseCertificate>;

bool isThumbprint(std::string_view text)
{
    constexpr std::string_view kHexDigits = "0123456789abcdefABCDEF";
    return text.size() == kDigits && text.find_first_not_of(kHexDigits) == std::string_view::npos;
}

[[noreturn]] void fail(info::Logger& logger, const std::string& text)
{
    info::Logger::Entry(logger, info::Logger::ERROR) << text;
    throw std::runtime_error(text);
}

[[noreturn]] void failSetting(info::Logger& logger, const std::string& reason, int code)
{
    const std::string text = "setCertificateContents: " + reason;
    info::Logger::Entry(logger, info::Logger::ERROR) << text;
    throw GnuTlsError(text, code);
}

/// Logs what an action throws, and lets it go on.
template <typename Action>
auto logged(info::Logger& logger, Action action)
{
    try {
        return action();
    } catch (const std::exception& e) {
        info::Logger::Entry(logger, info::Logger::ERROR) << e.what();
        throw;
    }
}

std::string gnuTlsText(int code)
{
    return " - Error: " + GnuTlsError("", code).codeText(); // under the lock for such texts
}

} // namespace

struct SSLCertificateThumbprint::Impl {
    explicit Impl(info::Logger& logger)
        : m_logger(logger)
    {
    }

    void requireThumbprint(const std::string& text, const std::string& failure) const
    {
        if (isThumbprint(text)) return;
        info::Logger::Entry(m_logger, info::Logger::ERROR) << "invalid thumbprint: " << text;
        fail(m_logger, failure);
    }

    std::string m_thumbprint;
    info::Logger& m_logger;
    Path m_path;
};

ISSLCertificateThumbprint::~ISSLCertificateThumbprint() = default;

SSLCertificateThumbprint::SSLCertificateThumbprint(info::Logger& logger)
    : m_impl(std::make_shared<Impl>(logger))
{
}

SSLCertificateThumbprint::~SSLCertificateThumbprint() = default;

void SSLCertificateThumbprint::createFromThumbFile(const Path& path)
{
    m_impl->m_path = path;
    std::string content = logged(m_impl->m_logger, [&] { return File(m_impl->m_logger, path).slurp(); });
    m_impl->requireThumbprint(content, "Thumbfile contains an invalid thumbprint: " + path.u8string());
    m_impl->m_thumbprint = std::move(content);
}

void SSLCertificateThumbprint::remove()
{
    logged(m_impl->m_logger, [&] { file::remove(m_impl->m_path, false); });
}

void SSLCertificateThumbprint::save()
{
    info::Logger& logger = m_impl->m_logger;
    const std::string path = m_impl->m_path.u8string();
    // In this class's own words; the reason is for those who debug.
    const auto inOwnWords = [&](const char* text, auto action) {
        try {
            action();
        } catch (const std::exception& e) {
            info::Logger::Entry(logger, info::Logger::DEBUG) << e.what();
            fail(logger, text + path);
        }
    };
    const File file(logger, m_impl->m_path);
    inOwnWords("Could not open thumbfile: ",
        [&] { file.open(FileOpenMode::Write | FileOpenMode::Create, FileCreateMode(0600)); });
    inOwnWords("Could not write thumbfile: ", [&] { file.write(m_impl->m_thumbprint); });
    info::Logger::Entry(logger, info::Logger::INFO) << "Saved thumbprint to : " << path;
}

void SSLCertificateThumbprint::setPath(const Path& path)
{
    m_impl->m_path = path;
}

std::string SSLCertificateThumbprint::str() const
{
    return m_impl->m_thumbprint;
}

void SSLCertificateThumbprint::setCertificateContents(gnutls_x509_crt_t const& certificate)
{
    std::array<unsigned char, kSha1Size> fingerprint{};
    std::size_t size = fingerprint.size();
    const int result = gnutls_x509_crt_get_fingerprint(certificate, GNUTLS_DIG_SHA1, fingerprint.data(), &size);
    if (result < 0) failSetting(m_impl->m_logger, "Could not get certificate thumbprint." + gnuTlsText(result), result);

    std::string text = StringUtils::byte_array_to_hex(fingerprint.data(), std::min(size, fingerprint.size()));
    m_impl->requireThumbprint(text, "Certificate yielded an invalid thumbprint: " + text);
    m_impl->m_thumbprint = std::move(text);
}

void SSLCertificateThumbprint::setCertificateContents(const std::string& pem)
{
    gnutls_x509_crt_t newCertificate = nullptr;
    int result = gnutls_x509_crt_init(&newCertificate);
    if (result < 0) failSetting(m_impl->m_logger, "gnutls_x509_crt_init failed.", result);
    const CertificatePtr certificate(newCertificate);

    std::string text = pem; // GnuTLS does not take const
    const gnutls_datum_t buffer{reinterpret_cast<unsigned char*>(text.data()), static_cast<unsigned int>(text.size())};
    result = gnutls_x509_crt_import(certificate.get(), &buffer, GNUTLS_X509_FMT_PEM);
    if (result < 0) failSetting(m_impl->m_logger, "Could not import certificate." + gnuTlsText(result), result);
    setCertificateContents(certificate.get());
}

} // namespace agent
