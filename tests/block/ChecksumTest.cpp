#include "Support.h"
#include "agent/BufferChecksum.h"
#include "agent/crc32c.h"

#include <random>

const bool kHasInstruction = static_cast<bool>(__builtin_cpu_supports("sse4.2"));

TEST(Crc32c, GivesThePublishedValues)
{
    EXPECT_EQ(~crc32c_sarwate(0xFFFFFFFF, "123456789", 9), 0xE3069283U);
    EXPECT_EQ(crc32c_sarwate_ms(0xFFFFFFFF, "123456789", 9), 0xE3069283U);
    const std::vector<unsigned char> zeros(32); // RFC 3720, B.4
    EXPECT_EQ(~crc32c(0xFFFFFFFF, zeros.data(), zeros.size()), 0x8A9136AAU);
}

TEST(Crc32c, EveryRoutineAgreesWithTheByteWiseOne)
{
    std::vector<unsigned long> lengths{786'424, 786'432, 791'017};           // around three of the longest chains
    for (const unsigned long begin : {0UL, 490UL, 4070UL, 4570UL, 49'140UL}) // the shorter chains
        for (unsigned long i = begin; i < begin + 30; ++i) lengths.push_back(i);
    std::mt19937 random(4); // NOLINT(cert-msc*): the same bytes each time
    std::vector<unsigned char> bytes(800'000);
    std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<unsigned char>(random()); });

    const unsigned long word = kHasInstruction ? 8 : 1; // what is left of a last word does not count
    for (const auto& [name, routine, wordBytes] :
        {std::tuple("slice_4", &crc32c_slice_4, 1UL), {"slice_8", crc32c_slice_8, 1}, {"dispatcher", crc32c, word},
            {"hw32", crc32c_hw32, 4}, {"hw64", crc32c_hw64, 8}}) {
        if (routine == crc32c_hw32 && !kHasInstruction) break;
        for (const unsigned long length : lengths) {
            for (const unsigned char* data = bytes.data(); data != bytes.data() + 9; ++data) {
                const unsigned long counted = length / wordBytes * wordBytes;
                EXPECT_EQ(routine(0xABCDEF01, data, length), crc32c_sarwate(0xABCDEF01, data, counted)) << name;
            }
        }
    }
}

TEST(BufferChecksumGenerator, IsMadeByType)
{
    const auto checksumOf = [](int type, std::string data) {
        const auto generator =
            BufferChecksumGeneratorFactory().createBufferChecksumGenerator(static_cast<ChecksumType>(type));
        unsigned int checksum = 7;
        EXPECT_TRUE(generator->generateChecksum(data.data(), static_cast<unsigned int>(data.size()), checksum));
        return checksum;
    };
    EXPECT_EQ(checksumOf(0, "123456789"), 0xCBF43926U);
    EXPECT_EQ(checksumOf(0, "62"), 0x0012D20AU);
    EXPECT_EQ(checksumOf(0, ""), 0U);
    for (const int type : {1, 2, -7}) EXPECT_EQ(checksumOf(type, "12345678"), crc32c_slice_8(0, "12345678", 8));
    unsigned int checksum = 7;
    EXPECT_FALSE(BufferChecksumGeneratorGCryptCRC32().generateChecksum(nullptr, 9, checksum));
    EXPECT_EQ(checksum, 7U);
}
