#include "agent/Zip.h"

#include "archive/Entry.h"
#include "core/Io.h"

#include "agent/File.h"
#include "agent/PosixError.h"
#include "agent/ScopeExit.h"
#include "agent/dir/Operations.h"
#include "agent/file/Operations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <unzip.h>
#include <zip.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace agent {

using info::Logger;

namespace {

constexpr long kCopyBuffer = 1'048'576; // bytes

// Not filled with zeros, which small entries would spend most of their time on.
std::unique_ptr<char[]> copyBuffer()
{
    return std::make_unique_for_overwrite<char[]>(kCopyBuffer);
}

/// Deflate makes at most 1,032 bytes of one.
constexpr unsigned long kMostExpansion = 1032;

/// From this on, a size or position does not fit into its 32 bits.
constexpr unsigned long kZip64 = 0xFFFF'FFFF;

// As minizip opens files itself, but close-on-exec. Archives are created or read, never changed.
voidpf openCloseOnExec(voidpf /*opaque*/, const void* name, int mode) noexcept
try {
    const bool isNew = (mode & ZLIB_FILEFUNC_MODE_CREATE) != 0;
    const int flags = isNew ? O_WRONLY | O_CREAT | O_TRUNC : O_RDONLY;
    UniqueFd fd = io::open(static_cast<const char*>(name), flags, 0666);
    FILE* const file = fd.isOpen() ? ::fdopen(fd.get(), isNew ? "wb" : "rb") : nullptr;
    if (file != nullptr) (void)fd.release(); // the stream's from here on
    return file;
} catch (const std::bad_alloc&) { // must not pass through the library's C code
    return nullptr;
}

zlib_filefunc64_def fileFunctions()
{
    zlib_filefunc64_def functions{};
    fill_fopen64_filefunc(&functions);
    functions.zopen64_file = openCloseOnExec;
    return functions;
}

[[noreturn]] void fail(const std::string& what)
{
    throw std::runtime_error(what);
}

std::optional<struct stat64> statOf(const Path& path)
{
    struct stat64 status {};
    if (::stat64(path.u8string().c_str(), &status) != 0) return std::nullopt;
    return status;
}

// --- writing ----------------------------------------------------------------------------------------

/// An archive that is being written. Closed by its destructor if need be, which logs a failure; and removed then, since
/// it is not complete: an archive that looks whole and is not must not be kept for one.
class ArchiveWriter {
public:
    ArchiveWriter(Logger& logger, const Path& archive)
        : m_logger(logger)
        , m_path(archive)
        , m_name(archive.u8string())
    {
        zlib_filefunc64_def functions = fileFunctions();
        m_zip = zipOpen2_64(m_name.c_str(), APPEND_STATUS_CREATE, nullptr, &functions);
        if (m_zip == nullptr) fail("Could not open zip archive " + m_name);
    }
    ArchiveWriter(const ArchiveWriter&) = delete;
    ArchiveWriter& operator=(const ArchiveWriter&) = delete;
    ~ArchiveWriter()
    {
        if (m_isComplete) return;
        if (m_hasOpenEntry) report("current file in zip: ", zipCloseFileInZip(m_zip));
        if (m_zip != nullptr) report("zip file: ", zipClose(m_zip, nullptr));
        const auto status = statOf(m_path);
        if (status && S_ISREG(status->st_mode)) (void)::unlink(m_name.c_str()); // best effort
    }

    void add(const std::string& name, const Path& source, int level, char* buffer)
    {
        const auto size = sizeOf(source);
        const File file = openSource(source);
        const std::string where = source.u8string() + " in archive " + m_name + " err: ";
        if (const int status = openEntry(name, size, level); status != ZIP_OK)
            fail("Could not open zip archive for writing file " + where + std::to_string(status));
        m_hasOpenEntry = true;
        int status = copy(file, buffer);
        if (status == ZIP_OK) {
            m_hasOpenEntry = false;
            status = zipCloseFileInZip(m_zip);
        }
        if (status != ZIP_OK) fail("Failed to write data from file " + where + std::to_string(status));
    }

