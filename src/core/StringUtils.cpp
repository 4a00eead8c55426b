#include "agent/StringUtils.h"

#include "core/Ascii.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <string_view>

namespace agent {

namespace {

std::string_view trimBlanks(std::string_view text)
{
    const auto first = text.find_first_not_of(' ');
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

void appendUnpaddedHex(std::string& text, std::uint32_t value)
{
    int digits = 1;
    while (digits < 8 && value >> (4 * digits) != 0) ++digits;
    while (digits-- > 0) text += ascii::kHexDigits[value >> (4 * digits) & 0xF];
}

// --- UTF-8 ---------------------------------------------------------------------------------------------

constexpr char32_t kReplacement = 0xFFFD;
constexpr char32_t kRawByte = 0xDC00; // U+DC80 to U+DCFF stand for bytes that are no UTF-8

bool isRawByte(char32_t c)
{
    return c >= kRawByte + 0x80 && c <= kRawByte + 0xFF;
}
bool isCharacter(char32_t c)
{
    return c <= 0x10FFFF && !(c >= 0xD800 && c <= 0xDFFF);
}

struct Form {
    unsigned char leadMask;
    unsigned char lead;
    char32_t smallest; // shorter forms exist for what is below
};
constexpr std::array<Form, 4> kForms{{{0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}}};

void appendUtf8(std::string& text, char32_t c)
{
    if (isRawByte(c)) {
        text += static_cast<char>(c - kRawByte);
        return;
    }
    if (!isCharacter(c)) c = kReplacement;
    std::size_t length = kForms.size();
    while (c < kForms[length - 1].smallest) --length;
    auto shift = 6 * (length - 1);
    text += static_cast<char>(kForms[length - 1].lead | c >> shift);
    while (shift != 0) {
        shift -= 6;
        text += static_cast<char>(0x80 | (c >> shift & 0x3F));
    }
}

// Takes a character, or a byte that begins none, off the front.
char32_t takeCharacter(std::string_view& text)
{
    const auto byteAt = [&text](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byteAt(0);
    for (std::size_t length = 1; length <= kForms.size() && length <= text.size(); ++length) {
        const Form& form = kForms[length - 1];
        if ((first & form.leadMask) != form.lead) continue;
        char32_t c = first & static_cast<unsigned char>(~form.leadMask);
        bool isWellFormed = true;
        for (std::size_t i = 1; i < length; ++i) {
            isWellFormed = isWellFormed && (byteAt(i) & 0xC0) == 0x80;
            c = c << 6 | (byteAt(i) & 0x3FU);
        }
        if (!isWellFormed || c < form.smallest || !isCharacter(c)) break;
        text.remove_prefix(length);
        return c;
    }
    text.remove_prefix(1);
    return kRawByte + first;
}

} // namespace

bool StringUtils::boolify(const std::string& s)
{
    return !s.empty() && std::string_view("yYtT1").find(s.front()) != std::string_view::npos;
}

std::string StringUtils::alphabool(bool b)
{
    return b ? "11" : "10";
}

bool StringUtils::StartsWith(const std::string& s, const std::string& prefix)
{
    return s.starts_with(prefix);
}

bool StringUtils::IEqual(const std::string& a, const std::string& b)
{
    return std::equal(
        a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) { return ascii::toLower(x) == ascii::toLower(y); });
}

bool StringUtils::isUuid(const std::string& s)
{
    constexpr std::size_t kDigits = 32;
    return s.size() == kDigits && std::all_of(s.begin(), s.end(), ascii::isHexDigit);
}

bool StringUtils::hasFlag(const std::string& list, const std::string& flag, char delimiter)
{
    if (list.empty() || flag.empty()) return false;
    std::string_view rest = list;
    while (true) {
        const auto end = rest.find(delimiter);
        if (trimBlanks(rest.substr(0, end)) == flag) return true;
        if (end == std::string_view::npos) return false;
        rest.remove_prefix(end + 1);
    }
}

std::string StringUtils::replace(const std::string& s, const std::string& from, const std::string& to)
{
    if (from.empty()) return s;
    std::string result;
    std::size_t done = 0;
    for (auto at = s.find(from); at != std::string::npos; at = s.find(from, done)) {
        result.append(s, done, at - done).append(to);
        done = at + from.size();
    }
    return result.append(s, done);
}

std::string StringUtils::join(const std::vector<std::string>& parts, char separator)
{
    std::string text;
    for (const std::string& part : parts) {
        if (&part != &parts.front()) text += separator;
        text += part;
    }
    return text;
}

std::string StringUtils::string_to_hex(const std::string& s)
{
    std::string text;
    for (const char c : s) {
        const auto byte = static_cast<unsigned char>(c);
        const std::uint32_t value = byte < 0x80 ? byte : 0xFFFFFF00U | byte; // sign-extended
        if (text.empty() && value < 0x10) text += '0';
        appendUnpaddedHex(text, value);
    }
    return text;
}

std::string StringUtils::byte_array_to_hex(const unsigned char* data, unsigned long size)
{
    std::string text;
    text.reserve(2 * size);
    for (unsigned long i = 0; i < size; ++i) {
        text += ascii::kHexDigits[data[i] >> 4];
        text += ascii::kHexDigits[data[i] & 0xF];
    }
    return text;
}

bool StringUtils::is_all_displayable_ascii(const std::string& s)
{
    return std::all_of(s.begin(), s.end(), ascii::isPrintable);
}

std::function<char()> StringUtils::createPrintableCharGenerator(char start)
{
    return [current = start]() mutable {
        if (!ascii::isPrintable(current)) current = ' ';
        return current++;
    };
}

std::string StringUtils::WStrToStr(const std::wstring& s)
{
    std::string text;
    text.reserve(s.size());
    for (const wchar_t c : s) appendUtf8(text, static_cast<char32_t>(c));
    return text;
}

std::wstring StringUtils::StrToWStr(const std::string& s)
{
    std::wstring text;
    text.reserve(s.size());
    for (std::string_view rest = s; !rest.empty();) text += static_cast<wchar_t>(takeCharacter(rest));
    return text;
}

} // namespace agent
