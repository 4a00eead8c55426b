#include "agent/BitRangeFinder.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <utility>

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

namespace {

std::uint64_t loadWord(const unsigned char* map, unsigned long index)
{
    std::uint64_t word = 0;
    std::memcpy(&word, map + index * sizeof word, sizeof word);
    return word;
}

std::uint64_t reverseBitsOfEachByte(std::uint64_t word)
{
    word = (word >> 1 & 0x5555555555555555) | (word & 0x5555555555555555) << 1;
    word = (word >> 2 & 0x3333333333333333) | (word & 0x3333333333333333) << 2;
    return (word >> 4 & 0x0F0F0F0F0F0F0F0F) | (word & 0x0F0F0F0F0F0F0F0F) << 4;
}

// The index of the first word from `i` on that is not `pattern`. Four words at a time, because most of a map is
// passed over here.
unsigned long skipWords(const unsigned char* map, unsigned long i, unsigned long words, std::uint64_t pattern)
{
    const auto differs = [&](unsigned long index) { return loadWord(map, index) ^ pattern; };
    while (i + 4 <= words && (differs(i) | differs(i + 1) | differs(i + 2) | differs(i + 3)) == 0) i += 4;
    while (i < words && differs(i) == 0) ++i;
    return i;
}

unsigned int takeLowestBit(std::uint64_t& bits)
{
    const int position = std::countr_zero(bits);
    bits &= bits - 1;
    return static_cast<unsigned int>(position);
}

} // namespace

/// One pass over a bitmap: its whole words first, then the rest, byte by byte.
class BitRangeFinder::Search {
public:
    Search(const BitRangeFinder& finder, unsigned long words)
        : m_unmarkedByte(finder.m_findSetBits ? 0x00 : 0xFF)
        , m_unmarkedWord(finder.m_findSetBits ? 0 : ~std::uint64_t{0})
        , m_msbFirst(finder.m_msbFirst)
        , m_words(words)
    {
    }

    void scanWords(const unsigned char* map)
    {
        for (unsigned long i = 0; i < m_words; ++i) {
            // A word goes unread if it only continues what was before it, marked or not.
            i = skipWords(map, i, m_words, m_isMarked ? ~m_unmarkedWord : m_unmarkedWord);
            if (i == m_words) break;
            makeRoom(i);
            addWord(loadWord(map, i), 64 * i);
        }
        if (m_isMarked) m_ranges.emplace_back(m_start, 64 * m_words - m_start);
    }

    /// @param bytes  the bytes after the words
    /// @param bits   number of valid bits in them, less than 64
    void scanTail(const unsigned char* bytes, unsigned int bits)
    {
        std::array<unsigned char, 8> tail{};
        std::memcpy(tail.data(), bytes, (bits + 7) / 8);
        if (const unsigned int validBits = bits % 8; validBits != 0) {
            const unsigned int valid = m_msbFirst ? 0xFF00U >> validBits : (1U << validBits) - 1;
            const unsigned int last = tail[bits / 8];
            tail[bits / 8] = static_cast<unsigned char>((last & valid) | (m_unmarkedByte & ~valid));
        }
        for (unsigned int i = 0; i < (bits + 7) / 8; ++i) addByte(tail[i], 64 * m_words + 8UL * i);
    }

    std::vector<BlockRange> take() { return std::move(m_ranges); }

private:
    // Room for the runs that can end in one word. Growing copies everything, so a map that is dense from its
    // beginning is expected to go on like that; but no more than fourfold, since it may not.
    void makeRoom(unsigned long wordsDone)
    {
        if (m_ranges.capacity() - m_ranges.size() >= 32) return;
        const double pace = static_cast<double>(m_ranges.size()) / static_cast<double>(wordsDone + 1);
        const double wanted = pace * static_cast<double>(m_words) * 1.05;
        const unsigned long least = std::max(64UL, 2 * m_ranges.capacity());
        const double most = 2.0 * static_cast<double>(least);
        m_ranges.reserve(std::max(least, static_cast<unsigned long>(std::min(wanted, most))));
    }

    void addWord(std::uint64_t word, unsigned long firstBlock)
    {
        // Block n is bit n of these, whatever the order in the map.
        const std::uint64_t marked = (m_msbFirst ? reverseBitsOfEachByte(word) : word) ^ m_unmarkedWord;
        std::uint64_t changes = marked ^ (marked << 1 | (m_isMarked ? 1U : 0U));
        if (m_isMarked) endRun(firstBlock + takeLowestBit(changes));
        while (changes != 0) {
            m_start = firstBlock + takeLowestBit(changes);
            if (changes == 0) break;
            endRun(firstBlock + takeLowestBit(changes));
        }
        m_isMarked = marked >> 63 != 0;
    }

    void endRun(unsigned long end) { m_ranges.emplace_back(m_start, end - m_start); }

    void addByte(unsigned char byte, unsigned long firstBlock)
    {
        const unsigned char ordered = m_msbFirst ? byte : detail::bitswapMap[byte];
        const ByteRanges& found = s_lookup[static_cast<unsigned char>(ordered ^ m_unmarkedByte)];
        unsigned int next = 0;
        if (m_isMarked && found.firstBitSet) m_ranges.back().count() += found.runs[next++].length;
        for (; next < found.runCount; ++next)
            m_ranges.emplace_back(firstBlock + found.runs[next].start, found.runs[next].length);
        m_isMarked = found.lastBitSet;
    }

    unsigned char m_unmarkedByte;
    std::uint64_t m_unmarkedWord;
    bool m_msbFirst;
    unsigned long m_words;
    bool m_isMarked = false;   // the block before the next one
    unsigned long m_start = 0; // of the run that it belongs to, while scanning words
    std::vector<BlockRange> m_ranges;
};

BitRangeFinder::BitRangeFinder(bool findSetBits, bool msbFirst)
    : m_findSetBits(findSetBits)
    , m_msbFirst(msbFirst)
{
}

BitRangeFinder::~BitRangeFinder() = default;

std::vector<BlockRange> BitRangeFinder::findRanges(const void* map, unsigned long size) const
{
    if (map == nullptr) throw std::invalid_argument("Bad bitmap pointer passed to findRanges function");
    if (size == 0) {
        throw std::invalid_argument("Bad bitmap size passed to findRanges function (size must be > 0)");
    }
    const unsigned long words = size / 64;
    const auto* const bytes = static_cast<const unsigned char*>(map);
    Search search(*this, words);
    search.scanWords(bytes);
    search.scanTail(bytes + 8 * words, static_cast<unsigned int>(size % 64));
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
        const bool isMarked = (loadWord(bytes, i) != 0) == m_findNonZero;
        if (isMarked && !wasMarked) start = i;
        if (!isMarked && wasMarked) ranges.emplace_back(start, i - start);
        wasMarked = isMarked;
    }
    if (wasMarked) ranges.emplace_back(start, size - start);
    return ranges;
}

// --- factory ------------------------------------------------------------------------------------------

BitRangeFinderFactory::~BitRangeFinderFactory() = default;

std::unique_ptr<IRangeFinder> BitRangeFinderFactory::createBitRangeFinder(BitRangeFinderType type, bool a, bool b) const
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
