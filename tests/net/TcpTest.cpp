#include "Support.h"
#include "agent/IPUtils.h"
#include "agent/IpEndpoint.h"
#include "agent/PortRotator.h"
#include "agent/TCPConnector.h"
#include "agent/vnt/SocketIo.h"

#include <arpa/inet.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>

using agent::vnt::SocketIo;
using ::vnt::common::Ret;

static std::string told(const Ret& ret)
{
    return std::to_string(ret.code) + ' ' + ret.message;
}

/// A listener with room for one connection, and a connected pair of sockets.
struct TcpTest : FileFixture {
    TcpTest()
    {
        Ret::set_logger([](auto, auto, const auto&) {});
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        auto* const raw = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        EXPECT_EQ(::bind(m_listener, raw, length) | ::listen(m_listener, 0), 0);
        EXPECT_EQ(::getsockname(m_listener, raw, &length), 0);
        m_port = ntohs(address.sin_port);
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, m_pair), 0);
    }
    ~TcpTest() override
    {
        for (const int fd : {m_listener, m_pair[0], m_pair[1]}) ::close(fd);
        Ret::set_logger({});
    }
    std::string read() { return told(SocketIo::read(m_pair[0], 1s, m_length, m_buffer)); }

    int m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int m_port = 0;
    int m_pair[2] = {-1, -1}; // ours and the peer's
    char m_buffer[16] = {};
    unsigned int m_length = sizeof m_buffer;
};

TEST_F(TcpTest, ConnectsAndLetsGo)
{
    TCPConnector connector("127.0.0.1", m_port, 5s);
    ASSERT_EQ(connector.connect().code, 0);
    EXPECT_TRUE(::fcntl(connector.fd(), F_GETFD) == FD_CLOEXEC && ::fcntl(connector.fd(), F_GETFL) & O_NONBLOCK);
    ::close(::accept(m_listener, nullptr, nullptr));
    EXPECT_EQ(connector.connect().code, 0) << "anew";

    const auto option = [&](int level, int name, int value = 0) {
        socklen_t length = sizeof value;
        ::getsockopt(connector.fd(), level, name, &value, &length);
        return value;
    };
    EXPECT_EQ(connector.sockOpts(0, 5, 10).code, 0);
    EXPECT_EQ(option(SOL_SOCKET, SO_KEEPALIVE) + option(IPPROTO_TCP, TCP_NODELAY), 2);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), 0) << "only with an idle time";
    EXPECT_EQ(connector.sockOpts(60, 5, 10).code, 0);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_USER_TIMEOUT), 110'000);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPINTVL) * 10 + option(IPPROTO_TCP, TCP_KEEPCNT), 105);
    EXPECT_EQ(option(IPPROTO_TCP, TCP_KEEPIDLE), 60);

    const int taken = connector.fd();
    connector.clear();
    EXPECT_TRUE(connector.fd() == 0 && ::close(taken) == 0) << "still open";
}

TEST_F(TcpTest, TellsWhyThereIsNoConnection)
{
    TCPConnector first("127.0.0.1", m_port, 1s); // takes the listener's only place
    ASSERT_EQ(first.connect().code, 0);
    const auto connect = [](const char* host, int port) { return told(TCPConnector(host, port, 1s).connect()); };
    EXPECT_EQ(connect("", m_port), "-1 No hostname provided to TCPConnector.");
    EXPECT_THAT(connect("-", m_port), HasSubstr(" Unable to gethostbyname for: -, h_errno "));
    EXPECT_EQ(connect("127.0.0.1", 1), "115 Unable to check connect to host 127.0.0.1, so_error 111.");
    TCPConnector late("127.0.0.1", m_port, 1s);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(
        told(late.connect()), "110 Unable to connect to host 127.0.0.1, timed out waiting for connection 1 seconds.");
    EXPECT_TRUE(errno == ETIMEDOUT && std::chrono::steady_clock::now() - start >= 1s);
    EXPECT_EQ((late.close(), late.fd()), 0);
    EXPECT_TRUE(inChild([&] {
        ::close(0); // the socket would be number 0, which means none
        const bool isRefused = connect("127.0.0.1", m_port).find(" Unable to set socket nonblocking: errno: ") < 5;
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_NOFILE, &none);
        return isRefused && connect("127.0.0.1", m_port) == "24 Unable to create socket. errno: 24";
    }));
}

