#include "Support.h"
#include "agent/transport/ipc/UnixIpcSocket.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

bool g_listenFails = false;
extern "C" AGENTKIT_API int listen(int fd, int backlog) noexcept
{
    return static_cast<int>(g_listenFails ? ::syscall(SYS_listen, -1, 0) : ::syscall(SYS_listen, fd, backlog));
}

namespace agent::transport::ipc {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

// Descriptors that a child's program would get.
long inheritedDescriptors()
{
    long count = 0;
    for (int fd = 0; fd < 1024; ++fd) count += ::fcntl(fd, F_GETFD) == 0 ? 1 : 0;
    return count;
}

// As long as it lives, no descriptor can be opened.
class NoDescriptors {
public:
    NoDescriptors()
    {
        ::getrlimit(RLIMIT_NOFILE, &m_limit);
        const rlimit none{0, m_limit.rlim_max};
        ::setrlimit(RLIMIT_NOFILE, &none);
    }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;
    ~NoDescriptors() { ::setrlimit(RLIMIT_NOFILE, &m_limit); }

private:
    rlimit m_limit{};
};

class IpcTest : public testing::Test {
protected:
    auto server() { return std::make_shared<UnixIpcSocket>(log.logger(), wide(path), EIpcRole::Server); }
    UnixIpcSocket client() { return {log.logger(), wide(path), EIpcRole::Connection}; }
    static std::wstring wide(const std::string& text) { return {text.begin(), text.end()}; }
    std::string received(UnixIpcSocket& socket)
    {
        char buffer[64];
        unsigned int count = 0;
        return socket.read(buffer, sizeof buffer, count) ? std::string(buffer, count) : "nothing";
    }

    test::TempDir dir;
    test::CapturingLogger log;
    std::string path = dir / "socket";
};

TEST_F(IpcTest, TalksToAnotherProcessUntilThatEnds)
{
    const auto inherited = inheritedDescriptors();
    const auto listening = server();
    EXPECT_TRUE(listening->connected()) << "without a peer, too";
    const pid_t child = ::fork();
    if (child == 0) {
        auto peer = client();
        const bool isGood = !peer.connected() && peer.connect() && peer.connect() && peer.connected();
        peer.write("hello");
        ::_exit(isGood && received(peer) == "welcome" ? 0 : 1);
    }
    UnixIpcSocket dropped(listening);
    EXPECT_TRUE(dropped.connect());
    EXPECT_EQ(received(dropped), "nothing") << "the peer has connected anew";

    UnixIpcSocket accepted(listening);
    EXPECT_FALSE(accepted.connected());
    ASSERT_TRUE(accepted.connect());
    EXPECT_EQ(received(accepted), "hello");
    EXPECT_EQ(inheritedDescriptors(), inherited);
    accepted.write("welcome");
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);

    EXPECT_TRUE(accepted.connected()) << "not noticed yet";
    EXPECT_EQ(received(accepted), "nothing");
    EXPECT_FALSE(accepted.connected());
    (void)std::signal(SIGPIPE, SIG_DFL);
    EXPECT_EQ(
        test::thrownBy([&] { accepted.write("x"); }), test::posix("Failed to write responce to socket : ", EPIPE));
    EXPECT_TRUE(log.entries().empty());
}

TEST_F(IpcTest, ASilentPeerStaysConnected)
{
    const auto listening = server();
    auto peer = client();
    UnixIpcSocket accepted(listening);
    ASSERT_TRUE(peer.connect() && accepted.connect());
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(received(accepted), "nothing");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2900ms);
    EXPECT_TRUE(accepted.connected());
    peer.write("late");
    EXPECT_EQ(received(accepted), "late");
    EXPECT_EQ(received(*listening), "nothing");
    listening->write("nothing is sent");
    accepted.disconnect();
    accepted.write("nothing is sent");
    EXPECT_FALSE(accepted.connected());
}

TEST_F(IpcTest, TheFileIsPrivateAndGoesWithTheServer)
{
    dir.file("socket", "in the way");
    path.resize(300, 'x');
    const std::string bound = path.substr(0, 107);
    const mode_t mask = ::umask(0);
    auto first = server();
    ::umask(mask);
    struct stat status {};
    EXPECT_EQ(::lstat(bound.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0600U);
    const auto second = server(); // takes the path over
    EXPECT_TRUE(client().connect());
    first.reset();
    EXPECT_NE(::lstat(bound.c_str(), &status), 0);
    second->disconnect();
    second->disconnect();
    EXPECT_THAT(
        log.lines(), ElementsAre("1 " + std::string(PosixError("Failed to delete ipc socket: ", ENOENT).what())));
}

TEST_F(IpcTest, FailuresAreToldAndLeakNothing)
{
    const std::string noServer = "runtime: Failed to create server connection.";
    const auto descriptors = test::openDescriptors();
    {
        EXPECT_FALSE(client().connect());
        g_listenFails = true;
        EXPECT_EQ(test::thrownBy([&] { server(); }), noServer);
        g_listenFails = false;
        EXPECT_FALSE(std::filesystem::exists(path));
        const auto listening = server();
        EXPECT_FALSE(listening->connect());
        EXPECT_TRUE(listening->connected());
        auto peer = client();
        ASSERT_TRUE(peer.connect());
        UnixIpcSocket accepted(listening);
        {
            const NoDescriptors limit;
            EXPECT_EQ(test::thrownBy([&] { server(); }), noServer);
            EXPECT_FALSE(client().connect());
            EXPECT_FALSE(accepted.connect());
        }
        EXPECT_TRUE(accepted.connect()) << "still in the queue";
        path = dir / "missing/socket";
        EXPECT_EQ(test::thrownBy([&] { server(); }), noServer);
    }
    EXPECT_EQ(test::openDescriptors(), descriptors);
    EXPECT_THAT(log.lines(),
        ElementsAre("1 Failed to connect client unix socket.", "1 Failed to listen socket.", "1 Invalid socket role",
            "1 Failed to create server unix socket.", "1 Failed to create client unix socket.",
            "1 " + std::string(PosixError("Failed to accept connection.", EMFILE).what()), "1 Failed to bind socket."));

    const std::string badPath = "invalid argument: Must provide a proper socket path.";
    for (const std::string& bad : {std::string(), std::string("a\0b", 3)}) {
        path = bad;
        EXPECT_EQ(test::thrownBy([&] { client(); }), badPath);
    }
    EXPECT_EQ(test::thrownBy([] { const UnixIpcSocket none(nullptr); }),
        "invalid argument: Must provide a valid server socket.");
    path = dir / "socket";
    const auto noListener = std::make_shared<UnixIpcSocket>(log.logger(), wide(path), EIpcRole::Connection);
    EXPECT_EQ(test::thrownBy([&] { const UnixIpcSocket none(noListener); }),
        "invalid argument: Socket should be configured as server.");
}

} // namespace
} // namespace agent::transport::ipc
