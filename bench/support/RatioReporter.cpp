#include "RatioReporter.h"

#include <algorithm>
#include <cstdio>
#include <ostream>

namespace agent::bench {

namespace {

constexpr const char* kOurs = "agentkit";

std::string format(const char* pattern, double value)
{
    std::string text(64, '\0');
    const int length = std::snprintf(text.data(), text.size(), pattern, value);
    text.resize(static_cast<std::size_t>(std::clamp(length, 0, 63)));
    return text;
}

std::string duration(double nanoseconds)
{
    if (nanoseconds < 1e4) return format("%.1f ns", nanoseconds);
    if (nanoseconds < 1e7) return format("%.1f us", nanoseconds / 1e3);
    return format("%.1f ms", nanoseconds / 1e6);
}

void pad(std::string& line, std::size_t width)
{
    line.resize(std::max(line.size(), width), ' ');
}

} // namespace

RatioReporter::RatioReporter()
    : ConsoleReporter(OO_None)
{
}

void RatioReporter::ReportRuns(const std::vector<Run>& runs)
{
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
        if (run.run_type == Run::RT_Iteration && !run.error_occurred) remember(run);
    }
}

void RatioReporter::remember(const Run& run)
{
    const std::string& name = run.run_name.function_name;
    const auto first = name.find('/');
    const auto second = name.find('/', first + 1);
    if (first == std::string::npos || second == std::string::npos) return;

    const Key key{name.substr(0, first), name.substr(second + 1)};
    const std::string variant = name.substr(first + 1, second - first - 1);
    const double nanoseconds = run.real_accumulated_time / static_cast<double>(run.iterations) * 1e9;
    const auto rate = run.counters.find("bytes_per_second");
    const Timing timing{variant, nanoseconds, rate == run.counters.end() ? 0.0 : rate->second.value};

    if (!m_timings.contains(key)) m_order.push_back(key);
    auto& timings = m_timings[key];
    const auto known =
        std::find_if(timings.begin(), timings.end(), [&](const Timing& other) { return other.variant == variant; });
    if (known == timings.end()) {
        timings.push_back(timing);
    } else if (nanoseconds < known->nanoseconds) {
        *known = timing;
    }
}

void RatioReporter::Finalize()
{
    ConsoleReporter::Finalize();
    GetOutputStream() << "\nRatios: time of the peer / time of agentkit (above 1: agentkit is faster)\n";
    for (const Key& key : m_order) printLine(key, m_timings.at(key));
    GetOutputStream().flush();
}

void RatioReporter::printLine(const Key& key, const std::vector<Timing>& timings) const
{
    const auto ours =
        std::find_if(timings.begin(), timings.end(), [](const Timing& timing) { return timing.variant == kOurs; });
    if (ours == timings.end()) return;

    std::string line = key.first + "/" + key.second;
    pad(line, 36);
    line += ' ' + duration(ours->nanoseconds);
    pad(line, 49);
    if (ours->bytesPerSecond > 0) line += format("%7.2f GB/s", ours->bytesPerSecond / 1e9);
    pad(line, 62);
    for (const Timing& timing : timings) {
        if (timing.variant == kOurs) continue;
        line += "  " + timing.variant + format(" %.2f", timing.nanoseconds / ours->nanoseconds);
    }
    GetOutputStream() << line << '\n';
}

} // namespace agent::bench
