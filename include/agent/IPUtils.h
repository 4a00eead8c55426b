#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// IPv4 addresses as numbers: the four bytes in network order in the low 32 bits. Any thread.
class AGENTKIT_API IPUtils {
public:
    /// The first IPv4 address of a host.
    /// @param hostError  set on failure: a resolver's code (HOST_NOT_FOUND and so on), 12 if memory runs out, or an
    ///                   errno value if the resolver neither failed nor found anything
    /// @return           0 on failure
    unsigned long resolveHost(const char* name, int& hostError) const;

    /// "10.1.2.3"
    std::string str(unsigned long address) const;
};

} // namespace agent
