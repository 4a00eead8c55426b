#pragma once

#include "BlockMap.h"
#include "Options.h"
#include "Protocol.h"

#include "agent/BlockRange.h"
#include "agent/CertificateStoreDescriptor.h"
#include "agent/MeterMetric.h"
#include "agent/TCPConnector.h"
#include "agent/core/IConnectionBandwidthManager.h"
#include "agent/info/Logger.h"
#include "agent/vnt/IoWrapper.h"
#include "agent/vnt/protocol/RateLimiter.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace backup {

/// The bandwidth that the command line allows.
class Bandwidth : public agent::core::IConnectionBandwidthManager {
public:
    /// @param bitsPerSecond  0: no limit
    explicit Bandwidth(unsigned int bitsPerSecond);

    bool isLimited() const override;
    void setLimited(bool limited) override;
    unsigned int limitInBitsPerSecond() const override;
    void setLimitInBitsPerSecond(unsigned int rate) override;
    unsigned int nominalRateInBitsPerSecond() const override;
    void setNominalRateInBitsPerSecond(unsigned int rate) override;
    unsigned int maximumWriteSizeInBits() const override;

private:
    bool m_isLimited;
    unsigned int m_limit;
    unsigned int m_nominalRate;
};

/// The replica at a backup server. The calls below, in their order, make one backup; whatever fails throws, and then
/// the server keeps the replica that it had. Only a connection that breaks during commit() leaves open which one it
/// has.
class RemoteReplica {
public:
    /// Connects, both ends authenticated. A server that cannot be reached is tried again, less and less often, until
    /// the patience that the options give is used up; one that is not trusted, or does not trust us, is not.
    /// @param logger  borrowed
    RemoteReplica(agent::info::Logger& logger, const Options& options);

    const std::string& name() const { return m_name; }

    /// Announces a backup.
    /// @return  the digest of the covered blocks that the server has; nothing if it has no replica of this size
    std::optional<std::uint32_t> begin(const BlockMap& map);

    /// @param data       as much of the blocks as the image has
    /// @param checksums  one a block
    void send(const agent::BlockRange& piece, const char* data, std::size_t size,
        const std::vector<std::uint32_t>& checksums);

    /// @return  the digest of the new replica's covered blocks
    std::uint32_t finish(unsigned long blocksSent);

    /// Puts the new replica in force.
    void commit();

private:
    void connect(const Options& options);
    void reportRates();
    void read(void* data, unsigned int size);
    void write(const void* data, unsigned int size);
    void send(protocol::Type type, const std::vector<char>& content);
    protocol::Message expect(protocol::Type type);

    agent::info::Logger& m_logger;
    std::string m_name; // host and port
    agent::FileCertificateStoreDescriptor m_store;
    std::shared_ptr<agent::TCPConnector> m_connector;
    std::unique_ptr<agent::vnt::IoWrapper> m_io;
    Bandwidth m_bandwidth;
    std::optional<agent::MeterMetric> m_sent; // bytes, from the beginning of the backup
    std::chrono::nanoseconds m_nextReport{0}; // of the rates, since that
    vnt::protocol::RateLimiter m_limiter{m_bandwidth};
};

} // namespace backup
