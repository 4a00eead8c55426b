#include "core/SigpipeGuard.h"

#include <cerrno>
#include <ctime>

namespace agent {

SigpipeGuard::~SigpipeGuard()
{
    if (m_wasPending) return; // it was blocked before, and so was ours
    const int error = errno;  // that of the guarded call
    const timespec now{0, 0};
    while (::sigtimedwait(&m_sigpipe, nullptr, &now) == -1 && errno == EINTR) {
    }
    (void)::pthread_sigmask(SIG_SETMASK, &m_mask, nullptr);
    errno = error;
}

} // namespace agent
