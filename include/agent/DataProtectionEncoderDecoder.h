#pragma once

#include "agent/Export.h"

#include <string>
#include <vector>

namespace agent {

/// The one place where a platform could protect private keys at rest. On this one both directions change nothing, so
/// that existing key files stay readable: access to them is what has to be restricted.
class AGENTKIT_API DataProtectionEncoderDecoder {
public:
    virtual ~DataProtectionEncoderDecoder();

    virtual std::vector<unsigned char> encode(std::string text) const;
    virtual std::string decode(std::vector<unsigned char> bytes) const;
};

} // namespace agent
