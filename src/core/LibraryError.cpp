#include "agent/exception/LibraryError.h"

#include <array>
#include <cstdio>

namespace agent::exception {

library_error::~library_error() = default;

namespace detail {

std::string composeErrorText(
    const std::string& libraryName, const std::string& message, const std::string& codeText, int code)
{
    std::array<char, sizeof "-2147483648 (0x00000000)"> codes{};
    (void)std::snprintf(codes.data(), codes.size(), "%d (0x%08x)", code, static_cast<unsigned int>(code));

    std::string text;
    if (!message.empty()) text = message + ": ";
    text += codeText.empty() ? "Unknown error" : codeText;
    return text + " | ERROR(" + libraryName + ") : " + codes.data();
}

} // namespace detail

template class generic_library_error<int>;

} // namespace agent::exception
