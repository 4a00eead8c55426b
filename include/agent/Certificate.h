#pragma once

#include "agent/DistinguishedName.h"
#include "agent/Export.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <gnutls/gnutls.h>
#include <gnutls/x509.h>

#include <chrono>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

namespace agent {

class Certificate;
class ISSLClient;
class ITCPConnector;
class SSLCertificateThumbprint;

/// What the agent needs to know of an X.509 certificate.
///
/// The order of its virtual functions is part of the binary interface. The common names have two getters each,
/// because platforms whose stores know certificates by binary names give those in the second one.
class AGENTKIT_API ICertificate {
public:
    virtual ~ICertificate();

    /// Common names of the issuer and of the subject.
    virtual std::string getIssuer() const = 0;
    virtual std::string getName() const = 0;
    virtual std::string getNameBlob() const = 0;
    virtual std::string getIssuerBlob() const = 0;

    /// The number that the subject's common name begins with, or -1.
    virtual int getDeviceId() const = 0;

    /// Seconds since the epoch.
    virtual std::time_t getActivationTime() const = 0;
    virtual std::time_t getExpirationTime() const = 0;

    /// The next certificate of the chain that this one came with, or null.
    virtual std::shared_ptr<Certificate> getIssuerCertificate() const = 0;
    virtual std::shared_ptr<Certificate> getIssuerCertFromChain() const = 0;

    virtual std::shared_ptr<SSLCertificateThumbprint> getThumbprint() const = 0;

    /// A TLS stream that presents this certificate, where the platform keeps the key with it.
    virtual std::shared_ptr<ISSLClient> makeClientStream(
        std::shared_ptr<ITCPConnector> connector, const std::chrono::seconds& timeout) const = 0;
};

/// Which certificate of an established session.
enum class Cert : int {
    Local = 0,
    Peer = 1,
};

/// An X.509 certificate, linked with the rest of the chain that it was imported with: leaf, its issuer, and so on in
/// the order of the input, which is not checked, and neither is the validity.
///
///     const Certificate certificate(logger, "/etc/agent/client.pem");
///     certificate.getDeviceId();
///     certificate.getThumbprint()->str();
///
/// A chain lives as long as anybody holds its leaf. The program initialises GnuTLS (which does so by itself when it
/// is loaded).
/// Threads: read-only once constructed, and may then be shared.
class AGENTKIT_API Certificate : public ICertificate {
public:
    /// No certificate: empty names, device id -1, times 0.
    /// @param logger  borrowed, as by the other forms; must outlive the certificate and its chain
    explicit Certificate(info::Logger& logger);

    /// @param certificate  the new object's own from now on, also if this throws
    Certificate(info::Logger& logger, gnutls_x509_crt_t certificate);

    /// Imports a PEM file of at most 50,000 bytes.
    /// @throws std::invalid_argument  if it cannot be read or is too large
    /// @throws GnuTlsError            if it holds no certificate, or a damaged one
    Certificate(info::Logger& logger, const Path& path);

    /// Imports our or the peer's chain from a session after its handshake.
    /// @throws std::invalid_argument  without a session, or if `which` is neither
    /// @throws std::runtime_error     if there is none, or the peer's could not be verified at all. What the
    ///                                verification finds out about the peer is not looked at: the caller has to.
    Certificate(info::Logger& logger, Cert which, gnutls_session_t session);

    Certificate(const Certificate&) = delete;
    Certificate& operator=(const Certificate&) = delete;
    ~Certificate() override;

    std::string getIssuer() const override;
    std::string getName() const override;
    std::string getNameBlob() const override;
    std::string getIssuerBlob() const override;
    int getDeviceId() const override;
    std::time_t getActivationTime() const override;
    std::time_t getExpirationTime() const override;
    std::shared_ptr<Certificate> getIssuerCertificate() const override;
    std::shared_ptr<Certificate> getIssuerCertFromChain() const override;

    /// @throws GnuTlsError  if there is no certificate
    std::shared_ptr<SSLCertificateThumbprint> getThumbprint() const override;

    /// @throws std::runtime_error  always: see SSLStreamFactory
    std::shared_ptr<ISSLClient> makeClientStream(
        std::shared_ptr<ITCPConnector> connector, const std::chrono::seconds& timeout) const override;

    /// This certificate and its issuers along the links; borrowed. Empty if there is none.
    std::vector<gnutls_x509_crt_t> getChain() const;

    /// Verifies this certificate, a client's, with the whole chain of `local` as the authorities.
    /// @param status  out: GnuTLS's status bits; left alone if nothing could be verified
    /// @param errors  a sentence is appended for each reason known; earlier ones stay
    /// @return        true if the certificate is NOT valid
    bool gnutlsCertificateVerify(const Certificate& local, unsigned int& status, std::vector<std::string>& errors);

    /// Verifies an RSA-SHA1 signature, that of a pair ticket, with this certificate's public key.
    /// @param flags      of `gnutls_certificate_verify_flags`
    /// @param data       a `gnutls_datum_t`, as is the signature
    /// @return           GnuTLS's result: not negative if the signature is good; GNUTLS_E_EXPIRED, without looking at
    ///                   the signature, if this certificate has expired
    /// @throws std::runtime_error  if there is no certificate, or it is not yet valid
    int gnutlsCertificateVerifyData(unsigned int flags, const void* data, const void* signature) const;

    /// Whether one of the first hundred extensions is a Netscape comment of exactly this text, of at most 127 bytes.
    bool hasNSComment(const std::string& comment) const;

    /// Whether the extension's value is an IA5String of exactly this text, whatever the extension is.
    bool nsCommentExtensionDataMatches(unsigned long extensionIndex, const std::string& comment) const;

    /// The import behind the constructors: the first certificate becomes this object's, the others its issuers.
    /// @param data  `count` buffers, each with one or more certificates
    /// @throws GnuTlsError  if one has none, or a damaged one; the object is unchanged then
    void parseCerts(const gnutls_datum_t* data, int count, gnutls_x509_crt_fmt_t format);

    /// Reads names and times from the certificate held.
    void loadCertificateMembers();

private:
    struct Release {
        void operator()(gnutls_x509_crt_t certificate) const noexcept;
    };

    info::Logger& m_logger;
    DistinguishedName m_issuer;
    DistinguishedName m_subject;
    std::unique_ptr<gnutls_x509_crt_int, Release> m_certificate;
    std::time_t m_activationTime = 0; // seconds since the epoch
    std::time_t m_expirationTime = 0; // seconds since the epoch
    std::shared_ptr<Certificate> m_issuerCertificate;
};

} // namespace agent
