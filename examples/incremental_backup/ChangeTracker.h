#pragma once

#include "ImageFile.h"

#include "agent/BlockRange.h"

#include <set>
#include <string>

namespace incremental_backup {

/// Cuts an image into blocks. The last block may be shorter than the others.
class BlockMap {
public:
    BlockMap(unsigned long imageSize, unsigned long blockSize)
        : m_imageSize(imageSize)
        , m_blockSize(blockSize)
    {
    }

    unsigned long blockSize() const { return m_blockSize; }
    unsigned long imageSize() const { return m_imageSize; }
    unsigned long blockCount() const { return m_imageSize / m_blockSize + (m_imageSize % m_blockSize != 0 ? 1 : 0); }

    /// Bytes of the image that lie in the range.
    unsigned long bytesIn(const agent::BlockRange& range) const;

    /// Blocks that are read at a time: about a MiB, one block at the least.
    unsigned long blocksPerPiece() const;

private:
    unsigned long m_imageSize;
    unsigned long m_blockSize;
};

/// Plays the driver that watches a volume's writes: it learns what changed by comparing two images.
/// @param replica  may be null; else it must hold what `previous` holds
/// @throws std::runtime_error  if the replica differs from `previous`
std::set<agent::BlockRange> findChanges(
    const BlockMap& map, const ImageFile& previous, const ImageFile& current, const ImageFile* replica);

/// Writes the change bitmap, one bit a block, as the driver hands it to the agent.
void writeBitmap(
    const std::string& path, const BlockMap& map, const std::set<agent::BlockRange>& changes, bool msbFirst);

} // namespace incremental_backup
