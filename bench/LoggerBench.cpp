// A log line, from the entry's birth to the printer's return, against the same text put together in a
// bare string stream; and its decoration with date, thread id and tag, against rendering it with strftime.

#include "agent/Thread.h"
#include "agent/info/Decorators.h"
#include "agent/info/Logger.h"

#include <benchmark/benchmark.h>
#include <spdlog/details/log_msg.h>
#include <spdlog/pattern_formatter.h>

#include <array>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <sstream>
#include <string>
#include <utility>

namespace {

using agent::info::Logger;

void writeShort(std::ostream& stream, int i)
{
    stream << "Volume " << i << " is ready";
}

void writeLong(std::ostream& stream, int i)
{
    stream << "Exclude extent { " << i << ", " << i + 4096 << " } of file \"/var/lib/images/" << i
           << ".img\": block size 4096, read in pieces of 1048576 bytes, checksum " << std::hex << i;
}

using Writer = void (*)(std::ostream&, int);

void entry(benchmark::State& state, Writer write)
{
    Logger logger([](const std::string& text, Logger::Level, auto) { benchmark::DoNotOptimize(text.data()); });
    int i = 0;
    for (auto _ : state) {
        Logger::Entry line(logger, Logger::INFO);
        write(line, ++i);
    }
}

void bareStream(benchmark::State& state, Writer write)
{
    int i = 0;
    for (auto _ : state) {
        std::stringstream line;
        write(line, ++i);
        line << '\n';
        const std::string text = std::move(line).str();
        benchmark::DoNotOptimize(text.data());
    }
}

using Time = std::chrono::system_clock::time_point;

const std::string kMessage = "Found the volumes.sda1.cowFileSizeMiB configuration option (2048)\n";

std::string decoratedByAgentkit(std::string message, Time when)
{
    static const agent::info::DateDecorator date;
    static const agent::info::ThreadIdDecorator thread;
    static const agent::info::TagDecorator tag;
    static const agent::info::MultiDecorator all({date, thread, tag});
    return all.decorate(std::move(message), Logger::INFO, when);
}

// The same line, as one would write it down.
std::string decoratedByStrftime(const std::string& message, Time when)
{
    const std::time_t seconds = std::chrono::system_clock::to_time_t(when);
    const auto milliseconds = static_cast<int>(when.time_since_epoch() / std::chrono::milliseconds(1) % 1000);
    std::tm parts{};
    std::array<char, 50> utc{};
    std::array<char, 50> local{};
    std::array<char, 50> offset{};
    (void)gmtime_r(&seconds, &parts);
    (void)std::strftime(utc.data(), utc.size(), "%FT%T.", &parts);
    (void)localtime_r(&seconds, &parts);
    (void)std::strftime(local.data(), local.size(), "%FT%T.", &parts);
    (void)std::strftime(offset.data(), offset.size(), "%z", &parts);
    std::array<char, 200> prefix{};
    (void)std::snprintf(prefix.data(), prefix.size(), "%s%03dZ %s%03d%s [TID %07ld] %-12s", utc.data(), milliseconds,
        local.data(), milliseconds, offset.data(), agent::getThreadID(), "[INFO:]");
    return prefix.data() + message;
}

// A line with one stamp instead of two; the thread's id is asked for once a thread, not once a line.
std::string decoratedBySpdlog(const std::string& message, Time when)
{
    static spdlog::pattern_formatter formatter("%Y-%m-%dT%H:%M:%S.%e%z [TID %t] [%l] %v");
    const spdlog::details::log_msg line(when, {}, "", spdlog::level::info, message);
    spdlog::memory_buf_t text;
    formatter.format(line, text);
    return {text.data(), text.size()};
}

template <std::string Decorate(std::string, Time)>
std::string byValue(const std::string& message, Time when)
{
    return Decorate(message, when);
}

using Decorator = std::string (*)(const std::string&, Time);

void decorate(benchmark::State& state, Decorator decorator, std::chrono::microseconds step)
{
    Time when = std::chrono::system_clock::now();
    for (auto _ : state) {
        const std::string line = decorator(kMessage, when += step);
        benchmark::DoNotOptimize(line.data());
    }
}

constexpr std::chrono::microseconds kBusy(1000);      // a thousand lines a second
constexpr std::chrono::microseconds kIdle(2'000'000); // no two lines of one second
BENCHMARK_CAPTURE(decorate, busy, byValue<decoratedByAgentkit>, kBusy)->Name("decorate/agentkit/busy");
BENCHMARK_CAPTURE(decorate, busy, decoratedByStrftime, kBusy)->Name("decorate/strftime/busy");
BENCHMARK_CAPTURE(decorate, busy, decoratedBySpdlog, kBusy)->Name("decorate/spdlog/busy");
BENCHMARK_CAPTURE(decorate, idle, byValue<decoratedByAgentkit>, kIdle)->Name("decorate/agentkit/idle");
BENCHMARK_CAPTURE(decorate, idle, decoratedByStrftime, kIdle)->Name("decorate/strftime/idle");
BENCHMARK_CAPTURE(decorate, idle, decoratedBySpdlog, kIdle)->Name("decorate/spdlog/idle");

BENCHMARK_CAPTURE(entry, short, writeShort)->Name("log/agentkit/short");
BENCHMARK_CAPTURE(bareStream, short, writeShort)->Name("log/stringstream/short");
BENCHMARK_CAPTURE(entry, long, writeLong)->Name("log/agentkit/long");
BENCHMARK_CAPTURE(bareStream, long, writeLong)->Name("log/stringstream/long");

} // namespace
