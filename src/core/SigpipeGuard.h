#pragma once

#include <csignal>

namespace agent {

/// Keeps SIGPIPE from ending the process for the time of a scope, in this thread and without touching the process's
/// disposition: blocks it, collects one that was raised meanwhile, and restores the mask.
class SigpipeGuard {
public:
    SigpipeGuard() noexcept
    {
        sigset_t pending;
        sigemptyset(&m_sigpipe);
        sigaddset(&m_sigpipe, SIGPIPE);
        sigemptyset(&pending);
        (void)::sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1; // another's, not to be collected
        if (!m_wasPending) (void)::pthread_sigmask(SIG_BLOCK, &m_sigpipe, &m_mask);
    }
    SigpipeGuard(const SigpipeGuard&) = delete;
    SigpipeGuard& operator=(const SigpipeGuard&) = delete;
    ~SigpipeGuard();

private:
    sigset_t m_sigpipe;
    sigset_t m_mask;
    bool m_wasPending;
};

} // namespace agent
