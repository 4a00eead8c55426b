#include "Options.h"

#include "agent/BlockRange.h"

#include <CLI/CLI.hpp>

#include <charconv>
#include <iostream>
#include <limits>
#include <system_error>
#include <utility>

namespace backup {

namespace {

// A disk sector at the least; at the most what fits comfortably into memory, twice.
constexpr unsigned long kSmallestBlock = 512;
constexpr unsigned long kLargestBlock = 256UL << 20;

constexpr unsigned int kSmallestBandwidth = 8000; // bits per second; less would end in the server's time-out

std::string checkBlockSize(const std::string& text)
{
    unsigned long size = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), size);
    const bool isNumber = error == std::errc() && end == text.data() + text.size();
    if (isNumber && agent::isPowerOfTwo(size) && size >= kSmallestBlock && size <= kLargestBlock) return "";
    return "a block size is a power of two from " + std::to_string(kSmallestBlock) + " to " +
           std::to_string(kLargestBlock) + ", not " + text;
}

void requireImages(const Options& options)
{
    if (!options.printExtents.empty() || !options.inventory.empty()) return;
    for (const auto& [name, value] : {std::pair("--previous", &options.previous), {"--current", &options.current}})
        if (value->empty()) throw CLI::RequiredError(name);
    if (options.replica.empty() == options.server.empty()) throw CLI::RequiredError("--replica or --server");
}

} // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options)
{
    CLI::App app{"Brings a replica of a volume image up to date by copying only the blocks that changed."};
    app.add_option("--previous", options.previous, "image as it was at the last backup");
    app.add_option("--current", options.current, "image as it is now");
    app.add_option("--replica", options.replica, "copy of the previous image to update; made if missing");
    app.add_option("--block-size", options.blockSize, "bytes in a block, a power of two")
        ->check(checkBlockSize, "power of two")
        ->capture_default_str();
    app.add_flag("--lsb-first", options.lsbFirst, "least significant bit first in the change bitmap");
    auto* const store = app.add_option("--certificate-store", options.certificateStore,
        "folder with certificate.pem and private_key.pem, to show to the server");
    auto* const server = app.add_option("--server", options.server, "host:port of a backup server with the replica");
    server->needs(store);
    app.add_option("--bandwidth", options.bandwidth, "bits per second to send to the server at most")
        ->needs(server)
        ->check(CLI::Range(kSmallestBandwidth, std::numeric_limits<unsigned int>::max()));
    app.add_option("--exclude", options.exclude, "file with ranges of blocks to leave out, one [8, 12) a line");
    app.add_option("--config", options.config, "JSON file with the volume's settings; sizes its copy-on-write file");
    app.add_option("--volume", options.volume, "the volume's name in the configuration")->default_str("the image's");
    app.add_option("--file-system", options.fileSystem, "the volume's file system, for instance vfat");
    app.add_option("--log", options.log, "file to which all log lines are added");
    app.add_option("--report", options.report, "zip archive to make of log, bitmap and summary");
    app.add_option("--patience", options.patience, "seconds to go on trying to reach the server")
        ->capture_default_str()
        ->needs(server);
    app.add_option("--every", options.every,
           "repeat every so many seconds until SIGINT or SIGTERM; brings the previous image up to date, too")
        ->needs(server);
    app.add_option("--inventory", options.inventory,
        "print what is known of this machine, and what has changed since the last time by what this folder keeps");
    app.add_option(
        "--print-extents", options.printExtents, "print the ranges of blocks of a file, and do nothing else");
    try {
        app.parse(argc, argv);
        requireImages(options);
    } catch (const CLI::ParseError& e) {
        if (e.get_exit_code() == 0) return app.exit(e); // --help
        std::cerr << "incremental_backup: " << e.what() << '\n';
        return 2;
    }
    return std::nullopt;
}

} // namespace backup
