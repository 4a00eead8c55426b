#pragma once

#include "agent/Export.h"
#include "agent/core/IConnectionBandwidthManager.h"
#include "agent/vnt/common/Ret.h"

#include <chrono>
#include <cstdint>
#include <functional>

namespace vnt::protocol {

/// A limiter's waits are measured by the time that so many bytes take.
inline constexpr unsigned int NOMINAL_MINIMUM_WRITE_SIZE_IN_BYTES = 4096;

/// Spreads writes over time.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IRateLimiter {
public:
    /// Writes a piece: its start and its size in bytes.
    using Writer = std::function<common::Ret(const unsigned char*, unsigned int)>;

    virtual ~IRateLimiter();

    virtual unsigned int rateOfIncreaseInBitsPerSecond() const = 0;
    virtual common::Ret write(const unsigned char* data, unsigned int size, const Writer& writer) = 0;
};

/// Sends data in pieces, no faster than a bandwidth manager allows:
///
///     RateLimiter limiter(manager);
///     return limiter.write(data, size, [&](const unsigned char* piece, unsigned int length) {
///         return io.write(piece, length);
///     });
///
/// Time earns credit, in whole milliseconds and whole bytes, and a piece uses it up. Credit is also earned between
/// writes, without bound; what one write leaves of it is lost to the next.
///
/// Beware: a turn without credit calls the writer all the same, with 0 bytes. Writers have always seen such calls, and
/// through them can end a wait with an error. Turns are a 64th of the time apart that 4096 bytes take: above 512 kbit/s
/// empty calls become common, and above 512 Mbit/s there is no pause between them.
///
/// Threads: one at a time. The manager may change its mind from elsewhere if it can stand that.
class AGENTKIT_API RateLimiter : public IRateLimiter {
public:
    /// @param manager  borrowed; must outlive this. Asked anew at every turn, and during waits every 50 ms.
    explicit RateLimiter(agent::core::IConnectionBandwidthManager& manager);
    ~RateLimiter() override;

    /// The limit if it is in force and not above the nominal rate, else the nominal rate.
    unsigned int rateOfIncreaseInBitsPerSecond() const override;

    /// Returns when all is written, or with the first error of the writer. At a rate or a maximum below 8 bits nothing
    /// is ever sent, so that it waits until the manager changes its mind or the writer fails an empty call.
    /// @param size  0: succeeds without a call
    common::Ret write(const unsigned char* data, unsigned int size, const Writer& writer) override;

private:
    std::int64_t takeCredit();
    void waitForCredit(unsigned int remaining) const;

    agent::core::IConnectionBandwidthManager& m_manager;
    std::chrono::steady_clock::time_point m_lastCredit = std::chrono::steady_clock::now();
};

} // namespace vnt::protocol
