#pragma once

#include "agent/BlockRange.h"
#include "agent/Export.h"

#include <ostream>
#include <set>

namespace agent {

/// Writes block ranges into a bitmap that lies at a known place of a stream, one bit a block.
///
///     std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
///     BlockRangeBitmapStream(file, blockCount, 0).toBitmap(changes, true);
///
/// The bitmap is (blockCount + 7) / 8 bytes long, without header or padding. Block n is in its byte n / 8. For
/// nine blocks and the range [3, 9) the bytes are 0x1F 0x80, or 0xF8 0x01 with the least significant bit first.
/// BitRangeFinder reads it back; ranges that touch are joined then.
///
/// Errors: the bitmap is left as far as it was written. A stream in a failed state is a PosixError with the
/// `errno` of that moment; one that throws by itself (its exceptions() are on) throws its own error. Nothing is
/// locked: the stream must be left alone during a call.
class AGENTKIT_API BlockRangeBitmapStream {
public:
    /// @param stream      borrowed; its put position must be seekable; may hold other data around the bitmap and the
    ///                    byte right after it, which may be overwritten
    /// @param blockCount  bits of the bitmap
    /// @param offset      byte position of the bitmap's first byte in the stream
    /// @throws std::runtime_error  if the stream is in a failed state
    BlockRangeBitmapStream(std::ostream& stream, unsigned long blockCount, unsigned long offset);

    static unsigned long calculateBitmapByteSize(unsigned long blockCount);

    /// Sets every byte of the bitmap to 0; a bitmap of no blocks still gets one zero byte. The stream's fill
    /// character is '\0' afterwards.
    /// @throws PosixError          if the stream fails
    /// @throws std::runtime_error  if the put position after a seek is not the one asked for
    void clearBitmap();

    /// Clears the bitmap, sets the bits of all ranges and flushes the stream.
    ///
    /// Ranges may share a byte, even overlap within the byte in which the earlier one ends; one that begins in
    /// an earlier byte is refused. One byte beyond the bitmap's end is tolerated: trackers whose last block is
    /// a partial one report it, and readers ignore that byte.
    /// @return  the sum of the counts of all ranges; shared blocks count twice
    /// @throws PosixError, std::runtime_error  as clearBitmap
    /// @throws std::runtime_error              for an overlap that reaches beyond a byte
    /// @throws std::logic_error                for a range that goes further beyond the end than tolerated
    unsigned long toBitmap(const std::set<BlockRange>& ranges, bool msbFirst);

private:
    class Writer;

    std::ostream& m_stream;
    unsigned long m_blockCount;
    unsigned long m_offset;
};

} // namespace agent
