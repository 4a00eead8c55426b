#include "agent/BlockRangeBitmapStream.h"
#include "TempDir.h"
#include "agent/BitRangeFinder.h"
#include "agent/PosixError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <fstream>
#include <functional>
#include <limits>
#include <random>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent {
namespace {

using Ranges = std::set<BlockRange>;

// Written in hexadecimal, bit order by bit order; what lies around the bitmap must not change.
std::string written(unsigned long blocks, const Ranges& ranges, bool msbFirst)
{
    std::stringstream stream(std::string(100, '~') + "????" + "!!!!!!!!");
    BlockRangeBitmapStream bitmap(stream, blocks, 100);
    bitmap.toBitmap(ranges, msbFirst);
    const std::string all = stream.str();
    EXPECT_EQ(all.substr(0, 100), std::string(100, '~'));
    std::string hex;
    for (const char c : all.substr(100, all.find('!') - 100)) {
        constexpr const char* kDigits = "0123456789abcdef";
        if (c == '?') break;
        hex += kDigits[static_cast<unsigned char>(c) >> 4];
        hex += kDigits[static_cast<unsigned char>(c) & 15];
    }
    return hex;
}

TEST(BlockRangeBitmapStream, PutsEachBlockInItsPlace)
{
    struct Case {
        const char* why;
        unsigned long blocks;
        Ranges ranges;
        std::string msbFirst;
        std::string lsbFirst;
    };
    const Case cases[] = {
        {"no blocks: one zero byte", 0, {}, "00", "00"},
        {"nothing set", 9, {}, "0000", "0000"},
        {"across two bytes", 9, {{3, 6}}, "1f80", "f801"},
        {"two in one byte", 8, {{0, 3}, {5, 2}}, "e6", "67"},
        {"given in any order", 16, {{8, 8}, {0, 4}}, "f0ff", "0fff"},
        {"whole bytes between", 32, {{7, 18}}, "01ffff80", "80ffff01"},
        {"ends with a byte", 16, {{4, 12}}, "0fff", "f0ff"},
        {"begins where the one before ended", 16, {{0, 10}, {10, 3}, {14, 1}}, "fffa", "ff5f"},
        {"overlap within a byte", 8, {{0, 8}, {0, 4}}, "ff", "ff"},
        {"empty ranges leave the rest alone", 16, {{0, 3}, {1, 0}, {8, 0}, {9, 0}}, "e000", "0700"},
        {"an empty one within a later byte", 16, {{3, 0}, {9, 2}, {12, 0}}, "0060", "0006"},
        {"beyond the last block, in its byte", 9, {{8, 8}}, "00ff", "00ff"},
        {"one byte too far is tolerated", 8, {{8, 8}}, "00ff", "00ff"},
    };
    for (const auto& [why, blocks, ranges, msbFirst, lsbFirst] : cases) {
        EXPECT_EQ(written(blocks, ranges, true), msbFirst) << why;
        EXPECT_EQ(written(blocks, ranges, false), lsbFirst) << why;
    }
}

TEST(BlockRangeBitmapStream, ReturnsTheSumOfTheCounts)
{
    std::stringstream stream;
    BlockRangeBitmapStream bitmap(stream, 64, 0);
    EXPECT_EQ(bitmap.toBitmap({{0, 3}, {5, 2}}, true), 5U);
    EXPECT_EQ(bitmap.toBitmap({{0, 8}, {0, 4}}, true), 12U);
    EXPECT_EQ(bitmap.toBitmap({}, true), 0U);
    EXPECT_EQ(stream.str(), std::string(8, '\0'));
    EXPECT_EQ(stream.fill(), '\0');
    EXPECT_EQ(BlockRangeBitmapStream::calculateBitmapByteSize(ULONG_MAX), 1UL << 61);
}

std::string failure(std::ostream& stream, unsigned long blocks, unsigned long offset, const Ranges& ranges)
{
    try {
        BlockRangeBitmapStream(stream, blocks, offset).toBitmap(ranges, true);
    } catch (const PosixError& e) {
        return std::string("posix ") + e.what();
    } catch (const std::logic_error& e) {
        return std::string("logic ") + e.what();
    } catch (const std::runtime_error& e) {
        return std::string("runtime ") + e.what();
    }
    return "nothing thrown";
}

TEST(BlockRangeBitmapStream, RefusesRangesThatDoNotFit)
{
    std::stringstream stream("0123456789");
    EXPECT_EQ(failure(stream, 32, 4, {{0, 16}, {0, 4}}), "runtime Overlapping range not supported");
    const std::string tooFar = "logic Cannot write byte past the max size of the bitmap. Stream Offset: ";
    EXPECT_EQ(failure(stream, 8, 4, {{8, 16}}), tooFar + "6");
    EXPECT_EQ(stream.str().substr(4), std::string("\0\xFF\0\0", 4) + "89"); // the tolerated byte was written
    for (const unsigned long start : {0UL, 1UL, 7UL}) {
        EXPECT_EQ(failure(stream, 8, 4, {{start, ULONG_MAX}}), tooFar + "6") << start;
    }

    test::TempDir dir;
    std::ofstream file(dir / "bitmap", std::ios::binary);
    EXPECT_EQ(failure(file, 8, 4, {{24, 8}}), tooFar + "7"); // a file can be sought beyond its end
    stream.setstate(std::ios::failbit);
    EXPECT_EQ(failure(stream, 8, 0, {}), "runtime Bitmap file stream is in failed state.");
}

/// A stream buffer in memory that fails at the n-th call of a kind and counts the calls.
class ScriptedBuffer : public std::stringbuf {
public:
    int failingSeek = 0;
    int failingTell = 0;
    int failingWrite = 0;
    bool failingSync = false;
    bool isLost = false; // seeks end up elsewhere
    int seeks = 0;
    int tells = 0;
    int writes = 0;

protected:
    pos_type seekpos(pos_type position, std::ios::openmode which) override
    {
        if (++seeks == failingSeek) return fail(ESPIPE);
        return std::stringbuf::seekpos(isLost ? pos_type(0) : position, which);
    }
    pos_type seekoff(off_type offset, std::ios::seekdir way, std::ios::openmode which) override
    {
        if (++tells == failingTell) return fail(ESPIPE);
        return std::stringbuf::seekoff(offset, way, which);
    }
    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        if (++writes != failingWrite) return std::stringbuf::xsputn(text, size);
        errno = ENOSPC;
        return 0;
    }
    int sync() override { return failingSync ? (errno = EIO, -1) : 0; }

private:
    static pos_type fail(int error)
    {
        errno = error;
        return {off_type(-1)};
    }
};

