#pragma once

#include "Protocol.h"
#include "StagedReplica.h"

#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <string>
#include <vector>

namespace backup {

/// The server's side of a backup: verifies every block, puts it into a copy of the replica, and lets that take the
/// replica's place when the agent has found its digest to be right.
class Receiver {
public:
    /// @param logger  borrowed
    Receiver(agent::info::Logger& logger, agent::Path replica, protocol::Reader read, protocol::Writer write);

    /// Receives one backup. On failure the replica is as it was, and the agent was told why if it could be.
    void receive();

private:
    void run();
    void receiveBlocks(const BlockMap& map, StagedReplica& staged);
    void apply(const protocol::Message& message, const BlockMap& map, const ImageFile& image);

    agent::info::Logger& m_logger;
    agent::Path m_replica;
    protocol::Reader m_read;
    protocol::Writer m_write;
    unsigned long m_blocks = 0; // applied
};

} // namespace backup
