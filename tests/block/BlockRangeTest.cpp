#include "agent/BlockRange.h"
#include "Support.h"

TEST(BlockRange, SortsByStartAndTheLongerFirstAndOverlapsOneSidedly)
{
    const BlockRange longer(3, 5);
    const BlockRange shorter(3, 2);
    const std::set<BlockRange> set{{4, 1}, shorter, longer};
    EXPECT_EQ(std::vector<BlockRange>(set.begin(), set.end()), (std::vector<BlockRange>{longer, shorter, {4, 1}}));
    EXPECT_TRUE(shorter > longer && shorter >= longer && longer <= shorter && longer != shorter);
    EXPECT_FALSE(longer > shorter || longer >= shorter || shorter <= longer || longer != BlockRange(3, 5));

    const std::pair<BlockRange, bool> cases[] = {{{0, 6}, true}, {{9, 3}, true}, {{6, 2}, true}, {{0, 5}, false},
        {{10, 2}, false}, {{0, 20}, false}, {{7, 0}, false}};
    for (const auto& [other, expected] : cases) EXPECT_EQ(BlockRange(5, 5).overlaps(other), expected) << other;
    EXPECT_TRUE(BlockRange(0, 20).overlaps({5, 5}));
    EXPECT_FALSE(BlockRange(7, 0).overlaps({0, 20}));
}

TEST(BlockRange, PrintsWithoutGroupingAndAddsTheFlagsBack)
{
    std::ostringstream own; // grouped, or not
    own << 12345;
    std::ostringstream os;
    os << std::hex << std::uppercase << BlockRange(0xABCDE, 1) << std::dec << 12345 << '\n'; // it keeps its locale
    os << std::oct;
    logTo(os, BlockRange(0, 300), 4096);
    EXPECT_EQ(os.str(), "[ABCDE, ABCDF)" + own.str() +
                            "\n"
                            "Byte range: [0, 1228800) ([0 B, 1.171875 MB))\n"
                            "Byte count: 1228800 (1.171875 MB)\n"
                            "Block range: [0, 300) ([0, 0X12C))\n"
                            "Block count: 300 (0X12C)\n");
    EXPECT_EQ(os.flags(), std::ios::oct | std::ios::hex | std::ios::showbase | std::ios::uppercase | std::ios::skipws);
}

TEST(BlockRange, ScalesToOtherBlockSizes)
{
    // why, ratio, range, offset, in larger blocks, in smaller ones
    const std::tuple<const char*, unsigned long, BlockRange, unsigned long, BlockRange, BlockRange> cases[] = {
        {"both ends stick out", 4, {1, 8}, 0, {1, 1}, {4, 32}}, {"no whole block", 4, {1, 6}, 0, {1, 0}, {4, 24}},
        {"the rest exceeds the count", 4, {5, 2}, 0, {2, 0}, {20, 8}},
        {"the offset moves only the start", 4, {0, 8}, 2, {1, 2}, {8, 32}},
        {"a count from 2^63 on is negative", 1, {0, 1UL << 63}, 0, {0, 0}, {0, 1UL << 63}},
        {"products wrap", 4, {8, 1UL << 62}, 0, {2, 1UL << 60}, {32, 0}}};
    for (const auto& [why, ratio, range, offset, larger, smaller] : cases) {
        EXPECT_EQ(scaleBlockRangeFSLargerBlockSize(ratio, range, offset), larger) << why;
        EXPECT_EQ(scaleBlockRangeFSSmallerBlockSize(ratio, range, offset), smaller) << why;
    }
}

TEST(PowersOfTwo, AreFoundRoundedUpToAndUsedAsBlockSizes)
{
    const std::pair<unsigned int, unsigned int> cases[] = {
        {0, 1}, {1, 1}, {3, 4}, {8, 8}, {9, 16}, {0x7FFFFFFF, 0x80000000}, {0x80000000, 0x80000000}};
    for (const auto& [v, expected] : cases) EXPECT_EQ(roundUpNextHighestPowerOfTwo(v), expected) << v;
    EXPECT_EQ(thrownBy([] { roundUpNextHighestPowerOfTwo(0x80000001); }),
        "runtime: Next largest power of 2 exceeds uint32_t capacity");
    EXPECT_TRUE(isPowerOfTwo(1) && isPowerOfTwo(1UL << 63));
    EXPECT_FALSE(isPowerOfTwo(0) || isPowerOfTwo(3) || isPowerOfTwo(ULONG_MAX));

    const unsigned long sizes[][3] = {{1UL << 40, 3000, 3000}, {1UL << 43, 512, 4096}, {1UL << 44, 512, 8192},
        {1UL << 44, 3000, 8192}, {1UL << 43, 0x80000001, 4096}, {0xFFFFFFFFUL << 31, 0x80000000, 0x80000000}};
    for (const auto& [total, size, expected] : sizes)
        EXPECT_EQ(adjustBlockSizeSoBlockCountFitsInto32Bits(total, size), expected) << total << ' ' << size;
    EXPECT_THROW(adjustBlockSizeSoBlockCountFitsInto32Bits(1UL << 63, 512), std::runtime_error);
}