TEST(BlockRangeBitmapStream, TellsWhichStepFailed)
{
    const Ranges ranges{{0, 4}, {64, 100}};
    const auto failureOf = [&](const std::function<void(ScriptedBuffer&)>& script) {
        ScriptedBuffer buffer;
        script(buffer);
        std::ostream stream(&buffer);
        return failure(stream, 256, 0, ranges);
    };
    const std::string seek = "posix Failed to seek to offset ";
    const std::string tail = ": Illegal seek | ERROR(Posix) : 29 (0x0000001d)";
    const std::string full = ": No space left on device | ERROR(Posix) : 28 (0x0000001c)";
    EXPECT_EQ(failureOf([](auto& b) { b.failingSeek = 1; }), seek + "in bitmap file. Offset: 0" + tail);
    EXPECT_EQ(failureOf([](auto& b) { b.failingSeek = 2; }),
        seek + "to write block ranges in bitmap file. Offset: 0" + tail);
    EXPECT_EQ(failureOf([](auto& b) { b.failingSeek = 3; }),
        seek + "to write block ranges in bitmap file. Offset: 8" + tail);
    EXPECT_EQ(failureOf([](auto& b) { b.failingTell = 1; }),
        "runtime Failed to seek to offset in bitmap file. Expected: 0 | Actual: -1");
    EXPECT_EQ(failureOf([](auto& b) { b.isLost = true; }),
        "runtime Failed to seek to offset to write block ranges in bitmap file. Expected: 8 | Actual: 0");
    EXPECT_EQ(
        failureOf([](auto& b) { b.failingWrite = 1; }), "posix Failed to clear bitmap in bitmap file." + full);
    EXPECT_EQ(failureOf([](auto& b) { b.failingWrite = 2; }),
        "posix Failed to write block ranges to bitmap file." + full);
    EXPECT_EQ(failureOf([](auto& b) { b.failingSync = true; }),
        "posix Failed to flush block ranges to bitmap file.: "
        "Input/output error | ERROR(Posix) : 5 (0x00000005)");
}

TEST(BlockRangeBitmapStream, AsksAndWritesOncePerRunNotPerByte)
{
    ScriptedBuffer buffer;
    std::ostream stream(&buffer);
    BlockRangeBitmapStream(stream, 1UL << 26, 0).toBitmap({{3, (1UL << 26) - 5}}, true); // 8 MiB
    EXPECT_EQ(buffer.seeks, 2);
    EXPECT_LE(buffer.tells, 16);
    EXPECT_LE(buffer.writes, 16);
}

TEST(BlockRangeBitmapStream, AFullDiskIsAnError)
{
    std::ofstream full("/dev/full", std::ios::binary); // cannot be sought beyond 0, writes fail
    EXPECT_TRUE(failure(full, 1UL << 20, 0, {}).starts_with("posix Failed to "));
}

TEST(BlockRangeBitmapStream, TheFinderReadsTheRangesBack)
{
    test::TempDir dir;
    std::mt19937 random(3); // NOLINT(cert-msc*): the same ranges each time
    for (const unsigned long step : {5UL, 60UL, 20'000'000UL}) {
        Ranges ranges;
        unsigned long end = 0;
        for (int i = 0; i < 3; ++i) {
            const unsigned long start = end + 1 + random() % step;
            const unsigned long count = 1 + random() % step;
            ranges.emplace(start, count);
            end = start + count;
        }
        for (const bool msbFirst : {false, true}) {
            const std::string path = dir.file("bitmap", "header");
            std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
            BlockRangeBitmapStream(file, end, 6).toBitmap(ranges, msbFirst);
            file.close();
            const std::string content = test::contentOf(path);
            EXPECT_EQ(content.substr(0, 6), "header");
            EXPECT_EQ(content.size(), 6 + BlockRangeBitmapStream::calculateBitmapByteSize(end));
            const auto found = BitRangeFinder(true, msbFirst).findRanges(content.data() + 6, end);
            EXPECT_EQ(Ranges(found.begin(), found.end()), ranges);
        }
    }
}

} // namespace
} // namespace agent
