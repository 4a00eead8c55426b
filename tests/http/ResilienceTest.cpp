#include "FakeClock.h"
#include "Support.h"
#include "agent/CircuitBreaker.h"
#include "agent/MeterMetric.h"
#include "agent/RetryMethod.h"

#include <cmath>

using Status = IRetryMethod::RetriableFuncStatus;

struct ResilienceTest : FileFixture {
    FakeClock m_clock;
};

TEST_F(ResilienceTest, TheBreakerRefusesUntilItsTimeIsOver)
{
    CircuitBreaker breaker(m_log.logger(), 2, 3000);
    int calls = 0;
    const auto call = [&](bool works) {
        return thrownBy([&] {
            breaker.execute([&] {
                ++calls;
                if (!works) throw std::logic_error("down");
            });
        });
    };
    EXPECT_EQ(call(false), "logic: down");
    EXPECT_EQ(breaker.getConnectionState(), CircuitBreaker::CLOSED) << "one below the threshold";
    EXPECT_THROW(breaker.execute({}), std::bad_function_call) << "a failure like any other";
    m_clock.now += 3000ms;
    EXPECT_THROW(breaker.execute([&] { ++calls; }), CircuitBreakerOpenError) << "not yet over";
    EXPECT_EQ(call(true), "runtime: error: breaker was opened 3000 ms ago.") << "and not prolonged";
    m_clock.now += 1ms;
    EXPECT_EQ(breaker.getConnectionState(), CircuitBreaker::HALF_OPEN);
    EXPECT_EQ(call(false), "logic: down") << "a trial";
    EXPECT_EQ(call(true), "runtime: error: breaker was opened 0 ms ago.");
    m_clock.now += 3001ms;
    EXPECT_EQ(call(true) + call(true), "nothingnothing");
    EXPECT_EQ(calls, 4);
    EXPECT_THAT(m_log.lines(),
        ElementsAre("3 circuit breaker error: failure_count: 1", "3 circuit breaker error: failure_count: 2",
            "3 circuit breaker state changed: state: OPEN", "3 circuit breaker state changed: state: HALF_OPEN",
            "3 circuit breaker error: failure_count: 3", "3 circuit breaker state changed: state: OPEN",
            "3 circuit breaker state changed: state: HALF_OPEN", "3 circuit breaker state changed: state: CLOSED"));

    CircuitBreaker never(m_log.logger(), 0, 3000);
    EXPECT_EQ(never.getConnectionState(), CircuitBreaker::HALF_OPEN) << "counted from the clock's zero";
    EXPECT_EQ(
        thrownBy([] { to_string(CircuitBreaker::ConnectionState(3)); }), "logic: missing enum to string conversion: 3");
}

constexpr unsigned long kMost = ~0UL;

TEST_F(ResilienceTest, RetriesAsLongAsItIsWorthIt)
{
    const auto backoff = [](unsigned long first, unsigned long budget, unsigned long cap, double multiplier) {
        return [=](info::Logger& logger) {
            return std::make_unique<TruncatedExponentialBackoffRetry>(logger, first, budget, cap, 0, multiplier);
        };
    };
    const auto regular = [](unsigned long interval, unsigned long retries) {
        return [=](info::Logger& log) { return std::make_unique<RegularIntervalRetry>(log, interval, retries, 0); };
    };
    // why, method, its function's answers (the last one is repeated), calls, sleeps, the last lines
    using Case = std::tuple<const char*, std::function<std::unique_ptr<IRetryMethod>(info::Logger&)>,
        std::vector<Status>, std::size_t, std::vector<nanoseconds>, std::vector<std::string>>;
    const std::string again = "3 regular interval retry method retrying func after interval: ";
    const std::string giveUp = " ms, giving up.";
    for (const auto& [why, make, answers, expectedCalls, sleeps, expected] : {
             Case{"to its last retry", regular(1500, 2), {Status::Retry}, 3, {1500ms, 1500ms},
                 {again + "1500, total retry time: 1500", again + "1500, total retry time: 3000",
                     "3 regular interval retry method exceeded retry count of 2"}},
             Case{"no retries", regular(5, 0), {Status(7)}, 1, {},
                 {"3 regular interval retry method exceeded retry count of 0"}},
             Case{"no wait, which is logged too", regular(0, 9), {Status::Retry, Status::Success}, 2, {},
                 {again + "0, total retry time: 0"}},
             Case{"for good", regular(5, 9), {Status::Failure}, 1, {},
                 {"3 regular interval retry method received failure from func"}},
             Case{"truncated to integers, then capped", backoff(500, kMost, 2000, 1.5),
                 {Status::Retry, Status::Retry, Status::Retry, Status::Retry, Status::Retry, Status::Failure}, 6,
                 {500ms, 750ms, 1125ms, 1687ms, 2000ms},
                 {"3 current retry interval: 2000 ms, total time spent trying so far: 6062 ms.",
                     "3 retry logic received a failure status, giving up."}},
             Case{"the first wait is not capped", backoff(50, 59, 10, 1.5), {Status::Retry}, 2, {50ms},
                 {"3 current retry interval: 10 ms, total time spent trying so far: 50 ms.",
                     "3 exceeded retry time of 59" + giveUp}},
             Case{"the budget may be used up", backoff(30, 60, 30, 1), {Status::Retry}, 3, {30ms, 30ms},
                 {"3 exceeded retry time of 60" + giveUp}},
             Case{"growth beyond all bounds", backoff(7, 100, kMost, 1e300), {Status::Retry}, 2, {7ms},
                 {"3 current retry interval: 18446744073709551615 ms, total time spent trying so far: 7 ms.",
                     "3 exceeded retry time of 100" + giveUp}},
         }) {
        m_clock.sleeps.clear();
        CapturingLogger log;
        const auto method = make(log.logger());
        std::size_t calls = 0;
        EXPECT_EQ(method->callWithRetry([&, &all = answers] { return all[std::min(calls++, all.size() - 1)]; }),
            answers.back() == Status::Success)
            << why;
        EXPECT_EQ(calls, expectedCalls) << why;
        EXPECT_EQ(m_clock.sleeps, sleeps) << why;
        auto lines = log.lines();
        ASSERT_GE(lines.size(), expected.size()) << why;
        lines.erase(lines.begin(), lines.end() - static_cast<std::ptrdiff_t>(expected.size()));
        EXPECT_EQ(lines, expected) << why;
    }
}

