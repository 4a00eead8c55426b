#include "agent/Base64.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace agent {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char kNoDigit = 64;

constexpr std::array<unsigned char, 256> makeValues()
{
    std::array<unsigned char, 256> values{};
    values.fill(kNoDigit);
    unsigned char value = 0;
    for (const char c : kAlphabet) values[static_cast<unsigned char>(c)] = value++;
    return values;
}
constexpr auto kValues = makeValues();

} // namespace

std::string base64Encode(const unsigned char* data, unsigned long size)
{
    std::string text;
    text.reserve((size / 3 + 1) * 4);
    for (unsigned long i = 0; i < size; i += 3) {
        const unsigned long bytes = std::min(size - i, 3UL);
        unsigned int group = static_cast<unsigned int>(data[i]) << 16;
        if (bytes > 1) group |= static_cast<unsigned int>(data[i + 1]) << 8;
        if (bytes > 2) group |= data[i + 2];
        for (unsigned long digit = 0; digit < 4; ++digit) {
            text += digit <= bytes ? kAlphabet[group >> (18 - 6 * digit) & 0x3F] : '=';
        }
    }
    return text;
}

std::vector<unsigned char> base64Decode(const std::string& text)
{
    std::vector<unsigned char> bytes;
    bytes.reserve(text.size() / 4 * 3 + 2);
    unsigned int group = 0;
    unsigned int bits = 0; // waiting in the group
    for (const char c : text) {
        const unsigned char value = kValues[static_cast<unsigned char>(c)];
        if (value == kNoDigit) break;
        group = group << 6 | value;
        bits += 6;
        if (bits < 8) continue;
        bits -= 8;
        bytes.push_back(static_cast<unsigned char>(group >> bits & 0xFF));
    }
    return bytes;
}

} // namespace agent
