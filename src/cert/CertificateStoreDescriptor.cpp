#include "agent/CertificateStoreDescriptor.h"

#include "agent/SSLCertificateThumbprint.h"
#include "agent/file/Operations.h"

#include <stdexcept>
#include <utility>

namespace agent {

std::string to_string(CertificateStoreType type)
{
    switch (type) {
    case CertificateStoreType::Native:
        return "Native";
    case CertificateStoreType::File:
        return "File";
    }
    return "Unknown CertificateStoreType: " + std::to_string(static_cast<int>(type));
}

ICertificateStoreDescriptor::~ICertificateStoreDescriptor() = default;

FileCertificateStoreDescriptor::FileCertificateStoreDescriptor(
    Path certificate, Path privateKey, Path trustChain, Path thumbprint)
    : m_certificate(std::move(certificate))
    , m_privateKey(std::move(privateKey))
    , m_trustChain(std::move(trustChain))
    , m_thumbprint(std::move(thumbprint))
{
}

CertificateStoreType FileCertificateStoreDescriptor::getStoreType() const
{
    return CertificateStoreType::File;
}

Path FileCertificateStoreDescriptor::getPrivateKeyPath() const
{
    return m_privateKey;
}

Path FileCertificateStoreDescriptor::getCertificatePath() const
{
    return m_certificate;
}

Path FileCertificateStoreDescriptor::getThumbprintPath() const
{
    return m_thumbprint;
}

Path FileCertificateStoreDescriptor::getTrustChainPath() const
{
    return m_trustChain;
}

WindowsCertificateStoreDescriptor::WindowsCertificateStoreDescriptor(info::Logger& logger, Path thumbprintFile)
    : m_logger(logger)
    , m_thumbprintFile(std::move(thumbprintFile))
{
    if (m_thumbprintFile.u8string().empty()) throw std::invalid_argument("Requires path of the thumbprint file.");
}

CertificateStoreType WindowsCertificateStoreDescriptor::getStoreType() const
{
    return CertificateStoreType::Native;
}

Path WindowsCertificateStoreDescriptor::getPrivateKeyPath() const
{
    return getCertificateStorePath();
}

Path WindowsCertificateStoreDescriptor::getCertificatePath() const
{
    return getCertificateStorePath();
}

Path WindowsCertificateStoreDescriptor::getThumbprintPath() const
{
    return m_thumbprintFile;
}

Path WindowsCertificateStoreDescriptor::getTrustChainPath() const
{
    return {};
}

Path WindowsCertificateStoreDescriptor::getCertificateStorePath() const
{
    SSLCertificateThumbprint thumbprint(m_logger);
    if (file::exists(m_thumbprintFile)) thumbprint.createFromThumbFile(m_thumbprintFile);
    if (thumbprint.str().empty())
        throw std::runtime_error("Can't get a certificate store path without a stored thumbprint.");
    return Path(R"(CurrentUser\MY\)") / thumbprint.str();
}

} // namespace agent
