#pragma once

#include <optional>
#include <string>

namespace backup {

/// Names of files are empty where the option is not given.
struct Options {
    std::string previous;           ///< image as it was at the last backup
    std::string current;            ///< image as it is now
    std::string replica;            ///< copy of `previous` to bring up to date; made if it is missing
    unsigned long blockSize = 4096; ///< bytes, a power of two
    bool lsbFirst = false;          ///< bit order of the change bitmap
    std::string exclude;            ///< ranges of blocks to leave out
    std::string config;             ///< configuration; sizes the volume's copy-on-write file
    std::string volume;             ///< name of the volume in the configuration
    std::string fileSystem;         ///< of the volume
    std::string log;                ///< takes all log lines
    std::string report;             ///< archive to make of log, bitmap and summary
    std::string server;             ///< "host:port" of a backup server that has the replica
    std::string certificateStore;   ///< folder with our certificate and key for it
    unsigned int bandwidth = 0;     ///< to the server, bits per second; 0: no limit
    unsigned int patience = 10;     ///< seconds to go on trying to reach the server
    unsigned int every = 0;         ///< seconds between backups; 0: only one
    std::string inventory;          ///< directory that keeps what was printed of this machine last
    std::string printExtents;       ///< file whose ranges to print, instead of a backup
};

/// Reads the command line into `options`.
/// @return  nothing when there is work to do; else the exit status: 0 after --help, 2 after bad input,
///          which has been reported in one line on standard error
std::optional<int> parseOptions(int argc, char** argv, Options& options);

} // namespace backup
