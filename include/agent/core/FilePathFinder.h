#pragma once

#include "agent/Export.h"
#include "agent/Path.h"

#include <functional>
#include <vector>

namespace agent::core {

/// Finds files below a directory.
///
///     FilePathFinder finder("/var/log");
///     finder.getFilePaths("/var/log/agent", [](const Path& p) { return p.fileName().ends_with(".log"); });
///
/// Threads: a value.
class AGENTKIT_API FilePathFinder {
public:
    /// @param root  where a search begins that names no directory
    explicit FilePathFinder(const Path& root);

    /// The full paths of everything below `directory` that is no directory and that the predicate accepts, in
    /// ascending order. Links to directories are followed, each directory once.
    /// @param directory  a full path, not one below the root; an empty one stands for the root
    /// @throws PosixError  if a directory cannot be read
    std::vector<Path> getFilePaths(const Path& directory, const std::function<bool(const Path&)>& predicate) const;

private:
    Path m_root;
};

} // namespace agent::core
