#include "agent/BlockRangeBitmapStream.h"
#include "Support.h"
#include "agent/BitRangeFinder.h"

namespace {

using Ranges = std::set<BlockRange>;

// A bitmap in the middle of other data.
std::string written(unsigned long blocks, const Ranges& ranges, bool msbFirst)
{
    std::stringstream stream("head????tail");
    stream.ignore(99); // to its end, which must not keep us from writing
    unsigned long total = 0;
    for (const BlockRange& range : ranges) total += range.count();
    EXPECT_EQ(BlockRangeBitmapStream(stream, blocks, 4).toBitmap(ranges, msbFirst), total);
    return stream.str();
}

// What finders find is written again, and found again, in fuzz/BitmapFuzz.cpp, which runs with the tests.
TEST(BlockRangeBitmapStream, PutsEachBlockInItsPlace)
{
    // why, blocks, ranges, bitmap with the most and with the least significant bit first
    const std::tuple<const char*, unsigned long, Ranges, std::string, std::string> cases[] = {
        {"no blocks: one zero byte", 0, {}, "\0???"s, "\0???"s},
        {"begins where the one before ended", 16, {{0, 10}, {10, 3}, {14, 1}}, "\xFF\xFA??"s, "\xFF\x5F??"s},
        {"overlap within a byte", 8, {{0, 8}, {0, 4}}, "\xFF???"s, "\xFF???"s},
        {"empty ranges leave the rest alone", 16, {{0, 3}, {1, 0}, {8, 0}, {9, 2}, {12, 0}}, "\xE0\x60??"s,
            "\x07\x06??"s},
        {"one byte too far is tolerated", 8, {{8, 8}}, "\0\xFF??"s, "\0\xFF??"s},
    };
    for (const auto& [why, blocks, ranges, msbFirst, lsbFirst] : cases) {
        EXPECT_EQ(written(blocks, ranges, true), "head" + msbFirst + "tail") << why;
        EXPECT_EQ(written(blocks, ranges, false), "head" + lsbFirst + "tail") << why;
    }
}

std::string failure(std::ostream& stream, unsigned long blocks, unsigned long offset, const Ranges& ranges)
{
    return thrownBy([&] { BlockRangeBitmapStream(stream, blocks, offset).toBitmap(ranges, true); });
}

TEST(BlockRangeBitmapStream, RefusesRangesThatDoNotFit)
{
    std::stringstream stream("0123456789");
    EXPECT_EQ(failure(stream, 32, 4, {{0, 16}, {0, 4}}), "runtime: Overlapping range not supported");
    const std::string tooFar = "logic: Cannot write byte past the max size of the bitmap. Stream Offset: ";
    EXPECT_EQ(failure(stream, 8, 4, {{8, 16}}), tooFar + "6");
    EXPECT_EQ(stream.str().substr(4), "\0\xFF\0\0"s + "89"); // the tolerated byte was written
    EXPECT_EQ(failure(stream, 8, 4, {{1, ULONG_MAX}}), tooFar + "6");
    EXPECT_EQ(failure(stream, 8, 4, {{24, 8}}), tooFar + "7");
    stream.setstate(std::ios::failbit);
    EXPECT_EQ(failure(stream, 8, 0, {}), "runtime: Bitmap file stream is in failed state.");
}

// Counts the calls of a kind and fails at the n-th.
struct ScriptedBuffer : std::stringbuf {
    struct Calls {
        int count = 0;
        int failing = 0;
        bool fails() { return ++count == failing; }
    };
    Calls seeks, writes, syncs;

    pos_type seekpos(pos_type position, std::ios::openmode which) override
    {
        return seeks.fails() ? errno = ESPIPE, pos_type(-1) : std::stringbuf::seekpos(position, which);
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        return writes.fails() ? errno = ENOSPC, 0 : std::stringbuf::xsputn(text, size);
    }
    int sync() override { return syncs.fails() ? errno = EIO, -1 : 0; }
};

TEST(BlockRangeBitmapStream, TellsWhichStepFailed)
{
    const std::string toClear = "Failed to seek to offset in bitmap file.";
    const std::string toWrite = "Failed to seek to offset to write block ranges in bitmap file.";
    using Buffer = ScriptedBuffer;
    const std::tuple<Buffer::Calls Buffer::*, int, std::string> cases[] = {
        {&Buffer::seeks, 1, posix(toClear + " Offset: 0", ESPIPE)},
        {&Buffer::writes, 1, posix("Failed to clear bitmap in bitmap file.", ENOSPC)},
        {&Buffer::seeks, 3, posix(toWrite + " Offset: 8", ESPIPE)},
        {&Buffer::writes, 3, posix("Failed to write block ranges to bitmap file.", ENOSPC)},
        {&Buffer::syncs, 1, posix("Failed to flush block ranges to bitmap file.", EIO)}};
    for (const auto& [calls, failing, expected] : cases) {
        Buffer buffer;
        (buffer.*calls).failing = failing;
        std::ostream stream(&buffer);
        EXPECT_EQ(failure(stream, 256, 0, {{0, 4}, {64, 100}}), expected);
    }
}

} // namespace