TEST_F(ResilienceTest, WaitsInFullAndWithJitter)
{
    m_clock.interruptions = 1;
    RegularIntervalRetry regular(m_log.logger(), 500, 1, 0);
    EXPECT_FALSE(regular.callWithRetry([] { return Status::Retry; }));
    EXPECT_THAT(m_clock.sleeps, ElementsAre(500ms, 250ms)) << "the rest of it";

    for (const bool isRegular : {true, false}) {
        m_clock.sleeps.clear();
        const std::unique_ptr<IRetryMethod> method =
            isRegular ? std::unique_ptr<IRetryMethod>(new RegularIntervalRetry(m_log.logger(), 10, 300, 2))
                      : std::make_unique<TruncatedExponentialBackoffRetry>(m_log.logger(), 10, 3600, kMost, 2, 1);
        EXPECT_FALSE(method->callWithRetry([] { return Status::Retry; }));
        const std::set<nanoseconds> seen(m_clock.sleeps.begin(), m_clock.sleeps.end());
        EXPECT_THAT(seen, ElementsAre(10ms, 11ms, 12ms)) << "both ends, and never in the interval";
    }
}

TEST_F(ResilienceTest, MetersTickInWholeSeconds)
{
    MeterMetric meter("bytes", 1s);
    EXPECT_EQ(meter.getRateMean(), 0);
    meter.mark(10);
    m_clock.now += 1s;
    EXPECT_EQ(meter.getRate5Sec(), 0) << "a second is no tick";
    m_clock.now += 1ns;
    EXPECT_DOUBLE_EQ(meter.getRate5Sec(), 10) << "taken over whole";
    EXPECT_DOUBLE_EQ(meter.getRate15Min(), 10);
    m_clock.now += 1s - 1ns; // a second after the tick's time on the grid, which was 1 ns ago
    EXPECT_DOUBLE_EQ(meter.getRate5Sec(), 10);
    m_clock.now += 1s + 500ms;
    EXPECT_NEAR(meter.getRate5Sec(), 10 * std::exp(-1.6), 1e-9) << "two ticks of silence";
    EXPECT_NEAR(meter.getRate1Min(), 10 * std::exp(-2 / 60.0), 1e-9);
    EXPECT_NEAR(meter.getRate5Min(), 10 * std::exp(-2 / 300.0), 1e-9);
    EXPECT_NEAR(meter.getRate15Min(), 10 * std::exp(-2 / 900.0), 1e-9);
    m_clock.now += 500ms + 1ns;
    EXPECT_NEAR(meter.getRate5Sec(), 10 * std::exp(-2.4), 1e-9) << "the grid stands";
    EXPECT_EQ(meter.getElapsedDuration(), 4s + 1ns);
    EXPECT_DOUBLE_EQ(meter.getRateMean(), 10e9 / (4e9 + 1));
    m_clock.now += 2h; // in which the fastest average comes to rest
    EXPECT_NEAR(meter.getRate15Min(), 10 * std::exp(-7203 / 900.0), 1e-12);

    MeterMetric hourly("wraps", 1h);
    m_clock.now += 1s + 1ns;
    hourly.mark(1UL << 62);
    EXPECT_EQ(hourly.getRate1Min(), 0) << "of the next second";
    m_clock.now += 1s;
    EXPECT_EQ(hourly.getRateMean(), 0) << "modulo 2^64, as documented: 2^62 times a multiple of 4";
}

TEST(MeterMetric, LosesNoEventOfAnyThread)
{
    MeterMetric meter("events", 1s);
    const auto markOften = [&] {
        for (int n = 0; n < 50'000; ++n) meter.mark(2);
        (void)meter.getRate1Min();
    };
    {
        const std::jthread threads[] = {std::jthread(markOften), std::jthread(markOften), std::jthread(markOften)};
    }
    EXPECT_EQ(meter.getCount(), 300'000U);
}
