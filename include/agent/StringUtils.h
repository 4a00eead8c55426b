#pragma once

#include "agent/Export.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace agent {

/// Small text operations. Characters are bytes and their classes those of ASCII, whatever the locale.
class AGENTKIT_API StringUtils {
public:
    /// By the first character alone: 'y', 'Y', 't', 'T' and '1' are true, everything else is false.
    static bool boolify(const std::string& s);

    /// "11" for true and "10" for false: the value of the stream flag `boolalpha`, then the number. Callers
    /// compare against these texts, so they stay.
    static std::string alphabool(bool b);

    static bool StartsWith(const std::string& s, const std::string& prefix);

    /// Equal but for the case of ASCII letters.
    static bool IEqual(const std::string& a, const std::string& b);

    /// Whether it is the compact form: 32 hexadecimal digits, no dashes.
    static bool isUuid(const std::string& s);

    /// Whether `flag` is one of the pieces of `list`; blanks around a piece do not count, case does. An empty
    /// flag is in no list.
    static bool hasFlag(const std::string& list, const std::string& flag, char delimiter);

    /// Replaces every occurrence from left to right, never in what was inserted. An empty `from` changes
    /// nothing.
    static std::string replace(const std::string& s, const std::string& from, const std::string& to);

    static std::string join(const std::vector<std::string>& parts, char separator);

    /// The characters as hexadecimal numbers of 32 bits, after sign extension; only the first is padded, to two
    /// digits: "AB" gives "4142", the bytes 5 and 6 give "056", the byte 255 gives "ffffffff". Identifiers
    /// stored by earlier releases have this form. For two digits a byte use byte_array_to_hex.
    static std::string string_to_hex(const std::string& s);

    /// Two lower-case digits a byte.
    static std::string byte_array_to_hex(const unsigned char* data, unsigned long size);

    /// Whether all characters lie between ' ' and '~'; true for an empty text.
    static bool is_all_displayable_ascii(const std::string& s);

    /// A function that returns the characters ' ' to '~' in turn, over and over, beginning with `start`, or
    /// with ' ' if that is not one of them.
    static std::function<char()> createPrintableCharGenerator(char start);

    /// UTF-8 to and from wide characters, losing nothing: a byte that is no part of well-formed UTF-8 becomes
    /// U+DC00 plus the byte, and that becomes the byte again. Any other value that is no character becomes
    /// U+FFFD.
    static std::string WStrToStr(const std::wstring& s);
    static std::wstring StrToWStr(const std::string& s);
};

/// Writes the pieces of [first, last) to `out`, cut at each `separator` that is not directly preceded by
/// `escape`. The escape character stays in its piece. An empty text has no piece.
/// @param out  an output iterator that takes a std::string
template <typename Iterator, typename Output>
Output split(Iterator first, Iterator last, Output out, char separator, char escape)
{
    if (first == last) return out;
    std::string piece;
    bool isEscaped = false;
    for (; first != last; ++first) {
        if (*first == separator && !isEscaped) {
            *out++ = std::move(piece);
            piece.clear();
        } else {
            piece += *first;
        }
        isEscaped = *first == escape;
    }
    *out++ = std::move(piece);
    return out;
}

} // namespace agent
