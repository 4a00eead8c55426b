#pragma once

#include <optional>
#include <string>

namespace incremental_backup {

struct Options {
    std::string previous;           ///< image as it was at the last backup
    std::string current;            ///< image as it is now
    std::string replica;            ///< copy of `previous` to bring up to date; made if it is missing
    unsigned long blockSize = 4096; ///< bytes, a power of two
    bool lsbFirst = false;          ///< bit order of the change bitmap
};

/// Reads the command line into `options`.
/// @return  nothing when there is work to do; else the exit status: 0 after --help, 2 after bad input,
///          which has been reported in one line on standard error
std::optional<int> parseOptions(int argc, char** argv, Options& options);

} // namespace incremental_backup
