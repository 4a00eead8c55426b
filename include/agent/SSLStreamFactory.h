#pragma once

#include "agent/CertificateStoreDescriptor.h"
#include "agent/Export.h"
#include "agent/OpenSSLStream.h"
#include "agent/TCPConnector.h"
#include "agent/info/Logger.h"

#include <chrono>
#include <memory>

namespace agent {

/// Makes the TLS stream that fits a certificate store. Keeps no state but the logger; any thread.
class AGENTKIT_API SSLStreamFactory {
public:
    /// @param logger  borrowed; must outlive the factory and its streams
    explicit SSLStreamFactory(info::Logger& logger);

    /// A stream that is not yet connected.
    /// @param descriptor  of a file store: borrowed by the stream, which it must outlive
    /// @throws std::invalid_argument  for an unknown type of store
    /// @throws std::runtime_error     for the native store, which gives no streams on this platform; before that,
    ///                                what reading its certificate throws
    std::shared_ptr<ISSLClient> makeClientStream(const ICertificateStoreDescriptor& descriptor,
        std::shared_ptr<ITCPConnector> connector, const std::chrono::seconds& timeout) const;

private:
    info::Logger& m_logger;
};

} // namespace agent
