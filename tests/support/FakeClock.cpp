#include "FakeClock.h"

#include "agent/Export.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>

namespace agent::test {
namespace {

FakeClock* g_clock = nullptr;

timespec toTimespec(std::chrono::nanoseconds time)
{
    return {time.count() / 1'000'000'000, time.count() % 1'000'000'000};
}

} // namespace

FakeClock::FakeClock()
{
    g_clock = this;
}

FakeClock::~FakeClock()
{
    g_clock = nullptr;
}

// Exported, so that the library and the C++ library find these before the system's own.

extern "C" AGENTKIT_API int clock_gettime(clockid_t id, timespec* time) noexcept
{
    if (g_clock == nullptr || id != CLOCK_MONOTONIC) return static_cast<int>(::syscall(SYS_clock_gettime, id, time));
    *time = toTimespec(g_clock->now);
    return 0;
}

extern "C" AGENTKIT_API int nanosleep(const timespec* wanted, timespec* left)
{
    if (g_clock == nullptr) return static_cast<int>(::syscall(SYS_nanosleep, wanted, left));
    const auto time = std::chrono::seconds(wanted->tv_sec) + std::chrono::nanoseconds(wanted->tv_nsec);
    g_clock->sleeps.push_back(time);
    const bool isInterrupted = g_clock->interruptions > 0 && g_clock->interruptions-- > 0;
    g_clock->now += isInterrupted ? time / 2 : time;
    if (!isInterrupted) return 0;
    if (left != nullptr) *left = toTimespec(time - time / 2);
    errno = EINTR;
    return -1;
}

} // namespace agent::test
