#include "agent/dir/Operations.h"

#include "core/Io.h"

#include "agent/Environment.h"
#include "agent/PosixError.h"
#include "agent/file/Operations.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <cerrno>
#include <deque>
#include <filesystem>
#include <memory>
#include <set>
#include <system_error>
#include <utility>

namespace agent::dir {

namespace {

using io::quoted;

// --- making --------------------------------------------------------------------------------------------

/// 0, or the errno of mkdir; a directory that is there already is success.
int makeOne(const Path& p)
{
    if (::mkdir(p.u8string().c_str(), 0755) == 0) return 0;
    const int error = errno;
    return isDirectory(p) ? 0 : error;
}

void makeWithParents(const Path& whole, const Path& p, bool recursive)
{
    int error = makeOne(p);
    if ((error == ENOENT || error == ENOTDIR) && recursive) {
        const Path parent = p.filePath();
        if (!parent.u8string().empty() && parent != p) {
            makeWithParents(whole, parent, true);
            error = makeOne(p);
        }
    }
    if (error == 0) return;
    const std::string begin = "dir::make(" + quoted(whole) + ")";
    if (error == EEXIST) throw PosixError(begin + ": " + quoted(p) + " already exists and is not a directory", ENOTDIR);
    throw PosixError(begin + ", mkdir(" + quoted(p) + ") failed", error);
}

// --- walking -------------------------------------------------------------------------------------------

using FileId = std::pair<dev_t, ino_t>; // inode numbers alone repeat across file systems

/// Zeros, which no file has, where it cannot be asked.
FileId idOf(const Path& p)
{
    struct stat64 status {};
    if (::stat64(p.u8string().c_str(), &status) != 0) return {};
    return {status.st_dev, status.st_ino};
}

/// Walks a tree without recursion and with one open directory at a time.
class Walk {
public:
    Walk(std::unordered_set<Path>& found, const std::function<bool(const Path&)>& predicate)
        : m_found(found)
        , m_predicate(predicate)
    {
    }

    void run(const Path& top)
    {
        m_pending.push_front(top);
        while (!m_pending.empty()) {
            const Path directory = std::move(m_pending.front());
            m_pending.pop_front();
            if (!m_visited.insert(idOf(directory)).second) continue;
            for (const std::string& name : list(directory)) visit(directory / name); // throws where there is no id
        }
    }

private:
    void visit(const Path& entry)
    {
        if (m_predicate(entry)) m_found.insert(entry);
        struct stat64 status {};
        if (::lstat64(entry.u8string().c_str(), &status) != 0) return; // gone meanwhile
        // Links wait until all else is done, so that what can be reached without them shows under its own name.
        if (S_ISDIR(status.st_mode)) {
            m_pending.push_front(entry);
        } else if (S_ISLNK(status.st_mode) && isDirectory(entry)) {
            m_pending.push_back(entry);
        }
    }

