#include "Support.h"
#include "agent/transport/ipc/UnixIpcSocket.h"

using namespace agent::transport::ipc;

using std::chrono::steady_clock;

struct IpcTest : FileFixture {
    auto make(EIpcRole role)
    {
        return std::make_shared<UnixIpcSocket>(m_log.logger(), std::wstring(path.begin(), path.end()), role);
    }
    auto server() { return make(EIpcRole::Server); }
    auto client() { return make(EIpcRole::Connection); }
    std::string received(UnixIpcSocket& socket)
    {
        char buffer[64];
        unsigned int count = 7;
        return socket.read(buffer, sizeof buffer, count) ? std::string(buffer, count) : "nothing";
    }

    std::string path = m_dir / "socket";
};

TEST_F(IpcTest, TalksToAnotherProcessUntilThatEnds)
{
    (void)std::signal(SIGPIPE, SIG_DFL);
    auto inherited = [count = 0]() mutable {
        for (int fd = count = 0; fd < 256; ++fd) count += ::fcntl(fd, F_GETFD) == 0 ? 1 : 0;
        return count;
    };
    const auto before = inherited();
    const auto listening = server();
    const pid_t child = ::fork();
    if (child == 0) {
        const auto peer = client();
        const bool isGood = !peer->connected() && peer->connect() && peer->connect() && peer->connected();
        peer->write("hello");
        std::string answer = received(*peer);
        if (answer == "nothing") answer = received(*peer); // one read may not wait long enough
        ::_exit(isGood && answer == "welcome" ? 0 : 1);
    }
    UnixIpcSocket accepted(listening);
    EXPECT_TRUE(accepted.connect());
    EXPECT_EQ(received(accepted), "nothing") << "the peer has let go";
    EXPECT_FALSE(accepted.connected());
    EXPECT_TRUE(accepted.connect()) << "and connected anew";
    EXPECT_EQ(inherited(), before) << "close-on-exec";
    EXPECT_EQ(received(accepted), "hello");
    const auto start = steady_clock::now();
    EXPECT_EQ(received(accepted), "nothing") << "the peer is silent";
    EXPECT_GE(steady_clock::now() - start, 2900ms);
    EXPECT_TRUE(accepted.connected());
    accepted.write("welcome");
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(thrownBy([&] { accepted.write("x"); }), posix("Failed to write responce to socket : ", EPIPE));
    accepted.disconnect();
    accepted.write("goes nowhere");
    EXPECT_EQ(received(accepted) + received(*listening), "nothingnothing");
}

TEST_F(IpcTest, TheFileIsPrivateAndGoesWithTheServer)
{
    path.resize(300, 'x');
    const std::string bound = path.substr(0, 107);
    const mode_t mask = ::umask(0);
    auto first = server();
    ::umask(mask);
    struct stat status {};
    EXPECT_EQ(::lstat(bound.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode, S_IFSOCK | 0600U);
    const auto second = server(); // takes the path over
    const auto peer = client();
    EXPECT_TRUE(peer->connect());
    UnixIpcSocket accepted(second);
    EXPECT_TRUE(accepted.connect());
    peer->write("left unread, so that the end is a reset");
    accepted.disconnect();
    EXPECT_EQ(received(*peer), "nothing");
    EXPECT_FALSE(peer->connected());
    first.reset();
    EXPECT_FALSE(std::filesystem::exists(bound));
    second->disconnect(); // and once more at the end
    EXPECT_THAT(
        m_log.lines(), ElementsAre("1 " + std::string(PosixError("Failed to delete ipc socket: ", ENOENT).what())));
}

TEST_F(IpcTest, FailuresAreToldAndLeakNothing)
{
    const std::string noServer = "runtime: Failed to create server connection.";
    EXPECT_FALSE(client()->connect());
    const auto listening = server();
    EXPECT_TRUE(!listening->connect() && listening->connected());
    UnixIpcSocket accepted(listening);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    EXPECT_THROW(server(), std::runtime_error); // no what(): UBSan needs a descriptor to check the object
    EXPECT_FALSE(client()->connect());
    EXPECT_FALSE(accepted.connect());
    ::setrlimit(RLIMIT_NOFILE, &limit);
    path = m_dir / "missing/socket";
    EXPECT_EQ(thrownBy([&] { server(); }), noServer);
    EXPECT_THAT(m_log.lines(),
        ElementsAre("1 Failed to connect client unix socket.", "1 Invalid socket role",
            "1 Failed to create server unix socket.", "1 Failed to create client unix socket.",
            "1 " + std::string(PosixError("Failed to accept connection.", EMFILE).what()), "1 Failed to bind socket."));

    EXPECT_EQ(
        thrownBy([] { UnixIpcSocket(nullptr).connect(); }), "invalid argument: Must provide a valid server socket.");
    EXPECT_EQ(thrownBy([&] { UnixIpcSocket(client()).connect(); }),
        "invalid argument: Socket should be configured as server.");
    path.resize(path.size() + 1); // a NUL
    EXPECT_EQ(thrownBy([&] { client(); }), "invalid argument: Must provide a proper socket path.");
}
