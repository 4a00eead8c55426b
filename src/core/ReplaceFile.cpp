#include "core/ReplaceFile.h"

#include "core/Io.h"

#include "agent/PosixError.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>

namespace agent::io {

namespace {

struct Free {
    void operator()(char* text) const noexcept { std::free(text); }
};

[[noreturn]] void fail(const char* call, const Path& path)
{
    const int error = errno;
    throw PosixError(failed(call, path), error);
}

// What a link names must be replaced, not the link. A missing file is the path itself; a link to nowhere is an error.
Path targetOf(const Path& path)
{
    const std::unique_ptr<char, Free> resolved(::realpath(path.u8string().c_str(), nullptr));
    if (resolved) return resolved.get();
    struct stat64 status {};
    if (errno != ENOENT || ::lstat64(path.u8string().c_str(), &status) == 0) fail("realpath", path);
    return path;
}

/// A temporary file beside its target; removed at the end of the scope unless it has taken the target's place.
class Replacement {
public:
    explicit Replacement(Path target)
        : m_target(std::move(target))
        , m_name(m_target.u8string() + ".XXXXXX")
        , m_fd(::mkostemp(m_name.data(), O_CLOEXEC)) // mode 0600
    {
        if (!m_fd.isOpen()) fail("mkostemp", m_name);
    }
    Replacement(const Replacement&) = delete;
    Replacement& operator=(const Replacement&) = delete;
    ~Replacement()
    {
        if (!m_name.empty()) (void)::unlink(m_name.c_str()); // best effort; the first error is the one to report
    }

    // Before there is any content: at no time may others read more than they could before.
    void takeAttributes()
    {
        struct stat64 old {};
        if (::stat64(m_target.u8string().c_str(), &old) != 0) {
            if (errno == ENOENT) return;
            fail("stat64", m_target);
        }
        // Who is not root cannot give files away, and then owns the new file; what its group may do is then meant for
        // another group.
        const bool isGiven = ::fchown(m_fd.get(), old.st_uid, old.st_gid) == 0;
        if (!isGiven && errno != EPERM) fail("fchown", m_name);
        if (::fchmod(m_fd.get(), old.st_mode & (isGiven ? 07777 : 0707)) != 0) fail("fchmod", m_name);
    }

    void write(const std::string& content)
    {
        if (!writeAll(m_fd.get(), content.data(), content.size())) fail("write", m_name);
        if (retry([this] { return ::fsync(m_fd.get()); }) != 0) fail("fsync", m_name);
        if (!close(std::move(m_fd))) fail("close", m_name);
    }

    void takePlace()
    {
        if (::rename(m_name.c_str(), m_target.u8string().c_str()) != 0) fail("rename", m_name);
        m_name.clear();
    }

private:
    Path m_target;
    std::string m_name; // empty once it is no more
    UniqueFd m_fd;
};

void syncFolderOf(const Path& path)
{
    const bool isInWorkingDirectory = path.filePath() == Path();
    const Path folder = isInWorkingDirectory ? Path(".") : path.filePath();
    const UniqueFd fd = open(folder, O_RDONLY | O_DIRECTORY);
    if (!fd.isOpen()) fail("open", folder);
    // Some file systems cannot sync a folder, and say so; they have nothing to lose there.
    if (retry([&] { return ::fsync(fd.get()); }) != 0 && errno != EINVAL) fail("fsync", folder);
}

} // namespace

void replaceFile(const Path& path, const std::string& content)
{
    const Path target = targetOf(path);
    Replacement replacement(target);
    replacement.takeAttributes();
    replacement.write(content);
    replacement.takePlace();
    syncFolderOf(target);
}

} // namespace agent::io
