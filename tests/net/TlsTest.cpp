#include "Support.h"
#include "TestCertificates.h"
#include "agent/OpenSSLStream.h"
#include "agent/SSLStreamFactory.h"
#include "agent/vnt/IoWrapper.h"

#include <openssl/err.h>

using ::vnt::common::Ret;

const std::string kHost = "backup.example.com";

/// Connects to this machine whatever the name, which the certificate is checked for.
struct NamedConnector : TCPConnector {
    NamedConnector(std::string name, int port)
        : TCPConnector("127.0.0.1", port, 5s)
        , m_name(std::move(name))
    {
    }
    std::string getHost() const override { return m_name; }
    std::string m_name;
};

struct TlsTest : FileFixture {
    TlsTest()
    {
        Ret::set_logger([](auto, auto, const auto&) {});
        ::setenv("SSL_CERT_FILE", m_dir.file("ca.pem", m_authority.pem()).c_str(), 1);
        ::setenv("SSL_CERT_DIR", "/nonexistent", 1);
    }
    ~TlsTest() override { Ret::set_logger({}); }

    std::function<void(int)> tls(std::function<void(SSL*)> serve, int version = 0) const
    {
        return test::tls({m_server, &m_authority, version}, std::move(serve));
    }

    /// A stream to the server over a socket of its own.
    std::shared_ptr<OpenSSLStream> streamTo(
        const TcpServer& server, std::chrono::seconds timeout = 5s, const std::string& name = kHost)
    {
        m_connector = std::make_shared<NamedConnector>(name, server.port());
        EXPECT_EQ(m_connector->connect().code, 0);
        return std::make_shared<OpenSSLStream>(m_log.logger(), m_connector, m_store, timeout);
    }

    // A machine that allows TLS 1.1, to be known before OpenSSL's first use.
    const std::string m_conf = m_dir.file(
        "conf", "openssl_conf=a\n[a]\nssl_conf=b\n[b]\nsystem_default=c\n[c]\nCipherString=ALL:@SECLEVEL=0\n");
    const int m_isConfigured = ::setenv("OPENSSL_CONF", m_conf.c_str(), 1);
    const Identity m_authority{CertificateSpec{.subject = {{"CN", "Authority"}}}};
    const Identity m_client{{.subject = {{"CN", "42"}}}, &m_authority};
    const Identity m_server{{.subject = {{"O", "Org"}, {"CN", "server"}}, .names = "DNS:" + kHost}, &m_authority};
    const FileCertificateStoreDescriptor m_files{
        m_dir.file("cert", m_client.pem()), m_dir.file("key", m_client.keyPem()), "", ""};
    CapturingLogger m_storesLog;
    std::shared_ptr<ISSLCertificateStore> m_store =
        std::make_shared<FileCertificateStore>(m_storesLog.logger(), m_files);
    std::shared_ptr<TCPConnector> m_connector;
};

// What a stream says of an error that OpenSSL has put in the queue.
static std::string failure(const std::string& doing, const std::string& name)
{
    return doing + "Error: " + name + " |  Error Queue: ";
}

TEST_F(TlsTest, CarriesDataBothWays)
{
    std::vector<unsigned char> data(std::size_t{64} << 20);
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<unsigned char>(i * 31 + i / 256);
    const auto echo = [&](SSL* ssl) {
        std::vector<unsigned char> received(data.size());
        for (std::size_t done = 0, count = 0; done < received.size(); done += count)
            if (SSL_read_ex(ssl, received.data() + done, received.size() - done, &count) != 1) return;
        (void)SSL_write(ssl, received.data(), static_cast<int>(received.size()));
    };
    for (const auto& [version, cipher] :
        {std::pair{TLS1_2_VERSION, "ECDHE-ECDSA-AES256-GCM-SHA384"}, {TLS1_3_VERSION, "TLS_AES_256_GCM_SHA384"}}) {
        const TcpServer server(tls(echo, version));
        {
            const auto stream = streamTo(server);
            stream->connect();
            EXPECT_EQ(stream->getFileDescriptor(), m_connector->fd());
            stream->write(data.data(), static_cast<unsigned int>(data.size()));
            std::vector<unsigned char> received(data.size());
            unsigned int count = 0;
            for (std::size_t done = 0; done < received.size(); done += count)
                stream->read(received.data() + done, static_cast<unsigned int>(received.size() - done), count);
            EXPECT_TRUE(received == data);
        }
        EXPECT_THAT(m_log.takeLines(),
            ElementsAre("4 ssl socket number " + std::to_string(m_connector->fd()), "3 SSL verified server certificate",
                "3 SSL connection completed using " + std::string(cipher),
                "4 Subject from server cert: /O=Org/CN=server", "4 Issuer from server cert: /CN=Authority",
                "4 Starting ssl shutdown.", "4 Completed ssl shutdown."));
    }
}

