#include "agent/BitRangeFinder.h"

#include <bit>
#include <cstdint>
#include <cstring>
#include <stdexcept>

namespace agent {

namespace {

constexpr std::array<unsigned char, 256> computeBitswapMap()
{
    std::array<unsigned char, 256> map{};
    for (unsigned int byte = 0; byte < map.size(); ++byte) {
        for (unsigned int bit = 0; bit < 8; ++bit) {
            if ((byte >> bit & 1U) != 0) map[byte] = static_cast<unsigned char>(map[byte] | 0x80U >> bit);
        }
    }
    return map;
}

} // namespace

constinit const std::array<unsigned char, 256> detail::bitswapMap = computeBitswapMap();

IRangeFinder::~IRangeFinder() = default;

// --- bitmaps ------------------------------------------------------------------------------------------

constexpr BitRangeFinder::ByteRanges BitRangeFinder::computeRanges(unsigned char byte)
{
    ByteRanges ranges{};
    bool wasSet = false;
    for (unsigned char position = 0; position < 8; ++position) {
        const bool isSet = (byte & 0x80U >> position) != 0;
        if (isSet && !wasSet) {
            ranges.runs[ranges.runCount] = {position, 1};
            ++ranges.runCount;
        } else if (isSet) {
            ++ranges.runs[ranges.runCount - 1U].length;
        }
        if (position == 0) ranges.firstBitSet = isSet;
        wasSet = isSet;
    }
    ranges.lastBitSet = wasSet;
    return ranges;
}

constexpr BitRangeFinder::Lookup BitRangeFinder::computeMap()
{
    Lookup map{};
    for (unsigned int byte = 0; byte < map.size(); ++byte) {
        map[byte] = computeRanges(static_cast<unsigned char>(byte));
    }
    return map;
}

constinit const BitRangeFinder::Lookup BitRangeFinder::s_lookup = computeMap();

/// One pass over a bitmap, in pieces that follow each other. A run that crosses from one piece, word or byte
/// into the next is carried on.
class BitRangeFinder::Search {
public:
    explicit Search(const BitRangeFinder& finder)
        : m_unmarkedByte(finder.m_findSetBits ? 0x00 : 0xFF)
        , m_unmarkedWord(finder.m_findSetBits ? 0 : ~std::uint64_t{0})
        , m_msbFirst(finder.m_msbFirst)
    {
    }

    unsigned char unmarkedByte() const { return m_unmarkedByte; }

    /// Scans `bytes` bytes whose first bit is block `firstBlock`. The seven bytes after them must be readable
    /// as well: each step looks at eight.
    void scan(const unsigned char* piece, unsigned long bytes, unsigned long firstBlock)
    {
        unsigned long i = 0;
        while (i < bytes) {
            std::uint64_t word = 0;
            std::memcpy(&word, piece + i, sizeof word);
            if (word == m_unmarkedWord) {
                m_isCarrying = false;
                i += sizeof word;
            } else if (word == ~m_unmarkedWord && i + sizeof word <= bytes) {
                addRun(firstBlock + 8 * i, 64);
                i += sizeof word;
            } else {
                addByte(piece[i], firstBlock + 8 * i);
                ++i;
            }
        }
    }

    std::vector<BlockRange> take() { return std::move(m_ranges); }

private:
    void addRun(unsigned long start, unsigned long count)
    {
        if (m_isCarrying) {
            m_ranges.back().count() += count;
        } else {
            m_ranges.emplace_back(start, count);
        }
        m_isCarrying = true;
    }

    void addByte(unsigned char byte, unsigned long firstBlock)
    {
        const unsigned char ordered = m_msbFirst ? byte : detail::bitswapMap[byte];
        const ByteRanges& found = s_lookup[static_cast<unsigned char>(ordered ^ m_unmarkedByte)];
        m_isCarrying = m_isCarrying && found.firstBitSet;
        for (unsigned int i = 0; i < found.runCount; ++i) {
            addRun(firstBlock + found.runs[i].start, found.runs[i].length);
            m_isCarrying = false;
        }
        m_isCarrying = found.lastBitSet;
    }

