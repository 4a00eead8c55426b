#pragma once

#include "agent/Export.h"

#include <compare>
#include <cstdint>
#include <string>

namespace agent {

/// A version of four numbers; numbers that are missing in its text are 0.
struct AGENTKIT_API Version {
    std::uint32_t major = 0;
    std::uint32_t minor = 0;
    std::uint32_t patch = 0;
    std::uint32_t build = 0;

    friend auto operator<=>(const Version&, const Version&) = default;

    /// Parses up to four decimal numbers with '.' between them. An empty text is 0.0.0.0.
    /// @throws std::runtime_error     "Bad version string: " and the text: for a sign, a blank or any other
    ///                                character, a dot at the end, a fifth number, a number beyond 32 bits
    /// @throws std::invalid_argument  where a number has no digits
    /// @throws std::out_of_range      for a number beyond 64 bits
    static Version parse(std::string text);
};

} // namespace agent
