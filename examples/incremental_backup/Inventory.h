#pragma once

#include "agent/Path.h"
#include "agent/info/Logger.h"

namespace backup {

/// Prints what is known of this machine as JSON, and then how it differs from what was printed last, as JSON Patch.
/// @param store   directory that keeps it; made if missing
/// @param logger  borrowed
void printInventory(const agent::Path& store, agent::info::Logger& logger);

} // namespace backup
