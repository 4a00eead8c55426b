#include "agent/SSLStreamFactory.h"

#include "agent/Certificate.h"
#include "agent/CertificateStoreFactory.h"

#include <stdexcept>
#include <utility>

namespace agent {

SSLStreamFactory::SSLStreamFactory(info::Logger& logger)
    : m_logger(logger)
{
}

std::shared_ptr<ISSLClient> SSLStreamFactory::makeClientStream(const ICertificateStoreDescriptor& descriptor,
    std::shared_ptr<ITCPConnector> connector, const std::chrono::seconds& timeout) const
{
    const CertificateStoreType type = descriptor.getStoreType();
    switch (type) {
    case CertificateStoreType::File:
        return std::make_shared<OpenSSLStream>(
            m_logger, std::move(connector), CertificateStoreFactory(m_logger).createStore(descriptor), timeout);
    case CertificateStoreType::Native:
        return Certificate(m_logger, descriptor.getCertificatePath()).makeClientStream(std::move(connector), timeout);
    }
    throw std::invalid_argument("must provide registered type to create SSL stream. Type provided: " + to_string(type));
}

} // namespace agent
