#include "agent/MeterMetric.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <utility>

namespace agent {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::nanoseconds kTick{1'000'000'000};

// Counts and rates stand for themselves; nothing else is published through them.
constexpr auto kRelaxed = std::memory_order_relaxed;

} // namespace

/// An exponentially weighted moving average of events per nanosecond.
class MeterMetric::Ewma {
public:
    // 1 - e^(-tick / span), but for the 5-second one: see the class.
    static constexpr double M1M_ALPHA = 0.01652854617838251;
    static constexpr double M5M_ALPHA = 0.0033277839454767255;
    static constexpr double M15M_ALPHA = 0.0011104940557207232;
    static constexpr double M5S_ALPHA = 0.5506710358827784;

    explicit Ewma(double alpha)
        : m_alpha(alpha)
    {
    }

    void update(unsigned long n) { m_uncounted.fetch_add(n, kRelaxed); }

    /// @return  whether it moved the average, or might have
    bool tick()
    {
        const std::uint64_t count = m_uncounted.exchange(0, kRelaxed);
        const double instantRate = static_cast<double>(count) / static_cast<double>(m_interval);
        if (!m_isInitialized.load(kRelaxed)) {
            m_rate.store(instantRate, kRelaxed);
            m_isInitialized.store(true, kRelaxed);
            return true;
        }
        double rate = m_rate.load(kRelaxed);
        const double moved = rate + m_alpha * (instantRate - rate);
        if (count == 0 && moved == rate) return false; // has decayed as far as a double can
        // Dropped, not retried, if another thread was faster.
        (void)m_rate.compare_exchange_strong(rate, moved, kRelaxed);
        return true;
    }

    double rate() const { return m_rate.load(kRelaxed); }

private:
    std::atomic<bool> m_isInitialized = false;
    std::atomic<double> m_rate = 0; // events per nanosecond
    std::atomic<std::uint64_t> m_uncounted = 0;
    double m_alpha;
    std::uint64_t m_interval = static_cast<std::uint64_t>(kTick.count()); // nanoseconds
};

class MeterMetric::Impl {
public:
    explicit Impl(std::chrono::nanoseconds rateUnit)
        : m_rateUnit(rateUnit)
    {
    }

    void mark(unsigned long n)
    {
        tickIfNecessary();
        m_count.fetch_add(n, kRelaxed);
        for (Ewma* const average : all()) average->update(n);
    }

    void tickIfNecessary()
    {
        const auto now = Clock::now();
        auto last = m_lastTick.load(kRelaxed);
        const std::chrono::nanoseconds age = now - last;
        if (age <= kTick) return;
        if (!m_lastTick.compare_exchange_strong(last, now - age % kTick, kRelaxed)) return; // another thread does it
        // After a tick that moves nothing none will: months of silence are not replayed second by second.
        for (auto ticks = age / kTick; ticks > 0 && tick(); --ticks) continue;
    }

    /// @return  whether any average moved, or might have
    bool tick()
    {
        bool isMoved = false;
        for (Ewma* const average : all()) isMoved = average->tick() || isMoved;
        return isMoved;
    }

    std::uint64_t getCount() const { return m_count.load(kRelaxed); }
    std::chrono::nanoseconds getElapsedDuration() const { return Clock::now() - m_start; }

    double getRateMean() const
    {
        const std::uint64_t count = getCount();
        if (count == 0) return 0;
        const std::uint64_t product = count * static_cast<std::uint64_t>(m_rateUnit.count());
        return static_cast<double>(product) / static_cast<double>(getElapsedDuration().count());
    }

    double getRate5Sec() { return rateOf(m_5sec); }
    double getRate1Min() { return rateOf(m_1min); }
    double getRate5Min() { return rateOf(m_5min); }
    double getRate15Min() { return rateOf(m_15min); }

private:
    double rateOf(const Ewma& average)
    {
        tickIfNecessary();
        return average.rate() * static_cast<double>(m_rateUnit.count());
    }

    std::array<Ewma*, 4> all() { return {&m_15min, &m_5min, &m_1min, &m_5sec}; }

    const Clock::time_point m_start = Clock::now();
    const std::chrono::nanoseconds m_rateUnit;
    std::atomic<Clock::time_point> m_lastTick = m_start;
    std::atomic<std::uint64_t> m_count = 0;
    Ewma m_15min{Ewma::M15M_ALPHA};
    Ewma m_5min{Ewma::M5M_ALPHA};
    Ewma m_1min{Ewma::M1M_ALPHA};
    Ewma m_5sec{Ewma::M5S_ALPHA};
};

MeterMetric::MeterMetric(std::string name, std::chrono::nanoseconds rateUnit)
    : m_name(std::move(name))
    , m_impl(std::make_unique<Impl>(rateUnit))
{
}

MeterMetric::~MeterMetric() = default;

const std::string& MeterMetric::getName() const
{
    return m_name;
}

void MeterMetric::mark(unsigned long n)
{
    m_impl->mark(n);
}

unsigned long MeterMetric::getCount() const
{
    return m_impl->getCount();
}

std::chrono::nanoseconds MeterMetric::getElapsedDuration() const
{
    return m_impl->getElapsedDuration();
}

double MeterMetric::getRateMean() const
{
    return m_impl->getRateMean();
}

double MeterMetric::getRate5Sec() const
{
    return m_impl->getRate5Sec();
}

double MeterMetric::getRate1Min() const
{
    return m_impl->getRate1Min();
}

double MeterMetric::getRate5Min() const
{
    return m_impl->getRate5Min();
}

double MeterMetric::getRate15Min() const
{
    return m_impl->getRate15Min();
}

} // namespace agent
