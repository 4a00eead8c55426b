#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// A process-wide lock that is a file, held from construction to destruction: one owner among all processes.
///
///     Flock lock("/run/agent.lock");  // throws if an agent runs already
///     lock.WritePid();
///
/// The lock is the system's (`flock`): it goes when its owner dies, however it dies; the file may then stay behind
/// and means nothing. Programs that the owner starts do not inherit it; a fork of the owner shares it, and it goes with
/// the last of them. The file must be on a local file system.
/// Threads: one at a time. A second Flock on the path is turned away within the process as well.
class AGENTKIT_API Flock {
public:
    /// Takes the lock or fails at once. The file is created with mode 0644 if it is missing.
    /// @throws PosixError  "File already locked. File " + path, code EWOULDBLOCK, if the lock is held elsewhere;
    ///                     "Unable to open lock file. File " or "Unknown lock failure.  File " otherwise. The
    ///                     file is left as it was.
    explicit Flock(std::string path);

    Flock(const Flock&) = delete;
    Flock& operator=(const Flock&) = delete;

    /// Releases the lock and removes the file, unless a fork of this process still has the lock or the path has come to
    /// name another file.
    ~Flock();

    /// Makes the decimal process id the whole content of the file, without a line end; after a fork, call it anew.
    /// @throws PosixError  "Unable to truncate lock file. File " or "Unable to write to lock file. File "
    void WritePid();

private:
    std::string m_path;
    int m_fd; // owned
};

} // namespace agent
