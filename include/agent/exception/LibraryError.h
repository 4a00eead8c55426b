#pragma once

#include "agent/Export.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>

namespace agent::exception {

/// Common catch point for every failed call into another library or the system.
///
/// `what()` is composed once, at construction, and always has the same layout, so that a log line shows
/// the caller's context, the library's own text, the library's name and the code:
///
///     open("/tmp/x") failed: No such file or directory | ERROR(Posix) : 2 (0x00000002)
class AGENTKIT_API library_error : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
    library_error(const library_error&) = default;
    library_error& operator=(const library_error&) = default;
    ~library_error() override;
};

namespace detail {

/// Joins the pieces of the message; the hexadecimal form is the code's 32-bit two's complement.
AGENTKIT_API std::string composeErrorText(
    const std::string& libraryName, const std::string& message, const std::string& codeText, int code);

} // namespace detail

/// A library_error that remembers its code and the function that puts the code into words.
///
/// @tparam T  the library's code type, convertible to a 32-bit signed integer
template <typename T>
class AGENTKIT_API generic_library_error : public library_error {
public:
    /// @param libraryName  shown between "ERROR(" and ")"
    /// @param message      what was tried; may be empty
    /// @param toText       the library's code-to-text function
    /// @throws std::bad_function_call  if `toText` is empty
    generic_library_error(
        const std::string& libraryName, const std::string& message, T code, std::function<std::string(T)> toText)
        : library_error(format(libraryName, message, code, toText))
        , m_code(code)
        , m_toText(std::move(toText))
    {
    }
    generic_library_error(const generic_library_error&) = default;
    generic_library_error& operator=(const generic_library_error&) = default;
    ~generic_library_error() override = default;

    T code() const noexcept { return m_code; }

    /// The library's text for the code, rendered anew.
    std::string codeText() const { return m_toText(m_code); }

    /// The text that an error made from these arguments has as its `what()`. An empty text for the code
    /// shows as "Unknown error".
    /// @throws std::bad_function_call  if `toText` is empty
    static std::string format(
        const std::string& libraryName, const std::string& message, T code, std::function<std::string(T)> toText)
    {
        return detail::composeErrorText(libraryName, message, toText(code), static_cast<int>(code));
    }

private:
    T m_code;
    std::function<std::string(T)> m_toText;
};

extern template class AGENTKIT_API generic_library_error<int>;

} // namespace agent::exception
