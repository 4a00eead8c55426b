#pragma once

#include "agent/Export.h"

#include <string>
#include <vector>

namespace agent {

/// Base64 with the standard alphabet (RFC 4648, section 4), padded with "=" to groups of four.
AGENTKIT_API std::string base64Encode(const unsigned char* data, unsigned long size);

/// Decodes up to the first "=" or the first character outside the alphabet and ignores the rest; no input is an
/// error. Two or three characters left over give one or two bytes, a lone last one gives none.
AGENTKIT_API std::vector<unsigned char> base64Decode(const std::string& text);

} // namespace agent