TEST_F(TlsTest, KnowsWhomToTrust)
{
    const Identity stranger(CertificateSpec{.subject = {{"CN", "Stranger"}}});
    const std::string refused = posix(failure("Error on ssl connect: ", "SSL_ERROR_SSL") +
                                          "0: Error: 0xa000086 | Library: 'SSL routines' | Func: "
                                          "'OPENSSL_internal' | Reason: 'certificate verify failed'",
        22);
    using Case = std::tuple<const char*, std::string, std::string, const Identity*, long, bool>;
    for (const auto& [why, names, host, issuer, validUntil, isTrusted] : {
             Case{"a wildcard", "DNS:*.example.com", kHost, &m_authority, 60, true},
             Case{"an address", "IP:127.0.0.1", "127.0.0.1", &m_authority, 60, true},
             Case{"another name", "DNS:other.example.com", kHost, &m_authority, 60, false},
             Case{"a partial wildcard", "DNS:back*.example.com", kHost, &m_authority, 60, false},
             Case{"an address as a name", "DNS:127.0.0.1", "127.0.0.1", &m_authority, 60, false},
             Case{"an unknown authority", "DNS:" + kHost, kHost, &stranger, 60, false},
             Case{"expired", "DNS:" + kHost, kHost, &m_authority, -60, false},
         }) {
        const Identity identity({.names = names, .validUntil = validUntil}, issuer);
        const TcpServer server(test::tls({identity, &m_authority}, [name = host](SSL* ssl) {
            EXPECT_STREQ(SSL_get_servername(ssl, TLSEXT_NAMETYPE_host_name), name.c_str());
        }));
        const auto stream = streamTo(server, 5s, host);
        EXPECT_EQ(thrownBy([&] { stream->connect(); }), isTrusted ? "nothing" : refused) << why;
    }
}

// Peers that are no TLS servers as they should be.
TEST_F(TlsTest, SurvivesHostilePeersDuringTheHandshake)
{
    const auto garbage = [](int fd) { (void)::send(fd, "HTTP/1.1 400 Bad Request\r\n\r\n", 28, MSG_NOSIGNAL); };
    const auto drain = [](int fd) {
        char byte = 0;
        while (::read(fd, &byte, 1) > 0) continue;
    };
    const auto notify = [=](int fd) {
        (void)::send(fd, "\x15\3\3\0\2\1\0", 7, MSG_NOSIGNAL);
        drain(fd);
    };
    const auto drip = [](int fd) { // a record that never ends
        constexpr unsigned char kRecord[100] = {22, 3, 3, 0x40};
        for (const unsigned char& byte : kRecord) {
            if (::send(fd, &byte, 1, MSG_NOSIGNAL) != 1) return;
            std::this_thread::sleep_for(100ms);
        }
    };
    const auto tls11 = test::tls({m_server, &m_authority, TLS1_1_VERSION}, [](SSL*) {});
    using Case = std::tuple<const char*, std::function<void(int)>, std::chrono::seconds, std::string>;
    for (const auto& [why, serve, timeout, expected] : {
             Case{"garbage", garbage, 5s,
                 failure("posix: Error on ssl connect: ", "SSL_ERROR_SSL") + "0: Error: 0xa00010b "},
             Case{"silent", drain, 1s, posix("Want read timed out.", 110)},
             Case{"slow", drip, 1s, posix("SSL_connect timed out after 1", 110)},
             Case{"ends in order", notify, 5s, posix(failure("Error on ssl connect: ", "SSL_ERROR_ZERO_RETURN"), 103)},
             Case{"no time", drain, 0s, posix("SSL_connect timed out after 0", 110)},
             Case{"too old", tls11, 5s, "posix: Error on ssl connect: "},
         }) {
        const TcpServer server(serve);
        {
            const auto stream = streamTo(server, timeout);
            EXPECT_THAT(thrownBy([&] { stream->connect(); }), StartsWith(expected)) << why;
            EXPECT_EQ(thrownBy([&] { stream->connect(); }), posix("SSL client has already be initialized.", 114));
        }
        EXPECT_EQ(m_log.lines().back(), "4 skipping ssl shutdown because of: never initialized a connection") << why;
        m_connector.reset(); // ends what still waits for it
    }
}

