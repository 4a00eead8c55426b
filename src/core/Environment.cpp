#include "agent/Environment.h"

#include <cstdlib>

namespace agent {

std::string Environment::getEnvironmentVariable(const std::string& name) const
{
    const char* const value = std::getenv(name.c_str());
    return value != nullptr ? value : "";
}

} // namespace agent
