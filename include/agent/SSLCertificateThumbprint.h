#pragma once

#include "agent/Export.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <gnutls/x509.h>

#include <memory>
#include <string>

namespace agent {

/// A certificate's SHA-1 fingerprint as text, and the file that keeps it.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ISSLCertificateThumbprint {
public:
    virtual ~ISSLCertificateThumbprint();

    virtual void createFromThumbFile(const Path& path) = 0;
    virtual void remove() = 0;
    virtual void save() = 0;
    virtual void setPath(const Path& path) = 0;
    virtual std::string str() const = 0;
};

/// The thumbprint of a certificate: 40 hexadecimal digits, in lower case when they come from a certificate.
///
///     SSLCertificateThumbprint thumbprint(logger);
///     thumbprint.setCertificateContents(pem);
///     thumbprint.setPath("/etc/agent/thumbprint");
///     thumbprint.save();
///
/// The file holds the 40 digits and nothing else, no newline either. Errors are logged at ERROR before they are
/// thrown. Beware: an error about a file's content logs that content.
/// Threads: one at a time. Copies share their state.
class AGENTKIT_API SSLCertificateThumbprint : public ISSLCertificateThumbprint {
public:
    /// @param logger  borrowed; must outlive the thumbprint
    explicit SSLCertificateThumbprint(info::Logger& logger);

    SSLCertificateThumbprint(const SSLCertificateThumbprint&) = default;
    SSLCertificateThumbprint& operator=(const SSLCertificateThumbprint&) = default;
    ~SSLCertificateThumbprint() override;

    /// Reads a thumbprint, in upper or lower case, and keeps the path, that also if it fails.
    /// @throws PosixError          if the file cannot be read
    /// @throws std::runtime_error  if it holds anything else; the thumbprint stays as it was
    void createFromThumbFile(const Path& path) override;

    /// Removes the file.
    void remove() override;

    /// Writes the file, with mode 0600 if it is new. It is not truncated: a longer one keeps its tail, and is then
    /// refused by createFromThumbFile().
    /// @throws std::runtime_error  naming the file; the system's reason is logged at DEBUG
    void save() override;

    void setPath(const Path& path) override;

    /// The digits; empty at first.
    std::string str() const override;

    /// @throws GnuTlsError  if the certificate has no fingerprint (or is null)
    void setCertificateContents(gnutls_x509_crt_t const& certificate);

    /// @param pem  of one certificate
    /// @throws GnuTlsError  if it is none
    void setCertificateContents(const std::string& pem);

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

} // namespace agent
