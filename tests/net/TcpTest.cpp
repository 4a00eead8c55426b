#include "Support.h"
#include "agent/IPUtils.h"
#include "agent/IpEndpoint.h"
#include "agent/PortRotator.h"
#include "agent/TCPConnector.h"
#include "agent/vnt/SocketIo.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <thread>

namespace agent {
namespace {

using namespace std::chrono_literals;
using agent::vnt::SocketIo;
using testing::ElementsAre;
using ::vnt::common::Ret;

// "code message", for comparisons.
std::string told(const Ret& ret)
{
    return std::to_string(ret.code) + ' ' + ret.message;
}

class TcpTest : public testing::Test {
protected:
    TcpTest()
    {
        Ret::set_logger([](auto, auto, const auto&) {});
        EXPECT_EQ(::bind(m_listener, address(), sizeof m_address), 0);
        EXPECT_EQ(::listen(m_listener, 0), 0);
        socklen_t length = sizeof m_address;
        ::getsockname(m_listener, address(), &length);
    }
    ~TcpTest() override
    {
        ::close(m_listener);
        Ret::set_logger({});
    }

    int port() const { return ntohs(m_address.sin_port); }
    int accept() const { return ::accept(m_listener, nullptr, nullptr); }
    static int option(int fd, int level, int name)
    {
        int value = 0;
        socklen_t length = sizeof value;
        ::getsockopt(fd, level, name, &value, &length);
        return value;
    }

private:
    sockaddr* address() { return reinterpret_cast<sockaddr*>(&m_address); }

