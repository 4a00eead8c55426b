#pragma once

#include "agent/Export.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <string>

namespace agent {

enum class CertificateStoreType : int {
    Native = 0, ///< the operating system's own
    File = 1,   ///< PEM files
};

/// "Native", "File", or "Unknown CertificateStoreType: " and the number.
AGENTKIT_API std::string to_string(CertificateStoreType type);

/// Says where a client certificate and what belongs to it are.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ICertificateStoreDescriptor {
public:
    virtual ~ICertificateStoreDescriptor();

    virtual CertificateStoreType getStoreType() const = 0;
    virtual Path getPrivateKeyPath() const = 0;
    virtual Path getCertificatePath() const = 0;
    virtual Path getThumbprintPath() const = 0;
    virtual Path getTrustChainPath() const = 0;
};

/// Four files.
class AGENTKIT_API FileCertificateStoreDescriptor : public ICertificateStoreDescriptor {
public:
    FileCertificateStoreDescriptor(Path certificate, Path privateKey, Path trustChain, Path thumbprint);

    CertificateStoreType getStoreType() const override;
    Path getPrivateKeyPath() const override;
    Path getCertificatePath() const override;
    Path getThumbprintPath() const override;
    Path getTrustChainPath() const override;

private:
    Path m_certificate;
    Path m_privateKey;
    Path m_trustChain;
    Path m_thumbprint;
};

/// A certificate in the operating system's own store, found there by the thumbprint that a file keeps.
class AGENTKIT_API WindowsCertificateStoreDescriptor : public ICertificateStoreDescriptor {
public:
    /// @param logger  borrowed; must outlive the descriptor
    /// @throws std::invalid_argument  if the path is empty
    WindowsCertificateStoreDescriptor(info::Logger& logger, Path thumbprintFile);

    CertificateStoreType getStoreType() const override;

    /// Both are getCertificateStorePath().
    Path getPrivateKeyPath() const override;
    Path getCertificatePath() const override;

    Path getThumbprintPath() const override;

    /// Empty: there is none.
    Path getTrustChainPath() const override;

    /// "CurrentUser\MY\", '/' and the thumbprint, which is read from the file at each call.
    /// @throws std::runtime_error  if there is no file, or no thumbprint in it
    Path getCertificateStorePath() const;

private:
    info::Logger& m_logger;
    Path m_thumbprintFile;
};

} // namespace agent
