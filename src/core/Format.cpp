#include "agent/Format.h"

#include "core/Ascii.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <clocale>
#include <ctime>
#include <string_view>

namespace agent {

namespace {

struct DataUnit {
    unsigned long divisor;
    char letter;
};
constexpr DataUnit kBytes{1024, 'B'};
constexpr DataUnit kBits{1000, 'b'};
constexpr std::string_view kMagnitudes = " KMGTPE"; // 64 bits reach no further

// As printf's "%.*f" in the C locale. A value below 1024 has at most 52 digits after the point, so that a
// larger precision only adds zeros, which are dropped anyway.
std::string withoutTrailingZeros(double value, int precision)
{
    constexpr int kDefaultPrecision = 6;
    constexpr int kEnoughDigits = 52;
    std::array<char, 64> buffer{};
    const int digits = precision < 0 ? kDefaultPrecision : std::min(precision, kEnoughDigits);
    const char* const end =
        std::to_chars(buffer.data(), buffer.data() + buffer.size(), value, std::chars_format::fixed, digits).ptr;

    std::string text(buffer.data(), static_cast<std::size_t>(end - buffer.data()));
    if (text.find('.') == std::string::npos) return text;
    text.erase(text.find_last_not_of('0') + 1);
    if (text.ends_with('.')) text.pop_back();
    return text;
}

std::string formatCount(unsigned long value, int precision, const DataUnit& unit)
{
    auto shown = static_cast<double>(value);
    std::size_t magnitude = 0;
    for (unsigned long rest = value; rest >= unit.divisor; rest /= unit.divisor) {
        shown = static_cast<double>(rest) / static_cast<double>(unit.divisor);
        ++magnitude;
    }
    std::string text = withoutTrailingZeros(shown, precision) + ' ';
    if (magnitude != 0) text += kMagnitudes[magnitude];
    return text + unit.letter;
}

void appendHex(std::string& text, unsigned long value, int digits)
{
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) text += ascii::kHexDigits[value >> shift & 0xF];
}

constexpr unsigned int kRowBytes = 16;

std::string dumpRow(std::string_view bytes, unsigned long offset, unsigned int mask, char placeholder)
{
    std::string row;
    appendHex(row, offset, 8);
    row += ' ';
    for (unsigned int column = 0; column < kRowBytes; ++column) {
        row += column == 0 || column == kRowBytes / 2 ? " " : "";
        if (column < bytes.size()) {
            appendHex(row, static_cast<unsigned char>(bytes[column]), 2);
            row += ' ';
        } else {
            row += "   ";
        }
    }
    row += ' ';
    for (const char byte : bytes) {
        const auto shown = static_cast<char>(static_cast<unsigned char>(byte) & mask);
        row += ascii::isPrintable(shown) ? shown : placeholder;
    }
    return row + '\n';
}

} // namespace

std::string formatBytes(unsigned long value, int precision)
{
    return formatCount(value, precision, kBytes);
}

std::string formatBits(unsigned long value, int precision)
{
    return formatCount(value, precision, kBits);
}

std::string format_utc(std::chrono::system_clock::time_point when, const char* format)
{
    static const locale_t classic = ::newlocale(LC_ALL_MASK, "C", nullptr); // lives as long as the process
    const auto seconds = std::chrono::floor<std::chrono::seconds>(when).time_since_epoch().count();
    const auto time = static_cast<std::time_t>(seconds);
    std::tm parts{};
    if (::gmtime_r(&time, &parts) == nullptr) return {};
    std::array<char, 50> buffer{};
    const std::size_t length = ::strftime_l(buffer.data(), buffer.size(), format, &parts, classic);
    return {buffer.data(), length};
}

std::string BufferToAsciiString(const char* buffer, unsigned int size, unsigned int characterMask, char placeholder)
{
    std::string dump;
    const std::string_view all(buffer, size);
    for (std::size_t offset = 0; offset < all.size(); offset += kRowBytes) {
        dump += dumpRow(all.substr(offset, kRowBytes), offset, characterMask, placeholder);
    }
    return dump;
}

} // namespace agent