    sockaddr_in m_address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    int m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

TEST_F(TcpTest, ConnectsAndLetsGo)
{
    const auto descriptors = test::openDescriptors();
    {
        TCPConnector connector("127.0.0.1", port(), 5s);
        EXPECT_EQ(connector.setNonBlocking(), 1) << "nothing is open";
        ASSERT_EQ(connector.connect().code, 0);
        EXPECT_EQ(::fcntl(connector.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
        EXPECT_EQ(::fcntl(connector.fd(), F_GETFL) & O_NONBLOCK, O_NONBLOCK);
        ::close(accept());
        EXPECT_EQ(connector.connect().code, 0) << "anew";
        EXPECT_EQ(test::openDescriptors(), descriptors + 1);

        EXPECT_EQ(connector.sockOpts(0, 5, 10).code, 0);
        EXPECT_EQ(option(connector.fd(), SOL_SOCKET, SO_KEEPALIVE), 1);
        EXPECT_EQ(option(connector.fd(), IPPROTO_TCP, TCP_NODELAY), 1);
        EXPECT_EQ(option(connector.fd(), IPPROTO_TCP, TCP_USER_TIMEOUT), 0) << "only with an idle time";
        EXPECT_EQ(connector.sockOpts(60, 5, 10).code, 0);
        EXPECT_EQ(option(connector.fd(), IPPROTO_TCP, TCP_USER_TIMEOUT), 110'000);
        EXPECT_EQ(option(connector.fd(), IPPROTO_TCP, TCP_KEEPIDLE), 60);
        EXPECT_EQ(option(connector.fd(), IPPROTO_TCP, TCP_KEEPINTVL), 10);
        EXPECT_EQ(option(connector.fd(), IPPROTO_TCP, TCP_KEEPCNT), 5);
        EXPECT_EQ(told(connector.sockOpts(40'000, 5, 10)),
            "22 " + std::string(PosixError("Unable to set keepidle.", EINVAL).what()));

        const int taken = connector.fd();
        connector.clear();
        EXPECT_EQ(connector.fd(), 0);
        EXPECT_EQ(::close(taken), 0) << "still open";
    }
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST_F(TcpTest, TellsWhyThereIsNoConnection)
{
    EXPECT_EQ(told(TCPConnector("", port(), 1s).connect()), "-1 No hostname provided to TCPConnector.");
    const Ret unknown = TCPConnector("no such host", port(), 1s).connect();
    EXPECT_NE(unknown.code, 0);
    EXPECT_THAT(unknown.message, testing::StartsWith("Unable to gethostbyname for: no such host, h_errno "));
    EXPECT_EQ(told(TCPConnector("127.0.0.1", 1, 5s).connect()),
        "115 Unable to check connect to host 127.0.0.1, so_error 111.");
    EXPECT_EQ(told(TCPConnector("255.255.255.255", 1, 1s).connect()),
        "101 Unable to connect to host 255.255.255.255, errno: 101");

    TCPConnector first("127.0.0.1", port(), 1s); // takes the listener's only place
    ASSERT_EQ(first.connect().code, 0);
    TCPConnector second("127.0.0.1", port(), 1s);
    EXPECT_EQ(
        told(second.connect()), "110 Unable to connect to host 127.0.0.1, timed out waiting for connection 1 seconds.");
    EXPECT_NE(second.fd(), 0) << "kept until it is closed";
}

class SocketIoTest : public testing::Test {
protected:
    SocketIoTest()
    {
        Ret::set_logger([](auto, auto, const auto&) {});
        EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, m_pair), 0);
    }
    ~SocketIoTest() override
    {
        for (const int fd : m_pair) ::close(fd);
        Ret::set_logger({});
    }

    int m_pair[2] = {-1, -1}; // ours and the peer's
    char m_buffer[16] = {};
    unsigned int m_length = sizeof m_buffer;
};

TEST_F(SocketIoTest, ReadsWhatIsThere)
{
    EXPECT_EQ(SocketIo::write(m_pair[1], 1s, 5, "hello").code, 0);
    EXPECT_EQ(SocketIo::read(m_pair[0], 0s, m_length, m_buffer).code, 0);
    EXPECT_EQ(std::string(m_buffer, m_length), "hello");
    EXPECT_EQ(SocketIo::write(-1, 1s, 0, nullptr).code, 0) << "nothing to do";

    ::close(std::exchange(m_pair[1], -1));
    m_length = sizeof m_buffer;
    errno = 0;
    EXPECT_EQ(told(SocketIo::read(m_pair[0], 1s, m_length, m_buffer)),
        "107 Unable to read from socket, connection closed, errno: 0 so_error: 0 ret: 0");
    EXPECT_EQ(m_length, sizeof m_buffer);
    EXPECT_EQ(SocketIo::write(m_pair[0], 1s, 1, "x").message, "Unable to poll socket, other end hung up.");
    EXPECT_EQ(SocketIo::write(1000, 1s, 1, "x").message, "Unable to poll socket, invalid poll request");
}

TEST_F(SocketIoTest, TimesOutInBothDirectionsWithTheSameWords)
{
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(told(SocketIo::read(m_pair[0], 1s, m_length, m_buffer)), "110 Socket read timeout after 1 seconds");
    EXPECT_GE(std::chrono::steady_clock::now() - start, 2s) << "whole seconds must exceed the time-out";

    const std::vector<char> large(10'000'000); // more than the sockets hold
    EXPECT_EQ(told(SocketIo::write(m_pair[0], 1s, static_cast<unsigned int>(large.size()), large.data())),
        "110 Socket read timeout after 1 seconds");
}

// The documented arithmetic, on which the other end of the protocol relies; and no signal ends the process.
TEST_F(SocketIoTest, AFirstByteThatCannotBeWrittenCountsAsDone)
{
    ::shutdown(m_pair[0], SHUT_WR);
    const pid_t child = ::fork();
    if (child == 0) {
        (void)std::signal(SIGPIPE, SIG_DFL);
        int pipe[2];
        const bool sent = SocketIo::write(m_pair[0], 1s, 5, "hello").code == 0 && ::pipe(pipe) == 0;
        ::_exit(sent && SocketIo::write(pipe[1], 1s, 5, "hello").code == 0 ? 0 : 1); // a pipe is no socket
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
}

TEST(IpEndpoint, ReadsHostAndPort)
{
    struct Case {
        const char* text;
        const char* host;
        unsigned int port;
    };
    for (const auto& [text, host, port] : {
             Case{"h:443", "h", 443},
             Case{"h", "h", 0},
             Case{"a\\:b:443", "a\\:b", 443},
             Case{"h:1:2", "h", 1},
             Case{":7", "", 7},
             Case{"h:-1", "h", 4294967295U},
         }) {
        const IpEndpoint endpoint{std::string(text)};
        EXPECT_EQ(endpoint.host(), host) << text;
        EXPECT_EQ(endpoint.port(), port) << text;
    }
    EXPECT_EQ(
        test::thrownBy([] { const IpEndpoint endpoint(""); }), "invalid argument: Invalid host and port pair: \"\"");
    EXPECT_THROW(IpEndpoint("h:x"), std::invalid_argument);
    EXPECT_THROW(IpEndpoint("h:"), std::invalid_argument);
    EXPECT_THROW(IpEndpoint("h:99999999999"), std::out_of_range);

    IpEndpoint kept("h", 9);
    kept.hostPortPair("g");
    EXPECT_EQ(kept.port(), 9U);
    EXPECT_THROW(kept.hostPortPair("f:x"), std::invalid_argument);
    EXPECT_EQ(kept.host(), "g") << "a failure changes nothing";
}

TEST(IPUtils, ResolvesAndPrints)
{
    int hostError = 0;
    EXPECT_EQ(IPUtils().resolveHost("127.0.0.1", hostError), htonl(INADDR_LOOPBACK)); // any machine knows this name
    EXPECT_EQ(IPUtils().resolveHost("no such host", hostError), 0U);
    EXPECT_EQ(IPUtils().str(0xFFFF'FFFF'0403'020AUL), "10.2.3.4") << "the low 32 bits";
}

TEST(PortRotator, CyclesWithThePreferredPortFirst)
{
    PortRotator ports({1, 2, 3});
    const auto next = [&](unsigned int preferred, int count) {
        std::vector<unsigned int> seen(static_cast<std::size_t>(count));
        for (unsigned int& port : seen) port = ports.getPort(preferred);
        return seen;
    };
    EXPECT_THAT(next(0, 4), ElementsAre(1, 2, 3, 1));
    EXPECT_THAT(next(2, 5), ElementsAre(2, 1, 3, 2, 1));
    EXPECT_THAT(next(9, 5), ElementsAre(9, 1, 2, 3, 9));
    EXPECT_THAT(next(0, 3), ElementsAre(0, 1, 2)) << "0 is new again";
}

} // namespace
} // namespace agent
