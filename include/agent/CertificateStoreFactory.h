#pragma once

#include "agent/CertificateStore.h"
#include "agent/CertificateStoreDescriptor.h"
#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <memory>

namespace agent {

/// Makes the certificate store that fits a descriptor.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ICertificateStoreFactory {
public:
    virtual ~ICertificateStoreFactory();

    /// @param descriptor  borrowed by the store, which it must outlive
    virtual std::shared_ptr<ISSLCertificateStore> createStore(const ICertificateStoreDescriptor& descriptor) const = 0;

    /// Whether certificates and keys can be got out of stores of this type.
    virtual bool supportsExporting(CertificateStoreType type) const = 0;
};

/// Threads: keeps no state but the logger; any thread.
class AGENTKIT_API CertificateStoreFactory : public ICertificateStoreFactory {
public:
    /// @param logger  borrowed; must outlive the factory and its stores
    explicit CertificateStoreFactory(info::Logger& logger);

    /// @throws std::invalid_argument  for a type that is neither of the two
    std::shared_ptr<ISSLCertificateStore> createStore(const ICertificateStoreDescriptor& descriptor) const override;

    /// False for a type that is neither of the two.
    /// @throws std::runtime_error  for the native store, which is not implemented on this platform
    bool supportsExporting(CertificateStoreType type) const override;

private:
    info::Logger& m_logger;
};

} // namespace agent
