// Marking events, from one thread and from two: against a bare clock read and five additions, which is the least that
// it can cost, and against one addition.

#include "agent/MeterMetric.h"

#include <benchmark/benchmark.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

namespace {

agent::MeterMetric meter("events", std::chrono::seconds(1));
std::array<std::atomic<std::uint64_t>, 5> counters;
std::atomic<std::chrono::steady_clock::time_point> lastTick;

void mark(benchmark::State& state)
{
    for (auto _ : state) meter.mark(1);
}

void clockAndFiveAdditions(benchmark::State& state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::chrono::steady_clock::now() - lastTick.load(std::memory_order_relaxed));
        for (auto& counter : counters) counter.fetch_add(1, std::memory_order_relaxed);
    }
}

void oneAddition(benchmark::State& state)
{
    for (auto _ : state) counters[0].fetch_add(1, std::memory_order_relaxed);
}

[[maybe_unused]] const bool isRegistered = [] {
    for (const int threads : {1, 2}) {
        const std::string suffix = "/" + std::to_string(threads) + "_threads";
        benchmark::RegisterBenchmark(("mark/agentkit" + suffix).c_str(), mark)->Threads(threads);
        benchmark::RegisterBenchmark(("mark/clock_and_5" + suffix).c_str(), clockAndFiveAdditions)->Threads(threads);
        benchmark::RegisterBenchmark(("mark/one_addition" + suffix).c_str(), oneAddition)->Threads(threads);
    }
    return true;
}();

} // namespace
