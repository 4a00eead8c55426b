// Embeds the library as a backup agent would: learns which blocks of a volume image changed, keeps them in a
// change bitmap, finds the changed ranges in it, carries them over to a replica, here or at a server, and reports.

#include "BlockMap.h"
#include "ChangeTracker.h"
#include "CowFile.h"
#include "ImageFile.h"
#include "Inventory.h"
#include "LogPrinter.h"
#include "Options.h"
#include "PeriodicBackup.h"
#include "Protocol.h"
#include "RemoteReplica.h"
#include "Replicator.h"

#include "agent/FileWriters.h"
#include "agent/Format.h"
#include "agent/Path.h"
#include "agent/ScopeExit.h"
#include "agent/Zip.h"
#include "agent/core/block/Extents.h"
#include "agent/crc32c.h"
#include "agent/file/Operations.h"
#include "agent/info/Logger.h"
#include "agent/vnt/LoggerAdapter.h"

#include <chrono>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iomanip>
#include <iostream>
#include <optional>
#include <set>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace backup {

namespace {

using agent::info::Logger;

constexpr int kBadInput = 2;       // nothing was done, or the message tells how far the replica got
constexpr int kReplicaDiffers = 1; // the replica was written but is not what it should be
constexpr int kZipLevel = 6;

class ReplicaDiffers : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The dispatcher does not tell its choice, but the instruction works on whole words only and so leaves the
// ninth byte out.
const char* checksumRoutine()
{
    constexpr char nineBytes[] = "123456789";
    const bool isTable = crc32c(0, nineBytes, 9) == crc32c_slice_8(0, nineBytes, 9);
    return isTable ? "crc32c_slice_8" : "crc32c_hw64";
}

void refuseSameFile(const ImageFile& replica, const ImageFile& other)
{
    if (!replica.isSameFileAs(other)) return;
    throw std::invalid_argument("the replica \"" + replica.path() + "\" is the same file as \"" + other.path() + "\"");
}

void refuseOtherSize(const ImageFile& image, const ImageFile& previous)
{
    if (image.size() == previous.size()) return;
    throw std::invalid_argument("sizes differ: \"" + previous.path() + "\" has " + std::to_string(previous.size()) +
                                " bytes, \"" + image.path() + "\" has " + std::to_string(image.size()));
}

std::string summaryOf(const BlockMap& map, const Replicator& replicator)
{
    const Totals& totals = replicator.totals();
    const double megabytes = static_cast<double>(totals.bytes) / 1e6;
    std::ostringstream summary;
    summary << "Ranges:   " << replicator.ranges().size() << '\n'
            << "Blocks:   " << totals.blocks << " of " << map.blockCount() << ", " << map.blockSize() << " bytes each\n"
            << "Excluded: " << agent::formatBytes(map.imageSize() - map.bytesIn(map.covered()), 1) << '\n'
            << "Bytes:    " << totals.bytes << " (" << agent::formatBytes(totals.bytes, 1) << ")\n"
            << "Speed:    " << std::fixed << std::setprecision(1)
            << (totals.seconds > 0 ? megabytes / totals.seconds : 0.0) << " MB/s\n"
            << "Checksum: " << checksumRoutine();
    return summary.str();
}

/// A file in the temporary directory that goes with the scope.
class TemporaryFile {
public:
    TemporaryFile(Logger& logger, const std::string& prefix)
        : m_path(agent::file::getTempFile(prefix))
        , m_remove([path = m_path] { agent::file::remove(path, false); },
              [&logger](const std::exception_ptr& e) { Logger::Entry(logger, Logger::WARNING) << agent::eptr_str(e); })
    {
    }
    const agent::Path& path() const { return m_path; }

private:
    agent::Path m_path;
    agent::scope_exit<std::function<void()>, std::function<void(const std::exception_ptr&)>> m_remove;
};

// Blocks may have to be larger than asked for; then only those that are excluded as a whole stay out.
BlockMap mapOf(const ImageFile& image, const Options& options)
{
    const unsigned long blockSize = agent::adjustBlockSizeSoBlockCountFitsInto32Bits(image.size(), options.blockSize);
    std::vector<agent::BlockRange> excluded;
    if (!options.exclude.empty()) excluded = readRanges(options.exclude);
    for (agent::BlockRange& range : excluded)
        range = agent::scaleBlockRangeFSLargerBlockSize(blockSize / options.blockSize, range, 0);
    return {image.size(), blockSize, std::move(excluded)};
}

void printExtents(const Options& options, Logger& logger)
{
    std::vector<agent::BlockRange> ranges;
    agent::core::block::extents(logger, options.printExtents, options.blockSize, ranges);
    for (const agent::BlockRange& range : ranges) std::cout << range << '\n';
}

// Log lines are in the file as soon as they are printed.
void writeReport(const Options& options, const agent::Path& log, const agent::Path& bitmap, const std::string& summary,
    Logger& logger)
{
    const TemporaryFile file(logger, "summary_");
    agent::truncateAndWrite(logger, file.path(), summary + '\n');
    agent::Zip(logger).compress(
        {{"backup.log", log}, {"changes.bitmap", bitmap}, {"summary.txt", file.path()}}, options.report, kZipLevel);
    Logger::Entry(logger, Logger::INFO) << "Report:   " << options.report;
}

/// The images of one backup, and how they are cut into blocks.
struct Images {
    explicit Images(const Options& options)
        : previous(options.previous, ImageFile::Access::ReadOnly)
        , current(options.current, ImageFile::Access::ReadOnly)
        , map(mapOf(previous, options))
    {
        refuseOtherSize(current, previous);
    }
    ImageFile previous;
    ImageFile current;
    BlockMap map;
};

/// Brings a file up to date.
void updateFile(
    const Options& options, const Images& images, const agent::Path& bitmap, Replicator& replicator, Logger& logger)
{
    const auto& [previous, current, map] = images;
    const bool isNewReplica = !agent::file::exists(options.replica);
    if (isNewReplica) {
        Logger::Entry(logger, Logger::INFO) << "Copying " << options.previous << " to " << options.replica;
        agent::file::copy(options.previous, options.replica, false);
    }
    const ImageFile replica(options.replica, ImageFile::Access::ReadWrite);
    refuseSameFile(replica, current);
    refuseSameFile(replica, previous);
    refuseOtherSize(replica, previous);

    const bool msbFirst = !options.lsbFirst;
    writeBitmap(
        bitmap.u8string(), map, findChanges(map, previous, current, isNewReplica ? nullptr : &replica), msbFirst);
    replicator.loadChanges(bitmap.u8string(), msbFirst);
    replicator.apply(current, replica);
    const std::string difference = replicator.verify(current, replica);
    if (!difference.empty()) throw ReplicaDiffers(difference);
}

/// Makes the image of the last backup what was just backed up, so that the next backup sends only what changes from now
/// on. A program that is killed meanwhile finds a replica that is no copy of it, and sends all.
void updatePrevious(const Options& options, const Images& images, Replicator& replicator)
{
    const ImageFile previous(options.previous, ImageFile::Access::ReadWrite);
    replicator.apply(images.current, previous);
}

/// Has a server bring its replica up to date.
void updateServer(
    const Options& options, const Images& images, const agent::Path& bitmap, Replicator& replicator, Logger& logger)
{
    const auto& [previous, current, map] = images;
    RemoteReplica remote(logger, options);
    std::set<agent::BlockRange> changes;
    if (remote.begin(map) == protocol::digestOf(previous, map)) {
        changes = findChanges(map, previous, current, nullptr);
    } else {
        Logger::Entry(logger, Logger::INFO) << "The server has no copy of " << options.previous << ", so all is sent";
        changes.insert(map.covered().begin(), map.covered().end());
    }
    const bool msbFirst = !options.lsbFirst;
    writeBitmap(bitmap.u8string(), map, changes, msbFirst);
    replicator.loadChanges(bitmap.u8string(), msbFirst);
    replicator.send(current, remote);
    if (isStopping()) throw std::runtime_error("told to stop");
    if (remote.finish(replicator.totals().blocks) != protocol::digestOf(current, map))
        throw ReplicaDiffers("what the server has received differs from " + options.current +
                             "; it keeps the replica "
                             "that it had");
    remote.commit();
}

void backUp(const Options& options, const agent::Path& log, Logger& logger)
{
    const Images images(options);
    if (!options.config.empty()) printCowFile(options, images.current.size(), logger);
    const TemporaryFile bitmap(logger, "changes_");
    Replicator replicator(logger, images.map);
    const auto update = options.server.empty() ? updateFile : updateServer;
    update(options, images, bitmap.path(), replicator, logger);

    const std::string summary = summaryOf(images.map, replicator);
    if (options.every != 0) updatePrevious(options, images, replicator);
    const std::string replica = options.server.empty() ? options.replica : "The replica at " + options.server;
    Logger::Entry(logger, Logger::INFO) << replica << " equals " << options.current
                                        << (options.exclude.empty() ? "" : " but for what is excluded");
    std::istringstream lines(summary);
    for (std::string line; std::getline(lines, line);) Logger::Entry(logger, Logger::INFO) << line;
    if (!options.report.empty()) writeReport(options, log, bitmap.path(), summary, logger);
}

// Without --log the lines go to a file of their own all the same: the report needs them.
void run(const Options& options)
{
    Logger silent{Logger::Printer()};
    std::optional<TemporaryFile> temporaryLog;
    if (options.log.empty()) temporaryLog.emplace(silent, "log_");
    const agent::Path log = temporaryLog ? temporaryLog->path() : agent::Path(options.log);

    const LogPrinter printer(log);
    Logger logger = printer.makeLogger();
    vnt::common::Ret::set_logger(vnt::LoggerAdapter::toLogCallback(logger));
    const auto noLogger = agent::make_scope_exit([] { vnt::common::Ret::set_logger({}); });
    try {
        if (!options.inventory.empty()) {
            printInventory(options.inventory, logger);
        } else if (!options.printExtents.empty()) {
            printExtents(options, logger);
        } else if (options.every != 0) {
            const auto backup = [&] { backUp(options, log, logger); };
            runPeriodically(std::chrono::seconds(options.every), backup, logger);
        } else {
            backUp(options, log, logger);
        }
    } catch (const std::exception& e) {
        Logger::Entry(logger, Logger::DEBUG) << "Failed: " << e.what(); // main tells it on the screen
        throw;
    }
}

} // namespace

} // namespace backup

int main(int argc, char** argv)
{
    using namespace backup;
    Options options;
    if (const auto status = parseOptions(argc, argv, options)) return *status;
    if (options.every != 0) holdStopSignals();
    try {
        run(options);
        return EXIT_SUCCESS;
    } catch (const ReplicaDiffers& e) {
        std::cerr << "incremental_backup: " << e.what() << '\n';
        return kReplicaDiffers;
    } catch (const std::exception& e) {
        std::cerr << "incremental_backup: " << e.what() << '\n';
        return kBadInput;
    }
}
