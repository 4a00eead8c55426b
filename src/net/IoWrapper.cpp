#include "agent/vnt/IoWrapper.h"

#include "agent/Format.h"
#include "agent/vnt/SocketIo.h"

#include <cerrno>
#include <exception>
#include <utility>

namespace agent::vnt {

using ::vnt::common::Ret;

namespace {

constexpr unsigned int kAllBits = 255;

Ret notConnected()
{
    return {ENOTCONN, "IoWrapper has no connection."};
}

/// A TLS operation as a result.
template <typename Operation>
Ret resultOf(Operation operation)
{
    try {
        operation();
    } catch (const std::exception& e) {
        return {EINVAL, e.what()};
    }
    return {};
}

} // namespace

IIoWrapper::~IIoWrapper() = default;

IoWrapper::IoWrapper(info::Logger& logger, std::shared_ptr<ISSLClient> client, std::shared_ptr<ITCPConnector> connector,
    const std::chrono::seconds& timeout, bool logTraffic)
    : m_connector(std::move(connector))
    , m_logTraffic(logTraffic)
    , m_timeout(timeout)
    , m_logger(logger)
    , m_client(std::move(client))
{
}

Ret IoWrapper::init()
{
    if (m_client) m_client->connect();
    return {};
}

Ret IoWrapper::read(void* buffer, unsigned int size, unsigned int& count)
{
    unsigned int bytesRead = size;
    const Ret ret =
        m_client ? resultOf([&] { m_client->read(buffer, size, bytesRead); }) : readPlain(buffer, bytesRead);
    if (ret.code == 0) count = bytesRead;
    logData("IoWrapper received:\n", buffer, size);
    return ret;
}

Ret IoWrapper::write(const void* buffer, unsigned int size)
{
    logData("IoWrapper sending:\n", buffer, size);
    if (m_client) return resultOf([&] { m_client->write(buffer, size); });
    if (!isConnected()) return notConnected();
    return SocketIo::write(m_connector->fd(), m_timeout, size, buffer);
}

Ret IoWrapper::readPlain(void* buffer, unsigned int& size)
{
    if (!isConnected()) return notConnected();
    return SocketIo::read(m_connector->fd(), m_timeout, size, buffer);
}

// 0 is the connector's word for no socket, and to the system it would be standard input.
bool IoWrapper::isConnected() const
{
    return m_connector && m_connector->fd() > 0;
}

void IoWrapper::logData(const char* what, const void* buffer, unsigned int size)
{
    if (!m_logTraffic) return;
    info::Logger::Entry(m_logger, info::Logger::INFO)
        << what << BufferToAsciiString(static_cast<const char*>(buffer), size, kAllBits, '_');
}

} // namespace agent::vnt