    void close()
    {
        // The library frees the archive in any case: what fails here is not closed a second time.
        if (zipClose(std::exchange(m_zip, nullptr), nullptr) != ZIP_OK)
            fail("Failed to close zip file archive " + m_name);
        m_isComplete = true;
    }

private:
    unsigned long sizeOf(const Path& source) const
    {
        const auto status = statOf(source);
        const auto archive = statOf(m_path);
        const bool isArchive =
            status && archive && status->st_dev == archive->st_dev && status->st_ino == archive->st_ino;
        // An archive that packs itself would never end.
        if (!status || isArchive) fail("Could not open file for reading: " + source.u8string());
        return static_cast<unsigned long>(status->st_size);
    }

    File openSource(const Path& source) const
    {
        try {
            return {m_logger, source, FileOpenMode::Read};
        } catch (const PosixError& e) {
            Logger::Entry(m_logger, Logger::DEBUG) << e.what(); // the reason, which the message does not give
            fail("Could not open file for reading: " + source.u8string());
        }
    }

    int openEntry(const std::string& name, unsigned long size, int level)
    {
        constexpr std::size_t kLongestName = 0xFFFF; // its length has 16 bits
        if (name.size() > kLongestName || name.find('\0') != std::string::npos) return ZIP_PARAMERROR;
        // minizip refuses it as well, but leaks the entry.
        if (level < Z_DEFAULT_COMPRESSION || level > Z_BEST_COMPRESSION) return Z_STREAM_ERROR;

        // What cannot be deflated grows, by as much as compressBound() says.
        const bool isZip64 = compressBound(size) >= kZip64;
        // minizip puts the 64-bit sizes and positions behind the comment, where no reader looks for them.
        const bool hasComment = !isZip64 && file::size(m_path) < kZip64;
        const zip_fileinfo noTimeNorAttributes{};
        return zipOpenNewFileInZip3_64(m_zip, name.c_str(), &noTimeNorAttributes, nullptr, 0, nullptr, 0,
            hasComment ? "KestaArchive" : nullptr, Z_DEFLATED, level, 0, -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY,
            nullptr, 0, isZip64 ? 1 : 0);
    }

    int copy(const File& file, char* buffer)
    {
        try {
            while (const long got = file.read(buffer, kCopyBuffer)) {
                const int status = zipWriteInFileInZip(m_zip, buffer, static_cast<unsigned int>(got));
                if (status != ZIP_OK) return status;
            }
            return ZIP_OK;
        } catch (const PosixError& e) {
            return e.code();
        }
    }

    void report(const char* what, int status) noexcept
    {
        if (status == ZIP_OK) return;
        try_ignore(
            [=, this] { Logger::Entry(m_logger, Logger::ERROR) << "Exception while closing " << what << status; },
            m_logger);
    }

