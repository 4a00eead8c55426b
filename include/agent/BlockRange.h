#pragma once

#include "agent/Export.h"

#include <ostream>

namespace agent {

/// A stretch of blocks, [start, start + count). What a block is (a bit of a change bitmap, a block of a file
/// system, a byte) is for its user to know.
///
///     std::set<BlockRange> changes{{8, 4}, {100, 1}};
///
/// Sums and products wrap silently at 2^64. Threads: a value.
class AGENTKIT_API BlockRange {
public:
    constexpr BlockRange() = default;

    /// Not explicit: {8, 4} is a range wherever one is wanted.
    constexpr BlockRange(unsigned long start, unsigned long count)
        : m_start(start)
        , m_count(count)
    {
    }

    constexpr bool isEmpty() const { return m_count == 0; }

    constexpr unsigned long start() const { return m_start; }
    constexpr unsigned long& start() { return m_start; }

    constexpr unsigned long count() const { return m_count; }
    constexpr unsigned long& count() { return m_count; }

    /// One past the last block.
    constexpr unsigned long end() const { return m_start + m_count; }

    /// Whether the first or the last block of `other` lies in this range. One-sided on purpose: a range that
    /// sticks out of this one at both ends does not count, though this one counts as overlapping that. Callers
    /// ask both ways where they mean both. An empty range overlaps nothing.
    constexpr bool overlaps(const BlockRange& other) const
    {
        if (other.isEmpty() || isEmpty()) return false;
        const unsigned long last = other.end() - 1;
        return (m_start <= other.m_start && other.m_start < end()) || (m_start <= last && last < end());
    }

private:
    unsigned long m_start = 0;
    unsigned long m_count = 0;
};

static_assert(sizeof(BlockRange) == 16);

constexpr bool operator==(const BlockRange& a, const BlockRange& b)
{
    return a.start() == b.start() && a.count() == b.count();
}
constexpr bool operator!=(const BlockRange& a, const BlockRange& b)
{
    return !(a == b);
}

/// By start; at equal starts the longer range sorts first: BlockRangeBitmapStream walks an ordered set and must
/// meet it before the shorter one.
constexpr bool operator<(const BlockRange& a, const BlockRange& b)
{
    return a.start() != b.start() ? a.start() < b.start() : a.count() > b.count();
}
constexpr bool operator>=(const BlockRange& a, const BlockRange& b)
{
    return !(a < b);
}
constexpr bool operator>(const BlockRange& a, const BlockRange& b)
{
    return !(a < b) && !(a == b);
}
constexpr bool operator<=(const BlockRange& a, const BlockRange& b)
{
    return !(a > b);
}

/// "[8, 12)": start and end in the stream's base, never with the digit grouping of its locale.
AGENTKIT_API std::ostream& operator<<(std::ostream& os, const BlockRange& range);

/// Four lines that show the range in bytes and in blocks, in decimal and in hexadecimal.
///
/// On return, also by an exception, the stream's flags are those that it came with *and* those set meanwhile:
/// hexadecimal and show-base stay set beside the old ones. Callers rely on it: what they print next in decimal
/// stays decimal, since two bits of the base field count as none.
/// @param blockSize  bytes in a block
AGENTKIT_API void logTo(std::ostream& os, const BlockRange& range, unsigned long blockSize);

/// The blocks of a larger size that lie wholly in a range of small ones.
///
/// `offset` moves only the start; the count follows from the range alone. A count of less than the rest that is
/// cut off at the end, or of 2^63 and more, makes an empty range.
/// @param ratio   small blocks in a large one; 0 is a division by zero
/// @param offset  in small blocks
AGENTKIT_API BlockRange scaleBlockRangeFSLargerBlockSize(
    unsigned long ratio, const BlockRange& range, unsigned long offset);

/// The small blocks that make up a range of large ones.
/// @param ratio   small blocks in a large one
/// @param offset  in large blocks
AGENTKIT_API BlockRange scaleBlockRangeFSSmallerBlockSize(
    unsigned long ratio, const BlockRange& range, unsigned long offset);

/// The smallest power of two that is not below `v`; 1 for 0.
/// @throws std::runtime_error  for more than 2^31
AGENTKIT_API unsigned int roundUpNextHighestPowerOfTwo(unsigned int v);

AGENTKIT_API bool isPowerOfTwo(unsigned long v);

/// A block size with which a volume has at most 2^32 - 1 whole blocks: `blockSize` itself if it serves, else
/// the next power of two that does. A block size above 2^31 counts as 4096.
/// @param totalSize  bytes of the volume
/// @param blockSize  bytes; 0 is a division by zero
/// @throws std::runtime_error  if not even blocks of 2^31 bytes serve
AGENTKIT_API unsigned long adjustBlockSizeSoBlockCountFitsInto32Bits(unsigned long totalSize, unsigned long blockSize);

} // namespace agent