TEST_F(TlsTest, TellsWhatKeepsItFromConnecting)
{
    const std::string pem = m_client.pem();
    const std::string key = m_client.keyPem();
    using Case = std::tuple<const char*, std::string, std::string, std::string, std::string>;
    const TcpServer server([](int fd) { (void)::read(fd, nullptr, 0); });
    for (const auto& [why, certificate, keyPem, host, expected] : {
             Case{"no certificate", "", key, kHost, posix("Can't load certificate string", 2)},
             Case{"a key with a password, which nobody is asked for", pem, m_client.keyPem("secret"), kHost,
                 posix("Can't load key string", 2)},
             Case{"another's key", pem, m_server.keyPem(), kHost,
                 "posix: Unable to load client key into ssl context: 0: "},
             Case{"no host, which would pass for any", pem, key, "", posix("Unable to set ssl verify host: ", 22)},
             Case{"a NUL in the host", pem, key, kHost + '\0', posix("Unable to set ssl verify host: ", 22)},
         }) {
        (void)m_dir.file("cert", certificate), (void)m_dir.file("key", keyPem);
        OpenSSLStream stream(m_log.logger(), std::make_shared<NamedConnector>(host, server.port()), m_store, 1s);
        EXPECT_THAT(thrownBy([&] { stream.connect(); }), StartsWith(expected)) << why;
    }
    OpenSSLStream stream(m_log.logger(), std::make_shared<NamedConnector>(kHost, server.port()), nullptr, 1s);
    EXPECT_EQ(thrownBy([&] { stream.connect(); }), posix("ISSLCertificateStore is nullptr", 2));
    EXPECT_EQ(thrownBy([&] { stream.getPeerCertificate(); }), "logic: getPeerCertificate is not implemented");
    EXPECT_EQ(thrownBy([&] { OpenSSLStream(m_log.logger(), nullptr, m_store, 1s); }),
        "invalid argument: ITCPConnector is nullptr");
}

TEST_F(TlsTest, ToldHowAConnectionEnds)
{
    char byte = 0;
    unsigned int count = 0;
    {
        const TcpServer server(tls([](SSL* ssl) {
            SSL_shutdown(ssl);
            char last = 0;
            (void)SSL_read(ssl, &last, 1);
        }));
        const auto stream = streamTo(server);
        stream->connect();
        EXPECT_EQ(thrownBy([&] { stream->read(&byte, 1, count); }),
            posix(failure("Read returned EOF, remote closed socket. ", "SSL_ERROR_ZERO_RETURN"), 104));
        stream->close();
        EXPECT_EQ(thrownBy([&] { stream->write(&byte, 1); }), posix("SSL_write without a connection", 107));
    }
    {
        const Identity elsewhere(CertificateSpec{.subject = {{"CN", "Elsewhere"}}});
        const TcpServer server(test::tls({m_server, &elsewhere}, [](SSL*) {}));
        const auto stream = streamTo(server);
        stream->connect(); // is done before the server has looked at the client's certificate
        EXPECT_THAT(thrownBy([&] { stream->read(&byte, 1, count); }),
            StartsWith(failure("posix: SSL error on SSL_read: ", "SSL_ERROR_SSL") + "0: Error: 0xa000418 "));
    }
    const TcpServer server(tls([](SSL* ssl) {
        char first = 0;
        (void)SSL_read(ssl, &first, 1);
        const linger now{1, 0};
        ::setsockopt(SSL_get_fd(ssl), SOL_SOCKET, SO_LINGER, &now, sizeof now);
    }));
    const auto stream = streamTo(server);
    stream->connect();
    stream->write(&byte, 1);
    const std::string reset = PosixError("SSL_ERROR_SYSCALL", ECONNRESET).what();
    EXPECT_EQ(thrownBy([&] { stream->read(&byte, 1, count); }),
        posix(failure("SSL error on SSL_read: ", reset), SSL_ERROR_SYSCALL));
    (void)std::signal(SIGPIPE, SIG_DFL); // would end the program
    const std::string broken = PosixError("SSL_ERROR_SYSCALL", EPIPE).what();
    EXPECT_EQ(thrownBy([&] { stream->write(&byte, 1); }),
        posix(failure("SSL error on SSL_write: ", broken), SSL_ERROR_SYSCALL));
    stream->close();
    EXPECT_EQ(m_log.lines().back(), "4 skipping ssl shutdown because of: previous ssl error");
    EXPECT_THAT(thrownBy([&] { stream->connect(); }), StartsWith("posix: Error on ssl connect: ")) << "set up anew";
}

