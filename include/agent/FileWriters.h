#pragma once

#include "agent/Export.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <limits>
#include <string>

namespace agent {

/// Replaces a file's content. A missing file is created with mode 0644, less the umask. Nothing is logged: the
/// logger is there for callers that pass one to every writer.
/// @throws PosixError  "Failed to open: " or "Failed to write all content to: " and the path
AGENTKIT_API void truncateAndWrite(info::Logger& logger, const Path& path, const std::string& content);

/// Writes part of a buffer to a file.
/// @param mode        as for `fopen`; the file is close-on-exec in any case
/// @param offset      of the part's first byte; beyond the data there is nothing to write
/// @param size        of the part in bytes, cut at the end of the data
/// @param terminator  written after the part, unless it is '\0'
/// @throws PosixError  the same texts
AGENTKIT_API void BufferToFile(const Path& path, const std::string& data, const char* mode, unsigned int offset = 0,
    unsigned int size = std::numeric_limits<unsigned int>::max(), char terminator = '\0');

} // namespace agent
