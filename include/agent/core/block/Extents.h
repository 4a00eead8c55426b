#pragma once

#include "agent/BlockRange.h"
#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <string>
#include <vector>

namespace agent::core::block {

/// Tells which blocks of its volume a file occupies, so that a backup can leave them out.
///
///     std::vector<BlockRange> excluded;
///     extents(logger, "/var/lib/agent/cow.bin", 4096, excluded);
///
/// There is a range for each extent, in the order of the file system: neither merged, sorted nor clipped. Offset and
/// length are rounded down to whole blocks, each by itself, so a block that the file has only a part of is not in
/// its range, and an extent shorter than a block gives an empty range. Extents are read from the volume's start: for
/// a file system on a partition, from the partition's.
///
/// The file system is asked twice, for the number of extents and then for the extents (FIEMAP, without
/// FIEMAP_FLAG_SYNC: data not yet written has no place, and is reported at 0). A file that is written meanwhile may
/// have more extents then: that is logged as a warning, and `out` has those that were asked for.
///
/// @param logger     told each extent at DEBUG
/// @param path       a file on a file system that knows extents
/// @param blockSize  bytes, not 0
/// @param out        replaced, but only once the file system has answered
/// @throws PosixError  if the file cannot be opened or asked. Most of its texts end in "error: ", which is followed
///                     by ": " and the system's reason: log scanners know them so.
/// Threads: any.
AGENTKIT_API void extents(
    info::Logger& logger, const std::string& path, unsigned long blockSize, std::vector<BlockRange>& out);

} // namespace agent::core::block