TEST_F(TlsTest, WaitsNoLongerThanItShould)
{
    std::atomic<bool> isDone = false;
    const TcpServer server(tls([&](SSL*) { isDone.wait(false); }));
    const auto leaveErrors = [] { ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH), ERR_raise(ERR_LIB_SSL, SSL_R_BAD_LENGTH); };
    const auto stream = streamTo(server, 1s);
    stream->connect();
    std::vector<char> large(50'000'000); // more than the sockets hold
    unsigned int count = 0;
    EXPECT_EQ(thrownBy([&] { stream->read(large.data(), 1, count); }), posix("Want read timed out.", 110));
    leaveErrors();
    EXPECT_EQ(thrownBy([&] { stream->write(large.data(), static_cast<unsigned int>(large.size())); }),
        posix("Want write timed out.", 110));
    leaveErrors();
    EXPECT_EQ(thrownBy([&] { stream->read(large.data(), 1, count); }), posix("Want read timed out.", 110));
    // What others left in the thread's error queue is reported, and is not taken for the stream's own.
    const std::string error =
        ": Error: 0xa00010f | Library: 'SSL routines' | Func: 'OPENSSL_internal' | Reason: 'bad length'";
    for (const std::string where : {"sslRead", "sslWrite"})
        EXPECT_THAT(m_log.lines(), Contains("1 Error Queue before " + where + ": 0" + error + " / 1" + error));
    isDone = true;
    isDone.notify_all();
}

TEST_F(TlsTest, IsMadeForAStore)
{
    struct Descriptor : FileCertificateStoreDescriptor {
        using FileCertificateStoreDescriptor::FileCertificateStoreDescriptor;
        CertificateStoreType getStoreType() const override { return type; }
        CertificateStoreType type = CertificateStoreType(3);
    };
    Descriptor descriptor(m_dir / "cert", m_dir / "key", "", "");
    const TcpServer server(tls([](SSL* ssl) { (void)SSL_write(ssl, "x", 1); }));
    const SSLStreamFactory factory(m_log.logger());
    m_connector = std::make_shared<NamedConnector>(kHost, server.port());
    const auto make = [&] { return factory.makeClientStream(descriptor, m_connector, 5s); };
    EXPECT_EQ(thrownBy(make), "invalid argument: must provide registered type to create SSL stream. Type provided: "
                              "Unknown CertificateStoreType: 3");
    descriptor.type = CertificateStoreType::Native;
    EXPECT_EQ(thrownBy(make), "runtime: Not implemented");
    descriptor.type = CertificateStoreType::File;
    ASSERT_EQ(m_connector->connect().code, 0);
    make()->connect();
}

TEST_F(TlsTest, OrAPlainSocketIsBehindTheWrapper)
{
    char asked = 0;
    const auto answer = [&](SSL* ssl) { (void)(SSL_read(ssl, &asked, 1), SSL_write(ssl, "12\x01\x34", 4)); };
    const auto plainAnswer = [&](int fd) { (void)(::read(fd, &asked, 1), ::send(fd, "12\x01\x34", 4, MSG_NOSIGNAL)); };
    for (const bool isTls : {true, false}) {
        const TcpServer server(isTls ? tls(answer) : plainAnswer);
        const auto stream = streamTo(server);
        agent::vnt::IoWrapper io(m_log.logger(), isTls ? stream : nullptr, m_connector, 5s, true);
        io.init();
        char text[5] = {};
        unsigned int count = 0;
        EXPECT_EQ(io.write("\xF8", 1).code, 0);
        EXPECT_THAT(m_log.lines().back(), MatchesRegex("3 IoWrapper sending:\n00000000  f8  +_\n"));
        EXPECT_EQ(io.read(text, 5, count).code, 0);
        EXPECT_EQ(count, 4U);
        EXPECT_THAT(m_log.lines().back(), StartsWith("3 IoWrapper received:\n00000000  31 32 01 34 00 "))
            << "all of it";
        const Ret end = io.read(text, 5, count);
        EXPECT_EQ(end.code, isTls ? 22 : 107);
        EXPECT_THAT(end.message, HasSubstr(isTls ? "SSL error on SSL_read: " : "connection closed")) << "its text";
        EXPECT_EQ(count, 4U) << "as it was";
    }
    agent::vnt::IoWrapper nothing(m_log.logger(), nullptr, std::make_shared<TCPConnector>("h", 1, 1s), 1s, false);
    EXPECT_EQ(nothing.write("x", 1).code, 107) << "descriptor 0 is no socket";
    EXPECT_THAT(m_log.lines().back(), StartsWith("3 IoWrapper received:")) << "nothing since";
}
