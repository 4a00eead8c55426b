#include "agent/Base64.h"
#include "agent/Environment.h"
#include "agent/Format.h"
#include "agent/StringUtils.h"
#include "agent/Thread.h"
#include "agent/UUIDGenerator.h"
#include "agent/Version.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace agent {
namespace {

using Texts = std::vector<std::string>;
using SU = StringUtils;

TEST(StringUtils, AnswersQuestionsAboutTexts)
{
    for (const char* const yes : {"yes", "Yup", "true", "True", "1", "10"})
        EXPECT_TRUE(SU::boolify(yes)) << yes;
    for (const char* const no : {"", "0", "on", "no", " yes"})
        EXPECT_FALSE(SU::boolify(no)) << no;
    EXPECT_EQ(SU::alphabool(true), "11"); // callers compare with these two
    EXPECT_EQ(SU::alphabool(false), "10");
    EXPECT_TRUE(SU::StartsWith("abc", "") && SU::StartsWith("abc", "abc"));
    EXPECT_FALSE(SU::StartsWith("abc", "abcd") || SU::StartsWith("abc", "b"));
    EXPECT_TRUE(SU::IEqual("aBc1[", "AbC1["));
    EXPECT_FALSE(SU::IEqual("a", "ab") || SU::IEqual("[", "{") || SU::IEqual("\xC4", "\xE4"));
    EXPECT_TRUE(SU::isUuid("0123456789abcdefABCDEF0123456789"));
    EXPECT_FALSE(SU::isUuid("0123456789abcdefABCDEF012345678g") || SU::isUuid("0123"));
    EXPECT_FALSE(SU::isUuid("01234567-89ab-cdef-0123-456789abcdef"));
    EXPECT_TRUE(SU::is_all_displayable_ascii("") && SU::is_all_displayable_ascii(" ~"));
    EXPECT_FALSE(SU::is_all_displayable_ascii("a\n") || SU::is_all_displayable_ascii("\xE4"));
}

TEST(StringUtils, FindsAFlagInAList)
{
    EXPECT_TRUE(SU::hasFlag("a, b ,c", "b", ','));
    EXPECT_TRUE(SU::hasFlag("a;b", "b", ';') && SU::hasFlag("x", "x", ','));
    EXPECT_TRUE(SU::hasFlag("one two,three", "one two", ','));
    for (const char* const list : {"", ",", "a,B", "bb", "a b", "\tb"})
        EXPECT_FALSE(SU::hasFlag(list, "b", ',')) << list;
    EXPECT_FALSE(SU::hasFlag("a,,b", "", ','));
}

TEST(StringUtils, ReplacesJoinsAndSplits)
{
    EXPECT_EQ(SU::replace("aaa", "aa", "a"), "aa");
    EXPECT_EQ(SU::replace("a-b-", "-", "--"), "a--b--"); // never inside what was inserted
    EXPECT_EQ(SU::replace("abc", "", "x"), "abc");
    EXPECT_EQ(SU::join({}, ','), "");
    EXPECT_EQ(SU::join({"a", "", "b"}, ','), "a,,b");

    const auto pieces = [](const std::string& text) {
        Texts out;
        split(text.begin(), text.end(), std::back_inserter(out), ':', '\\');
        return out;
    };
    EXPECT_EQ(pieces(""), Texts{});
    EXPECT_EQ(pieces("host:443"), (Texts{"host", "443"}));
    EXPECT_EQ(pieces(":a:"), (Texts{"", "a", ""}));
    EXPECT_EQ(pieces("fe80\\:\\:1:443"), (Texts{"fe80\\:\\:1", "443"}));
}

TEST(StringUtils, WritesHexadecimal)
{
    EXPECT_EQ(SU::string_to_hex(""), "");
    EXPECT_EQ(SU::string_to_hex("AB"), "4142");
    EXPECT_EQ(SU::string_to_hex("\x05\x06"), "056"); // only the first is padded
    EXPECT_EQ(SU::string_to_hex("\xFF\x10"), "ffffffff10");
    EXPECT_EQ(SU::string_to_hex(std::string(2, '\0')), "000");
    const unsigned char bytes[] = {0x00, 0x0F, 0xFF};
    EXPECT_EQ(SU::byte_array_to_hex(bytes, 3), "000fff");
    EXPECT_EQ(SU::byte_array_to_hex(nullptr, 0), "");
}

TEST(StringUtils, TheGeneratorCyclesThroughThePrintableCharacters)
{
    const auto wrapping = SU::createPrintableCharGenerator('~');
    EXPECT_EQ((std::string{wrapping(), wrapping(), wrapping()}), "~ !");
    EXPECT_EQ(SU::createPrintableCharGenerator('\n')(), ' ');
    const auto generator = SU::createPrintableCharGenerator('x');
    for (int i = 0; i < 95; ++i)
        generator();
    EXPECT_EQ(generator(), 'x');
}

TEST(StringUtils, WideTextKeepsCharactersAndBytesThatAreNone)
{
    EXPECT_EQ(SU::StrToWStr("a\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"), L"a\u00E4\u20AC\U0001F600");
    const Texts malformed{"\xFF", "\xC3", "\xC0\x80" /* too long a form */, "\xED\xA0\x80" /* surrogate */,
        "\xF4\x90\x80\x80" /* beyond Unicode */, "\xE2\x82", "\x80z", std::string("a\0b", 3), "\xC3\xA4ok\xE4"};
    for (const auto& text : malformed)
        EXPECT_EQ(SU::WStrToStr(SU::StrToWStr(text)), text);
    EXPECT_EQ(SU::StrToWStr("\xFFz"), (std::wstring{static_cast<wchar_t>(0xDCFF), L'z'}));
    const std::wstring noCharacters{static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0x110000), wchar_t(-1)};
    EXPECT_EQ(SU::WStrToStr(noCharacters), "\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(Format, CountsInTheLargestUnitWithTheFractionOfTheLastDivision)
{
    struct Case {
        unsigned long value;
        int precision;
        const char* bytes;
        const char* bits;
    };
    const Case cases[] = {
        {0, 2, "0 B", "0 b"},
        {512, 6, "512 B", "512 b"},
        {1000, 0, "1000 B", "1 Kb"},
        {1500, 1, "1.5 KB", "1.5 Kb"},
        {1536, 6, "1.5 KB", "1.536 Kb"},
        {1048576, 2, "1 MB", "1.05 Mb"},
        {1600000, -1, "1.525391 MB", "1.6 Mb"},   // negative counts as 6
        {1600000, 9, "1.525390625 MB", "1.6 Mb"}, // not 1.52587890625
        {1600000, INT_MAX, "1.525390625 MB", "1.600000000000000088817841970012523233890533447265625 Mb"},
        {999999, 0, "977 KB", "1000 Kb"},
        {1UL << 63, 3, "8 EB", "9.223 Eb"},
        {ULONG_MAX, 2, "16 EB", "18.45 Eb"},
    };
    for (const auto& [value, precision, bytes, bits] : cases) {
        EXPECT_EQ(formatBytes(value, precision), bytes) << value;
        EXPECT_EQ(formatBits(value, precision), bits) << value;
    }
}

TEST(Format, UtcRoundsDownAndSpeaksEnglish)
{
    using std::chrono::milliseconds;
    const auto at = [](long ms) { return std::chrono::system_clock::time_point(milliseconds(ms)); };
    EXPECT_EQ(format_utc(at(1714559696789), "%FT%T."), "2024-05-01T10:34:56.");
    EXPECT_EQ(format_utc(at(-1), "%FT%T"), "1969-12-31T23:59:59");
    EXPECT_EQ(format_utc(at(1714559696789), "%A %d %B"), "Wednesday 01 May");
    EXPECT_EQ(format_utc(at(0), "%F%F%F%F%F"), ""); // 50 characters and no room for the end
    EXPECT_EQ(format_utc(at(0), "%F%F%F%F%T."), "1970-01-011970-01-011970-01-011970-01-0100:00:00.");
}

TEST(Format, DumpsABufferInRowsOfSixteen)
{
    const char buffer[] = "0123456789abcdef\xC1 \x7F";
    EXPECT_EQ(BufferToAsciiString(buffer, 19, 255, '_'),
        "00000000  30 31 32 33 34 35 36 37  38 39 61 62 63 64 65 66  0123456789abcdef\n"
        "00000010  c1 20 7f                                          _ _\n");
    EXPECT_EQ(BufferToAsciiString(buffer + 16, 1, 127, '.').back(), '\n');
    EXPECT_NE(BufferToAsciiString(buffer + 16, 1, 127, '.').find(" A\n"), std::string::npos);
    EXPECT_EQ(BufferToAsciiString(nullptr, 0, 255, '_'), "");
}

TEST(Base64, FollowsThePublishedVectors)
{
    const std::pair<std::string, std::string> vectors[] = {{"", ""}, {"f", "Zg=="}, {"fo", "Zm8="},
        {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"\xFB\xFF", "+/8="}};
    for (const auto& [plain, encoded] : vectors) { // RFC 4648, section 10
        EXPECT_EQ(base64Encode(reinterpret_cast<const unsigned char*>(plain.data()), plain.size()), encoded);
        const auto decoded = base64Decode(encoded);
        EXPECT_EQ(std::string(decoded.begin(), decoded.end()), plain);
    }
}

TEST(Base64, DecodingEndsAtTheFirstStrangeCharacter)
{
    const auto decode = [](const std::string& text) {
        const auto bytes = base64Decode(text);
        return std::string(bytes.begin(), bytes.end());
    };
    EXPECT_EQ(decode("Zm9v=Zm9v"), "foo");
    EXPECT_EQ(decode("Zm8\nZm9v"), "fo");
    EXPECT_EQ(decode("Zm9vZ"), "foo"); // a lone last character gives nothing
    EXPECT_EQ(decode("Zm9v\xE4"), "foo");
    EXPECT_EQ(decode("-_"), "");
}

TEST(Version, ParsesUpToFourNumbers)
{
    EXPECT_EQ(Version::parse(""), Version{});
    EXPECT_EQ(Version::parse("10.2"), (Version{10, 2, 0, 0}));
    EXPECT_EQ(Version::parse("1.2.3.4294967295"), (Version{1, 2, 3, 4294967295}));
    EXPECT_LT(Version::parse("1.9"), Version::parse("1.10"));
}

TEST(Version, NamesTheWholeTextThatIsBad)
{
    for (const std::string text : {"1.2.3.4.5", "1.", "1.2.3.4.", "1a", " 1", "1. 2", "1.\v2", "+1", "1.-2",
             "4294967296", "0x1", "1,2"}) {
        try {
            Version::parse(text);
            ADD_FAILURE() << text;
        } catch (const std::runtime_error& e) {
            EXPECT_EQ(e.what(), "Bad version string: " + text);
        }
    }
    EXPECT_THROW(Version::parse("x"), std::invalid_argument);
    EXPECT_THROW(Version::parse("1..2"), std::invalid_argument);
    EXPECT_THROW(Version::parse("99999999999999999999"), std::out_of_range);
}

TEST(UUIDGenerator, HasAFormWithDashesAndACompactOne)
{
    UUIDGenerator generator;
    std::string first;
    std::string second;
    generator.generate(first);
    generator.generate(second);
    EXPECT_NE(first, second);
    EXPECT_EQ(first.size(), 36U);
    EXPECT_TRUE(SU::isUuid(SU::replace(first, "-", ""))) << first;
    EXPECT_EQ(generator.empty(), "00000000000000000000000000000000");
    const unsigned char bytes[16] = {0x01, 0xAB};
    EXPECT_EQ(UUIDGenerator::convert(bytes), "01ab0000000000000000000000000000");
}

TEST(Environment, AnUnsetVariableIsEmpty)
{
    ::setenv("AGENTKIT_TEST", "x=y", 1);
    EXPECT_EQ(Environment().getEnvironmentVariable("AGENTKIT_TEST"), "x=y");
    ::unsetenv("AGENTKIT_TEST");
    EXPECT_EQ(Environment().getEnvironmentVariable("AGENTKIT_TEST"), "");
}

TEST(Thread, IdsAreTheKernelsAlsoAfterAFork)
{
    EXPECT_EQ(getThreadID(), ::getpid()); // the main thread
    std::thread([] { EXPECT_NE(getThreadID(), ::getpid()); }).join();
    const pid_t child = ::fork();
    if (child == 0) ::_exit(getThreadID() == ::getpid() ? 0 : 1);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
    SetThreadName(getThreadID(), "no effect");
}

} // namespace
} // namespace agent
