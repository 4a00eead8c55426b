#pragma once

#include "BlockMap.h"
#include "ImageFile.h"

#include "agent/BlockRange.h"

#include <set>
#include <string>

namespace backup {

/// Plays the driver that watches a volume's writes: it learns which covered blocks changed by comparing two images.
/// @param replica  may be null; else its covered blocks must be those of `previous`
/// @throws std::runtime_error  if the replica differs from `previous`
std::set<agent::BlockRange> findChanges(
    const BlockMap& map, const ImageFile& previous, const ImageFile& current, const ImageFile* replica);

/// Writes the change bitmap, one bit a block, as the driver hands it to the agent.
void writeBitmap(
    const std::string& path, const BlockMap& map, const std::set<agent::BlockRange>& changes, bool msbFirst);

} // namespace backup