    Logger& m_logger;
    Path m_path;
    std::string m_name;
    zipFile m_zip = nullptr;
    bool m_hasOpenEntry = false;
    bool m_isComplete = false;
};

// --- reading ----------------------------------------------------------------------------------------

struct CloseArchive {
    void operator()(void* archive) const noexcept { (void)unzClose(archive); }
};
using ArchiveReader = std::unique_ptr<void, CloseArchive>;

/// What the archive's directory says of an entry.
struct Listing {
    unz_file_info64 info{};
    std::string name;
    bool isZip64 = false; ///< sizes that minizip has not understood
};

unsigned long littleEndian(const std::string& bytes, std::size_t begin, std::size_t count)
{
    unsigned long value = 0;
    for (std::size_t i = count; i-- > 0;) value = value << 8U | static_cast<unsigned char>(bytes[begin + i]);
    return value;
}

// minizip compares 32-bit sizes with a 64-bit -1, and so never looks for the sizes they stand for. Fields of the
// extra data have a tag and a size of two bytes each; in that of tag 1, sizes come first, and only those needed.
void resolveSizes(Listing& listing, const std::string& extra)
{
    listing.isZip64 = listing.info.uncompressed_size == kZip64 || listing.info.compressed_size == kZip64;
    for (std::size_t begin = 0; listing.isZip64 && begin + 4 <= extra.size();) {
        const std::size_t end = std::min(begin + 4 + littleEndian(extra, begin + 2, 2), extra.size());
        if (littleEndian(extra, begin, 2) == 1) {
            std::size_t place = begin + 4;
            for (ZPOS64_T* const size : {&listing.info.uncompressed_size, &listing.info.compressed_size}) {
                if (*size != kZip64 || place + 8 > end) continue;
                *size = littleEndian(extra, place, 8);
                place += 8;
            }
            return;
        }
        begin = end;
    }
}

int readListing(unzFile archive, Listing& listing)
{
    constexpr std::size_t kUsualName = 260;
    std::string extra;
    listing.name.assign(kUsualName, '\0');
    const auto ask = [&] {
        return unzGetCurrentFileInfo64(
            archive, &listing.info, listing.name.data(), listing.name.size(), extra.data(), extra.size(), nullptr, 0);
    };
    int status = ask();
    const std::size_t length = listing.info.size_filename;
    if (status == UNZ_OK && (length > kUsualName || listing.info.size_file_extra != 0)) {
        listing.name.assign(std::max(length, kUsualName), '\0');
        extra.assign(listing.info.size_file_extra, '\0');
        status = ask();
    }
    listing.name.resize(length); // the library ends only those names with a NUL that leave room for it
    resolveSizes(listing, extra);
    return status;
}

bool leavesDestination(const std::string& name, const Path& destination)
{
    if (name.starts_with('/') && destination == Path()) return true;
    constexpr const char* kSeparators = "/\\";
    for (std::size_t start = 0; start <= name.size();) {
        const std::size_t end = std::min(name.find_first_of(kSeparators, start), name.size());
        if (name.compare(start, end - start, "..") == 0) return true;
        start = end + 1;
    }
    return false;
}

// Before anything is written. What is refused here is no archive that a program has written.
void refuseHostile(const Listing& listing, const Path& destination)
{
    if (listing.name.find('\0') != std::string::npos)
        fail("Entry name holds a NUL: " + listing.name.substr(0, listing.name.find('\0')));
    if (leavesDestination(listing.name, destination)) fail("Entry name leaves the destination: " + listing.name);
    const unz_file_info64& info = listing.info;
    if (info.uncompressed_size / kMostExpansion > info.compressed_size)
        fail("Failed to read data from archive for file " + listing.name);
}

// Entries that share their data could unpack to any size: together they must fit into the archive.
void refuseOverlaps(unzFile archive, unsigned long archiveSize)
{
    unsigned long left = archiveSize;
    Listing listing;
    for (int status = unzGoToFirstFile(archive); status == UNZ_OK; status = unzGoToNextFile(archive)) {
        if (readListing(archive, listing) != UNZ_OK) return; // told when its turn comes
        if (listing.info.compressed_size > left) fail("Failed to read data from archive for file " + listing.name);
        left -= listing.info.compressed_size;
    }
}

void makeDirectory(Logger& logger, const Path& directory)
{
    if (file::exists(directory)) fail("Cannot create directory " + directory.u8string() + ", file of same name exists");
    Logger::Entry(logger, Logger::INFO) << "Creating directory " << directory.u8string();
    dir::make(directory, true);
}

// minizip hands out what it does not know undecoded, as if it were the content.
void refuseUnknown(const Listing& listing)
{
    constexpr unsigned long kStrongEncryption = 64; // flag
    constexpr unsigned long kAes = 99;              // method
    const unsigned long method = listing.info.compression_method;
    if (method == kAes || (listing.info.flag & kStrongEncryption) != 0)
        fail("Failed to open file in archive. Only traditional encryption is supported: " + listing.name);
    if (method != 0 && method != Z_DEFLATED)
        fail("Failed to open file in archive. Compression method " + std::to_string(method) +
             " is not supported: " + listing.name);
}

std::unique_ptr<archive::Entry> openEntry(unzFile archive, const Listing& listing, const std::string& password)
{
    constexpr unsigned long kEncrypted = 1; // flag
    refuseUnknown(listing);

    int status = UNZ_OK;
    std::unique_ptr<archive::Entry> entry;
    if ((listing.info.flag & kEncrypted) != 0) {
        entry = archive::openEncryptedEntry(archive, listing.info, password, status);
    } else if (listing.isZip64) {
        entry = archive::openRawEntry(archive, listing.info, status);
    } else {
        entry = archive::openPlainEntry(archive, status);
    }
    if (status == archive::kBadPassword)
        fail("Failed to open file in archive due to bad password. Error Code: " + std::to_string(status));
    if (!entry) fail("Failed to open file in archive. Error Code: " + std::to_string(status));
    return entry;
}

void copyEntry(Logger& logger, archive::Entry& entry, const Listing& listing, const Path& target)
{
    const auto refuseTarget = [&] { fail("Failed to write file during decompression: " + target.u8string()); };
    const auto refuseEntry = [&] { fail("Failed to read data from archive for file " + listing.name); };
    const auto buffer = copyBuffer();
    unsigned long left = listing.info.uncompressed_size;
    try {
        const File file(logger, target, FileOpenMode::Write | FileOpenMode::Create);
        while (const long got = entry.read(buffer.get(), kCopyBuffer)) {
            if (got < 0 || static_cast<unsigned long>(got) > left) refuseEntry();
            left -= static_cast<unsigned long>(got);
            file.write(buffer.get(), static_cast<unsigned long>(got));
        }
    } catch (const PosixError& e) {
        Logger::Entry(logger, Logger::DEBUG) << e.what(); // the reason, which the message does not give
        refuseTarget();
    }
    if (!entry.close() || left != 0) refuseEntry();
}

void extractFile(Logger& logger, unzFile archive, const Listing& listing, const std::string& password,
    const Path& target, bool replaces)
{
    // Opened before the existing file is emptied: a wrong password destroys nothing.
    const auto entry = openEntry(archive, listing, password);
    if (replaces) file::truncate(target, 0);
    struct stat64 status {};
    const bool isNew = ::lstat64(target.u8string().c_str(), &status) != 0; // not even a link that leads nowhere
    try {
        copyEntry(logger, *entry, listing, target);
    } catch (...) {
        if (isNew) (void)::unlink(target.u8string().c_str()); // best effort; half a file is worse than none
        throw;
    }
}

} // namespace

