#include "RemoteReplica.h"

#include "PeriodicBackup.h"

#include "agent/CircuitBreaker.h"
#include "agent/Format.h"
#include "agent/IpEndpoint.h"
#include "agent/RetryMethod.h"
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

constexpr std::chrono::seconds kReportInterval{2};

// A server that is being started is soon there; one that is down need not be asked all the time.
constexpr int kFailuresToPause = 5;
constexpr unsigned long kPauseMs = 1'000;
constexpr unsigned long kFirstWaitMs = 100;
constexpr unsigned long kLongestWaitMs = 2'000;
constexpr unsigned long kJitterMs = 50;
constexpr double kWaitGrowth = 1.5;

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
    : m_logger(logger)
    , m_name(options.server)
    , m_store(storeIn(options.certificateStore))
    , m_bandwidth(options.bandwidth)
{
    const agent::IpEndpoint endpoint(options.server);
    if (endpoint.port() == 0 || endpoint.port() > std::numeric_limits<std::uint16_t>::max())
        throw std::invalid_argument("\"" + options.server + "\" is no server of the form host:port");
    m_connector =
        std::make_shared<agent::TCPConnector>(endpoint.host(), static_cast<int>(endpoint.port()), kConnectTimeout);
    connect(options);
    Ret::throw_on_error(m_connector->sockOpts(kKeepIdle, kKeepCount, kKeepInterval));
    const auto stream = agent::SSLStreamFactory(logger).makeClientStream(m_store, m_connector, kTimeout);
    m_io = std::make_unique<agent::vnt::IoWrapper>(logger, stream, m_connector, kTimeout, false);
    Ret::throw_on_error(m_io->init());
}

void RemoteReplica::connect(const Options& options)
{
    using Status = agent::IRetryMethod::RetriableFuncStatus;
    std::string failure;
    agent::CircuitBreaker breaker(m_logger, kFailuresToPause, kPauseMs);
    const auto attempt = [&] {
        if (isStopping()) return Status::Failure;
        try {
            breaker.execute([&] { Ret::throw_on_error(m_connector->connect()); });
            return Status::Success;
        } catch (const std::exception& e) {
            failure = e.what();
            return Status::Retry;
        }
    };
    agent::TruncatedExponentialBackoffRetry retry(
        m_logger, kFirstWaitMs, 1000UL * options.patience, kLongestWaitMs, kJitterMs, kWaitGrowth);
    if (!retry.callWithRetry(attempt)) throw std::runtime_error("cannot reach " + m_name + ": " + failure);
}

std::optional<std::uint32_t> RemoteReplica::begin(const BlockMap& map)
{
    m_sent.emplace("bytes sent", std::chrono::seconds(1));
    m_nextReport = kReportInterval;
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
    if (isStopping()) throw std::runtime_error("told to stop");
    send(Type::Blocks, content.bytes(data, size).take());
    if (m_sent->getElapsedDuration() > m_nextReport) reportRates();
}

void RemoteReplica::reportRates()
{
    m_nextReport = m_sent->getElapsedDuration() + kReportInterval;
    const auto rate = [](double value) { return agent::formatBytes(static_cast<unsigned long>(value), 1) + "/s"; };
    Logger::Entry(m_logger, Logger::INFO)
        << "Sent:     " << agent::formatBytes(m_sent->getCount(), 1) << ", " << rate(m_sent->getRateMean())
        << " on average, " << rate(m_sent->getRate5Sec()) << " of late";
}

std::uint32_t RemoteReplica::finish(unsigned long blocksSent)
{
    send(Type::End, protocol::Content().u64(blocksSent).take());
    reportRates();
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
    const auto send = [this](const unsigned char* piece, unsigned int length) {
        Ret ret = m_io->write(piece, length);
        if (ret.code == 0) m_sent->mark(length);
        return ret;
    };
    const auto* const bytes = static_cast<const unsigned char*>(data);
    Ret::throw_on_error(m_bandwidth.isLimited() ? m_limiter.write(bytes, size, send) : send(bytes, size));
}

} // namespace backup
