#include "RemoteReplica.h"

#include "agent/IpEndpoint.h"
#include "agent/SSLStreamFactory.h"

#include <chrono>
#include <limits>
#include <stdexcept>

namespace backup {

using agent::info::Logger;
using protocol::Type;
using vnt::common::Ret;

namespace {

constexpr std::chrono::seconds kConnectTimeout{10};
constexpr std::chrono::seconds kTimeout{60}; // the server reads its whole replica before it answers
constexpr unsigned int kLargestWrite = 1U << 20;

// Keepalive, in seconds: a server that is gone is noticed after two minutes.
constexpr int kKeepIdle = 60;
constexpr int kKeepCount = 6;
constexpr int kKeepInterval = 10;

agent::FileCertificateStoreDescriptor storeIn(const agent::Path& folder)
{
    return {folder / "certificate.pem", folder / "private_key.pem", folder / "trust_chain.pem", folder / "thumbprint"};
}

} // namespace

Bandwidth::Bandwidth(unsigned int bitsPerSecond)
    : m_isLimited(bitsPerSecond != 0)
    , m_limit(bitsPerSecond)
    , m_nominalRate(std::numeric_limits<unsigned int>::max())
{
}

bool Bandwidth::isLimited() const
{
    return m_isLimited;
}

void Bandwidth::setLimited(bool limited)
{
    m_isLimited = limited;
}

unsigned int Bandwidth::limitInBitsPerSecond() const
{
    return m_limit;
}

void Bandwidth::setLimitInBitsPerSecond(unsigned int rate)
{
    m_limit = rate;
}

unsigned int Bandwidth::nominalRateInBitsPerSecond() const
{
    return m_nominalRate;
}

void Bandwidth::setNominalRateInBitsPerSecond(unsigned int rate)
{
    m_nominalRate = rate;
}

unsigned int Bandwidth::maximumWriteSizeInBits() const
{
    return 8 * kLargestWrite;
}

RemoteReplica::RemoteReplica(Logger& logger, const Options& options)
    : m_name(options.server)
    , m_store(storeIn(options.certificateStore))
    , m_bandwidth(options.bandwidth)
{
    const agent::IpEndpoint endpoint(options.server);
    if (endpoint.port() == 0 || endpoint.port() > std::numeric_limits<std::uint16_t>::max())
        throw std::invalid_argument("\"" + options.server + "\" is no server of the form host:port");
    m_connector =
        std::make_shared<agent::TCPConnector>(endpoint.host(), static_cast<int>(endpoint.port()), kConnectTimeout);
    Ret::throw_on_error(m_connector->connect());
    Ret::throw_on_error(m_connector->sockOpts(kKeepIdle, kKeepCount, kKeepInterval));
    const auto stream = agent::SSLStreamFactory(logger).makeClientStream(m_store, m_connector, kTimeout);
    m_io = std::make_unique<agent::vnt::IoWrapper>(logger, stream, m_connector, kTimeout, false);
    Ret::throw_on_error(m_io->init());
}

std::optional<std::uint32_t> RemoteReplica::begin(const BlockMap& map)
{
    send(Type::Hello, protocol::helloOf(map));
    const protocol::Message base = expect(Type::Base);
    protocol::Parser parser(base);
    const bool isThere = parser.u32() != 0;
    const std::uint32_t digest = parser.u32();
    parser.end();
    return isThere ? std::optional(digest) : std::nullopt;
}

void RemoteReplica::send(
    const agent::BlockRange& piece, const char* data, std::size_t size, const std::vector<std::uint32_t>& checksums)
{
    protocol::Content content;
    content.u64(piece.start()).u64(piece.count());
    for (const std::uint32_t checksum : checksums) content.u32(checksum);
    send(Type::Blocks, content.bytes(data, size).take());
}

std::uint32_t RemoteReplica::finish(unsigned long blocksSent)
{
    send(Type::End, protocol::Content().u64(blocksSent).take());
    const protocol::Message answer = expect(Type::Digest);
    return protocol::Parser(answer).u32();
}

void RemoteReplica::commit()
{
    send(Type::Commit, {});
    (void)expect(Type::Done);
}

void RemoteReplica::send(Type type, const std::vector<char>& content)
{
    protocol::send([this](const void* data, unsigned int size) { write(data, size); }, type, content);
}

protocol::Message RemoteReplica::expect(Type type)
{
    return protocol::expect([this](void* data, unsigned int size) { read(data, size); }, type);
}

void RemoteReplica::read(void* data, unsigned int size)
{
    auto* rest = static_cast<char*>(data);
    while (size != 0) {
        unsigned int count = 0;
        Ret::throw_on_error(m_io->read(rest, size, count));
        rest += count;
        size -= count;
    }
}

void RemoteReplica::write(const void* data, unsigned int size)
{
    const auto send = [this](const unsigned char* piece, unsigned int length) { return m_io->write(piece, length); };
    const auto* const bytes = static_cast<const unsigned char*>(data);
    Ret::throw_on_error(m_bandwidth.isLimited() ? m_limiter.write(bytes, size, send) : send(bytes, size));
}

} // namespace backup
