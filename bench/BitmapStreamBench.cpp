// Writing ranges into a bitmap of 2^28 blocks, in a file and in a string stream, against marking them in memory
// and writing that at once.

#include "agent/BlockRangeBitmapStream.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using agent::BlockRange;
using Ranges = std::set<BlockRange>;

constexpr unsigned long kBlocks = 1UL << 28;

Ranges smallRanges(unsigned long number)
{
    Ranges ranges;
    const unsigned long distance = kBlocks / number;
    for (unsigned long i = 0; i < number; ++i) ranges.emplace_hint(ranges.end(), i * distance + i % 61, 1 + i % 150);
    return ranges;
}

void writeByAgentkit(std::ostream& stream, const Ranges& ranges)
{
    agent::BlockRangeBitmapStream(stream, kBlocks, 0).toBitmap(ranges, true);
}

void mark(std::vector<char>& bitmap, const BlockRange& range)
{
    for (unsigned long block = range.start(); block < range.end();) {
        if (block % 8 == 0 && range.end() - block >= 8) {
            bitmap[block / 8] = '\xFF';
            block += 8;
        } else {
            bitmap[block / 8] = static_cast<char>(bitmap[block / 8] | 0x80 >> block % 8);
            ++block;
        }
    }
}

void writeAtOnce(std::ostream& stream, const Ranges& ranges)
{
    std::vector<char> bitmap(kBlocks / 8);
    for (const BlockRange& range : ranges) mark(bitmap, range);
    stream.seekp(0);
    stream.write(bitmap.data(), static_cast<std::streamsize>(bitmap.size()));
    stream.flush();
}

// A file without a name, gone when it is closed.
std::unique_ptr<std::ostream> makeFile()
{
    std::string name = "/tmp/agentkit_bench_XXXXXX";
    const int descriptor = ::mkstemp(name.data());
    auto file = std::make_unique<std::fstream>(name, std::ios::in | std::ios::out | std::ios::binary);
    (void)::unlink(name.c_str());
    (void)::close(descriptor);
    return file;
}

std::unique_ptr<std::ostream> makeStringStream()
{
    return std::make_unique<std::stringstream>();
}

using Writer = void (*)(std::ostream&, const Ranges&);
using MakeStream = std::unique_ptr<std::ostream> (*)();

// The first bitmap allocates the stream's space; it is not counted.
void write(benchmark::State& state, Writer writer, MakeStream makeStream, const Ranges& ranges)
{
    const auto stream = makeStream();
    writer(*stream, ranges);
    for (auto _ : state) writer(*stream, ranges);
    if (!stream->good()) state.SkipWithError("the stream failed");
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kBlocks / 8));
}

void add(const std::string& name, Writer writer, MakeStream makeStream, const Ranges& ranges)
{
    const auto run = [=](benchmark::State& state) { write(state, writer, makeStream, ranges); };
    benchmark::RegisterBenchmark(name.c_str(), run)->Unit(benchmark::kMillisecond)->MinTime(0.3);
}

void addSet(const std::string& name, const Ranges& ranges)
{
    add("bitmap/agentkit/file_" + name, writeByAgentkit, makeFile, ranges);
    add("bitmap/memory/file_" + name, writeAtOnce, makeFile, ranges);
    add("bitmap/agentkit/string_" + name, writeByAgentkit, makeStringStream, ranges);
    add("bitmap/memory/string_" + name, writeAtOnce, makeStringStream, ranges);
}

const bool registered = [] {
    addSet("one_range", {BlockRange(0, kBlocks)});
    addSet("10^6_ranges", smallRanges(1'000'000));
    return true;
}();

} // namespace
