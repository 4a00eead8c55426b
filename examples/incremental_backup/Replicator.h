#pragma once

#include "BlockMap.h"
#include "ImageFile.h"
#include "RemoteReplica.h"

#include "agent/BlockRange.h"
#include "agent/BufferChecksum.h"
#include "agent/info/Logger.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace backup {

/// What a run has moved so far.
struct Totals {
    unsigned long blocks = 0;
    unsigned long bytes = 0;
    double seconds = 0;
};

/// The agent's side: finds the changed ranges in the bitmap, carries them over to the replica and keeps the
/// checksum of every block, with which the replica is verified afterwards.
class Replicator {
public:
    /// @param logger  borrowed
    Replicator(agent::info::Logger& logger, const BlockMap& map);

    /// Reads the change bitmap and finds its ranges.
    void loadChanges(const std::string& bitmapPath, bool msbFirst);

    /// Copies every changed block and waits until the disk has it.
    /// @throws std::runtime_error  with the cause, and with how much of the replica is up to date
    void apply(const ImageFile& current, const ImageFile& replica);

    /// Sends every changed block to a server.
    /// @throws std::runtime_error  with the cause, and with how much was sent
    void send(const ImageFile& current, RemoteReplica& remote);

    /// Compares the covered blocks of the replica with the current image byte by byte, and its changed blocks
    /// with their checksums.
    /// @return  empty, or what differs
    std::string verify(const ImageFile& current, const ImageFile& replica) const;

    const std::vector<agent::BlockRange>& ranges() const { return m_ranges; }
    const Totals& totals() const { return m_totals; }

private:
    /// Takes a piece: of its data as much as the image has, and the checksums of its blocks.
    using Sink = std::function<void(const agent::BlockRange& piece, const char* data, std::size_t size,
        const std::vector<std::uint32_t>& checksums)>;

    void copyRanges(const ImageFile& current, const Sink& sink);
    std::string progressSoFar() const;
    void readPiece(const ImageFile& image, const agent::BlockRange& piece, std::vector<char>& buffer) const;
    std::uint32_t checksum(std::vector<char>& piece, unsigned long blockInPiece) const;
    std::string compareBytes(const ImageFile& current, const ImageFile& replica) const;
    std::string compareChecksums(const ImageFile& replica) const;

    agent::info::Logger& m_logger;
    BlockMap m_map;
    std::unique_ptr<agent::IBufferChecksumGenerator> m_generator;
    std::vector<agent::BlockRange> m_ranges;
    std::vector<std::uint32_t> m_blockChecksums; // of the changed blocks, in their order
    Totals m_totals;
};

} // namespace backup
