#pragma once

#include "agent/Export.h"

#include <chrono>
#include <memory>
#include <string>

namespace agent {

/// Measures the rate of events: the mean since its creation, and moving averages.
///
///     MeterMetric sent("bytes sent", std::chrono::seconds(1));
///     sent.mark(count);
///     report << sent.getRate5Sec() << " bytes a second";
///
/// The averages are exponentially weighted and move in ticks of a second, which the first call after it carries out;
/// before the first tick they are 0, and that takes its rate over whole. The 5-second average is weighted by
/// 1 - e^(-4/5) a tick, which makes it faster than its name says; dashboards are tuned to that.
///
/// Threads: any number, without locks or allocations. Two that update an average at once may drop one update.
class AGENTKIT_API MeterMetric {
public:
    /// @param rateUnit  the time that rates are for; a second makes them events a second
    MeterMetric(std::string name, std::chrono::nanoseconds rateUnit);
    MeterMetric(const MeterMetric&) = delete;
    MeterMetric& operator=(const MeterMetric&) = delete;
    ~MeterMetric();

    const std::string& getName() const;

    /// Records `n` events.
    void mark(unsigned long n);

    unsigned long getCount() const;
    std::chrono::nanoseconds getElapsedDuration() const;

    /// Events per rate unit; 0 if there were none. The count times the rate unit in nanoseconds is taken modulo 2^64:
    /// bytes a second are right for 18 GB.
    double getRateMean() const;
    double getRate5Sec() const;
    double getRate1Min() const;
    double getRate5Min() const;
    double getRate15Min() const;

private:
    class Ewma;
    class Impl;

    std::string m_name;
    std::unique_ptr<Impl> m_impl;
};

} // namespace agent