    unsigned char m_unmarkedByte;
    std::uint64_t m_unmarkedWord;
    bool m_msbFirst;
    bool m_isCarrying = false; // the block before the next one is marked, and the last range ends with it
    std::vector<BlockRange> m_ranges;
};

BitRangeFinder::BitRangeFinder(bool findSetBits, bool msbFirst)
    : m_findSetBits(findSetBits)
    , m_msbFirst(msbFirst)
{
}

BitRangeFinder::~BitRangeFinder() = default;

// The head, all whole bytes but the last seven, is read in place: looking eight bytes ahead stays inside the
// map. The rest goes through a copy that is padded with unmarked bits.
std::vector<BlockRange> BitRangeFinder::findRanges(const void* map, unsigned long size) const
{
    if (map == nullptr) throw std::invalid_argument("Bad bitmap pointer passed to findRanges function");
    if (size == 0) {
        throw std::invalid_argument("Bad bitmap size passed to findRanges function (size must be > 0)");
    }
    const unsigned long headBytes = size > 64 ? size / 8 - 7 : 0;
    if (size < headBytes * 8) throw std::invalid_argument("Invalid bitmap length passed to lookupAlgorithm.");

    Search search(*this);
    const auto* const bytes = static_cast<const unsigned char*>(map);
    search.scan(bytes, headBytes, 0);

    constexpr unsigned long kTailBytes = 8;
    std::array<unsigned char, 2 * kTailBytes> tail{};
    tail.fill(search.unmarkedByte());
    const unsigned long wholeTailBytes = size / 8 - headBytes;
    std::memcpy(tail.data(), bytes + headBytes, wholeTailBytes);
    if (const auto validBits = static_cast<unsigned int>(size % 8); validBits != 0) {
        const unsigned int valid = m_msbFirst ? 0xFF00U >> validBits : (1U << validBits) - 1;
        const unsigned int last = bytes[size / 8];
        tail[wholeTailBytes] = static_cast<unsigned char>((last & valid) | (search.unmarkedByte() & ~valid));
    }
    search.scan(tail.data(), kTailBytes, headBytes * 8);
    return search.take();
}

// --- usage maps ---------------------------------------------------------------------------------------

U64RangeFinder::U64RangeFinder(bool findNonZero)
    : m_findNonZero(findNonZero)
{
}

U64RangeFinder::~U64RangeFinder() = default;

std::vector<BlockRange> U64RangeFinder::findRanges(const void* map, unsigned long size) const
{
    if (map == nullptr) throw std::invalid_argument("Bad usage map pointer passed to findRanges function");

    const auto* const bytes = static_cast<const unsigned char*>(map);
    std::vector<BlockRange> ranges;
    bool wasMarked = false;
    unsigned long start = 0;
    for (unsigned long i = 0; i < size; ++i) {
        std::uint64_t word = 0;
        std::memcpy(&word, bytes + i * sizeof word, sizeof word);
        const bool isMarked = (word != 0) == m_findNonZero;
        if (isMarked && !wasMarked) start = i;
        if (!isMarked && wasMarked) ranges.emplace_back(start, i - start);
        wasMarked = isMarked;
    }
    if (wasMarked) ranges.emplace_back(start, size - start);
    return ranges;
}

// --- factory ------------------------------------------------------------------------------------------

BitRangeFinderFactory::~BitRangeFinderFactory() = default;

std::unique_ptr<IRangeFinder> BitRangeFinderFactory::createBitRangeFinder(
    BitRangeFinderType type, bool a, bool b) const
{
    switch (type) {
    case Bit:
        return std::make_unique<BitRangeFinder>(a, b);
    case U64:
        return std::make_unique<U64RangeFinder>(a);
    }
    throw std::runtime_error("Unknown bit range finder type");
}

} // namespace agent
