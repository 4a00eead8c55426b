#include "Support.h"
#include "agent/Base64.h"
#include "agent/Environment.h"
#include "agent/Format.h"
#include "agent/StringUtils.h"
#include "agent/Thread.h"
#include "agent/UUIDGenerator.h"
#include "agent/Version.h"

using Texts = std::vector<std::string>;
using SU = StringUtils;

TEST(StringUtils, AnswersQuestionsAboutTexts)
{
    for (const char* const yes : {"Yes", "y", "true", "T", "10"}) EXPECT_TRUE(SU::boolify(yes)) << yes;
    for (const char* const no : {"", "0", "on", " yes"}) EXPECT_FALSE(SU::boolify(no)) << no;
    EXPECT_EQ(SU::alphabool(true) + SU::alphabool(false), "1110");
    EXPECT_FALSE(SU::StartsWith("abc", "abcd") || SU::StartsWith("abc", "b") || !SU::StartsWith("abc", "abc"));
    EXPECT_FALSE(!SU::IEqual("aBc1[", "AbC1[") || SU::IEqual("a", "ab") || SU::IEqual("[", "{"));
    EXPECT_TRUE(SU::isUuid("0123456789abcdefABCDEF0123456789"));
    EXPECT_FALSE(SU::isUuid("0123456789abcdefABCDEF012345678g") || SU::isUuid("01234567-89ab-cdef-0123-456789abcdef"));
    EXPECT_TRUE(SU::is_all_displayable_ascii(" ~"));
    EXPECT_FALSE(SU::is_all_displayable_ascii("a\n") || SU::is_all_displayable_ascii("\xE4"));
    EXPECT_TRUE(SU::hasFlag("a, b ,c", "b", ',') && SU::hasFlag("one two;x", "one two", ';'));
    for (const char* const list : {"", ",", "a,B", "bb", "a b", "\tb"})
        EXPECT_FALSE(SU::hasFlag(list, "b", ',')) << list;
    EXPECT_FALSE(SU::hasFlag("a,,b", "", ','));
}

TEST(StringUtils, ReplacesJoinsAndSplits)
{
    EXPECT_EQ(SU::replace("aaa-", "aa", "aaa"), "aaaa-"); // never inside what was inserted
    EXPECT_EQ(SU::replace("abc", "", "x"), "abc");
    EXPECT_EQ(SU::join({}, ',') + SU::join({"a", "", "b"}, ','), "a,,b");
    const auto pieces = [](const std::string& text) {
        Texts out;
        split(text.begin(), text.end(), std::back_inserter(out), ':', '\\');
        return out;
    };
    EXPECT_EQ(pieces(""), Texts{});
    EXPECT_EQ(pieces(":fe80\\:\\:1:443:"), (Texts{"", "fe80\\:\\:1", "443", ""}));
}

