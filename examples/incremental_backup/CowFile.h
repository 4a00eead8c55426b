#pragma once

#include "Options.h"

#include "agent/info/Logger.h"

namespace backup {

/// Prints how large the copy-on-write file of the volume's snapshot starts, and whether and how it grows, as the
/// configuration says.
/// @throws std::exception  naming the key, if there is one that is unknown or has a value of the wrong type
/// @param volumeSize  bytes
void printCowFile(const Options& options, unsigned long volumeSize, agent::info::Logger& logger);

} // namespace backup
