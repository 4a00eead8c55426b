#include "agent/core/block/Extents.h"

#include "core/Io.h"

#include "agent/PosixError.h"
#include "agent/ScopeExit.h"

#include <fcntl.h>
#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>

namespace agent::core::block {

namespace {

using info::Logger;

// The kernel's FIEMAP_MAX_EXTENTS: the records of one request stay below 4 GiB.
constexpr unsigned int kMostExtents = std::numeric_limits<unsigned int>::max() / sizeof(fiemap_extent);

struct Free {
    void operator()(void* memory) const noexcept { std::free(memory); }
};

/// A request for a whole file with room for the answer's records behind it, all zero where nothing was answered.
using Request = std::unique_ptr<fiemap, Free>;

Request requestFor(unsigned int extentCount)
{
    Request request(static_cast<fiemap*>(std::calloc(1, sizeof(fiemap) + extentCount * sizeof(fiemap_extent))));
    if (!request) throw std::bad_alloc();
    request->fm_length = FIEMAP_MAX_OFFSET;
    request->fm_extent_count = extentCount;
    return request;
}

bool ask(int fd, fiemap& request)
{
    return io::retry([&] { return ::ioctl(fd, FS_IOC_FIEMAP, &request); }) == 0;
}

[[noreturn]] void fail(const std::string& what, const std::string& path, const char* end)
{
    const int error = errno;
    throw PosixError(what + io::quoted(path) + end, error);
}

void closeAndReport(Logger& logger, UniqueFd fd, const std::string& path)
{
    if (io::close(std::move(fd))) return;
    const int error = errno;
    Logger::Entry(logger, Logger::WARNING)
        << "Failed to close file handle to excluded file " << io::quoted(path) << ": " << PosixError::strerror(error);
}

unsigned long sizeOf(int fd, const std::string& path)
{
    struct stat64 status {};
    if (::fstat64(fd, &status) != 0) fail("Failed to stat file ", path, ", error: ");
    return static_cast<unsigned long>(status.st_size);
}

Request extentsOf(Logger& logger, int fd, const std::string& path)
{
    const Request count = requestFor(0);
    if (!ask(fd, *count)) fail("FIEMAP IoCtl for file ", path, " failed, error: ");
    const unsigned int expected = count->fm_mapped_extents;
    Logger::Entry(logger, Logger::DEBUG) << "FIEMAP IoCtl of file " << io::quoted(path) << " reports " << expected
                                         << " (pre-merged) extents";

    errno = EINVAL; // what the kernel would say to more than it takes
    Request map = expected <= kMostExtents ? requestFor(expected) : nullptr;
    if (!map || !ask(fd, *map)) fail("FIEMAP IoCtl for excluded file ", path, " failed, error ");
    return map;
}

// `last` is the index of the extent that the file system marks as the file's last.
void reportEnd(Logger& logger, unsigned int expected, unsigned int last, const std::string& path)
{
    if (last + 1 == expected) {
        Logger::Entry(logger, Logger::DEBUG) << "FBRE Linux: FIEMAP got as many extents as we thought we should have ("
                                             << expected << " for file " << io::quoted(path) << ")";
        return;
    }
    // The index, one less than the number of extents: log scanners know it so.
    Logger::Entry(logger, Logger::WARNING)
        << "FBRE Linux: identified fewer extents for file " << io::quoted(path)
        << " than we thought we should have (expected " << expected << ", got " << last << ")";
}

// Walks all records that were asked for, also if the answer has fewer of them: a file that was emptied between the
// requests gives empty ranges.
void exclude(
    Logger& logger, const fiemap& map, const std::string& path, unsigned long blockSize, std::vector<BlockRange>& out)
{
    const unsigned int expected = map.fm_extent_count;
    for (unsigned int i = 0; i < expected; ++i) {
        const fiemap_extent& extent = map.fm_extents[i];
        const BlockRange range(extent.fe_physical / blockSize, extent.fe_length / blockSize);
        Logger::Entry(logger, Logger::DEBUG)
            << "FBRE Linux: Exclude extent { " << range.start() << ", " << range.count() << " }";
        out.push_back(range);
        if ((extent.fe_flags & FIEMAP_EXTENT_LAST) != 0) return reportEnd(logger, expected, i, path);
    }
    if (expected == 0) return;
    Logger::Entry(logger, Logger::WARNING) << "FBRE Linux: identified more extents for file " << io::quoted(path)
                                           << " than we thought we should have (expected " << expected
                                           << ", but got some amount more); some blocks may not be excluded properly";
}

} // namespace

void extents(Logger& logger, const std::string& path, unsigned long blockSize, std::vector<BlockRange>& out)
{
    if (blockSize == 0) throw std::invalid_argument("The block size for the extents of a file must not be 0: " + path);

    UniqueFd fd = io::open(path, O_RDONLY | O_NONBLOCK); // a pipe is refused, not waited for
    if (!fd.isOpen()) fail("Failed to open handle to file ", path, ", error: ");
    const int number = fd.get();
    const auto close = make_scope_exit([&] { closeAndReport(logger, std::move(fd), path); });

    Logger::Entry(logger, Logger::DEBUG) << "FBRE Linux: Block Size = " << blockSize;
    const unsigned long size = sizeOf(number, path);
    Logger::Entry(logger, Logger::DEBUG) << "FBRE Linux: Block Count = "
                                         << size / blockSize + (size % blockSize != 0 ? 1 : 0);
    const Request map = extentsOf(logger, number, path);

    out.clear();
    exclude(logger, *map, path, blockSize, out);
}

} // namespace agent::core::block