TEST(StringUtils, WritesHexadecimalPrintableAndWideCharacters)
{
    EXPECT_EQ(SU::string_to_hex("\x05\x06\xFF\x10"), "056ffffffff10"); // only the first is padded
    const unsigned char bytes[] = {0x00, 0x0F, 0xFF};
    EXPECT_EQ(SU::byte_array_to_hex(bytes, 3), "000fff");
    const auto next = SU::createPrintableCharGenerator('~');
    EXPECT_EQ((std::string{next(), next(), next()}), "~ !");
    EXPECT_EQ(SU::createPrintableCharGenerator('\n')(), ' ');

    EXPECT_EQ(SU::StrToWStr("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80\xFF"), L"a\u00E4\u20AC\U0001F600\xDCFF");
    const std::string odd = "\xC0\x80 \xED\xA0\x80 \xF4\x90\x80\x80 \xE2\x82"; // long, surrogate, large, cut off
    EXPECT_EQ(SU::WStrToStr(SU::StrToWStr(odd)), odd);
    EXPECT_EQ(SU::WStrToStr(L"\xD800\x110000"), "\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Format, CountsInTheLargestUnitWithTheFractionOfTheLastDivision)
{
    using Case = std::tuple<unsigned long, int, const char*, const char*>; // value, precision, in bytes, in bits
    const Case cases[] = {{0, 2, "0 B", "0 b"}, {1000, 0, "1000 B", "1 Kb"}, {1536, 6, "1.5 KB", "1.536 Kb"},
        {1048576, 2, "1 MB", "1.05 Mb"}, {1600000, -1, "1.525391 MB", "1.6 Mb"}, {999999, 0, "977 KB", "1000 Kb"},
        {1600000, INT_MAX, "1.525390625 MB", "1.600000000000000088817841970012523233890533447265625 Mb"},
        {1UL << 63, 3, "8 EB", "9.223 Eb"}};
    for (const auto& [value, precision, bytes, bits] : cases) {
        EXPECT_EQ(formatBytes(value, precision), bytes) << value;
        EXPECT_EQ(formatBits(value, precision), bits) << value;
    }
}

TEST(Format, UtcRoundsDownAndSpeaksEnglishAndDumpsComeInRowsOfSixteen)
{
    const auto at = [](long ms) { return std::chrono::system_clock::time_point(std::chrono::milliseconds(ms)); };
    EXPECT_EQ(format_utc(at(1714559696789), "%FT%T. %A %B"), "2024-05-01T10:34:56. Wednesday May");
    EXPECT_EQ(format_utc(at(-1), "%FT%T"), "1969-12-31T23:59:59");
    EXPECT_EQ(format_utc(at(0), "%F%F%F%F%T.").size(), 49U);
    EXPECT_EQ(format_utc(at(0), "%F%F%F%F%F"), ""); // 50 characters and no room for the end

    EXPECT_EQ(BufferToAsciiString("0123456789abcdef\xC1 \x7F", 19, 255, '_'),
        "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  0123456789abcdef\n"
        "00000010  c1 20 7f                                          _ _\n");
    EXPECT_TRUE(BufferToAsciiString("\xC1", 1, 127, '.').ends_with(" A\n"));
}

TEST(Base64, FollowsThePublishedVectorsAndEndsAtStrangeCharacters)
{
    const auto decode = [](const std::string& text) {
        const auto bytes = base64Decode(text);
        return std::string(bytes.begin(), bytes.end());
    };
    const std::pair<std::string, std::string> vectors[] = {{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"\xFB\xFF", "+/8="}}; // RFC 4648, section 10
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(reinterpret_cast<const unsigned char*>(plain.data()), plain.size()), encoded);
        EXPECT_EQ(decode(encoded), plain);
    }
    EXPECT_EQ(decode("Zm9v=Zm9v") + decode("Zm8\nZm9v") + decode("Zm9vZ") + decode("-"), "foofofoo");
}

TEST(Version, ParsesUpToFourNumbersAndNamesTheWholeTextThatIsBad)
{
    EXPECT_EQ(Version::parse("10.2"), (Version{10, 2, 0, 0}));
    EXPECT_EQ(Version::parse("1.2.3.4294967295"), (Version{1, 2, 3, 4294967295}));
    for (const std::string text :
        {"1.2.3.4.5", "1.", "1.2.3.4.", "1a", " 1", "1. 2", "1.\v2", "+1", "1.-2", "4294967296", "0x1", "1,2"})
        EXPECT_EQ(thrownBy([&] { Version::parse(text); }), "runtime: Bad version string: " + text);
    EXPECT_EQ(thrownBy([] { Version::parse("1..2"); }), "invalid argument: stoul");
    EXPECT_EQ(thrownBy([] { Version::parse("99999999999999999999"); }), "logic: stoul");
}

TEST(Process, MakesUuidsAndKnowsItsEnvironmentAndThreads)
{
    UUIDGenerator generator;
    Texts made(2);
    for (auto& text : made) generator.generate(text);
    EXPECT_TRUE(made[0] != made[1] && made[0].size() == 36 && SU::isUuid(SU::replace(made[0], "-", ""))) << made[0];
    const unsigned char bytes[16] = {0x01, 0xAB};
    EXPECT_EQ(generator.empty() + UUIDGenerator::convert(bytes), std::string(32, '0') + "01ab" + std::string(28, '0'));
    ::setenv("AGENTKIT_TEST", "x=y", 1);
    EXPECT_EQ(Environment().getEnvironmentVariable("AGENTKIT_TEST"), "x=y");
    EXPECT_EQ(getThreadID(), ::getpid()); // the main thread's, after a fork too
    EXPECT_TRUE(inChild([] { return getThreadID() == ::getpid(); }));
}
