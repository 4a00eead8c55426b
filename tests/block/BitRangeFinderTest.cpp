#include "agent/BitRangeFinder.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace agent {
namespace {

using Bytes = std::vector<unsigned char>;
using Ranges = std::vector<BlockRange>;

static_assert(std::is_same_v<std::underlying_type_t<BitRangeFinderFactory::BitRangeFinderType>, int>);

// Runs before main, like a component that searches from a static constructor.
const Ranges g_foundBeforeMain = [] {
    const unsigned char map[] = {0x6E, 0xFF};
    return BitRangeFinder(true, false).findRanges(map, 16);
}();

TEST(BitRangeFinder, IsReadyBeforeMain) { EXPECT_EQ(g_foundBeforeMain, (Ranges{{1, 3}, {5, 2}, {8, 8}})); }

// One bit after the other: slow and plainly right.
Ranges walk(const unsigned char* map, unsigned long size, bool setBits, bool msbFirst)
{
    Ranges ranges;
    bool wasMarked = false;
    for (unsigned long n = 0; n < size; ++n) {
        const unsigned int bit = msbFirst ? 7 - n % 8 : n % 8;
        const bool isMarked = ((map[n / 8] >> bit & 1) != 0) == setBits;
        if (isMarked && wasMarked) ++ranges.back().count();
        if (isMarked && !wasMarked) ranges.emplace_back(n, 1);
        wasMarked = isMarked;
    }
    return ranges;
}

void expectAsWalked(const Bytes& map, unsigned long size)
{
    for (const bool setBits : {false, true}) {
        for (const bool msbFirst : {false, true}) {
            EXPECT_EQ(BitRangeFinder(setBits, msbFirst).findRanges(map.data(), size),
                walk(map.data(), size, setBits, msbFirst))
                << size << " bits, set " << setBits << ", msb first " << msbFirst;
        }
    }
}

TEST(BitRangeFinder, FindsWhatAWalkFindsInMapsOfEverySize)
{
    std::mt19937 random(1); // NOLINT(cert-msc*): the same maps each time
    for (const double density : {0.0, 0.01, 0.5, 0.99, 1.0}) {
        std::bernoulli_distribution bit(density);
        Bytes map(40);
        for (unsigned long n = 0; n < map.size() * 8; ++n) {
            if (bit(random)) map[n / 8] = static_cast<unsigned char>(map[n / 8] | 1U << n % 8);
        }
        for (unsigned long size = 1; size <= map.size() * 8; ++size) expectAsWalked(map, size);
    }
}

TEST(BitRangeFinder, FindsWhatAWalkFindsInLongRuns)
{
    std::mt19937 random(2); // NOLINT(cert-msc*)
    for (const double meanRun : {3.0, 40.0, 150.0, 2000.0}) {
        std::geometric_distribution<unsigned long> length(1 / meanRun);
        Bytes map(5000);
        bool isSet = false;
        for (unsigned long n = 0; n < map.size() * 8; isSet = !isSet) {
            const unsigned long end = std::min(n + 1 + length(random), map.size() * 8);
            for (; n < end; ++n)
                map[n / 8] = static_cast<unsigned char>(map[n / 8] | (isSet ? 1U : 0U) << n % 8);
        }
        expectAsWalked(map, map.size() * 8);
        expectAsWalked(Bytes(map.begin() + 3, map.end()), map.size() * 8 - 29); // differently cut
    }
}

TEST(BitRangeFinder, KnowsTheOrdersAndJoinsRunsAcrossBytesAndWords)
{
    const Bytes two{0x01, 0x80};
    EXPECT_EQ(BitRangeFinder(true, true).findRanges(two.data(), 16), (Ranges{{7, 2}}));
    EXPECT_EQ(BitRangeFinder(true, false).findRanges(two.data(), 16), (Ranges{{0, 1}, {15, 1}}));
    Bytes seams(13); // runs across the byte seam 72 and the word seam 64, and into the rest past the words
    seams[7] = seams[8] = 0x81;
    seams[9] = 0x80;
    EXPECT_EQ(BitRangeFinder(true, true).findRanges(seams.data(), 100), (Ranges{{56, 1}, {63, 2}, {71, 2}}));
    EXPECT_EQ(BitRangeFinder(true, true).findRanges(Bytes(13, 0xFF).data(), 100), (Ranges{{0, 100}}));
}

TEST(BitRangeFinder, ReadsNoByteBeyondTheMap)
{
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const pages = ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    auto* const fence = static_cast<unsigned char*>(pages) + page;
    ASSERT_EQ(::mprotect(fence, page, PROT_NONE), 0);
    for (unsigned long bytes = 1; bytes <= 100; ++bytes) { // ends at the fence, begins at any alignment
        for (const int fill : {0x00, 0xFF, 0x5A}) {
            std::memset(fence - bytes, fill, bytes);
            const unsigned long size = bytes * 8 - bytes % 8;
            EXPECT_EQ(BitRangeFinder(true, true).findRanges(fence - bytes, size),
                walk(fence - bytes, size, true, true));
        }
    }
    ::munmap(pages, 2 * page);
}

TEST(BitRangeFinder, CountsBeyondFourBillionBits)
{
    constexpr unsigned long kBits = (1UL << 32) + (1UL << 20); // untouched pages cost no memory
    void* const map =
        ::mmap(nullptr, kBits / 8, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(map, MAP_FAILED);
    static_cast<unsigned char*>(map)[(1UL << 32) / 8] = 0x80;
    static_cast<unsigned char*>(map)[kBits / 8 - 1] = 0x01;
    EXPECT_EQ(BitRangeFinder(true, true).findRanges(map, kBits), (Ranges{{1UL << 32, 1}, {kBits - 1, 1}}));
    ::munmap(map, kBits / 8);
}

TEST(U64RangeFinder, FindsRunsOfWords)
{
    const std::vector<std::uint64_t> words{0, 5, 7, 0, 0, 1};
    EXPECT_EQ(U64RangeFinder(true).findRanges(words.data(), 6), (Ranges{{1, 2}, {5, 1}}));
    EXPECT_EQ(U64RangeFinder(false).findRanges(words.data(), 6), (Ranges{{0, 1}, {3, 2}}));
    EXPECT_EQ(U64RangeFinder(true).findRanges(words.data(), 0), Ranges{});
    Bytes unaligned(1 + 2 * 8);
    unaligned[9] = 1;
    EXPECT_EQ(U64RangeFinder(true).findRanges(unaligned.data() + 1, 2), (Ranges{{1, 1}}));
}

std::string refusal(const IRangeFinder& finder, const void* map, unsigned long size)
{
    try {
        finder.findRanges(map, size);
    } catch (const std::invalid_argument& e) {
        return e.what();
    }
    return "nothing thrown";
}

TEST(RangeFinders, RefuseBadArguments)
{
    const unsigned char byte = 0;
    const BitRangeFinder bits(true, true);
    EXPECT_EQ(refusal(bits, nullptr, 8), "Bad bitmap pointer passed to findRanges function");
    EXPECT_EQ(refusal(bits, nullptr, 0), "Bad bitmap pointer passed to findRanges function");
    EXPECT_EQ(refusal(bits, &byte, 0), "Bad bitmap size passed to findRanges function (size must be > 0)");
    EXPECT_EQ(refusal(U64RangeFinder(true), nullptr, 0), "Bad usage map pointer passed to findRanges function");
}

TEST(BitRangeFinderFactory, MakesWhatItIsAskedFor)
{
    using Factory = BitRangeFinderFactory;
    const std::uint64_t word = 0x80; // the first bit of the bitmap; a word other than 0
    const auto found = [&](Factory::BitRangeFinderType type, bool a, bool b, unsigned long size) {
        return Factory().createBitRangeFinder(type, a, b)->findRanges(&word, size);
    };
    EXPECT_EQ(found(Factory::Bit, true, true, 8), (Ranges{{0, 1}}));
    EXPECT_EQ(found(Factory::Bit, true, false, 8), (Ranges{{7, 1}}));
    EXPECT_EQ(found(Factory::Bit, false, true, 8), (Ranges{{1, 7}}));
    EXPECT_EQ(found(Factory::U64, true, false, 1), (Ranges{{0, 1}}));
    EXPECT_EQ(found(Factory::U64, false, true, 1), Ranges{});
    try {
        Factory().createBitRangeFinder(static_cast<Factory::BitRangeFinderType>(2), true, true);
        ADD_FAILURE();
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Unknown bit range finder type");
    }
}

} // namespace
} // namespace agent
