#pragma once

#include "agent/Export.h"

#include <chrono>
#include <string>

namespace agent {

/// A count in the largest unit of which there is at least one, in steps of 1,024: "1.5 KB" for 1536. The units
/// are B, KB, MB, GB, TB, PB and EB. The locale plays no part.
///
/// Each step divides in integers and only the last division keeps its fraction, so 1,600,000 bytes are
/// "1.525390625 MB": callers compare these texts.
/// @param precision  digits after the point before trailing zeros are dropped; negative counts as 6
AGENTKIT_API std::string formatBytes(unsigned long value, int precision);

/// The same in steps of 1,000, with the units b, Kb, Mb, Gb, Tb, Pb and Eb.
AGENTKIT_API std::string formatBits(unsigned long value, int precision);

/// The whole seconds of `when` in UTC, rounded down also before 1970.
/// @param format  as for `strftime`, in the C locale
/// @return        empty if the time has no calendar form, or the text does not fit 49 characters
AGENTKIT_API std::string format_utc(std::chrono::system_clock::time_point when, const char* format);

/// A hexadecimal dump, sixteen bytes a row:
///
///     00000000  48 65 6c 6c 6f 20 77 6f  72 6c 64 0a              Hello world_
///
/// Every row ends with a newline; an empty buffer gives an empty text. It shows the whole buffer: what is
/// secret must not come here.
/// @param characterMask  bits kept of a byte in the character column: 255 for all, 127 drops a parity bit
/// @param placeholder    stands there for bytes that are no printable ASCII
AGENTKIT_API std::string BufferToAsciiString(
    const char* buffer, unsigned int size, unsigned int characterMask, char placeholder);

} // namespace agent
