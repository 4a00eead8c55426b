// Finding the runs of set bits in change bitmaps, from hardly changed volumes to rewritten ones, against the
// plain table algorithm and a scan that jumps from one change to the next by counting zeros.

#include "agent/BitRangeFinder.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace {

using agent::BlockRange;
using Ranges = std::vector<BlockRange>;
using Bitmap = std::vector<unsigned char>;

std::uint64_t load(const unsigned char* bytes)
{
    std::uint64_t word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

// --- the plain table: eight bytes are skipped when all are 0, else one byte is looked up --------------------

struct Entry {
    bool firstBitSet;
    bool lastBitSet;
    unsigned char runCount;
    std::array<std::pair<unsigned char, unsigned char>, 4> runs; // start, length
};

std::array<Entry, 256> makeTable()
{
    std::array<Entry, 256> table{};
    for (unsigned int byte = 0; byte < table.size(); ++byte) {
        Entry& entry = table[byte];
        for (unsigned char bit = 0; bit < 8; ++bit) {
            if ((byte & 0x80U >> bit) == 0) continue;
            if (bit > 0 && (byte & 0x100U >> bit) != 0) {
                ++entry.runs.at(entry.runCount - 1U).second;
            } else {
                entry.runs.at(entry.runCount++) = {bit, 1};
            }
        }
        entry.firstBitSet = (byte & 0x80U) != 0;
        entry.lastBitSet = (byte & 1U) != 0;
    }
    return table;
}

// As much of the map as whole words make up; the bench has no other maps.
Ranges tableSearch(const Bitmap& map)
{
    static const auto table = makeTable();
    Ranges ranges;
    bool carry = false;
    for (unsigned long i = 0; i < map.size();) {
        if (i + 8 <= map.size() && load(&map[i]) == 0) {
            carry = false;
            i += 8;
            continue;
        }
        const Entry& entry = table[map[i]];
        unsigned int next = 0;
        if (carry && entry.firstBitSet) ranges.back().count() += entry.runs[next++].second;
        for (; next < entry.runCount; ++next)
            ranges.emplace_back(8 * i + entry.runs[next].first, entry.runs[next].second);
        carry = entry.lastBitSet;
        ++i;
    }
    return ranges;
}

// --- a word at a time ---------------------------------------------------------------------------------------

Ranges wordSearch(const Bitmap& map)
{
    Ranges ranges;
    bool isOpen = false;
    unsigned long start = 0;
    for (unsigned long i = 0; i < map.size(); i += 8) {
        const std::uint64_t word = __builtin_bswap64(load(&map[i]));
        for (unsigned int bit = 0; bit < 64;) {
            const std::uint64_t rest = (isOpen ? ~word : word) << bit;
            if (rest == 0) break;
            bit += static_cast<unsigned int>(std::countl_zero(rest));
            const unsigned long block = 8 * i + bit;
            if (isOpen) ranges.emplace_back(start, block - start);
            start = block;
            isOpen = !isOpen;
        }
    }
    if (isOpen) ranges.emplace_back(start, 8 * map.size() - start);
    return ranges;
}

Ranges agentkitSearch(const Bitmap& map)
{
    return agent::BitRangeFinder(true, true).findRanges(map.data(), 8 * map.size());
}

// --- maps ---------------------------------------------------------------------------------------------------

using Fill = std::function<void(Bitmap&)>;

void setBit(Bitmap& map, unsigned long block)
{
    map[block / 8] = static_cast<unsigned char>(map[block / 8] | 0x80U >> block % 8);
}

void onePer65536(Bitmap& map)
{
    for (unsigned long block = 777; block < 8 * map.size(); block += 65536) setBit(map, block);
}

Fill random(double density)
{
    return [density](Bitmap& map) {
        std::mt19937_64 generator(1); // NOLINT(cert-msc*): the same map in each run
        std::geometric_distribution<unsigned long> gap(density);
        for (unsigned long block = gap(generator); block < 8 * map.size(); block += 1 + gap(generator))
            setBit(map, block);
    };
}

void longRuns(Bitmap& map)
{
    for (unsigned long i = 0; i < map.size(); ++i) map[i] = i / 512 % 2 == 0 ? 0xFF : 0; // 4096 bits on, 4096 off
}

const std::vector<std::pair<std::string, Fill>> kMaps{
    {"empty", [](Bitmap&) {}},
    {"one_per_65536", onePer65536},
    {"random_0.1%", random(0.001)},
    {"random_1%", random(0.01)},
    {"random_10%", random(0.1)},
    {"random_50%", random(0.5)},
    {"long_runs", longRuns},
    {"ones", [](Bitmap& map) { std::ranges::fill(map, static_cast<unsigned char>(0xFF)); }},
};

using Find = Ranges (*)(const Bitmap&);

void search(benchmark::State& state, Find find, const Fill& fill, unsigned int log2OfBits)
{
    Bitmap map((1UL << log2OfBits) / 8);
    fill(map);
    if (find(map) != agentkitSearch(map)) state.SkipWithError("another result");
    for (auto _ : state) {
        const Ranges ranges = find(map);
        benchmark::DoNotOptimize(ranges.data());
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(map.size()));
}

void add(const std::string& name, Find find, const Fill& fill, unsigned int log2OfBits)
{
    const auto run = [=](benchmark::State& state) { search(state, find, fill, log2OfBits); };
    benchmark::RegisterBenchmark(name.c_str(), run)->MinTime(0.2);
}

void addMap(const std::string& mapName, const Fill& fill, unsigned int log2OfBits)
{
    const std::string map = "/2^" + std::to_string(log2OfBits) + "_" + mapName;
    add("ranges/agentkit" + map, agentkitSearch, fill, log2OfBits);
    add("ranges/table" + map, tableSearch, fill, log2OfBits);
    add("ranges/words" + map, wordSearch, fill, log2OfBits);
}

const bool registered = [] {
    for (const unsigned int log2OfBits : {22U, 28U}) {
        for (const auto& [mapName, fill] : kMaps) addMap(mapName, fill, log2OfBits);
    }
    return true;
}();

} // namespace
