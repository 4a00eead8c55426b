#include "agent/Flock.h"

#include "core/Io.h"

#include "agent/PosixError.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>

namespace agent {

namespace {

// How often a file may be removed under our hands. Each time means that another owner let go of the lock in the
// few microseconds between our open and our flock.
constexpr int kMaxAttempts = 1000;

bool isFileAt(const std::string& path, int fd)
{
    struct stat64 atPath {};
    struct stat64 ours {};
    return ::stat64(path.c_str(), &atPath) == 0 && ::fstat64(fd, &ours) == 0 && atPath.st_dev == ours.st_dev &&
           atPath.st_ino == ours.st_ino;
}

[[noreturn]] void fail(const char* what, const std::string& path)
{
    const int error = errno;
    throw PosixError(what + path, error);
}

// The path as it stands: with a '/' at its end it names no file, and must not create one.
UniqueFd open(const std::string& path, int flags)
{
    return UniqueFd(io::retry([&] { return ::open(path.c_str(), O_RDWR | O_CLOEXEC | flags, 0644); }));
}

bool tryLock(const UniqueFd& fd)
{
    return io::retry([&] { return ::flock(fd.get(), LOCK_EX | LOCK_NB); }) == 0;
}

UniqueFd lock(const std::string& path)
{
    UniqueFd fd = open(path, O_CREAT);
    if (!fd.isOpen()) fail("Unable to open lock file. File ", path);
    if (!tryLock(fd)) fail(errno == EWOULDBLOCK ? "File already locked. File " : "Unknown lock failure.  File ", path);
    return fd;
}

} // namespace

Flock::Flock(std::string path)
    : m_path(std::move(path))
{
    // The owner before us removes the file when it lets go. Locking the removed file would keep nobody out: the
    // next one creates a new file and locks that.
    for (int attempt = 0; attempt < kMaxAttempts; ++attempt) {
        UniqueFd fd = lock(m_path);
        if (isFileAt(m_path, fd.get())) {
            m_fd = fd.release();
            return;
        }
    }
    throw PosixError("File already locked. File " + m_path, EWOULDBLOCK);
}

Flock::~Flock()
{
    UniqueFd fd(m_fd);
    if (!isFileAt(m_path, m_fd)) return; // another owner's
    // Processes forked meanwhile share the lock, and still have it when this one has closed its descriptor: only who
    // can take it anew was the last of them, and only under the lock may the file be removed.
    fd = open(m_path, 0);
    if (fd.isOpen() && tryLock(fd) && isFileAt(m_path, fd.get()))
        (void)::unlink(m_path.c_str()); // best effort; a file left behind locks nobody out
}

void Flock::WritePid()
{
    const std::string digits = std::to_string(::getpid());
    if (digits.empty()) throw std::runtime_error("PID conversion failure.");
    if (io::retry([&] { return ::ftruncate64(m_fd, 0); }) != 0) fail("Unable to truncate lock file. File ", m_path);
    const ssize_t written = io::retry([&] { return ::pwrite64(m_fd, digits.data(), digits.size(), 0); });
    if (written >= 0 && written != static_cast<ssize_t>(digits.size())) errno = ENOSPC;
    if (written != static_cast<ssize_t>(digits.size())) fail("Unable to write to lock file. File ", m_path);
}

} // namespace agent
