#include "agent/BitRangeFinder.h"
#include "Thrown.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace agent {
namespace {

using Bytes = std::vector<unsigned char>;
using Ranges = std::vector<BlockRange>;

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

void expectAsWalked(const unsigned char* map, unsigned long size)
{
    for (const bool setBits : {false, true}) {
        for (const bool msbFirst : {false, true}) {
            EXPECT_EQ(BitRangeFinder(setBits, msbFirst).findRanges(map, size), walk(map, size, setBits, msbFirst))
                << size << " bits, set " << setBits << ", msb first " << msbFirst;
        }
    }
}

// Set and clear runs by turns.
Bytes randomMap(std::size_t bytes, double meanSet, double meanClear)
{
    static std::mt19937 random(1); // NOLINT(cert-msc*): the same maps each time
    using Length = std::geometric_distribution<unsigned long>;
    Length lengths[] = {Length(1 / meanClear), Length(1 / meanSet)};
    Bytes map(bytes);
    for (unsigned long n = 0, turn = 0; n < bytes * 8; ++turn) {
        for (const auto end = std::min(n + 1 + lengths[turn % 2](random), bytes * 8); n < end; ++n)
            map[n / 8] = static_cast<unsigned char>(map[n / 8] | turn % 2 << n % 8);
    }
    return map;
}

TEST(BitRangeFinder, FindsWhatAWalkFinds)
{
    for (const double meanSet : {1.5, 30.0, 1000.0}) {
        for (const double meanClear : {1.5, 30.0, 1000.0}) {
            const Bytes map = randomMap(5000, meanSet, meanClear);
            expectAsWalked(map.data(), map.size() * 8);
            for (unsigned long size = 1; size <= 330; ++size) expectAsWalked(map.data() + size % 11, size);
        }
    }
    const Bytes ones(41, 0xFF);
    for (unsigned long size = 1; size <= 328; ++size) expectAsWalked(ones.data(), size);
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
            expectAsWalked(fence - bytes, bytes * 8 - bytes % 8);
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
    const std::vector<std::uint64_t> words{0, 5, 7, 0, 0, 1UL << 63};
    EXPECT_EQ(U64RangeFinder(true).findRanges(words.data(), 6), (Ranges{{1, 2}, {5, 1}}));
    EXPECT_EQ(U64RangeFinder(false).findRanges(words.data(), 5), (Ranges{{0, 1}, {3, 2}}));
    EXPECT_EQ(U64RangeFinder(true).findRanges(words.data(), 0), Ranges{});
}

TEST(BitRangeFinderFactory, MakesFindersThatRefuseBadArguments)
{
    using Factory = BitRangeFinderFactory;
    const std::vector<std::uint64_t> map{0x8001}; // a word other than 0
    const auto find = [](int type, bool a, bool b, const void* of, unsigned long size) {
        return Factory()
            .createBitRangeFinder(static_cast<Factory::BitRangeFinderType>(type), a, b)
            ->findRanges(of, size);
    };
    EXPECT_EQ(find(Factory::Bit, true, true, map.data(), 16), (Ranges{{7, 2}})); // bytes 0x01 0x80
    EXPECT_EQ(find(Factory::Bit, true, false, map.data(), 16), (Ranges{{0, 1}, {15, 1}}));
    EXPECT_EQ(find(Factory::Bit, false, false, map.data(), 16), (Ranges{{1, 14}}));
    EXPECT_EQ(find(Factory::U64, true, false, map.data(), 1), (Ranges{{0, 1}}));
    EXPECT_EQ(find(Factory::U64, false, true, map.data(), 1), Ranges{});
    const auto refusal = [&](int type, const void* of) {
        return test::thrownBy([&] { find(type, true, true, of, 0); });
    };
    const std::string bad = "invalid argument: Bad ";
    EXPECT_EQ(refusal(Factory::Bit, nullptr), bad + "bitmap pointer passed to findRanges function");
    EXPECT_EQ(refusal(Factory::Bit, map.data()), bad + "bitmap size passed to findRanges function (size must be > 0)");
    EXPECT_EQ(refusal(Factory::U64, nullptr), bad + "usage map pointer passed to findRanges function");
    EXPECT_EQ(refusal(2, map.data()), "runtime: Unknown bit range finder type");
}

} // namespace
} // namespace agent
