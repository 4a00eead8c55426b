#include "agent/vnt/protocol/RateLimiter.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

namespace agent::core {

IConnectionBandwidthManager::~IConnectionBandwidthManager() = default;

} // namespace agent::core

namespace vnt::protocol {

using common::Ret;

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr unsigned int kBitsPerByte = 8;
constexpr microseconds kSlice{50'000}; // of a sleep: so soon a new rate is noticed
constexpr std::int64_t kMaxCredit = INT32_MAX;

// More than kMaxCredit counts as that: a connection may have been idle for months.
std::int64_t creditInBytes(unsigned int bitsPerSecond, std::int64_t milliseconds)
{
    const std::int64_t bytesPerSecond = bitsPerSecond / kBitsPerByte;
    if (bytesPerSecond == 0) return 0;
    if (milliseconds >= kMaxCredit * 1000 / bytesPerSecond) return kMaxCredit;
    return bytesPerSecond * milliseconds / 1000;
}

// The divisor multiplies by 8 what is in bits already. So connections have always been paced, and so they stay.
microseconds pauseFor(unsigned int bytes, unsigned int bitsPerSecond)
{
    const std::int64_t divisor = bitsPerSecond == 0 ? kBitsPerByte : std::int64_t{bitsPerSecond} * kBitsPerByte;
    return microseconds(std::int64_t{bytes} * 1'000'000 / divisor);
}

void sleepFor(std::chrono::nanoseconds time)
{
    timespec left{0, static_cast<long>(time.count())}; // less than a second
    while (::nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace

IRateLimiter::~IRateLimiter() = default;

RateLimiter::RateLimiter(agent::core::IConnectionBandwidthManager& manager)
    : m_manager(manager)
{
}

RateLimiter::~RateLimiter() = default;

unsigned int RateLimiter::rateOfIncreaseInBitsPerSecond() const
{
    const unsigned int limit = m_manager.limitInBitsPerSecond();
    const unsigned int nominal = m_manager.nominalRateInBitsPerSecond();
    return m_manager.isLimited() && limit <= nominal ? limit : nominal;
}

// Time that has earned nothing yet stays to earn.
std::int64_t RateLimiter::takeCredit()
{
    const auto now = Clock::now();
    const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(now - m_lastCredit);
    const std::int64_t credit = creditInBytes(rateOfIncreaseInBitsPerSecond(), elapsed.count());
    if (credit != 0) m_lastCredit = now;
    return credit;
}

void RateLimiter::waitForCredit(unsigned int remaining) const
{
    const unsigned int bytes = std::min(remaining, NOMINAL_MINIMUM_WRITE_SIZE_IN_BYTES);
    const auto start = Clock::now();
    while (true) {
        const std::chrono::nanoseconds left = start + pauseFor(bytes, rateOfIncreaseInBitsPerSecond()) - Clock::now();
        if (left.count() <= 0) return;
        sleepFor(std::min<std::chrono::nanoseconds>(left, kSlice));
    }
}

Ret RateLimiter::write(const unsigned char* data, unsigned int size, const Writer& writer)
{
    unsigned int written = 0;
    while (written < size) {
        const std::int64_t credit = takeCredit();
        const std::int64_t most = m_manager.maximumWriteSizeInBits() / kBitsPerByte;
        // No credit is carried from one piece to the next: one that leaves some is the last.
        const auto piece = static_cast<unsigned int>(std::min({credit, most, std::int64_t{size - written}}));
        if (Ret ret = writer(data + written, piece); ret.code != 0) return ret;
        written += piece;
        if (written < size) waitForCredit(size - written);
    }
    return {};
}

} // namespace vnt::protocol
