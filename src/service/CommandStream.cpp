#include "agent/core/script/CommandStream.h"

#include "core/Io.h"
#include "core/UniqueFd.h"

#include "agent/PosixError.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <mutex>
#include <string_view>
#include <utility>

namespace agent::core::script {

using std::chrono::microseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr std::size_t kPieceSize = 256;

[[noreturn]] void fail(const char* what)
{
    const int error = errno;
    throw PosixError(what, error);
}

// The disposition belongs to the process: of guards that overlap on several threads only the first and the last touch
// it. A guard that saved another one's default would leave it behind for good.
constinit std::mutex childSignalMutex;
constinit unsigned int childSignalGuards = 0;
constinit struct sigaction previousChildAction {
};

class ChildSignalGuard {
public:
    ChildSignalGuard() noexcept
    {
        const std::lock_guard lock(childSignalMutex);
        if (childSignalGuards == 0) {
            struct sigaction byDefault {};
            byDefault.sa_handler = SIG_DFL;
            byDefault.sa_flags = SA_RESTART;
            if (::sigaction(SIGCHLD, &byDefault, &previousChildAction) != 0) return;
        }
        ++childSignalGuards;
        m_isSet = true;
    }
    ChildSignalGuard(const ChildSignalGuard&) = delete;
    ChildSignalGuard& operator=(const ChildSignalGuard&) = delete;
    ~ChildSignalGuard()
    {
        if (!m_isSet) return;
        const std::lock_guard lock(childSignalMutex);
        if (--childSignalGuards == 0) (void)::sigaction(SIGCHLD, &previousChildAction, nullptr);
    }

