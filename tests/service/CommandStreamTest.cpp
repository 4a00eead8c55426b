#include "FakeClock.h"
#include "Support.h"
#include "agent/core/script/CommandUtility.h"

#include <dlfcn.h>
#include <poll.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

using namespace std::chrono_literals;
using std::chrono::nanoseconds;

namespace {
using Turns = std::vector<std::pair<nanoseconds, int>>; // of a wait: how long each takes, and its answer, -1 for EINTR
struct {
    agent::test::FakeClock* clock = nullptr;
    Turns turns;
    std::vector<nanoseconds> asked;
} g_poll;
} // namespace

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
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

namespace agent::core::script {
namespace {

using std::chrono::microseconds;
using test::posix;
using test::thrownBy;

test::CapturingLogger g_log;

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

TEST(CommandStream, TellsStatusAndOutput)
{
    const auto descriptors = test::openDescriptors();
    const int inheritable = ::dup(0);
    const auto sigpipe = std::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    for (const auto& [command, expected] : std::vector<std::pair<std::string, std::string>>{
             {"echo a; echo b >&2; echo c", "0 a\nb\nc\n"}, {"exit 255", "255 "}, {"kill -9 $$", "9 "},
             {"head -c 300000 /dev/zero | tr '\\0' x", "0 " + std::string(300'000, 'x')}, // more than a pipe holds
             {std::string(200'000, ' '), "1 execl: Argument list too long\n"},
             {"cd /proc/self/fd; echo *", "0 0 1 2 3\n"}, // 3 is the directory
             {"kill -TERM $$; echo blocked", "15 "}, {"kill -PIPE $$; echo ignored", "13 "},
             {"test $(cut -d' ' -f6 /proc/$$/stat) = $$", "0 "}, // leads its session
         })
        EXPECT_EQ(run(command), expected);
    ::pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    (void)std::signal(SIGPIPE, sigpipe);
    ::close(inheritable);
    EXPECT_EQ(run("pwd", "/proc"), "0 /proc\n");
    EXPECT_EQ(run("pwd", "/no/such"), "1 chdir: No such file or directory\n");
    EXPECT_EQ(run("cut -d' ' -f6 /proc/$$/stat", "", true), "0 " + std::to_string(::getsid(0)) + '\n');
    const auto withoutStandardStreams = [] { // the pipe would get their numbers
        for (const int fd : {0, 1, 2}) ::close(fd);
        ::_exit(run("echo a; echo b >&2") == "0 a\nb\n" ? 0 : 1);
    };
    EXPECT_EXIT(withoutStandardStreams(), testing::ExitedWithCode(0), "");
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST(CommandStream, GoesFromRunningToFinished)
{
    auto stream = start("printf ab; exit 3");
    char c = 'z';
    EXPECT_TRUE(stream.getChar(c) && c == 'a' && stream.getChar(c) && c == 'b' && !stream.eof());
    EXPECT_TRUE(!stream.getChar(c) && c == 0 && stream.eof());
    while (!stream.done()) ::usleep(1000);
    EXPECT_TRUE(stream.done() && !stream.finished()) << "asking does not collect";
    EXPECT_EQ(stream.finish(), 3);
    EXPECT_TRUE(stream.finished() && stream.done() && stream.finish() == 0);

    auto unread = start("echo x; exec sleep 60", true, false);
    std::string out = "kept";
    microseconds timeout = 5us;
    EXPECT_FALSE(unread.wait(timeout) || unread.getChar(c = 'z') || unread.getNext(out) || unread.done());
    EXPECT_TRUE(timeout == 5us && c == 'z' && out == "kept");
    unread.kill();
    EXPECT_EQ(unread.finish(), SIGKILL);

    auto parent = start("sleep 3 & echo x"); // a child outlives the shell, and holds the output
    EXPECT_TRUE(parent.getNext(out) && out == "x\n" && parent.finish() == 0);
    EXPECT_FALSE(parent.wait(timeout = 0us) || parent.eof());

    const test::TempDir dir;
    const auto begin = std::chrono::steady_clock::now();
    {
        const auto killed = start("exec sleep 60");
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
    {
        const auto awaited = start("sleep 0.1; touch " + dir / "done", false);
    }
    EXPECT_EQ(::access((dir / "done").c_str(), F_OK), 0);
    EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), -1) << "no child is left behind";
}

TEST(CommandStream, WorksWhateverSignalsDo)
{
    const auto before = std::signal(SIGCHLD, SIG_IGN);
    const auto current = [] {
        struct sigaction action {};
        ::sigaction(SIGCHLD, nullptr, &action);
        return action.sa_handler;
    };
    auto first = UnixCommandStream::restartChld(true);
    auto last = UnixCommandStream::restartChld(false);
    first.reset();
    EXPECT_EQ(current(), SIG_DFL) << "not before the last";
    last.reset();
    EXPECT_EQ(start("sleep 0.2; exit 5").finish(), 5);
    EXPECT_EQ(current(), SIG_IGN);
    (void)std::signal(SIGCHLD, before);

    struct sigaction tick {};
    tick.sa_handler = [](int) {}; // and interrupts every call
    ::sigaction(SIGALRM, &tick, nullptr);
    const itimerval often{{0, 1000}, {0, 1000}};
    const itimerval never{};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    EXPECT_EQ(run("sleep 0.1; echo x; exec >/dev/null 2>&1; sleep 0.1; exit 3"), "3 x\n");
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

TEST(CommandStream, CountsTheTimeThatIsLeft)
{
    auto stream = start("exec sleep 60");
    for (const auto& [why, timeout, turns, asked, expected, left] :
        std::vector<std::tuple<const char*, microseconds, Turns, std::vector<nanoseconds>, std::string, microseconds>>{
            {"rounded down, and one more", 1000us, {{400'999ns, 1}}, {1ms}, "ready", 599us},
            {"one is enough", 1000us, {{998us, 1}}, {1ms}, "ready", 1us},
            {"ready, but too late", 1000us, {{999us, 1}}, {1ms}, "no", 0us},
            {"nothing came", 5'000'001us, {{2s, 0}}, {5'000'001us}, "no", 3'000'000us},
            {"goes on with the rest", 1000us, {{300us, -1}, {200us, 1}}, {1000us, 700us}, "ready", 499us},
            {"0 looks once and stays", 0us, {{1s, 1}}, {0s}, "ready", 0us},
            {"negative", microseconds::min(), {}, {}, "no", 0us},
        }) {
        test::FakeClock clock;
        g_poll = {&clock, turns, {}};
        microseconds time = timeout;
        EXPECT_EQ(stream.wait(time) ? "ready" : "no", expected) << why;
        EXPECT_TRUE(time == left && g_poll.asked == asked) << why << ": " << time.count();
        g_poll = {};
    }
}

TEST(CommandStream, ReportsFailedCalls)
{
    const int next = ::dup(0); // the number that the stream's end will get
    ::close(next);
    auto stream = start("exit 0");
    ::waitpid(-1, nullptr, 0); // behind its back
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
} // namespace agent::core::script
