#pragma once

#include "ImageFile.h"

#include "agent/Path.h"

#include <optional>

namespace backup {

/// The next state of a replica, in a file beside it: the replica itself is as it was until publish(), and whole at
/// any time. What was not published goes with the scope; what a killed server left is overwritten.
class StagedReplica {
public:
    /// A copy of the replica if that has this size, else an image of zeros.
    StagedReplica(agent::Path replica, unsigned long size);
    StagedReplica(const StagedReplica&) = delete;
    StagedReplica& operator=(const StagedReplica&) = delete;
    ~StagedReplica();

    bool isCopy() const { return m_isCopy; }
    const ImageFile& image() const { return *m_image; }

    /// Takes the replica's place, also if the machine stops right after.
    void publish();

private:
    agent::Path m_replica;
    agent::Path m_path;
    bool m_isCopy;
    std::optional<ImageFile> m_image;
};

} // namespace backup
