// A log line, from the entry's birth to the printer's return, against the same text put together in a
// bare string stream.

#include "agent/info/Logger.h"

#include <benchmark/benchmark.h>

#include <chrono>
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

BENCHMARK_CAPTURE(entry, short, writeShort)->Name("log/agentkit/short");
BENCHMARK_CAPTURE(bareStream, short, writeShort)->Name("log/stringstream/short");
BENCHMARK_CAPTURE(entry, long, writeLong)->Name("log/agentkit/long");
BENCHMARK_CAPTURE(bareStream, long, writeLong)->Name("log/stringstream/long");

} // namespace
