#include "BlockMap.h"

#include "agent/PosixError.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <numeric>
#include <sstream>
#include <stdexcept>

namespace backup {

using agent::BlockRange;

namespace {

constexpr unsigned long kPieceBytes = 1UL << 20;

std::vector<BlockRange> without(std::vector<BlockRange> excluded, unsigned long blockCount)
{
    std::ranges::sort(excluded, std::less());
    std::vector<BlockRange> covered;
    unsigned long next = 0; // the first block that is not decided yet
    for (const BlockRange& range : excluded) {
        const unsigned long start = std::min(range.start(), blockCount);
        if (start > next) covered.emplace_back(next, start - next);
        next = std::max(next, start + std::min(range.count(), blockCount - start));
    }
    if (next < blockCount) covered.emplace_back(next, blockCount - next);
    return covered;
}

BlockRange parseRange(const std::string& line)
{
    std::istringstream stream(line);
    char open = 0;
    char comma = 0;
    char close = 0;
    unsigned long start = 0;
    unsigned long end = 0;
    const bool complete = stream >> open >> start >> comma >> end >> close && (stream >> std::ws).eof();
    const bool isRange = complete && open == '[' && comma == ',' && close == ')' && start <= end;
    if (!isRange || line.find('-') != std::string::npos)
        throw std::runtime_error("\"" + line + "\" is no range of the form [first block, block after the last)");
    return {start, end - start};
}

} // namespace

BlockMap::BlockMap(unsigned long imageSize, unsigned long blockSize, std::vector<BlockRange> excluded)
    : m_imageSize(imageSize)
    , m_blockSize(blockSize)
    , m_covered(without(std::move(excluded), blockCount()))
{
}

unsigned long BlockMap::bytesIn(const BlockRange& range) const
{
    const auto toByte = [this](unsigned long block) { return block >= blockCount() ? m_imageSize : offsetOf(block); };
    return toByte(range.end()) - toByte(range.start());
}

unsigned long BlockMap::bytesIn(const std::vector<BlockRange>& ranges) const
{
    return std::accumulate(ranges.begin(), ranges.end(), 0UL,
        [this](unsigned long sum, const BlockRange& range) { return sum + bytesIn(range); });
}

void BlockMap::forEachPiece(const std::vector<BlockRange>& ranges, const PieceHandler& handle) const
{
    const unsigned long most = std::max(kPieceBytes / m_blockSize, 1UL);
    for (const BlockRange& range : ranges) {
        for (unsigned long block = range.start(); block < range.end(); block += most)
            handle(BlockRange(block, std::min(most, range.end() - block)));
    }
}

std::vector<BlockRange> readRanges(const std::string& path)
{
    std::ifstream stream(path);
    const int error = errno;
    if (!stream) throw agent::PosixError("cannot read the ranges \"" + path + "\"", error);

    std::vector<BlockRange> ranges;
    std::string line;
    for (int number = 1; std::getline(stream, line); ++number) {
        if (line.find_first_not_of(" \t\r") == std::string::npos) continue;
        try {
            ranges.push_back(parseRange(line));
        } catch (const std::runtime_error& e) {
            throw std::runtime_error("\"" + path + "\", line " + std::to_string(number) + ": " + e.what());
        }
    }
    return ranges;
}

} // namespace backup