    bool isSet() const { return m_isSet; }

private:
    bool m_isSet = false;
};

/// For what does not go on without it.
class RequiredChildSignalGuard : public ChildSignalGuard {
public:
    RequiredChildSignalGuard()
    {
        if (!isSet()) fail("sigaction failed!");
    }
};

// Where the program has closed its standard streams a pipe gets their numbers, and dup2 would then cover it.
UniqueFd aboveStandardStreams(UniqueFd fd)
{
    if (fd.get() > STDERR_FILENO) return fd;
    return UniqueFd(::fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
}

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
};

Pipe makePipe()
{
    int ends[2] = {-1, -1};
    if (::pipe2(ends, O_CLOEXEC) != 0) fail("pipe failed!");
    Pipe pipe{UniqueFd(ends[0]), UniqueFd(ends[1])};
    pipe.readEnd = aboveStandardStreams(std::move(pipe.readEnd));
    if (pipe.readEnd.isOpen()) pipe.writeEnd = aboveStandardStreams(std::move(pipe.writeEnd));
    if (!pipe.readEnd.isOpen() || !pipe.writeEnd.isOpen()) fail("pipe failed!");
    return pipe;
}

// Threads of this program may block signals, and the program ignore SIGPIPE; a shell and what it runs rely on neither.
void resetSignals()
{
    (void)std::signal(SIGPIPE, SIG_DFL);
    (void)std::signal(SIGCHLD, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    (void)::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

// Fails for a child that the system has collected because SIGCHLD was ignored: the number may be another's by now.
// Needs a ChildSignalGuard, or that may happen in between.
int killChild(pid_t child)
{
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        errno = ESRCH;
        return -1;
    }
    return ::kill(child, SIGKILL);
}

microseconds since(Clock::time_point start)
{
    return std::chrono::floor<microseconds>(Clock::now() - start);
}

timespec toTimespec(microseconds time)
{
    const auto seconds = std::chrono::floor<std::chrono::seconds>(time);
    return {seconds.count(), std::chrono::nanoseconds(time - seconds).count()};
}

// As select would answer for one descriptor: 1 if it can be read or is at its end, 0 after the time-out, or -1.
int awaitReadable(int fd, microseconds timeout, Clock::time_point start)
{
    pollfd wait{fd, POLLIN, 0};
    const int ready = io::retry([&] {
        const timespec left = toTimespec(std::max(timeout - since(start), microseconds(0)));
        return ::ppoll(&wait, 1, &left, nullptr);
    });
    if (ready != 1 || (wait.revents & POLLNVAL) == 0) return ready;
    errno = EBADF;
    return -1;
}

} // namespace

ICommandStream::~ICommandStream() = default;

UnixCommandStream::UnixCommandStream(info::Logger& /*logger*/, const std::string& command,
    const std::string& workingDirectory, bool /*reserved1*/, bool killOnDestruction, bool keepSession, bool readOutput,
    bool /*reserved2*/)
    : m_killOnDestruction(killOnDestruction)
    , m_isOutputRead(readOutput)
{
    Pipe pipe = makePipe();
    m_readEnd = pipe.readEnd.get();
    m_writeEnd = pipe.writeEnd.get();
    m_child = ::fork();
    if (m_child < 0) fail("fork failed!");
    if (m_child == 0) {
        if (!keepSession) (void)::setsid();
        execute(command, workingDirectory);
    }
    (void)pipe.readEnd.release(); // the destructor's from here on
    m_writeEnd = -1;
}

UnixCommandStream::~UnixCommandStream()
{
    const ChildSignalGuard guard;
    (void)::close(m_readEnd);
    if (m_child == 0) return;
    if (m_killOnDestruction) (void)killChild(m_child);
    (void)io::retry([this] { return ::waitpid(m_child, nullptr, 0); });
}

// In the child, which has this thread alone: another one may have held the heap's lock, or any other, when it was made.
// So no memory, no exceptions, and system calls only. The texts given to gtfo() are short enough to need no memory.
void UnixCommandStream::execute(const std::string& command, const std::string& workingDirectory) const
{
    if (::dup2(m_writeEnd, STDERR_FILENO) < 0) gtfo("dup2 stderr");
    if (::dup2(m_writeEnd, STDOUT_FILENO) < 0) gtfo("dup2 stdout");
    if (::close(m_readEnd) != 0) gtfo("close read");
    if (::close(m_writeEnd) != 0) gtfo("close write");
    if (!workingDirectory.empty() && ::chdir(workingDirectory.c_str()) != 0) gtfo("chdir");
    // What the rest of the program opened without close-on-exec. An old kernel does not know how, and goes without.
    (void)::close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    resetSignals();
    ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
    gtfo("execl");
}

void UnixCommandStream::gtfo(const std::string& what)
{
    const char* const reason = ::strerrordesc_np(errno); // allocates nothing, unlike strerror
    for (const std::string_view part : {std::string_view(what), std::string_view(what.empty() ? "" : ": "),
             std::string_view(reason != nullptr ? reason : "Unknown error"), std::string_view("\n")})
        (void)io::writeAll(STDERR_FILENO, part.data(), part.size());
    ::_exit(1);
}

std::shared_ptr<void> UnixCommandStream::restartChld(bool throwOnError)
{
    if (throwOnError) return std::make_shared<RequiredChildSignalGuard>();
    auto guard = std::make_shared<ChildSignalGuard>();
    return guard->isSet() ? guard : nullptr;
}

bool UnixCommandStream::wait(microseconds& timeout)
{
    if (!m_isOutputRead) return false;
    const RequiredChildSignalGuard guard;
    if (timeout < microseconds(0)) {
        timeout = microseconds(0);
        return false;
    }
    const auto start = Clock::now();
    const int ready = awaitReadable(m_readEnd, timeout, start);
    const int error = errno;
    if (timeout != microseconds(0)) {
        // Callers that loop until the time-out is 0 rely on each turn taking something off it.
        const microseconds left = timeout - since(start) - microseconds(1);
        timeout = std::max(left, microseconds(0));
        if (left < microseconds(1)) return false;
    }
    if (ready < 0) throw PosixError("select failed!", error);
    return ready == 1;
}

// False at the end of the output.
bool UnixCommandStream::read(char* buffer, unsigned long size, unsigned long& length)
{
    const ssize_t result = io::read(m_readEnd, buffer, size);
    if (result < 0) fail("read failed!");
    length = static_cast<unsigned long>(result);
    m_isAtEnd = m_isAtEnd || length == 0;
    return length != 0;
}

bool UnixCommandStream::getChar(char& c)
{
    if (!m_isOutputRead) return false;
    const RequiredChildSignalGuard guard;
    c = 0;
    unsigned long length = 0;
    (void)read(&c, 1, length);
    return !m_isAtEnd;
}

bool UnixCommandStream::getNext(std::string& out)
{
    if (!m_isOutputRead) return false;
    const RequiredChildSignalGuard guard;
    out.clear();
    std::array<char, kPieceSize> piece;
    microseconds now{0};
    do {
        unsigned long length = 0;
        if (!read(piece.data(), piece.size(), length)) break;
        out.append(piece.data(), length);
    } while (UnixCommandStream::wait(now));
    return !out.empty();
}

int UnixCommandStream::finish()
{
    if (m_child == 0) return 0;
    const RequiredChildSignalGuard guard;
    int status = 0;
    if (io::retry([&] { return ::waitpid(m_child, &status, 0); }) < 0) fail("waitpid failed!");
    m_child = 0;
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
}

void UnixCommandStream::kill()
{
    if (m_child == 0) return;
    const ChildSignalGuard guard;
    if (killChild(m_child) != 0) fail("kill failed!");
}

bool UnixCommandStream::eof() const
{
    return m_isAtEnd;
}

bool UnixCommandStream::finished() const
{
    return m_child == 0;
}

bool UnixCommandStream::done() const
{
    if (m_child == 0) return true;
    siginfo_t info{}; // stays so while the child runs
    if (::waitid(P_PID, static_cast<id_t>(m_child), &info, WEXITED | WNOHANG | WNOWAIT) != 0) fail("waitid failed!");
    return info.si_pid != 0;
}

} // namespace agent::core::script
