#pragma once

#include "agent/Certificate.h"
#include "agent/CertificateStoreDescriptor.h"
#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <memory>
#include <string>

namespace agent {

/// Keeps the agent's client certificate, its private key and a trust chain. All texts are PEM.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ISSLCertificateStore {
public:
    virtual ~ISSLCertificateStore();

    /// Whether both the certificate and its key are there.
    virtual bool certificateExists() const = 0;
    virtual bool trustChainExists() const = 0;

    virtual bool supportsAddTrustChain() const = 0;
    virtual void addTrustChain(const std::string& pem) = 0;

    virtual bool supportsExporting() const = 0;
    virtual void exportCertificatePrivateKeyPair(std::string& certificatePem, std::string& privateKeyPem) const = 0;
    virtual void exportTrustChain(std::string& pem) const = 0;

    /// @return  the certificate as stored
    virtual std::shared_ptr<Certificate> addCertificate(
        const std::string& certificatePem, const std::string& privateKeyPem) = 0;
    virtual void removeCertificate() = 0;
    virtual void removeCertificatesByIssuer(const std::string& issuer) = 0;
};

/// A store of PEM files.
///
///     const FileCertificateStoreDescriptor descriptor(certificate, privateKey, trustChain, thumbprint);
///     FileCertificateStore(logger, descriptor).addCertificate(certificatePem, privateKeyPem);
///
/// Failures are PosixError unless stated. What was written before a failure stays.
/// Threads: one at a time; two processes that write the same files are not coordinated.
class AGENTKIT_API FileCertificateStore : public ISSLCertificateStore {
public:
    /// @param logger      borrowed, as is the descriptor; both must outlive the store
    FileCertificateStore(info::Logger& logger, const ICertificateStoreDescriptor& descriptor);

    bool certificateExists() const override;
    bool trustChainExists() const override;
    bool supportsAddTrustChain() const override;
    void addTrustChain(const std::string& pem) override;
    bool supportsExporting() const override;

    /// @throws std::runtime_error  if the key file is shorter than the system says; nothing is exported then
    void exportCertificatePrivateKeyPair(std::string& certificatePem, std::string& privateKeyPem) const override;
    void exportTrustChain(std::string& pem) const override;

    /// Writes both files, then reads the certificate. The key's file is readable by its owner alone before the key
    /// is in it, whatever the umask and whatever its mode was.
    /// @throws as Certificate does, after both files were written, if the certificate is none
    std::shared_ptr<Certificate> addCertificate(
        const std::string& certificatePem, const std::string& privateKeyPem) override;

    /// Removes the certificate and the thumbprint. The key and the trust chain stay on purpose: the next
    /// certificate overwrites them.
    void removeCertificate() override;

    /// The same as removeCertificate(): there is only one, whatever its issuer.
    void removeCertificatesByIssuer(const std::string& issuer) override;

    static bool canExport();

private:
    info::Logger& m_logger;
    const ICertificateStoreDescriptor& m_descriptor;
};

/// The operating system's own store. There is none on this platform: every operation throws std::runtime_error
/// "Not implemented.".
class AGENTKIT_API SSLCertificateStore : public ISSLCertificateStore {
public:
    SSLCertificateStore(info::Logger& logger, const ICertificateStoreDescriptor& descriptor);

    bool certificateExists() const override;
    bool trustChainExists() const override;
    bool supportsAddTrustChain() const override;
    void addTrustChain(const std::string& pem) override;
    bool supportsExporting() const override;
    void exportCertificatePrivateKeyPair(std::string& certificatePem, std::string& privateKeyPem) const override;
    void exportTrustChain(std::string& pem) const override;
    std::shared_ptr<Certificate> addCertificate(
        const std::string& certificatePem, const std::string& privateKeyPem) override;
    void removeCertificate() override;
    void removeCertificatesByIssuer(const std::string& issuer) override;

    static bool canExport();

private:
    [[maybe_unused]] info::Logger& m_logger;
    [[maybe_unused]] const ICertificateStoreDescriptor& m_descriptor;
};

} // namespace agent
