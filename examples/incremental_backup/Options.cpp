#include "Options.h"

#include "agent/BlockRange.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <iostream>
#include <system_error>

namespace incremental_backup {

namespace {

// A disk sector at the least; at the most what fits comfortably into memory, twice.
constexpr unsigned long kSmallestBlock = 512;
constexpr unsigned long kLargestBlock = 256UL << 20;

std::string checkBlockSize(const std::string& text)
{
    unsigned long size = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber && agent::isPowerOfTwo(size) && size >= kSmallestBlock && size <= kLargestBlock) return "";
    return "a block size is a power of two from " + std::to_string(kSmallestBlock) + " to " +
           std::to_string(kLargestBlock) + ", not " + text;
}

} // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options)
{
    CLI::App app{"Brings a replica of a volume image up to date by copying only the blocks that changed."};
    app.add_option("--previous", options.previous, "image as it was at the last backup")->required();
    app.add_option("--current", options.current, "image as it is now")->required();
    app.add_option("--replica", options.replica, "copy of the previous image to update; made if missing")->required();
    app.add_option("--block-size", options.blockSize, "bytes in a block, a power of two")
        ->check(checkBlockSize, "power of two")
        ->capture_default_str();
    app.add_flag("--lsb-first", options.lsbFirst, "least significant bit first in the change bitmap");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e); // --help
        std::cerr << "incremental_backup: " << e.what() << '\n';
        return 2;
    }
    return std::nullopt;
}

} // namespace incremental_backup
