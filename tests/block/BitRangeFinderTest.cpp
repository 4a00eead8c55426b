#include "agent/BitRangeFinder.h"
#include "Support.h"

#include <sys/mman.h>

#include <cstring>

using Ranges = std::vector<BlockRange>;

// What is found in maps of all sizes and kinds is compared with a walk bit by bit in fuzz/BitmapFuzz.cpp, which
// runs with the tests.

TEST(BitRangeFinder, ReadsNoByteBeyondTheMap)
{
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    void* const pages = ::mmap(nullptr, 2 * page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(pages, MAP_FAILED);
    auto* const fence = static_cast<unsigned char*>(pages) + page;
    ASSERT_EQ(::mprotect(fence, page, PROT_NONE), 0);
    for (unsigned long bytes = 1; bytes <= 100; ++bytes) { // ends at the fence, begins at any alignment
        std::memset(fence - bytes, 0xFF, bytes);
        const unsigned long size = bytes * 8 - bytes % 8; // the bits beyond are set, too, and do not count
        EXPECT_EQ(BitRangeFinder(true, true).findRanges(fence - bytes, size), (Ranges{{0, size}}));
        EXPECT_EQ(BitRangeFinder(false, false).findRanges(fence - bytes, size), Ranges{});
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

TEST(BitRangeFinderFactory, MakesFindersThatRefuseBadArguments)
{
    const std::vector<std::uint64_t> words{0, 5, 7, 0, 0, 1UL << 63};
    EXPECT_EQ(U64RangeFinder(true).findRanges(words.data(), 6), (Ranges{{1, 2}, {5, 1}}));
    EXPECT_EQ(U64RangeFinder(false).findRanges(words.data(), 5), (Ranges{{0, 1}, {3, 2}}));

    using Factory = BitRangeFinderFactory;
    const std::vector<std::uint64_t> map{0x8001}; // a word other than 0
    const auto find = [](int type, bool a, bool b, const void* of, unsigned long size) {
        return Factory()
            .createBitRangeFinder(static_cast<Factory::BitRangeFinderType>(type), a, b)
            ->findRanges(of, size);
    };
    EXPECT_EQ(find(Factory::Bit, true, true, map.data(), 16), (Ranges{{7, 2}})); // bytes 0x01 0x80
    EXPECT_EQ(find(Factory::Bit, true, false, map.data(), 16), (Ranges{{0, 1}, {15, 1}}));
    EXPECT_EQ(find(Factory::U64, true, false, map.data(), 1), (Ranges{{0, 1}}));
    const auto refusal = [&](int type, const void* of) { return thrownBy([&] { find(type, true, true, of, 0); }); };
    const std::string bad = "invalid argument: Bad ";
    EXPECT_EQ(refusal(Factory::Bit, nullptr), bad + "bitmap pointer passed to findRanges function");
    EXPECT_EQ(refusal(Factory::Bit, map.data()), bad + "bitmap size passed to findRanges function (size must be > 0)");
    EXPECT_EQ(refusal(Factory::U64, nullptr), bad + "usage map pointer passed to findRanges function");
    EXPECT_EQ(refusal(2, map.data()), "runtime: Unknown bit range finder type");
}
