#include "agent/BlockRange.h"

#include <gtest/gtest.h>

#include <climits>
#include <limits>
#include <locale>
#include <set>
#include <sstream>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <vector>

namespace agent {
namespace {

TEST(BlockRange, SortsByStartAndTheLongerFirst)
{
    const BlockRange longer(3, 5);
    const BlockRange shorter(3, 2);
    const BlockRange later(4, 1);
    EXPECT_TRUE(longer < shorter && longer < later && shorter < later);
    EXPECT_TRUE(shorter > longer && shorter >= longer && longer <= shorter);
    EXPECT_FALSE(longer > shorter || longer >= shorter || shorter <= longer);
    EXPECT_TRUE(longer == BlockRange(3, 5) && longer <= longer && longer >= longer && longer != shorter);
    const std::set<BlockRange> set{later, shorter, longer};
    EXPECT_EQ(
        std::vector<BlockRange>(set.begin(), set.end()), (std::vector<BlockRange>{longer, shorter, later}));
}

TEST(BlockRange, OverlapsIsOneSided)
{
    struct Case {
        const char* why;
        BlockRange other;
        bool expected; // of [5, 10)
    };
    const Case cases[] = {{"last block inside", {0, 6}, true}, {"first block inside", {9, 3}, true},
        {"equal", {5, 5}, true}, {"inside", {6, 2}, true}, {"touches from below", {0, 5}, false},
        {"touches from above", {10, 2}, false}, {"sticks out on both sides", {0, 20}, false},
        {"empty, inside", {7, 0}, false}};
    for (const auto& [why, other, expected] : cases)
        EXPECT_EQ(BlockRange(5, 5).overlaps(other), expected) << why;
    EXPECT_TRUE(BlockRange(0, 20).overlaps({5, 5}));
    EXPECT_FALSE(BlockRange(7, 0).overlaps({0, 20}));
    EXPECT_TRUE(BlockRange(7, 0).isEmpty() && BlockRange().isEmpty());
    EXPECT_FALSE(BlockRange(0, 1).isEmpty());
}

TEST(BlockRange, FieldsCanBeChangedAndTheEndWraps)
{
    BlockRange range(1, 2);
    range.start() = 10;
    range.count() += 3;
    EXPECT_EQ(range, BlockRange(10, 5));
    EXPECT_EQ(range.end(), 15U);
    EXPECT_EQ(BlockRange(ULONG_MAX, 2).end(), 1U);
}

struct Grouping : std::numpunct<char> {
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

TEST(BlockRange, PrintsInTheStreamsBaseWithoutItsGrouping)
{
    std::ostringstream os;
    const std::locale grouping(std::locale::classic(), new Grouping);
    os.imbue(grouping);
    os << BlockRange(8, 4) << std::hex << BlockRange(0x12345, 1) << std::dec << 12345;
    EXPECT_EQ(os.str(), "[8, 12)[12345, 12346)12.345"); // the stream keeps its locale
}

TEST(BlockRange, LogsFourLinesAndAddsTheFlagsBack)
{
    std::ostringstream os;
    os.imbue(std::locale(std::locale::classic(), new Grouping));
    os << std::oct << std::uppercase;
    logTo(os, BlockRange(2, 300), 4096);
    EXPECT_EQ(os.str(), "Byte range: [8192, 1236992) ([8 KB, 1.179688 MB))\n"
                        "Byte count: 1228800 (1.171875 MB)\n"
                        "Block range: [2, 302) ([0X2, 0X12E))\n"
                        "Block count: 300 (0X12C)\n");
    EXPECT_EQ(os.flags(),
        std::ios::oct | std::ios::hex | std::ios::showbase | std::ios::uppercase | std::ios::skipws);

    std::ostringstream plain;
    logTo(plain, BlockRange(0, 5), 1);
    EXPECT_NE(plain.str().find("Block range: [0, 5) ([0, 0x5))\nBlock count: 5 (0x5)\n"), std::string::npos);
    EXPECT_EQ(plain.flags(), std::ios::dec | std::ios::hex | std::ios::showbase | std::ios::skipws);
    plain << 255;
    EXPECT_TRUE(plain.str().ends_with("255")); // two bits of the base field count as none
}

TEST(BlockRange, LogAddsTheFlagsBackAlsoWhenTheStreamThrows)
{
    struct Full : std::streambuf {};
    Full full;
    std::ostream os(&full);
    os.exceptions(std::ios::badbit);
    os << std::oct << std::left;
    EXPECT_THROW(logTo(os, BlockRange(1, 1), 1), std::ios_base::failure);
    EXPECT_EQ(os.flags(), std::ios::oct | std::ios::dec | std::ios::left | std::ios::skipws);
}

struct ScaleCase {
    const char* why;
    unsigned long ratio;
    BlockRange range;
    unsigned long offset;
    BlockRange larger;
    BlockRange smaller;
};
class Scaling : public testing::TestWithParam<ScaleCase> {};

TEST_P(Scaling, GivesWholeBlocks)
{
    const auto& [why, ratio, range, offset, larger, smaller] = GetParam();
    EXPECT_EQ(scaleBlockRangeFSLargerBlockSize(ratio, range, offset), larger) << why;
    EXPECT_EQ(scaleBlockRangeFSSmallerBlockSize(ratio, range, offset), smaller) << why;
}

INSTANTIATE_TEST_SUITE_P(BlockRange, Scaling,
    testing::Values(ScaleCase{"both ends stick out", 4, {1, 8}, 0, {1, 1}, {4, 32}},
        ScaleCase{"no whole block", 4, {1, 6}, 0, {1, 0}, {4, 24}},
        ScaleCase{"two whole blocks", 4, {2, 12}, 0, {1, 2}, {8, 48}},
        ScaleCase{"less than a block, aligned end", 4, {1, 3}, 0, {1, 0}, {4, 12}},
        ScaleCase{"the rest exceeds the count", 4, {5, 2}, 0, {2, 0}, {20, 8}},
        ScaleCase{"the offset moves only the start", 4, {0, 8}, 2, {1, 2}, {8, 32}},
        ScaleCase{"a ratio of one", 1, {7, 9}, 0, {7, 9}, {7, 9}},
        ScaleCase{"a count from 2^63 on is negative", 1, {0, 1UL << 63}, 0, {0, 0}, {0, 1UL << 63}},
        ScaleCase{"products wrap", 2, {0, (1UL << 63) - 1}, 0, {0, (1UL << 62) - 1}, {0, ULONG_MAX - 1}}));

TEST(PowersOfTwo, RoundUp)
{
    const std::pair<unsigned int, unsigned int> cases[] = {
        {0, 1}, {1, 1}, {2, 2}, {3, 4}, {8, 8}, {9, 16}, {0x7FFFFFFF, 0x80000000}, {0x80000000, 0x80000000}};
    for (const auto& [v, expected] : cases) EXPECT_EQ(roundUpNextHighestPowerOfTwo(v), expected) << v;
    try {
        roundUpNextHighestPowerOfTwo(0x80000001);
        ADD_FAILURE();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Next largest power of 2 exceeds uint32_t capacity");
    }
    EXPECT_TRUE(isPowerOfTwo(1) && isPowerOfTwo(1UL << 63));
    EXPECT_FALSE(isPowerOfTwo(0) || isPowerOfTwo(3) || isPowerOfTwo(ULONG_MAX));
}

TEST(BlockSize, GrowsUntilTheBlockCountFits)
{
    struct Case {
        unsigned long total;
        unsigned long size;
        unsigned long expected;
    };
    const Case cases[] = {{1UL << 40, 3000, 3000}, {1UL << 43, 512, 4096}, {1UL << 44, 512, 8192},
        {1UL << 44, 3000, 8192}, {1UL << 43, 0x80000001, 4096}, {0xFFFFFFFFUL * 512, 512, 512},
        {1UL << 62, 1, 1UL << 31}, {0xFFFFFFFFUL << 31, 0x80000000, 1UL << 31}};
    for (const auto& [total, size, expected] : cases) {
        EXPECT_EQ(adjustBlockSizeSoBlockCountFitsInto32Bits(total, size), expected) << total << ' ' << size;
    }
    EXPECT_THROW(adjustBlockSizeSoBlockCountFitsInto32Bits(1UL << 63, 512), std::runtime_error);
}

} // namespace
} // namespace agent
