#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>

namespace agent {

/// An open breaker's refusal; what the guarded call throws comes as it is.
class AGENTKIT_API CircuitBreakerOpenError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    CircuitBreakerOpenError(const CircuitBreakerOpenError&) = default;
    CircuitBreakerOpenError& operator=(const CircuitBreakerOpenError&) = default;
    ~CircuitBreakerOpenError() override;
};

/// Spares a remote service that fails, and its callers' time: after some failures in a row calls are refused for a
/// cooling-off time, and from then on they pass as trials until one succeeds.
///
///     CircuitBreaker breaker(logger, 5, 3000);
///     breaker.execute([&] { identity = client.fetch(); });
///
/// There is no timer: the state follows from the failure count and the steady clock when somebody asks. A change is
/// logged, at INFO like all else, by the call that first sees it.
/// Threads: takes no lock; use it from one thread at a time or under its owner's lock.
class AGENTKIT_API CircuitBreaker {
public:
    enum ConnectionState : int {
        OPEN = 0,      ///< calls are refused
        CLOSED = 1,    ///< calls pass
        HALF_OPEN = 2, ///< calls pass as trials
    };

    /// @param logger            borrowed; must outlive the breaker
    /// @param failureThreshold  failures in a row that open the breaker; 0 and less: it is never closed
    /// @param openTimeoutMs     cooling-off time after the last failure, milliseconds; over once that is exceeded
    CircuitBreaker(info::Logger& logger, int failureThreshold, unsigned long openTimeoutMs);

    /// Runs `fn`, or refuses to. A success closes the breaker.
    /// @throws CircuitBreakerOpenError  if open; `fn` did not run, and the cooling-off is not prolonged
    /// @throws whatever `fn` throws, unchanged, after counting it as a failure; also std::bad_function_call
    void execute(const std::function<void()>& fn);

    /// The state by now.
    ConnectionState getConnectionState();

    /// Milliseconds; since the steady clock's zero while there was no error.
    unsigned long getElapsedSinceLastError() const;

private:
    void updateBreakerState();
    void error();
    void closeBreaker();

    info::Logger& m_logger;
    ConnectionState m_state = CLOSED;
    ConnectionState m_reportedState = CLOSED; // last one logged
    int m_failureThreshold;
    unsigned long m_openTimeoutMs;
    int m_failureCount = 0; // in a row
    std::chrono::steady_clock::time_point m_lastError;
};

/// "OPEN", "CLOSED" or "HALF_OPEN".
/// @throws std::logic_error  for any other value
AGENTKIT_API std::string to_string(CircuitBreaker::ConnectionState state);

} // namespace agent
