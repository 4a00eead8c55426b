#pragma once

#include "agent/Export.h"
#include "agent/Path.h"

#include <concepts>
#include <functional>
#include <string>
#include <unordered_set>
#include <vector>

/// Acts on directories by name: thin wrappers over the system's calls that keep no state and may run on any
/// thread. Every failure is a PosixError whose message names the call and the path; nothing is retried or
/// logged.
namespace agent::dir {

/// Creates a directory with mode 0755; one that exists is success, also when another process made it meanwhile.
/// @param recursive  create what is missing above it, too
AGENTKIT_API void make(const Path& p, bool recursive);

/// Removes a directory with all that is in it. Links are removed, never followed; `p` itself must be no link.
AGENTKIT_API void remove(const Path& p);

/// The names in a directory, in the order of the file system, without "." and "..".
AGENTKIT_API std::vector<std::string> list(const Path& p);

/// Adds the full paths of all entries below `p` that the predicate accepts to `found`, directories included.
///
/// A directory that is not accepted is walked all the same. Links to directories are followed, after everything
/// that is reached without them; a directory is walked once, by whatever ways it can be reached. Dangling links
/// are entries like others.
AGENTKIT_API void listFullPathRecursive(
    const Path& p, std::unordered_set<Path>& found, const std::function<bool(const Path&)>& predicate);

/// The predicate of the flag: true accepts every path, false regular files (and links to them) only.
AGENTKIT_API std::function<bool(const Path&)> inclusionPredicate(bool everything);

/// Takes a real bool only: a lambda must never become one.
template <std::same_as<bool> Flag>
void listFullPathRecursive(const Path& p, std::unordered_set<Path>& found, Flag everything)
{
    listFullPathRecursive(p, found, inclusionPredicate(everything));
}

/// Copies a directory tree with its permission bits. Links are copied as links. Directories that exist are
/// filled; files that exist are not overwritten but end the copy, as do sockets, devices and the like.
AGENTKIT_API void copy(const Path& from, const Path& to);

/// False for what is missing or cannot be asked.
AGENTKIT_API bool isDirectory(const Path& p);

AGENTKIT_API unsigned long getInode(const Path& p);

/// There are none on this platform: false for whatever exists.
AGENTKIT_API bool containsReparsePoint(const Path& p);

/// The file system that holds a path; all sizes in bytes.
struct VolumeData {
    unsigned long blockSize;      ///< preferred size of a transfer
    unsigned long totalBytes;     ///< capacity
    unsigned long freeBytes;      ///< free for root
    unsigned long availableBytes; ///< free for everybody else
};
AGENTKIT_API VolumeData volumeData(const Path& p);

/// The first of the environment variables TMPDIR, TMP, TEMP, TEMPDIR that is not empty, else "/tmp".
AGENTKIT_API Path temp();

/// The current directory.
AGENTKIT_API Path working();

AGENTKIT_API Path root();

/// The directory of the running executable.
AGENTKIT_API Path installationDir();

} // namespace agent::dir
