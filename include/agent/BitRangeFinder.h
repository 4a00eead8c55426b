#pragma once

#include "agent/BlockRange.h"
#include "agent/Export.h"

#include <array>
#include <memory>
#include <vector>

namespace agent {

/// Finds the runs of marked blocks in a map of a volume.
///
///     const BitRangeFinderFactory factory;
///     const auto finder = factory.createBitRangeFinder(BitRangeFinderFactory::Bit, true, true);
///     for (const BlockRange& range : finder->findRanges(bitmap.data(), blockCount)) send(range);
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IRangeFinder {
public:
    virtual ~IRangeFinder();

    /// @param size  length of the map in the finder's unit (bits, words), not in bytes
    /// @return      ascending maximal runs, no two touching; empty if nothing is marked
    virtual std::vector<BlockRange> findRanges(const void* map, unsigned long size) const = 0;

protected:
    IRangeFinder() = default;
    IRangeFinder(const IRangeFinder&) = default;
    IRangeFinder& operator=(const IRangeFinder&) = default;
};

/// Runs of set or of clear bits in a bitmap that has one bit a block.
///
/// Made for maps that change seldom from marked to unmarked: words that only continue what was before them are
/// passed over 32 bytes at a time. The result grows at the pace of the map so far, so it may come with spare
/// capacity. The map is read in place, at any alignment, and never beyond its (size + 7) / 8 bytes; bits of its
/// last byte beyond `size` are ignored.
///
/// Threads: immutable; any number may search with one finder. Usable from static constructors of other files.
class AGENTKIT_API BitRangeFinder : public IRangeFinder {
public:
    /// @param findSetBits  true: the runs sought are of bits that are 1; false: of bits that are 0
    /// @param msbFirst     true: block n is bit 7 - n % 8 of byte n / 8; false: it is bit n % 8
    BitRangeFinder(bool findSetBits, bool msbFirst);
    ~BitRangeFinder() override;

    /// @param map   (size + 7) / 8 readable bytes
    /// @param size  in bits
    /// @throws std::invalid_argument  for a null map or a size of 0
    std::vector<BlockRange> findRanges(const void* map, unsigned long size) const override;

private:
    class Search;

    struct Run {
        unsigned char start;  // position in the byte, from the most significant bit
        unsigned char length; // 1 to 8; 0 in the places past the last run
    };

    /// The runs of 1 bits in a byte, most significant bit first.
    struct ByteRanges {
        bool firstBitSet;
        bool lastBitSet;
        unsigned char runCount;
        std::array<Run, 4> runs; // 0xAA has four, more do not fit
    };
    static_assert(sizeof(ByteRanges) == 11);
    using Lookup = std::array<ByteRanges, 256>;

    static constexpr ByteRanges computeRanges(unsigned char byte);
    static constexpr Lookup computeMap();

    static const Lookup s_lookup; // constant-initialised: ready before any constructor runs

    bool m_findSetBits;
    bool m_msbFirst;
};

/// Runs of words that are, or are not, 0 in a usage map that has one 64-bit word a block.
/// Threads: immutable; any number may search with one finder.
class AGENTKIT_API U64RangeFinder : public IRangeFinder {
public:
    /// @param findNonZero  true: the runs sought are of words other than 0; false: of words that are 0
    explicit U64RangeFinder(bool findNonZero);
    ~U64RangeFinder() override;

    /// @param map   `size` words, at any alignment
    /// @param size  in words; 0 finds nothing
    /// @throws std::invalid_argument  for a null map
    std::vector<BlockRange> findRanges(const void* map, unsigned long size) const override;

private:
    bool m_findNonZero;
};

/// Makes either finder. The order of its virtual functions is part of the binary interface.
class AGENTKIT_API BitRangeFinderFactory {
public:
    enum BitRangeFinderType : int { Bit = 0, U64 = 1 };

    virtual ~BitRangeFinderFactory();

    /// @param a  what is sought: set bits, or words other than 0
    /// @param b  for bitmaps: most significant bit first; else ignored
    /// @throws std::runtime_error  for any other type
    virtual std::unique_ptr<IRangeFinder> createBitRangeFinder(BitRangeFinderType type, bool a, bool b) const;
};

namespace detail {

/// Entry i is i with its eight bits in reverse order.
AGENTKIT_API extern const std::array<unsigned char, 256> bitswapMap;

} // namespace detail

} // namespace agent
