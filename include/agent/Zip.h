#pragma once

#include "agent/Export.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <string>
#include <unordered_map>

namespace agent {

/// Packs files into zip archives, and unpacks archives that come from anywhere.
///
///     Zip zip(logger);
///     zip.compress({{"logs/agent.log", "/var/log/agent.log"}}, "/tmp/report.zip", 6);
///     zip.decompress("/tmp/report.zip", "/tmp/report", "", false, false);
///
/// Errors are std::runtime_error; those of directories and of truncating come as PosixError.
/// Threads: keeps no state but the logger.
class AGENTKIT_API Zip {
public:
    /// @param logger  borrowed; must outlive this
    explicit Zip(info::Logger& logger);

    /// Writes a new archive, over one of the name. Entries are deflated and have neither time stamp nor attributes;
    /// those of 4 GiB and more are zip64, and have, like those that lie beyond 4 GiB, no comment. After a failure
    /// there is no archive.
    /// @param files  by the name of their entry, at most 65,535 bytes and without NUL
    /// @param level  of the compression: 0 to 9, -1 for zlib's own choice
    void compress(const std::unordered_map<std::string, Path>& files, const Path& archive, int level) const;

    /// Extracts all entries in their order; missing directories are made. A failure ends it: what was extracted before
    /// stays, of the failing entry only what was overwritten.
    ///
    /// Never writes outside the destination: a name with a part ".." is refused, and an absolute one lands under the
    /// destination, or is refused if that is empty. Links come out as plain files. Archives that declare more than they
    /// can hold are refused, and every entry's checksum and size is checked. Entries of any size are extracted if
    /// they are compressed to, and lie within, less than 4 GiB.
    ///
    /// @param destination  an empty one stands for the working directory
    /// @param password     for entries that are encrypted (the traditional cipher; AES is not supported); may be empty
    /// @param overwrite    replace files that exist; without it and `keepBoth` they stay, and their entries are skipped
    /// @param keepBoth     extract beside files that exist, as "name (1).ext" and so on; goes before `overwrite`
    void decompress(
        const Path& archive, const Path& destination, const std::string& password, bool overwrite, bool keepBoth) const;

private:
    info::Logger& m_logger;
};

/// Extracts the entry that an archive stands on, as Zip::decompress does.
/// @param archiveHandle  minizip's `unzFile`, at an entry that is not open
/// @return               0: the walk may go on, also after an entry that was skipped
AGENTKIT_API int ExtractCurrentFile(info::Logger& logger, void* archiveHandle, const Path& destination,
    const std::string& password, bool overwrite, bool keepBoth);

} // namespace agent
