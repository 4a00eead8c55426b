#include "agent/CircuitBreaker.h"

#include <limits>

namespace agent {

using info::Logger;

CircuitBreakerOpenError::~CircuitBreakerOpenError() = default;

CircuitBreaker::CircuitBreaker(Logger& logger, int failureThreshold, unsigned long openTimeoutMs)
    : m_logger(logger)
    , m_failureThreshold(failureThreshold)
    , m_openTimeoutMs(openTimeoutMs)
{
}

void CircuitBreaker::execute(const std::function<void()>& fn)
{
    updateBreakerState();
    switch (m_state) {
    case OPEN:
        throw CircuitBreakerOpenError(
            "error: breaker was opened " + std::to_string(getElapsedSinceLastError()) + " ms ago.");
    case CLOSED:
    case HALF_OPEN:
        try {
            fn();
        } catch (...) {
            error();
            throw;
        }
        closeBreaker();
        return;
    }
    throw std::logic_error(
        "Programmer error: reached an unreachable state: " + std::to_string(static_cast<int>(m_state)));
}

CircuitBreaker::ConnectionState CircuitBreaker::getConnectionState()
{
    updateBreakerState();
    return m_state;
}

unsigned long CircuitBreaker::getElapsedSinceLastError() const
{
    const auto elapsed = std::chrono::steady_clock::now() - m_lastError;
    return static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count());
}

void CircuitBreaker::updateBreakerState()
{
    m_state = CLOSED;
    if (m_failureCount >= m_failureThreshold) m_state = getElapsedSinceLastError() > m_openTimeoutMs ? HALF_OPEN : OPEN;
    if (m_state != m_reportedState)
        Logger::Entry(m_logger, Logger::INFO) << "circuit breaker state changed: state: " << to_string(m_state);
    m_reportedState = m_state;
}

void CircuitBreaker::error()
{
    if (m_failureCount < std::numeric_limits<int>::max()) ++m_failureCount;
    m_lastError = std::chrono::steady_clock::now();
    Logger::Entry(m_logger, Logger::INFO) << "circuit breaker error: failure_count: " << m_failureCount;
}

// The change is left to the next update to report.
void CircuitBreaker::closeBreaker()
{
    m_failureCount = 0;
    m_lastError = {};
    m_state = CLOSED;
}

std::string to_string(CircuitBreaker::ConnectionState state)
{
    switch (state) {
    case CircuitBreaker::OPEN:
        return "OPEN";
    case CircuitBreaker::CLOSED:
        return "CLOSED";
    case CircuitBreaker::HALF_OPEN:
        return "HALF_OPEN";
    }
    throw std::logic_error("missing enum to string conversion: " + std::to_string(static_cast<int>(state)));
}

} // namespace agent
