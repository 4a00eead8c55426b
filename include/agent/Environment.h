#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// The process's environment. Threads: as safe as `getenv`, so not while another thread changes it.
class AGENTKIT_API Environment {
public:
    /// Empty if the variable is not set.
    std::string getEnvironmentVariable(const std::string& name) const;
};

} // namespace agent
