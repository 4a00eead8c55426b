#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// Makes UUIDs. The order of its virtual functions is part of the binary interface.
///
/// Two forms are in use and differ on purpose: `generate` writes the one with dashes, `empty`, `convert` and
/// StringUtils::isUuid use 32 hexadecimal digits.
class AGENTKIT_API UUIDGenerator {
public:
    virtual ~UUIDGenerator();

    /// A fresh random UUID: 36 characters, with dashes.
    virtual void generate(std::string& out);

    /// 32 zeros.
    virtual std::string empty();

    /// @param bytes  16 bytes
    /// @return       32 lower-case hexadecimal digits
    static std::string convert(const unsigned char* bytes);
};

} // namespace agent
