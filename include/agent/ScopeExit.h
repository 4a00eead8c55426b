#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <exception>
#include <functional>
#include <string>
#include <utility>

namespace agent {

/// The text of a captured exception: empty for a null pointer, `what()` of a `std::exception`, and
/// "Unknown exception (catch all)" for anything else.
AGENTKIT_API std::string eptr_str(const std::exception_ptr& e);

/// Runs an action when the scope ends, however it ends.
///
///     const auto removeCopy = make_scope_exit([&] { file::remove(copy, false); });
///
/// An action that throws is reported to the hook. The exception then goes on to whoever left the scope,
/// unless the scope is being left by another exception that was thrown during its lifetime: then it is
/// swallowed. Exceptions in flight before the scope was entered do not count, so a guard works as usual
/// inside a destructor that runs during unwinding.
///
/// The guard lives in one scope: neither copied nor moved, and there is nothing to dismiss.
template <typename Action, typename OnError>
class scope_exit {
public:
    /// @param onError  called with the captured exception when the action throws
    scope_exit(Action action, OnError onError)
        : m_action(std::move(action))
        , m_onError(std::move(onError))
    {
    }
    scope_exit(const scope_exit&) = delete;
    scope_exit& operator=(const scope_exit&) = delete;

    ~scope_exit() noexcept(false) // NOLINT(bugprone-exception-escape): what it is for
    {
        if (!std::exchange(m_active, false)) return;
        try {
            m_action();
        } catch (...) {
            if (std::uncaught_exceptions() <= m_exceptionsAtEntry) {
                m_onError(std::current_exception());
                throw;
            }
            reportDuringUnwinding(std::current_exception());
        }
    }

private:
    // A hook that throws here as well would end the process.
    void reportDuringUnwinding(const std::exception_ptr& e) noexcept
    {
        try {
            m_onError(e);
        } catch (...) { // the exception in flight is the one to report
        }
    }

    bool m_active = true;
    int m_exceptionsAtEntry = std::uncaught_exceptions();
    Action m_action;
    OnError m_onError;
};

/// A scope_exit that tells nobody of the action's failure but the code that left the scope.
template <typename Action>
scope_exit<Action, std::function<void(const std::exception_ptr&)>> make_scope_exit(Action action)
{
    return {std::move(action), [](const std::exception_ptr&) {}};
}

namespace detail {
AGENTKIT_API void logIgnored(info::Logger& logger, const std::exception& e) noexcept;
}

/// Runs `action`; a `std::exception` that leaves it is logged at ERROR by its `what()` and ignored.
/// Anything else that is thrown ends the process.
template <typename Action>
void try_ignore(Action action, info::Logger& logger) noexcept // NOLINT(bugprone-exception-escape): ends the process
{
    try {
        action();
    } catch (const std::exception& e) {
        detail::logIgnored(logger, e);
    }
}

} // namespace agent
