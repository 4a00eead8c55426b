#include "agent/CertificateStoreFactory.h"

#include <stdexcept>

namespace agent {

ICertificateStoreFactory::~ICertificateStoreFactory() = default;

CertificateStoreFactory::CertificateStoreFactory(info::Logger& logger)
    : m_logger(logger)
{
}

std::shared_ptr<ISSLCertificateStore> CertificateStoreFactory::createStore(
    const ICertificateStoreDescriptor& descriptor) const
{
    const CertificateStoreType type = descriptor.getStoreType();
    switch (type) {
    case CertificateStoreType::Native:
        return std::make_shared<SSLCertificateStore>(m_logger, descriptor);
    case CertificateStoreType::File:
        return std::make_shared<FileCertificateStore>(m_logger, descriptor);
    }
    throw std::invalid_argument(
        "must provide registered type to create certificate store. Type provided: " + to_string(type));
}

bool CertificateStoreFactory::supportsExporting(CertificateStoreType type) const
{
    switch (type) {
    case CertificateStoreType::Native:
        return SSLCertificateStore::canExport();
    case CertificateStoreType::File:
        return FileCertificateStore::canExport();
    }
    return false;
}

} // namespace agent
