#pragma once

#include "agent/BlockRange.h"

#include <functional>
#include <string>
#include <vector>

namespace backup {

/// Cuts an image into blocks and knows which of them the backup covers. The last block may be shorter than the
/// others.
class BlockMap {
public:
    using PieceHandler = std::function<void(const agent::BlockRange& piece)>;

    /// @param excluded  blocks to leave out: in any order, also overlapping, also beyond the image
    BlockMap(unsigned long imageSize, unsigned long blockSize, std::vector<agent::BlockRange> excluded);

    unsigned long blockSize() const { return m_blockSize; }
    unsigned long imageSize() const { return m_imageSize; }
    unsigned long blockCount() const { return m_imageSize / m_blockSize + (m_imageSize % m_blockSize != 0 ? 1 : 0); }

    /// What is not excluded, in ascending order.
    const std::vector<agent::BlockRange>& covered() const { return m_covered; }

    unsigned long offsetOf(unsigned long block) const { return block * m_blockSize; }

    /// Bytes of the image that lie in the ranges.
    unsigned long bytesIn(const agent::BlockRange& range) const;
    unsigned long bytesIn(const std::vector<agent::BlockRange>& ranges) const;

    /// Calls the handler with pieces of about a MiB, one block at the least.
    void forEachPiece(const std::vector<agent::BlockRange>& ranges, const PieceHandler& handle) const;

private:
    unsigned long m_imageSize; // bytes
    unsigned long m_blockSize; // bytes
    std::vector<agent::BlockRange> m_covered;
};

/// Reads ranges of blocks, one a line in the form "[8, 12)"; lines without any are skipped.
/// @throws std::runtime_error  naming the file and the line
std::vector<agent::BlockRange> readRanges(const std::string& path);

} // namespace backup
