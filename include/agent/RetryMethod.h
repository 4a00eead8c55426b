#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <functional>
#include <random>

namespace agent {

/// Runs a function again while it asks for that, waiting in between.
///
///     TruncatedExponentialBackoffRetry retry(logger, 500, 600'000, 10'000, 250, 1.5);
///     retry.callWithRetry([&] { return send() ? Status::Success : Status::Retry; });
///
/// The waits go on after a signal. A method keeps nothing between calls but its random numbers, and says at INFO what
/// it does.
/// Threads: a call blocks its thread; one call at a time. The order of its virtual functions is part of the binary
/// interface.
class AGENTKIT_API IRetryMethod {
public:
    enum class RetriableFuncStatus : int {
        Success = 0,
        Failure = 1, ///< that retrying will not mend
        Retry = 2,   ///< and any other value
    };

    virtual ~IRetryMethod();

    /// @return  true if `fn` succeeded at last; false if it failed, or the method gave up
    /// @throws whatever `fn` throws, at once; std::bad_function_call without a function
    virtual bool callWithRetry(const std::function<RetriableFuncStatus()>& fn) = 0;
};

/// So many retries, each after the same time.
class AGENTKIT_API RegularIntervalRetry : public IRetryMethod {
public:
    /// @param logger       borrowed; must outlive this
    /// @param intervalMs   milliseconds between calls, plus the jitter
    /// @param maxRetries   calls after the first one
    /// @param maxJitterMs  the most that chance adds to a wait, milliseconds
    RegularIntervalRetry(
        info::Logger& logger, unsigned long intervalMs, unsigned long maxRetries, unsigned long maxJitterMs);

    bool callWithRetry(const std::function<RetriableFuncStatus()>& fn) override;

private:
    info::Logger& m_logger;
    unsigned long m_intervalMs;
    unsigned long m_maxRetries;
    unsigned long m_maxJitterMs;
    std::mt19937 m_random;
};

/// Waits that grow up to a cap, until they would add up to more than a budget.
///
/// The budget is on what is planned to be waited, jitter included, not on the time that passes: calls do not count, and
/// a wait beyond the budget is not begun.
class AGENTKIT_API TruncatedExponentialBackoffRetry : public IRetryMethod {
public:
    /// @param logger             borrowed; must outlive this
    /// @param initialIntervalMs  the first wait, which the cap does not cut, milliseconds
    /// @param maxRetryTimeMs     the budget, milliseconds
    /// @param intervalCapMs      of all further waits, before jitter, milliseconds
    /// @param maxJitterMs        the most that chance adds to a wait, milliseconds; it does not grow with the interval
    /// @param multiplier         of each wait; whole milliseconds remain. A product below 0, or no number, is the cap
    TruncatedExponentialBackoffRetry(info::Logger& logger, unsigned long initialIntervalMs,
        unsigned long maxRetryTimeMs, unsigned long intervalCapMs, unsigned long maxJitterMs, double multiplier);

    bool callWithRetry(const std::function<RetriableFuncStatus()>& fn) override;

private:
    unsigned long grown(unsigned long intervalMs) const;

    info::Logger& m_logger;
    unsigned long m_initialIntervalMs;
    unsigned long m_maxRetryTimeMs;
    unsigned long m_intervalCapMs;
    unsigned long m_maxJitterMs;
    double m_multiplier;
    std::mt19937 m_random;
};

} // namespace agent
