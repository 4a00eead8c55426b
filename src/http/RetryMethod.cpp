#include "agent/RetryMethod.h"

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <limits>

namespace agent {

using info::Logger;

namespace {

unsigned int seed()
{
    return std::random_device("default")();
}

// A sum that does not fit is as good as the largest one.
unsigned long sum(unsigned long a, unsigned long b)
{
    unsigned long result = 0;
    return __builtin_add_overflow(a, b, &result) ? std::numeric_limits<unsigned long>::max() : result;
}

unsigned long withJitter(unsigned long intervalMs, unsigned long maxJitterMs, std::mt19937& random)
{
    return sum(intervalMs, std::uniform_int_distribution<unsigned long>(0, maxJitterMs)(random));
}

void sleepMilliseconds(unsigned long milliseconds)
{
    timespec left{static_cast<std::time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1'000'000};
    while (milliseconds != 0 && ::nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

} // namespace

IRetryMethod::~IRetryMethod() = default;

RegularIntervalRetry::RegularIntervalRetry(
    Logger& logger, unsigned long intervalMs, unsigned long maxRetries, unsigned long maxJitterMs)
    : m_logger(logger)
    , m_intervalMs(intervalMs)
    , m_maxRetries(maxRetries)
    , m_maxJitterMs(maxJitterMs)
    , m_random(seed())
{
}

bool RegularIntervalRetry::callWithRetry(const std::function<RetriableFuncStatus()>& fn)
{
    unsigned long retries = 0;
    unsigned long total = 0; // milliseconds
    while (true) {
        const RetriableFuncStatus status = fn();
        if (status == RetriableFuncStatus::Success) return true;
        if (status == RetriableFuncStatus::Failure) {
            Logger::Entry(m_logger, Logger::INFO) << "regular interval retry method received failure from func";
            return false;
        }
        if (retries++ >= m_maxRetries) {
            Logger::Entry(m_logger, Logger::INFO)
                << "regular interval retry method exceeded retry count of " << m_maxRetries;
            return false;
        }
        const unsigned long wait = withJitter(m_intervalMs, m_maxJitterMs, m_random);
        total = sum(total, wait);
        sleepMilliseconds(wait);
        Logger::Entry(m_logger, Logger::INFO) << "regular interval retry method retrying func after interval: " << wait
                                              << ", total retry time: " << total;
    }
}

TruncatedExponentialBackoffRetry::TruncatedExponentialBackoffRetry(Logger& logger, unsigned long initialIntervalMs,
    unsigned long maxRetryTimeMs, unsigned long intervalCapMs, unsigned long maxJitterMs, double multiplier)
    : m_logger(logger)
    , m_initialIntervalMs(initialIntervalMs)
    , m_maxRetryTimeMs(maxRetryTimeMs)
    , m_intervalCapMs(intervalCapMs)
    , m_maxJitterMs(maxJitterMs)
    , m_multiplier(multiplier)
    , m_random(seed())
{
}

bool TruncatedExponentialBackoffRetry::callWithRetry(const std::function<RetriableFuncStatus()>& fn)
{
    unsigned long interval = m_initialIntervalMs;
    unsigned long total = 0; // milliseconds
    while (true) {
        const RetriableFuncStatus status = fn();
        if (status == RetriableFuncStatus::Success) return true;
        if (status == RetriableFuncStatus::Failure) {
            Logger::Entry(m_logger, Logger::INFO) << "retry logic received a failure status, giving up.";
            return false;
        }
        const unsigned long wait = withJitter(interval, m_maxJitterMs, m_random);
        total = sum(total, wait);
        if (total > m_maxRetryTimeMs) {
            Logger::Entry(m_logger, Logger::INFO) << "exceeded retry time of " << m_maxRetryTimeMs << " ms, giving up.";
            return false;
        }
        sleepMilliseconds(wait);
        interval = grown(interval);
        Logger::Entry(m_logger, Logger::INFO)
            << "current retry interval: " << interval << " ms, total time spent trying so far: " << total << " ms.";
    }
}

// Below zero, beyond all integers and no number at all count as too long: a wait of 0 would never use up the budget.
unsigned long TruncatedExponentialBackoffRetry::grown(unsigned long intervalMs) const
{
    const double product = static_cast<double>(intervalMs) * m_multiplier;
    if (!(product > -1 && product < 0x1p64)) return m_intervalCapMs;
    return std::min(static_cast<unsigned long>(product), m_intervalCapMs);
}

} // namespace agent
