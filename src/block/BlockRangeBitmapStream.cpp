#include "agent/BlockRangeBitmapStream.h"

#include "agent/BitRangeFinder.h"
#include "agent/PosixError.h"

#include <algorithm>
#include <cerrno>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent {

namespace {

using namespace std::string_literals;

constexpr unsigned long kMaxChunk = 1UL << 20; // bytes written at a time

// To be called right after the stream operation, before anything can overwrite errno.
void throwIfFailed(const std::ostream& stream, const char* message)
{
    const int error = errno;
    if (stream.fail()) throw PosixError(message, error);
}

// Moves the put position and makes sure that it is there.
// @param what  begins both messages
void seekTo(std::ostream& stream, unsigned long position, const char* what)
{
    stream.seekp(static_cast<std::streamoff>(position));
    const int error = errno;
    if (stream.fail()) throw PosixError(what + " Offset: "s + std::to_string(position), error);

    const std::streamoff actual = stream.tellp();
    if (actual == static_cast<std::streamoff>(position)) return;
    throw std::runtime_error(what + " Expected: "s + std::to_string(position) + " | Actual: " + std::to_string(actual));
}

} // namespace

/// Writes the bytes of one range after the other.
class BlockRangeBitmapStream::Writer {
public:
    Writer(std::ostream& stream, unsigned long offset, unsigned long bitmapBytes, bool msbFirst)
        : m_stream(stream)
        , m_offset(offset)
        , m_lastAllowed(offset + bitmapBytes) // one past the end, tolerated
        , m_msbFirst(msbFirst)
    {
    }

    void write(const BlockRange& range)
    {
        const unsigned long firstByte = range.start() / 8;
        if (firstByte < m_lastByte) throw std::runtime_error("Overlapping range not supported");
        if (firstByte > m_lastByte) m_kept = 0;
        seekTo(m_stream, m_offset + firstByte, "Failed to seek to offset to write block ranges in bitmap file.");

        const unsigned long startBit = range.start() % 8;
        // Not (startBit + count + 7) / 8, which wraps for counts near 2^64.
        const unsigned long bytes = range.count() / 8 + (startBit + range.count() % 8 + 7) / 8;
        if (bytes == 0) return;
        writeBytes(range, bytes);
        m_lastByte = firstByte + bytes - 1;
    }

private:
    // The stream's position was checked just now for the first chunk and is asked for before each further one.
    void writeBytes(const BlockRange& range, unsigned long bytes)
    {
        unsigned long position = m_offset + range.start() / 8;
        for (unsigned long done = 0; done < bytes;) {
            if (done != 0) position = static_cast<unsigned long>(std::streamoff(m_stream.tellp()));
            if (position > m_lastAllowed) { // so is -1, of a stream that does not know where it is
                throw std::logic_error(
                    "Cannot write byte past the max size of the bitmap. Stream Offset: " + std::to_string(position));
            }
            const auto chunk = std::min({bytes - done, kMaxChunk, m_lastAllowed - position + 1});
            m_chunk.assign(chunk, '\xFF');
            if (done == 0) m_chunk.front() = ordered(firstByteOf(range, bytes));
            if (done + chunk == bytes && bytes > 1) m_chunk.back() = ordered(lastByteOf(range));
            m_stream.write(m_chunk.data(), static_cast<std::streamsize>(chunk));
            throwIfFailed(m_stream, "Failed to write block ranges to bitmap file.");
            done += chunk;
        }
    }

    // Bytes are put together with the most significant bit first. The last one composed is kept: the next
    // range may begin in it.
    unsigned char firstByteOf(const BlockRange& range, unsigned long bytes)
    {
        const unsigned long startBit = range.start() % 8;
        const unsigned long bits = bytes == 1 ? ((0xFFUL >> range.count()) ^ 0xFFUL) >> startBit : 0xFFUL >> startBit;
        m_kept = static_cast<unsigned char>(m_kept | bits);
        return m_kept;
    }

    unsigned char lastByteOf(const BlockRange& range)
    {
        const unsigned long bits = range.end() % 8;
        m_kept = static_cast<unsigned char>(bits == 0 ? 0xFF : (0xFFUL >> bits) ^ 0xFFUL);
        return m_kept;
    }

    char ordered(unsigned char byte) const { return static_cast<char>(m_msbFirst ? byte : detail::bitswapMap[byte]); }

    std::ostream& m_stream;
    unsigned long m_offset;
    unsigned long m_lastAllowed; // position in the stream
    bool m_msbFirst;
    unsigned long m_lastByte = 0; // last byte written, from the bitmap's first
    unsigned char m_kept = 0;     // its value, most significant bit first
    std::vector<char> m_chunk;    // kept to be used again
};

BlockRangeBitmapStream::BlockRangeBitmapStream(std::ostream& stream, unsigned long blockCount, unsigned long offset)
    : m_stream(stream)
    , m_blockCount(blockCount)
    , m_offset(offset)
{
    if (stream.fail()) throw std::runtime_error("Bitmap file stream is in failed state.");
}

unsigned long BlockRangeBitmapStream::calculateBitmapByteSize(unsigned long blockCount)
{
    return blockCount / 8 + (blockCount % 8 != 0 ? 1 : 0);
}

void BlockRangeBitmapStream::clearBitmap()
{
    // A stream that was read to its end refuses to write without counting as failed: the bitmap would be lost in
    // silence.
    if (m_stream.eof()) m_stream.clear(m_stream.rdstate() & ~std::ios::eofbit);
    seekTo(m_stream, m_offset, "Failed to seek to offset in bitmap file.");
    // One insertion, padded to the bitmap's size. setw() takes an int, which is too narrow.
    m_stream.width(static_cast<std::streamsize>(calculateBitmapByteSize(m_blockCount)));
    m_stream.fill('\0');
    m_stream << '\0';
    throwIfFailed(m_stream, "Failed to clear bitmap in bitmap file.");
}

unsigned long BlockRangeBitmapStream::toBitmap(const std::set<BlockRange>& ranges, bool msbFirst)
{
    clearBitmap();

    unsigned long total = 0;
    Writer writer(m_stream, m_offset, calculateBitmapByteSize(m_blockCount), msbFirst);
    for (const BlockRange& range : ranges) {
        total += range.count();
        writer.write(range);
    }
    m_stream.flush();
    throwIfFailed(m_stream, "Failed to flush block ranges to bitmap file.");
    return total;
}

} // namespace agent