Zip::Zip(Logger& logger)
    : m_logger(logger)
{
}

void Zip::compress(const std::unordered_map<std::string, Path>& files, const Path& archive, int level) const
{
    Logger::Entry(m_logger, Logger::DEBUG) << "Creating zip archive " << archive.u8string();
    ArchiveWriter writer(m_logger, archive);
    const auto buffer = copyBuffer();
    for (const auto& [name, source] : files) writer.add(name, source, level, buffer.get());
    writer.close();
}

void Zip::decompress(
    const Path& archive, const Path& destination, const std::string& password, bool overwrite, bool keepBoth) const
{
    const std::string& name = archive.u8string();
    Logger::Entry(m_logger, Logger::DEBUG) << "Extracting zip archive " << name << " at " << destination.u8string();
    zlib_filefunc64_def functions = fileFunctions();
    const ArchiveReader reader(unzOpen2_64(name.c_str(), &functions));
    const auto status = statOf(archive);
    if (!reader || !status) fail("Could not open zip archive " + name);
    refuseOverlaps(reader.get(), static_cast<unsigned long>(status->st_size));

    int result = unzGoToFirstFile(reader.get());
    if (result != UNZ_OK) fail("Failed to get to first file in archive " + name + ", Error: " + std::to_string(result));
    while (result == UNZ_OK) {
        if (ExtractCurrentFile(m_logger, reader.get(), destination, password, overwrite, keepBoth) != UNZ_OK) return;
        result = unzGoToNextFile(reader.get());
    }
    if (result != UNZ_END_OF_LIST_OF_FILE)
        fail("Failed to get to next file in archive " + name + ", Error: " + std::to_string(result));
}

int ExtractCurrentFile(Logger& logger, void* archiveHandle, const Path& destination, const std::string& password,
    bool overwrite, bool keepBoth)
{
    Listing listing;
    const int status = readListing(archiveHandle, listing);
    if (status != UNZ_OK) fail("Failed to open file in archive. Error Code: " + std::to_string(status));
    refuseHostile(listing, destination);

    Path target = destination == Path() ? Path(listing.name) : destination / listing.name;
    const bool isDirectory =
        listing.info.uncompressed_size == 0 && (listing.name.ends_with('/') || listing.name.ends_with('\\'));
    if (isDirectory) {
        makeDirectory(logger, target);
        return UNZ_OK;
    }
    const Path parent = target.filePath();
    if (parent != Path() && !dir::isDirectory(parent)) makeDirectory(logger, parent);

    bool exists = file::exists(target);
    if (exists && keepBoth) {
        target = file::renameDuplicatePath(target);
        exists = false;
    }
    if (exists && !overwrite) {
        Logger::Entry(logger, Logger::DEBUG)
            << target.u8string() << " already exists, not overwriting or extracting copy.";
        return UNZ_OK;
    }
    extractFile(logger, archiveHandle, listing, password, target, exists);
    return UNZ_OK;
}

} // namespace agent