    std::unordered_set<Path>& m_found;
    const std::function<bool(const Path&)>& m_predicate;
    std::deque<Path> m_pending;
    std::set<FileId> m_visited;
};

// --- copying -------------------------------------------------------------------------------------------

std::string copyFailed(const Path& from, const Path& to)
{
    return "Copying " + quoted(from) + " -> " + quoted(to) + " failed";
}

/// Climbs from the target to the root by "..", which sees through links and relative names on either side.
bool liesInside(const Path& from, const Path& to)
{
    const FileId source = idOf(from);
    const Path parent = to.filePath();
    Path place = isDirectory(to) ? to : parent.u8string().empty() ? Path(".") : parent;
    for (FileId id = idOf(place); id != source; id = idOf(place)) {
        place = place / "..";
        if (idOf(place) == id) return false; // the root, or a place that cannot be asked
    }
    return true;
}

void copyTree(const Path& from, const Path& to)
{
    make(to, false);
    for (const std::string& name : list(from)) {
        const Path source = from / name;
        const Path target = to / name;
        struct stat64 status {};
        if (::lstat64(source.u8string().c_str(), &status) != 0) {
            const int error = errno;
            throw PosixError(io::failed("lstat64", source), error);
        }
        if (S_ISLNK(status.st_mode)) {
            file::symlink(file::symlinkTarget(source), target);
        } else if (S_ISDIR(status.st_mode)) {
            copyTree(source, target);
        } else {
            file::copy(source, target, false); // refuses what is no regular file
        }
    }
    // Last, because a directory without write permission could not be filled.
    if (::chmod(to.u8string().c_str(), io::statOf(from).st_mode & 07777) != 0) {
        const int error = errno;
        throw PosixError(io::failed("chmod", to), error);
    }
}

struct CloseDirectory {
    void operator()(DIR* directory) const noexcept { (void)::closedir(directory); }
};

} // namespace

void make(const Path& p, bool recursive)
{
    if (p.u8string().empty()) throw PosixError("dir::make directory is empty", EINVAL);
    makeWithParents(p, p, recursive);
}

void remove(const Path& p)
{
    const std::string message = "dir::remove (" + quoted(p) + ") failed";
    struct stat64 status {};
    if (::lstat64(p.u8string().c_str(), &status) != 0) {
        const int error = errno;
        throw PosixError(message, error);
    }
    if (!S_ISDIR(status.st_mode)) {
        throw PosixError("Failed to remove " + quoted(p) + " - not a directory", ENOTDIR);
    }
    std::error_code error;
    std::filesystem::remove_all(p.u8string(), error); // works on descriptors: no link can be slipped in
    if (error) throw PosixError(message, error.value());
}

std::vector<std::string> list(const Path& p)
{
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(p.u8string().c_str()));
    if (!directory) {
        const int error = errno;
        throw PosixError(io::failed("opendir", p), error);
    }
    std::vector<std::string> names;
    while (true) {
        errno = 0; // the end and a failure look alike otherwise
        const dirent* const entry = ::readdir(directory.get());
        const int error = errno;
        if (entry == nullptr && error == 0) return names;
        if (entry == nullptr) throw PosixError("readdir with directory " + quoted(p) + " failed", error);
        std::string name = static_cast<const char*>(entry->d_name);
        if (name != "." && name != "..") names.push_back(std::move(name));
    }
}

void listFullPathRecursive(
    const Path& p, std::unordered_set<Path>& found, const std::function<bool(const Path&)>& predicate)
{
    Walk(found, predicate).run(p);
}

std::function<bool(const Path&)> inclusionPredicate(bool everything)
{
    if (everything) return [](const Path&) { return true; };
    return [](const Path& path) {
        struct stat64 status {};
        return ::stat64(path.u8string().c_str(), &status) == 0 && S_ISREG(status.st_mode);
    };
}

void copy(const Path& from, const Path& to)
{
    if (!isDirectory(from)) throw PosixError(copyFailed(from, to) + " - not copying non-directory", ENOTDIR);
    // A tree copied into itself would never end.
    if (liesInside(from, to)) throw PosixError(copyFailed(from, to) + " - destination lies inside the source", EINVAL);
    copyTree(from, to);
}

bool isDirectory(const Path& p)
{
    struct stat64 status {};
    return ::stat64(p.u8string().c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

unsigned long getInode(const Path& p)
{
    return io::statOf(p).st_ino;
}

bool containsReparsePoint(const Path& p)
{
    (void)io::statOf(p);
    return false;
}

VolumeData volumeData(const Path& p)
{
    struct statvfs status {};
    if (io::retry([&] { return ::statvfs(p.u8string().c_str(), &status); }) != 0) {
        const int error = errno;
        throw PosixError(io::failed("stat64", p), error); // one text for all status queries
    }
    const unsigned long fragment = status.f_frsize;
    return {status.f_bsize, status.f_blocks * fragment, status.f_bfree * fragment, status.f_bavail * fragment};
}

Path temp()
{
    const Environment environment;
    for (const char* const name : {"TMPDIR", "TMP", "TEMP", "TEMPDIR"}) {
        std::string value = environment.getEnvironmentVariable(name);
        if (!value.empty()) return {std::move(value)};
    }
    return {"/tmp"};
}

Path working()
{
    std::error_code error;
    const std::filesystem::path current = std::filesystem::current_path(error);
    if (error) throw PosixError(io::failed("stat64", Path(".")), error.value());
    return {current.string()};
}

Path root()
{
    return {"/"};
}

Path installationDir()
{
    const std::string self = "/proc/self/exe";
    std::error_code error;
    const std::filesystem::path executable = std::filesystem::read_symlink(self, error);
    if (error) throw PosixError(io::failed("stat64", self), error.value());
    return Path(executable.string()).filePath();
}

} // namespace agent::dir
