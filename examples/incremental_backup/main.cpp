// Embeds the library as a backup agent would: learns which blocks of a volume image changed, keeps them in a
// change bitmap, finds the changed ranges in it, and carries them over to a replica.

#include "ChangeTracker.h"
#include "ImageFile.h"
#include "Options.h"
#include "Replicator.h"

#include "agent/Format.h"
#include "agent/Path.h"
#include "agent/ScopeExit.h"
#include "agent/crc32c.h"
#include "agent/file/Operations.h"
#include "agent/info/Logger.h"

#include <cstdlib>
#include <exception>
#include <iomanip>
#include <iostream>
#include <optional>
#include <stdexcept>

namespace incremental_backup {

namespace {

using agent::info::Logger;

constexpr int kBadInput = 2;       // nothing was done, or the message tells how far the replica got
constexpr int kReplicaDiffers = 1; // the replica was written but is not what it should be

class ReplicaDiffers : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

void print(const std::string& text, Logger::Level level, std::chrono::system_clock::time_point /*when*/)
{
    if (level <= Logger::WARNING) {
        std::cerr << text;
    } else if (level == Logger::INFO) {
        std::cout << text;
    }
}

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

void printSummary(const BlockMap& map, const Replicator& replicator, Logger& logger)
{
    const Totals& totals = replicator.totals();
    const double megabytes = static_cast<double>(totals.bytes) / 1e6;
    Logger::Entry(logger, Logger::INFO) << "Ranges:   " << replicator.ranges().size() << '\n'
                                        << "Blocks:   " << totals.blocks << " of " << map.blockCount() << ", "
                                        << map.blockSize() << " bytes each\n"
                                        << "Bytes:    " << totals.bytes << " (" << agent::formatBytes(totals.bytes, 1)
                                        << ")\n"
                                        << "Speed:    " << std::fixed << std::setprecision(1)
                                        << (totals.seconds > 0 ? megabytes / totals.seconds : 0.0) << " MB/s\n"
                                        << "Checksum: " << checksumRoutine();
}

void run(const Options& options, Logger& logger)
{
    const ImageFile previous(options.previous, ImageFile::Access::ReadOnly);
    const ImageFile current(options.current, ImageFile::Access::ReadOnly);
    refuseOtherSize(current, previous);

    const bool isNewReplica = !agent::file::exists(options.replica);
    if (isNewReplica) {
        Logger::Entry(logger, Logger::INFO) << "Copying " << options.previous << " to " << options.replica;
        agent::file::copy(options.previous, options.replica, false);
    }
    const ImageFile replica(options.replica, ImageFile::Access::ReadWrite);
    refuseSameFile(replica, current);
    refuseSameFile(replica, previous);
    refuseOtherSize(replica, previous);

    const BlockMap map(
        previous.size(), agent::adjustBlockSizeSoBlockCountFitsInto32Bits(previous.size(), options.blockSize));
    const agent::Path bitmap = agent::file::getTempFile("changes_");
    const agent::scope_exit removeBitmap([&] { agent::file::remove(bitmap, false); },
        [&](const std::exception_ptr& e) { Logger::Entry(logger, Logger::WARNING) << agent::eptr_str(e); });

    const bool msbFirst = !options.lsbFirst;
    writeBitmap(
        bitmap.u8string(), map, findChanges(map, previous, current, isNewReplica ? nullptr : &replica), msbFirst);
    Replicator replicator(logger, map);
    replicator.loadChanges(bitmap.u8string(), msbFirst);
    replicator.apply(current, replica);
    const std::string difference = replicator.verify(current, replica);
    if (!difference.empty()) throw ReplicaDiffers(difference);
    Logger::Entry(logger, Logger::INFO) << options.replica << " equals " << options.current;
    printSummary(map, replicator, logger);
}

} // namespace

} // namespace incremental_backup

int main(int argc, char** argv)
{
    using namespace incremental_backup;
    Options options;
    if (const auto status = parseOptions(argc, argv, options)) return *status;
    Logger logger(print);
    try {
        run(options, logger);
        return EXIT_SUCCESS;
    } catch (const ReplicaDiffers& e) {
        std::cerr << "incremental_backup: " << e.what() << '\n';
        return kReplicaDiffers;
    } catch (const std::exception& e) {
        std::cerr << "incremental_backup: " << e.what() << '\n';
        return kBadInput;
    }
}