TEST_F(TcpTest, ReadsAndWrites)
{
    EXPECT_EQ(SocketIo::write(m_pair[1], 1s, 5, "hello").code, 0);
    EXPECT_EQ(read(), "0 ");
    EXPECT_EQ(std::string(m_buffer, std::exchange(m_length, sizeof m_buffer)), "hello");

    // The documented arithmetic: a first byte that cannot be written counts as done. No signal ends the process.
    EXPECT_TRUE(inChild([&] {
        (void)std::signal(SIGPIPE, SIG_DFL);
        int pipe[2] = {::shutdown(m_pair[0], SHUT_WR), 0};
        const bool sent = SocketIo::write(m_pair[0], 1s, 5, "hello").code == 0 && ::pipe(pipe) == 0;
        (void)SocketIo::write(pipe[1], 1s, 5, "hello"); // a pipe is no socket
        const bool came = sent && ::read(pipe[0], m_buffer, 5) == 5 && ::close(pipe[0]) == 0;
        return came && SocketIo::write(pipe[1], 1s, 5, "hello").code == 0;
    }));
    ::close(std::exchange(m_pair[1], -1));
    errno = 0;
    EXPECT_EQ(read(), "107 Unable to read from socket, connection closed, errno: 0 so_error: 0 ret: 0");
    EXPECT_EQ(SocketIo::write(m_pair[0], 1s, 1, "x").message, "Unable to poll socket, other end hung up.");
    EXPECT_EQ(SocketIo::write(1000, 1s, 1, "x").message, "Unable to poll socket, invalid poll request");
}

TEST_F(TcpTest, TimesOutInBothDirectionsWithTheSameWords)
{
    const auto start = std::chrono::steady_clock::now();
    const std::string timedOut = "110 Socket read timeout after 1 seconds";
    EXPECT_TRUE(read() == timedOut && errno == ETIMEDOUT);
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2s) << "whole seconds must exceed the time-out";
    (void)std::signal(SIGALRM, [](int) {});
    const itimerval later{{0, 0}, {1, 500'000}};
    ::setitimer(ITIMER_REAL, &later, nullptr); // 0 is no time-out
    EXPECT_EQ(told(SocketIo::read(m_pair[0], 0s, m_length, m_buffer)), "4 poll failed for read, errno: 4");
    const std::vector<char> large(10'000'000); // more than the sockets hold
    ::ualarm(100'000, 0);                      // only writing goes on after a signal
    EXPECT_EQ(told(SocketIo::write(m_pair[0], 1s, 10'000'000, large.data())), timedOut);
    std::thread slow([&, piece = std::vector<char>(40'000)]() mutable { // is no silent peer
        for (int i = 0; i < 50; ++i, std::this_thread::sleep_for(70ms)) (void)::read(m_pair[1], piece.data(), 40'000);
    });
    EXPECT_EQ(SocketIo::write(m_pair[0], 1s, 1'500'000, large.data()).code, 0);
    slow.join();
}

TEST(IpEndpoint, ReadsHostAndPort)
{
    for (const auto& [text, expected] : std::vector<std::pair<std::string, std::string>>{
             {"h:443", "h 443 nothing"}, {"h", "h 9 nothing"}, // the old port
             {"a\\:b:443", "a\\:b 443 nothing"}, {"h:1:2", "h 1 nothing"}, {"h:-1", "h 4294967295 nothing"},
             {"", "g 9 invalid argument: Invalid host and port pair: \"\""}, {"f:", "g 9 invalid argument: stoi"},
             {"f:99999999999", "g 9 logic: stoi"}, // std::out_of_range
         }) {
        IpEndpoint endpoint("g", 9);
        const std::string thrown = thrownBy([&, &pair = text] { endpoint.hostPortPair(pair); });
        EXPECT_EQ(endpoint.host() + ' ' + std::to_string(endpoint.port()) + ' ' + thrown, expected);
    }
    EXPECT_EQ(IpEndpoint("h").port(), 0U);
}

TEST(IPUtils, ResolvesAndPrints)
{
    int hostError = 0;
    EXPECT_EQ(IPUtils().resolveHost("127.0.0.1", hostError), htonl(INADDR_LOOPBACK)); // any machine knows this name
    EXPECT_EQ(IPUtils().str(0xFFFF'FFFF'0403'020AUL), "10.2.3.4") << "the low 32 bits";
}

TEST(PortRotator, CyclesWithThePreferredPortFirst)
{
    PortRotator ports({1, 2, 3});
    std::vector<unsigned int> seen;
    for (const unsigned int preferred :
        {0U, 0U, 0U, 0U, 2U, 2U, 2U, 2U, 2U, 9U, 9U, 9U, 9U, 9U, 0U, 0U}) // at last 0 is new
        seen.push_back(ports.getPort(preferred));
    EXPECT_THAT(seen, ElementsAre(1, 2, 3, 1, 2, 1, 3, 2, 1, 9, 1, 2, 3, 9, 0, 1));
}
