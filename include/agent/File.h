#pragma once

#include "agent/Export.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <istream>
#include <memory>
#include <string>

namespace agent {

/// How a file is opened: a set of bits.
///
///     FileOpenMode::Write | FileOpenMode::Create  // 10: writers of small files; keeps what is there
enum class FileOpenMode : unsigned int {
    Read = 1,
    Write = 2,
    Append = 4,
    Create = 8,
    Truncate = 16,
};

constexpr FileOpenMode operator|(FileOpenMode left, FileOpenMode right)
{
    return static_cast<FileOpenMode>(static_cast<unsigned int>(left) | static_cast<unsigned int>(right));
}

constexpr FileOpenMode operator&(FileOpenMode left, FileOpenMode right)
{
    return static_cast<FileOpenMode>(static_cast<unsigned int>(left) & static_cast<unsigned int>(right));
}

/// The permission bits of a file that is created, lessened by the umask; bits above 0777 are dropped. Any number
/// may be cast in: `FileCreateMode(0600)`.
enum class FileCreateMode : unsigned int {};

/// An open file: one descriptor, read and written directly, through a standard stream, or both by turns.
///
///     File file(logger, path, FileOpenMode::Write | FileOpenMode::Create | FileOpenMode::Truncate);
///     file.write(text);
///     file.getStream() << 42 << std::flush;
///
/// Direct calls and the stream share one position: each direct call first carries out what the stream still
/// holds. Interrupted calls go on. The destructor writes what the stream holds and closes; an error then goes
/// unseen, so flush the stream, or use write(), where it matters.
///
/// Errors are PosixError; but for opening their messages name the system call and the path.
/// Threads: one at a time. The operations are const because the file changes, not which file it is.
class AGENTKIT_API File {
public:
    /// Mode of a file that the forms without a mode create.
    static constexpr FileCreateMode DEFAULT_CREATE_MODE{0644};

    /// Creates a temporary file of mode 0600 whose name begins with "KESTA_", open for reading and writing. It
    /// stays on disk: remove it by its path.
    /// @param logger  borrowed; must outlive the file
    explicit File(info::Logger& logger);

    /// A closed file. slurp() and read() open it for reading when they are called; all else needs open().
    File(info::Logger& logger, const Path& path);

    File(info::Logger& logger, const Path& path, FileOpenMode mode);
    File(info::Logger& logger, const Path& path, FileOpenMode mode, FileCreateMode createMode);

    File(const File&) = delete;
    File& operator=(const File&) = delete;
    virtual ~File();

    /// Opens the file, close-on-exec, and logs so at DEBUG; closes it first, as the destructor does, if it is open.
    /// Without Write, the bits Append and Truncate open it for writing all the same; no bit at all is Read.
    /// @throws PosixError  "Failed to open file " + path; the file is closed then
    void open(FileOpenMode mode, FileCreateMode createMode) const;

    /// Reads at the present position until `size` bytes are there or the file ends.
    /// @return  bytes read; 0 at the end
    long read(void* buffer, long size) const;

    /// Puts the rest from the present position in `out`.
    void read(std::string& out) const;

    /// @param whence  SEEK_SET and so on, as for `lseek`; clears the stream's error state
    void seek(long offset, int whence) const;

    /// The whole content, wherever the position is, which stays; the size that the system reports is not relied
    /// upon, so files of /proc can be read, too. What has no positions (a pipe) is read to its end.
    std::string slurp() const;

    /// Writes everything at the present position, and hands it to the system at once.
    void write(const void* data, unsigned long size) const;
    void write(const std::string& data) const;

    /// A binary stream over the descriptor; in a failed state while the file is closed. It reads and writes as
    /// the mode allows. Lives as long as the file, also across open().
    std::iostream& getStream();

    const Path& getFilePath() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

} // namespace agent
