#pragma once

#include "agent/Export.h"
#include "agent/OpenSSLStream.h"
#include "agent/TCPConnector.h"
#include "agent/info/Logger.h"
#include "agent/vnt/common/Ret.h"

#include <chrono>
#include <memory>

namespace agent::vnt {

/// Reads and writes a connection, whatever carries it.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IIoWrapper {
public:
    virtual ~IIoWrapper();

    virtual ::vnt::common::Ret init() = 0;
    virtual ::vnt::common::Ret read(void* buffer, unsigned int size, unsigned int& count) = 0;
    virtual ::vnt::common::Ret write(const void* buffer, unsigned int size) = 0;
};

/// A TLS stream where there is one, else the connector's plain socket.
///
///     IoWrapper io(logger, stream, connector, std::chrono::seconds(30), false);
///     Ret ret = io.init();
///     if (ret.code == 0) ret = io.write(request, size);
///
/// A std::exception of the TLS stream becomes a result of code 22 with its text; results of the plain socket are
/// SocketIo's, and 107 where there is none.
/// Threads: one at a time.
class AGENTKIT_API IoWrapper : public IIoWrapper {
public:
    /// @param logger      borrowed; must outlive the wrapper
    /// @param client      may be null
    /// @param connector   connected; may be null with a client
    /// @param timeout     of the plain socket, see SocketIo; a TLS stream has its own
    /// @param logTraffic  dump all data to the log at INFO. Beware: secrets included, and of a read the caller's
    ///                    whole buffer, not only what was read into it.
    IoWrapper(info::Logger& logger, std::shared_ptr<ISSLClient> client, std::shared_ptr<ITCPConnector> connector,
        const std::chrono::seconds& timeout, bool logTraffic);

    /// Connects the TLS stream, if there is one.
    /// @throws what its connect() throws
    ::vnt::common::Ret init() override;

    /// Reads what is there.
    /// @param count  out: bytes read; unchanged on failure
    ::vnt::common::Ret read(void* buffer, unsigned int size, unsigned int& count) override;

    /// Writes everything.
    ::vnt::common::Ret write(const void* buffer, unsigned int size) override;

private:
    ::vnt::common::Ret readPlain(void* buffer, unsigned int& size);
    bool isConnected() const;
    void logData(const char* what, const void* buffer, unsigned int size);

    std::shared_ptr<ITCPConnector> m_connector;
    bool m_logTraffic;
    std::chrono::seconds m_timeout;
    info::Logger& m_logger;
    std::shared_ptr<ISSLClient> m_client;
};

} // namespace agent::vnt
