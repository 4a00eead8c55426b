#pragma once

#include "agent/Export.h"
#include "agent/Path.h"

#include <chrono>
#include <string>
#include <vector>

/// Acts on files by name: thin wrappers over the system's calls that keep no state and may run on any thread.
/// Every failure is a PosixError whose message names the call and the path; nothing is retried or logged.
namespace agent::file {

/// Whether the path exists and is no directory; false also where it cannot be asked.
AGENTKIT_API bool exists(const Path& p);

/// Bytes.
AGENTKIT_API unsigned long size(const Path& p);

/// Removes a file, or an empty directory.
/// @param makeWritable  open it for reading and writing first and give it the mode 660, written in decimal:
///                      octal 1224. Installed agents carry files of that mode, and checks for it exist: kept.
///                      If that fails, nothing is removed.
AGENTKIT_API void remove(const Path& p, bool makeWritable);

AGENTKIT_API void rename(const Path& from, const Path& to);

AGENTKIT_API void symlink(const Path& target, const Path& link);

/// Its failures are worded like those of symlink.
AGENTKIT_API void hardlink(const Path& existing, const Path& link);

/// What a symbolic link says, at most 4,096 bytes.
AGENTKIT_API Path symlinkTarget(const Path& p);

/// Cuts or extends the file to `size` bytes; a missing one is created with mode 0644.
AGENTKIT_API void truncate(const Path& p, unsigned long size);

/// To the nanosecond; times that the clock cannot hold (before 1677, after 2262) are cut to its limits.
AGENTKIT_API std::chrono::system_clock::time_point getModifiedTime(const Path& p);

/// Whether a file has further names; never true for a directory.
AGENTKIT_API bool isHardlink(const Path& p);

/// There are none on this platform: false for whatever exists.
AGENTKIT_API bool isReparsePoint(const Path& p);

/// Not supported on this platform: empty for whatever exists.
AGENTKIT_API std::vector<Path> findHardlinks(const Path& p);

/// Creates an empty file of mode 0600 whose name is `prefix` and six characters that make it unique.
AGENTKIT_API Path getTempFile(const Path& dir, const std::string& prefix);

/// The same in dir::temp().
AGENTKIT_API Path getTempFile(const std::string& prefix);

/// `p` if nothing exists there; else the first free name of "name (1).ext", "name (2).ext" and so on. The
/// extension begins at the last '.' of the file name; blanks before it are dropped. Nothing is created: another
/// process may take the name meanwhile.
AGENTKIT_API Path renameDuplicatePath(const Path& p);

/// Copies the content and the permission bits of a regular file.
///
/// The source is opened before the destination is touched, and a file is never copied onto itself. A
/// destination that the copy created is removed if it fails; one that was overwritten is left as far as it got.
/// The umask does not lessen the permission bits of a new file; an overwritten one keeps its own.
/// @param overwrite  false: an existing destination is an error (EEXIST)
AGENTKIT_API void copy(const Path& from, const Path& to, bool overwrite);

} // namespace agent::file
