#pragma once

#include "agent/Path.h"

#include <string>

namespace agent::io {

/// Replaces a file's content as a whole: whatever happens at whatever moment, the file holds the old content or the
/// new.
///
/// The content goes to a temporary file of the same folder, which takes the file's place once it is on disk. Mode and
/// owner are kept, or, where the process may not give the file away, the mode without the group's bits; a new file has
/// mode 0600. A link is followed, and what it names is replaced. A process that is killed meanwhile may leave the
/// temporary file, path + "." + six characters.
/// @throws PosixError  naming the call and the path; the temporary file is gone then, and the old content stays unless
///                     it is the folder's fsync that failed
void replaceFile(const Path& path, const std::string& content);

} // namespace agent::io
