#include "FakeClock.h"
#include "Support.h"
#include "agent/core/script/CommandUtility.h"

#include <dlfcn.h>
#include <poll.h>

namespace {
using Turns = std::vector<std::pair<nanoseconds, int>>; // of a wait: how long each takes, and its answer, -1 for EINTR
struct {
    agent::test::FakeClock* clock = nullptr;
    Turns turns;
    std::vector<nanoseconds> asked;
} g_poll;
} // namespace

extern "C" AGENTKIT_API int ppoll(pollfd* fds, nfds_t count, const timespec* timeout, const sigset_t* mask)
{
    if (g_poll.clock == nullptr)
        return reinterpret_cast<decltype(&ppoll)>(::dlsym(RTLD_NEXT, "ppoll"))(fds, count, timeout, mask);
    g_poll.asked.push_back(std::chrono::seconds(timeout->tv_sec) + nanoseconds(timeout->tv_nsec));
    const auto [takes, answer] = g_poll.turns.at(g_poll.asked.size() - 1);
    g_poll.clock->now += takes;
    errno = EINTR;
    return answer;
}

using namespace agent::core::script;

namespace {

using std::chrono::microseconds;

CapturingLogger g_log;

UnixCommandStream start(const std::string& command, bool killOnDestruction = true, bool readOutput = true)
{
    return {g_log.logger(), command, "", false, killOnDestruction, false, readOutput, false};
}

// Status and output.
std::string run(const std::string& command, const std::string& directory = "", bool keepSession = false)
{
    const auto stream =
        CommandUtility().execute(g_log.logger(), command, directory, false, true, keepSession, true, false);
    std::string output;
    for (std::string piece; stream->getNext(piece);) output += piece;
    return std::to_string(stream->finish()) + ' ' + output;
}

using CommandStream = FileFixture;

TEST_F(CommandStream, TellsStatusAndOutput)
{
    const auto sigpipe = std::signal(SIGPIPE, SIG_IGN);
    const int inheritable = ::dup(0);
    for (const auto& [command, expected] : std::vector<std::pair<std::string, std::string>>{
             {"echo a; echo b >&2; echo c", "0 a\nb\nc\n"}, {"exit 255", "255 "}, {"kill -9 $$", "9 "},
             {"head -c 300000 /dev/zero | tr '\\0' x", "0 " + std::string(300'000, 'x')}, // more than a pipe holds
             {std::string(200'000, ' '), "1 execl: Argument list too long\n"},
             {"cd /proc/self/fd; echo *", "0 0 1 2 3\n"}, // 3 is the directory
             {"kill -PIPE $$; echo ignored", "13 "},
             {"test $(cut -d' ' -f6 /proc/$$/stat) = $$", "0 "}, // leads its session
         })
        EXPECT_EQ(run(command), expected);
    ::close(inheritable);
    (void)std::signal(SIGPIPE, sigpipe);
    EXPECT_EQ(run("pwd", "/proc"), "0 /proc\n");
    EXPECT_EQ(run("pwd", "/no/such"), "1 chdir: No such file or directory\n");
    EXPECT_EQ(run("cut -d' ' -f6 /proc/$$/stat", "", true), "0 " + std::to_string(::getsid(0)) + '\n');
    EXPECT_TRUE(inChild([] { // the pipe gets the numbers of the standard streams
        for (const int fd : {0, 1, 2}) ::close(fd);
        return run("echo a; echo b >&2") == "0 a\nb\n";
    }));
}

TEST_F(CommandStream, GoesFromRunningToFinished)
{
    auto stream = start("printf a%300s; exit 3");
    char c = 'z';
    EXPECT_TRUE(stream.getChar(c) && c == 'a' && !stream.eof());
    while (!stream.done()) ::usleep(1000);
    EXPECT_FALSE(stream.finished()) << "asking does not collect";
    std::string out;
    EXPECT_TRUE(stream.getNext(out) && out.size() == 300) << "all that is there";
    EXPECT_TRUE(!stream.getChar(c) && c == 0 && stream.eof());
    EXPECT_EQ(stream.finish(), 3);
    EXPECT_TRUE(stream.finished() && stream.done() && stream.finish() == 0);

    auto unread = start("echo x; exec sleep 60", true, false);
    microseconds timeout = 5us;
    EXPECT_FALSE(unread.wait(timeout) || unread.getChar(c = 'z') || unread.getNext(out) || unread.done());
    EXPECT_TRUE(timeout == 5us && c == 'z' && out.size() == 300);
    unread.kill();
    EXPECT_EQ(unread.finish(), SIGKILL);

    (void)start("exec sleep 1000"); // longer than a test may take
    const TempDir dir;
    (void)start("sleep 0.1; touch " + dir / "done", false);
    EXPECT_TRUE(std::filesystem::exists(dir / "done")) << "awaited, not killed";
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "no child is left behind";
}

TEST_F(CommandStream, WorksWhateverSignalsDo)
{
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    auto first = UnixCommandStream::restartChld(true);
    auto last = UnixCommandStream::restartChld(false);
    first.reset();
    EXPECT_EQ(start("sleep 0.2; exit 5").finish(), 5) << "not before the last";
    last.reset();
    EXPECT_EQ(std::signal(SIGCHLD, before), SIG_IGN);

    struct sigaction tick {};
    tick.sa_handler = [](int) {}; // and interrupts every call
    ::sigaction(SIGALRM, &tick, nullptr);
    ::ualarm(1000, 1000);
    EXPECT_EQ(run("sleep 0.1; echo x; exec >/dev/null 2>&1; sleep 0.1; exit 3"), "3 x\n");
    ::ualarm(0, 0);
}

TEST_F(CommandStream, CountsTheTimeThatIsLeft)
{
    auto stream = start("exec sleep 60");
    for (const auto& [timeout, turns, asked, isReady, left] :
        std::vector<std::tuple<microseconds, Turns, std::vector<nanoseconds>, bool, microseconds>>{
            {1000us, {{400'999ns, 1}}, {1ms}, true, 599us}, // rounded down, and one more
            {1000us, {{999us, 1}}, {1ms}, false, 0us},      // ready, but too late
            {5'000'001us, {{2s, 0}}, {5'000'001us}, false, 3'000'000us},
            {1000us, {{300us, -1}, {200us, 1}}, {1000us, 700us}, true, 499us}, // goes on with the rest
            {0us, {{1s, 1}}, {0s}, true, 0us},                                 // looks once and stays
            {microseconds::min(), {}, {}, false, 0us},
        }) {
        FakeClock clock;
        g_poll = {&clock, turns, {}};
        microseconds time = timeout;
        EXPECT_TRUE(stream.wait(time) == isReady && time == left && g_poll.asked == asked) << time.count();
        g_poll = {};
    }
}

TEST_F(CommandStream, ReportsFailedCalls)
{
    const int next = ::dup(0); // the number that the stream's end will get
    ::close(next);
    auto stream = start("exit 0");
    ::waitpid(-1, nullptr, 0); // behind its back
    EXPECT_EQ(::fcntl(next, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(thrownBy([&] { stream.finish(); }), posix("waitpid failed!", ECHILD));
    EXPECT_EQ(thrownBy([&] { (void)stream.done(); }), posix("waitid failed!", ECHILD));
    EXPECT_EQ(thrownBy([&] { stream.kill(); }), posix("kill failed!", ESRCH));
    ::close(next);
    char c = 'z';
    microseconds timeout = 5s;
    EXPECT_EQ(thrownBy([&] { stream.wait(timeout); }), posix("select failed!", EBADF));
    EXPECT_EQ(thrownBy([&] { stream.getChar(c); }), posix("read failed!", EBADF));
}

} // namespace
