#pragma once

#include <string_view>

/// Character tests that no locale changes.
namespace agent::ascii {

constexpr std::string_view kHexDigits = "0123456789abcdef";

constexpr bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}
constexpr bool isLetter(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
constexpr bool isHexDigit(char c)
{
    return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}
constexpr bool isPrintable(char c)
{
    return c >= ' ' && c <= '~';
}
constexpr bool isSpace(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}
constexpr char toLower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace agent::ascii
