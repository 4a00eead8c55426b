#include "agent/BufferChecksum.h"
#include "agent/crc32c.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

extern "C" std::uint32_t checksumFromC(const char* text, unsigned long length); // crc32c_from_c.c

namespace agent {
namespace {

std::vector<unsigned char> randomBytes(std::size_t size)
{
    std::mt19937 random(4); // NOLINT(cert-msc*): the same bytes each time
    std::vector<unsigned char> bytes(size);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<unsigned char>(random()); });
    return bytes;
}

bool hasInstruction() { return static_cast<bool>(__builtin_cpu_supports("sse4.2")); }

TEST(Crc32c, GivesThePublishedValues)
{
    EXPECT_EQ(~crc32c_sarwate(0xFFFFFFFF, "123456789", 9), 0xE3069283U);
    EXPECT_EQ(crc32c_sarwate_ms(0xFFFFFFFF, "123456789", 9), 0xE3069283U);
    EXPECT_EQ(checksumFromC("123456789", 9), 0xE3069283U);
    const std::vector<unsigned char> zeros(32); // RFC 3720, B.4
    EXPECT_EQ(~crc32c(0xFFFFFFFF, zeros.data(), zeros.size()), 0x8A9136AAU);
    EXPECT_EQ(crc32c(0x12345678, nullptr, 0), 0x12345678U);
}

using Routine = std::uint32_t (*)(std::uint32_t, const void*, unsigned long);
struct RoutineCase {
    const char* name;
    Routine routine;
    unsigned long wordBytes; // what is left of a last word is not counted
    bool needsInstruction;
};
class Routines : public testing::TestWithParam<RoutineCase> {};

TEST_P(Routines, AgreeWithTheByteWiseOne)
{
    const auto& [name, routine, wordBytes, needsInstruction] = GetParam();
    if (needsInstruction && !hasInstruction()) GTEST_SKIP() << "no SSE4.2";
    const auto bytes = randomBytes(900'000);
    std::vector<unsigned long> lengths{786'424, 786'432, 791'017}; // around three of the longest chains
    for (unsigned long i = 0; i < 80; ++i) lengths.push_back(i);
    for (const unsigned long chains : {504UL, 4080UL, 4584UL, 49152UL, 65536UL}) {
        for (unsigned long i = chains - 17; i <= chains + 17; ++i) lengths.push_back(i);
    }
    for (const unsigned long length : lengths) {
        for (unsigned long alignment = 0; alignment < 9; ++alignment) {
            const auto* const data = bytes.data() + alignment;
            EXPECT_EQ(
                routine(0xABCDEF01, data, length), crc32c_sarwate(0xABCDEF01, data, length / wordBytes * wordBytes))
                << length << " bytes at alignment " << alignment;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Crc32c, Routines,
    testing::Values(RoutineCase{"slice_4", crc32c_slice_4, 1, false}, RoutineCase{"slice_8", crc32c_slice_8, 1, false},
        RoutineCase{"hw32", crc32c_hw32, 4, true}, RoutineCase{"hw64", crc32c_hw64, 8, true},
        RoutineCase{"dispatcher", crc32c, hasInstruction() ? 8UL : 1UL, false}),
    [](const auto& instance) { return instance.param.name; });

TEST(BufferChecksumGenerator, Crc32cStartsFromZeroAndIsNotInverted)
{
    auto bytes = randomBytes(4096);
    const auto generator = BufferChecksumGeneratorFactory().createBufferChecksumGenerator(ChecksumType::CRC32C);
    unsigned int checksum = 7;
    EXPECT_TRUE(generator->generateChecksum(reinterpret_cast<char*>(bytes.data()), 4096, checksum));
    EXPECT_EQ(checksum, crc32c_slice_8(0, bytes.data(), 4096));
}

TEST(BufferChecksumGenerator, Crc32IsTheCommonOne)
{
    const auto generator = BufferChecksumGeneratorFactory().createBufferChecksumGenerator(ChecksumType::CRC32);
    std::string text = "123456789";
    unsigned int checksum = 7;
    EXPECT_FALSE(generator->generateChecksum(nullptr, 9, checksum));
    EXPECT_EQ(checksum, 7U);
    EXPECT_TRUE(generator->generateChecksum(text.data(), 9, checksum));
    EXPECT_EQ(checksum, 0xCBF43926U);
    EXPECT_TRUE(generator->generateChecksum(text.data(), 0, checksum));
    EXPECT_EQ(checksum, 0U);
    text = "4"; // digests with leading zeros keep them as such: CRC-32 of "4" is 0xf3b61b38, of "\x3" 0x4b04d447
    EXPECT_TRUE(generator->generateChecksum(text.data(), 1, checksum));
    EXPECT_EQ(checksum, 0xF3B61B38U);
}

TEST(BufferChecksumGeneratorFactory, AnyOtherTypeIsCrc32c)
{
    const auto generator =
        BufferChecksumGeneratorFactory().createBufferChecksumGenerator(static_cast<ChecksumType>(-7));
    EXPECT_NE(dynamic_cast<const BufferChecksumGeneratorLibCRC32c*>(generator.get()), nullptr);
}

} // namespace
} // namespace agent
