#include "agent/file/Operations.h"

#include "core/Io.h"

#include "agent/PosixError.h"
#include "agent/dir/Operations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace agent::file {

namespace {

using io::quoted;

// --- copying -------------------------------------------------------------------------------------------

/// One copy: both files, the text of its failures, and the removal of what it leaves half-done.
class Copy {
public:
    Copy(const Path& from, const Path& to)
        : m_from(from)
        , m_to(to)
        , m_failed("file::copy(" + quoted(from) + " -> " + quoted(to) + ") failed")
    {
    }
    Copy(const Copy&) = delete;
    Copy& operator=(const Copy&) = delete;
    ~Copy()
    {
        if (m_ownsTarget) (void)::unlink(m_to.u8string().c_str()); // best effort: the error that led here counts
    }

    void run(bool overwrite)
    {
        if (dir::isDirectory(m_to)) fail(EISDIR, " - expected dest file name, not directory");
        openSource();
        openTarget(overwrite);
        transfer();
        if (m_ownsTarget) keepMode();
        if (!io::close(std::move(m_target))) fail(errno);
        m_ownsTarget = false;
    }

private:
    [[noreturn]] void fail(int error, const char* reason = "") const { throw PosixError(m_failed + reason, error); }

    void openSource()
    {
        m_source = io::open(m_from, O_RDONLY | O_NONBLOCK); // a FIFO is refused, not waited for
        if (!m_source.isOpen() || ::fstat64(m_source.get(), &m_sourceStatus) != 0) fail(errno);
        if (S_ISDIR(m_sourceStatus.st_mode)) fail(EISDIR);
        if (!S_ISREG(m_sourceStatus.st_mode)) fail(EINVAL);
    }

    void openTarget(bool overwrite)
    {
        constexpr int kCreate = O_WRONLY | O_CREAT | O_NONBLOCK; // nor is there a wait for a FIFO's reader
        m_target = io::open(m_to, kCreate | O_EXCL, permissions());
        m_ownsTarget = m_target.isOpen();
        if (m_ownsTarget) return;
        if (errno != EEXIST) fail(errno);
        if (!overwrite) fail(EEXIST, " - dest file exists");
        m_target = io::open(m_to, kCreate, permissions());
        if (!m_target.isOpen()) fail(errno);
        refuseSourceAsTarget(); // emptying it would destroy what is to be copied
        if (::ftruncate(m_target.get(), 0) != 0) fail(errno);
    }

    void refuseSourceAsTarget() const
    {
        struct stat64 status {};
        if (::fstat64(m_target.get(), &status) != 0) fail(errno);
        if (status.st_dev == m_sourceStatus.st_dev && status.st_ino == m_sourceStatus.st_ino) fail(EINVAL);
    }

    void transfer() const
    {
        constexpr std::size_t kBufferBytes = 256UL << 10;
        // Not a vector, whose zeroing would touch all of it for the smallest file.
        const auto buffer = std::make_unique_for_overwrite<char[]>(kBufferBytes);
        while (true) {
            const ssize_t count = io::read(m_source.get(), buffer.get(), kBufferBytes);
            if (count < 0) fail(errno);
            if (count == 0) return;
            if (!io::writeAll(m_target.get(), buffer.get(), static_cast<std::size_t>(count))) fail(errno);
        }
    }

    // Gives back what the umask took away. Some file systems keep no modes, which is no reason to fail.
    void keepMode() const { (void)::fchmod(m_target.get(), permissions()); }

    mode_t permissions() const { return m_sourceStatus.st_mode & 0777; }

    const Path& m_from;
    const Path& m_to;
    std::string m_failed;
    UniqueFd m_source;
    UniqueFd m_target;
    struct stat64 m_sourceStatus {};
    bool m_ownsTarget = false; // created by this copy, which has not succeeded yet
};

// --- the rest ------------------------------------------------------------------------------------------

void openWithMode660(const Path& p)
{
    const UniqueFd fd = io::open(p, O_RDWR | O_NONBLOCK);
    if (!fd.isOpen()) {
        const int error = errno;
        throw PosixError("Couldn't open " + quoted(p) + " for removal", error);
    }
    constexpr mode_t kMode = 660; // decimal: see the header
    if (::fchmod(fd.get(), kMode) != 0) {
        const int error = errno;
        throw PosixError(io::failed("fchmod", p), error);
    }
}

[[noreturn]] void throwNotLinked(const Path& target, const Path& link, int error)
{
    throw PosixError("symlink(" + quoted(target) + " -> " + quoted(link) + ") failed", error);
}

bool isTaken(const Path& p)
{
    return exists(p) || dir::isDirectory(p);
}

} // namespace

