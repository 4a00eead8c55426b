// A change bitmap from outside: its ranges are compared with a walk bit by bit, written to a bitmap again and
// compared with the original.

#include "Require.h"

#include "agent/BitRangeFinder.h"
#include "agent/BlockRangeBitmapStream.h"

#include <cstddef>
#include <cstdint>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

using agent::BlockRange;

bool bitAt(const std::string& map, std::size_t block, bool msbFirst)
{
    const auto byte = static_cast<unsigned char>(map[block / 8]);
    return ((byte >> (msbFirst ? 7 - block % 8 : block % 8)) & 1) != 0;
}

std::vector<BlockRange> walk(const std::string& map, std::size_t bits, bool setBits, bool msbFirst)
{
    std::vector<BlockRange> ranges;
    for (std::size_t block = 0; block < bits; ++block) {
        if (bitAt(map, block, msbFirst) != setBits) continue;
        if (!ranges.empty() && ranges.back().end() == block) {
            ++ranges.back().count();
        } else {
            ranges.emplace_back(block, 1);
        }
    }
    return ranges;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 2) return 0;
    const bool setBits = (data[0] & 1) != 0;
    const bool msbFirst = (data[0] & 2) != 0;
    const std::string map(reinterpret_cast<const char*>(data + 1), size - 1);
    const std::size_t bits = map.size() * 8 - (data[0] >> 2) % 8;

    const auto ranges = agent::BitRangeFinder(setBits, msbFirst).findRanges(map.data(), bits);
    agent::fuzz::require(ranges == walk(map, bits, setBits, msbFirst));

    std::stringstream stream;
    agent::BlockRangeBitmapStream(stream, bits, 0).toBitmap({ranges.begin(), ranges.end()}, msbFirst);
    const std::string written = stream.str();
    agent::fuzz::require(agent::BitRangeFinder(true, msbFirst).findRanges(written.data(), bits) == ranges);
    return 0;
}
