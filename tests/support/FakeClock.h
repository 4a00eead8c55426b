#pragma once

#include <chrono>
#include <vector>

namespace agent::test {

/// Stops the steady clock of the process for the time of a scope: it moves when told, and by what is slept. Nothing
/// really sleeps. Use it from one thread.
class FakeClock {
public:
    FakeClock();
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;
    ~FakeClock();

    std::chrono::nanoseconds now = std::chrono::hours(24); ///< add to it to let time pass
    int interruptions = 0;                                 ///< so many sleeps from here on end half-way, with EINTR
    std::vector<std::chrono::nanoseconds> sleeps;          ///< what each was asked for; shows that they came here
};

} // namespace agent::test