bool exists(const Path& p)
{
    struct stat64 status {};
    return ::stat64(p.u8string().c_str(), &status) == 0 && !S_ISDIR(status.st_mode);
}

unsigned long size(const Path& p)
{
    return static_cast<unsigned long>(io::statOf(p).st_size);
}

void remove(const Path& p, bool makeWritable)
{
    if (makeWritable) openWithMode660(p);
    if (std::remove(p.u8string().c_str()) != 0) {
        const int error = errno;
        throw PosixError(io::failed("std::remove", p), error);
    }
}

void rename(const Path& from, const Path& to)
{
    if (std::rename(from.u8string().c_str(), to.u8string().c_str()) != 0) {
        const int error = errno;
        throw PosixError("std::rename(" + quoted(from) + ", " + quoted(to) + ") failed", error);
    }
}

void symlink(const Path& target, const Path& link)
{
    if (::symlink(target.u8string().c_str(), link.u8string().c_str()) != 0) throwNotLinked(target, link, errno);
}

void hardlink(const Path& existing, const Path& link)
{
    if (::link(existing.u8string().c_str(), link.u8string().c_str()) != 0) throwNotLinked(existing, link, errno);
}

Path symlinkTarget(const Path& p)
{
    struct stat64 status {};
    const int error = ::lstat64(p.u8string().c_str(), &status) == 0 ? EINVAL : errno;
    if (!S_ISLNK(status.st_mode)) throw PosixError("Path is not a symlink.", error);

    std::array<char, 4096> buffer{}; // the longest target there is; st_size is 0 for links of /proc
    const ssize_t length = ::readlink(p.u8string().c_str(), buffer.data(), buffer.size());
    if (length < 0) {
        const int readError = errno;
        throw PosixError("readlink failed.", readError);
    }
    return {std::string(buffer.data(), static_cast<std::size_t>(length))};
}

void truncate(const Path& p, unsigned long size)
{
    UniqueFd fd = io::open(p, O_WRONLY | O_NONBLOCK);
    if (!fd.isOpen() && errno == ENOENT) fd = io::open(p, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (!fd.isOpen()) {
        const int error = errno;
        throw PosixError(io::failed("creat", p), error);
    }
    // A size beyond the signed range becomes negative, which the system refuses.
    const auto length = static_cast<off64_t>(size);
    if (io::retry([&] { return ::ftruncate64(fd.get(), length); }) != 0) {
        const int error = errno;
        throw PosixError(io::failed("ftruncate", p), error);
    }
}

std::chrono::system_clock::time_point getModifiedTime(const Path& p)
{
    using Clock = std::chrono::system_clock;
    constexpr auto kLimit = std::chrono::floor<std::chrono::seconds>(Clock::duration::max()).count() - 1;
    const timespec time = io::statOf(p).st_mtim; // file systems reach further than the clock
    return Clock::time_point(
        std::chrono::seconds(std::clamp(time.tv_sec, -kLimit, kLimit)) + std::chrono::nanoseconds(time.tv_nsec));
}

bool isHardlink(const Path& p)
{
    const auto status = io::statOf(p);
    return !S_ISDIR(status.st_mode) && status.st_nlink > 1;
}

bool isReparsePoint(const Path& p)
{
    (void)io::statOf(p);
    return false;
}

std::vector<Path> findHardlinks(const Path& p)
{
    (void)io::statOf(p);
    return {};
}

Path getTempFile(const Path& dir, const std::string& prefix)
{
    std::string name = (dir / (prefix + "XXXXXX")).u8string();
    const UniqueFd fd(::mkostemp(name.data(), O_CLOEXEC));
    if (!fd.isOpen()) {
        const int error = errno;
        throw PosixError("Could not create a temporary file", error);
    }
    return {name};
}

Path getTempFile(const std::string& prefix)
{
    return getTempFile(dir::temp(), prefix);
}

Path renameDuplicatePath(const Path& p)
{
    if (!isTaken(p)) return p;

    const std::string& whole = p.u8string();
    const std::string name = p.fileName();
    const std::string directory = whole.substr(0, whole.size() - name.size()); // with its '/'
    const auto dot = name.rfind('.');
    std::string stem = name.substr(0, dot);
    stem.erase(stem.find_last_not_of(' ') + 1);
    const std::string begin = directory + stem + " (";
    const std::string end = ")" + (dot == std::string::npos ? "" : name.substr(dot));

    for (unsigned long counter = 1;; ++counter) {
        Path candidate = begin + std::to_string(counter) + end;
        if (!isTaken(candidate)) return candidate;
    }
}

void copy(const Path& from, const Path& to, bool overwrite)
{
    Copy(from, to).run(overwrite);
}

} // namespace agent::file
