#include "FakeConfig.h"
#include "Support.h"
#include "TestCertificates.h"
#include "agent/CURLError.h"
#include "agent/CurlHelper.h"

using nlohmann::json;

// One request, as it comes: all of its headers, and as much of a body as they tell of.
static std::string readRequest(int fd)
{
    std::string request;
    char buffer[1000];
    for (std::size_t wanted = std::string::npos; request.size() < wanted;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count <= 0) break;
        request.append(buffer, static_cast<std::size_t>(count));
        const auto end = request.find("\r\n\r\n");
        if (end == std::string::npos) continue;
        const auto length = request.find("Content-Length: ");
        wanted = end + 4 + (length < end ? std::stoul(request.substr(length + 16)) : 0);
    }
    return request;
}

struct HttpTest : FileFixture {
    static void SetUpTestSuite() { EXPECT_EQ(CurlHelper::Setup(), CURLE_OK); }
    static void TearDownTestSuite() { CurlHelper::Cleanup(); }

    // What a server has to do to give one answer; the request is in m_request then.
    std::function<void(int)> plain(const std::string& answer)
    {
        return [this, answer](int fd) {
            m_request = readRequest(fd);
            (void)::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        };
    }
    std::function<void(int)> overTls(const TlsServerOptions& options)
    {
        return test::tls(options, [this](SSL* ssl) {
            char request[1000]; // longer than any here
            (void)SSL_read(ssl, request, sizeof request);
            (void)SSL_write(ssl, kAnswer.data(), static_cast<int>(kAnswer.size()));
            (void)SSL_shutdown(ssl);
        });
    }
    std::string url(const TcpServer& server, const std::string& scheme = "http") const
    {
        return scheme + "://127.0.0.1:" + std::to_string(server.port()) + "/p?q=1";
    }
    CurlHelper http(bool verifyCertificates = true, bool failOnError = true) const
    {
        return {m_config, verifyCertificates, failOnError, "trace.http", [](std::string& user, std::string& password) {
                    user = "user";
                    password = "secret";
                }};
    }
    // The code of the CURLError that an action throws; 0 if it throws none.
    static int curlCodeOf(const std::function<void()>& action)
    {
        try {
            action();
        } catch (const CURLError& e) {
            return e.code();
        }
        return 0;
    }
    long get(const CurlHelper& helper, const std::string& where, std::chrono::seconds timeout = 5s)
    {
        m_response = "from before";
        return helper.getRequest(where, m_response, m_log.logger(), {}, timeout);
    }

    const std::string kAnswer = "HTTP/1.1 200 OK\r\nContent-Length: 2\r\n\r\nok";
    FakeConfig m_config;
    std::string m_request;
    std::string m_response;
};

TEST_F(HttpTest, SendsExactlyWhatIsDocumented)
{
    const std::string basic = "Authorization: Basic dXNlcjpzZWNyZXQ=\r\n";
    const auto none = [](Path&, Path&) {};
    const std::string binary("\0\xff{", 3);
    // method, authorization, body, request
    using Case = std::tuple<const char*, std::string, std::string, std::function<long(const std::string& url)>>;
    const std::vector<std::string> extra = {"X-First: 1", "X-Second: 2"};
    info::Logger& log = m_log.logger();
    const json body = {{"key", "value"}};
    const std::string text = body.dump();
    const CurlHelper h = http(true, false);
    m_config.values["trace.http"] = 1;
    std::string& out = m_response;
    for (const auto& [method, authorization, content, send] : std::vector<Case>{
             {"GET", "", "", [&](auto& u) { return h.getRequest(u, out, log, {}, std::chrono::seconds::max()); }},
             {"POST", "", text, [&](auto& u) { return h.postRequest(u, body, out, log, 0s); }},
             {"PUT", "", text, [&](auto& u) { return h.putRequest(u, body, out, log, -1s); }},
             {"GET", basic, "", [&](auto& u) { return h.getRequestWithBasicAuth(u, out, log, none, extra, 5s); }},
             {"POST", basic, text,
                 [&](auto& u) { return h.postRequestWithBasicAuth(u, body, out, log, none, extra, 5s); }},
             {"PUT", basic, text,
                 [&](auto& u) { return h.putRequestWithBasicAuth(u, body, out, log, none, extra, 5s); }},
             {"POST", basic, binary,
                 [&](auto& u) { return h.postRequestBinaryWithBasicAuth(u, binary, out, log, none, extra, 5s); }},
         }) {
        out = "from before";
        const TcpServer server(plain("HTTP/1.1 404 No\r\nContent-Length: 100000\r\n\r\n" + std::string(100'000, 'x')));
        EXPECT_EQ(send(url(server)), 404) << "the caller's to judge";
        EXPECT_EQ(out, std::string(100'000, 'x'));
        const std::string length = content.empty() ? "" : "Content-Length: " + std::to_string(content.size()) + "\r\n";
        const auto date = m_request.find("Date: ");
        ASSERT_NE(date, std::string::npos);
        EXPECT_EQ(m_request.substr(0, date),
            method + std::string(" /p?q=1 HTTP/1.1\r\nHost: 127.0.0.1:") + std::to_string(server.port()) + "\r\n" +
                authorization + "Content-Type: application/json\r\nAccept: application/json\r\ncharsets: utf-8\r\n");
        EXPECT_THAT(m_request.substr(date, 37),
            MatchesRegex("Date: [MTWFS][a-z]{2}, [0-9]{2} [JFMASOND][a-z]{2} [0-9]{4} [0-9:]{8} \\+0000"));
        EXPECT_EQ(m_request.substr(date + 37), std::string("\r\n") +
                                                   (authorization.empty() ? "" : "X-First: 1\r\nX-Second: 2\r\n") +
                                                   length + "\r\n" + content);
        EXPECT_FALSE(m_log.takeLines().empty()) << "traced";
    }
}

TEST_F(HttpTest, FailsWithLibcurlsCode)
{
    const std::string missing = "HTTP/1.1 404 Not Found\r\nContent-Length: 4\r\n\r\ngone";
    testing::internal::CaptureStderr();
    using Case = std::tuple<const char*, std::string, CURLcode, std::string>;
    for (const auto& [why, answer, code, response] : {
             Case{"a status", missing, CURLE_HTTP_RETURNED_ERROR, ""},
             Case{"cut off", "HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nhalf", CURLE_PARTIAL_FILE, "half"},
             Case{"no answer", "", CURLE_GOT_NOTHING, ""},
             Case{"garbage", std::string(100, '\0'), CURLE_UNSUPPORTED_PROTOCOL, ""},
         }) {
        const TcpServer server(plain(answer));
        EXPECT_EQ(curlCodeOf([&] { get(http(), url(server)); }), code) << why;
        EXPECT_EQ(m_response, response) << why;
    }
    const TcpServer silent([](int fd) {
        char byte = 0;
        while (::read(fd, &byte, 1) > 0) continue;
    });
    EXPECT_EQ(curlCodeOf([&] { get(http(), url(silent), 1s); }), CURLE_OPERATION_TIMEDOUT);
    EXPECT_EQ(thrownBy([&] { get(http(), "http://127.0.0.1:1/"); }),
        std::string("runtime: ") + CURLError("Curl error", CURLE_COULDNT_CONNECT).what());
    EXPECT_TRUE(testing::internal::GetCapturedStderr().empty() && m_log.lines().empty()) << "not traced";
}

TEST_F(HttpTest, ChecksServersAndShowsItself)
{
    const Identity authority(CertificateSpec{.subject = {{"CN", "Authority"}}});
    const Identity client({.subject = {{"CN", "42"}}}, &authority);
    const Identity selfSigned(CertificateSpec{}); // and of another name
    const auto attempt = [&](CurlHelper helper, bool verify) {
        const TcpServer server(overTls({selfSigned, nullptr}));
        helper.setCertificateVerification(verify);
        return curlCodeOf([&] { get(helper, url(server, "https")); });
    };
    EXPECT_EQ(attempt(http(false), true), CURLE_PEER_FAILED_VERIFICATION);
    EXPECT_EQ(attempt(http(true), false), 0);
    EXPECT_EQ(m_response, "ok");

    const TcpServer server(overTls({selfSigned, &authority}));
    const Path certificate = m_dir.file("certificate", client.pem());
    const Path key = m_dir.file("key", client.keyPem());
    EXPECT_EQ(http(false).getRequestWithBasicAuth(
                  url(server, "https"), m_response, m_log.logger(),
                  [&](Path& first, Path& second) {
                      first = certificate;
                      second = key;
                  },
                  {}, 5s),
        200);
}

TEST_F(HttpTest, TracesTextsButNoSecrets)
{
    m_config.values["trace.http"] = 1;
    const TcpServer server(plain("HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nanswer"));
    (void)http().postRequestWithBasicAuth(
        url(server), json("request"), m_response, m_log.logger(), [](Path&, Path&) {}, {"Cookie: sweet"}, 5s);
    ASSERT_FALSE(m_log.lines().empty());
    for (const std::string& line : m_log.lines()) EXPECT_THAT(line, StartsWith("3 CURLINFO_TEXT: "));
    for (const char* const secret : {"secret", "dXNlcjpzZWNyZXQ=", "answer", "request", "sweet"})
        for (const std::string& line : m_log.lines()) EXPECT_THAT(line, testing::Not(HasSubstr(secret)));

    using Case = std::tuple<int, std::string, std::string>; // an empty line: none
    const std::string full(512, 'x');
    for (const auto& [type, text, line] :
        {
            Case{0, full + "\n", "CURLINFO_TEXT: " + full},
            Case{0, full.substr(1) + "\x01zz", "CURLINFO_TEXT: " + full.substr(1) + "<01>... <truncated remaining 2B>"},
            Case{0, "a\tb\n\n", "CURLINFO_TEXT: a\tb\n"},
            Case{0, "\xc3\x7f", "CURLINFO_TEXT: <c3><7f>"},
            Case{7, "new", "Unknown curlinfo_type (7): new"},
            Case{0, "[Proxy-Authorization: Basic abc]\nnext", "CURLINFO_TEXT: [Proxy-Authorization: <redacted>\nnext"},
            Case{0, "[cookie \t:a] [cookie: b]\nCookie:c", "CURLINFO_TEXT: [cookie \t: <redacted>\nCookie: <redacted>"},
            Case{0, "no authorization\nUses ('u:p@ss@h'", "CURLINFO_TEXT: no authorization\nUses ('<redacted>@h'"},
            Case{0, "subject: O=L'Air; CN=h; mail=a@h", "CURLINFO_TEXT: subject: O=L'Air; CN=h; mail=a@h"},
            Case{1, "header", ""},
            Case{6, "encrypted", ""},
        }) {
        CapturingLogger log;
        std::string data = text;
        using Resources = CurlHelper::CurlAndHeaders;
        EXPECT_EQ(Resources::log_callback(nullptr, curl_infotype(type), data.data(), data.size(), &log.logger()), 0);
        EXPECT_EQ(log.lines(), std::vector<std::string>(line.empty() ? 0 : 1, "3 " + line));
    }
}

TEST_F(HttpTest, Downloads)
{
    const Path target = m_dir.file("file", "longer than that");
    const TcpServer first(plain(kAnswer));
    http().downloadFile(url(first), target, m_log.logger());
    EXPECT_EQ(contentOf(target.u8string()), "oknger than that") << "not truncated";
    const TcpServer server(plain(kAnswer));
    const TcpServer none(plain("HTTP/1.1 404 No\r\n\r\n"));
    EXPECT_EQ(curlCodeOf([&] { http().downloadFile(url(none), target, m_log.logger()); }), CURLE_HTTP_RETURNED_ERROR);
    EXPECT_EQ(curlCodeOf([&] { http().downloadFile(url(server), "/dev/full", m_log.logger()); }), CURLE_WRITE_ERROR);
    EXPECT_EQ(thrownBy([&] { http().downloadFile("http://h", m_dir / "no/file", m_log.logger()); }),
        posix("Failed to open file " + (m_dir / "no/file"), ENOENT));
    EXPECT_EQ(CurlHelper::writeDataCallback(nullptr, 1, 1, &m_response), 0U);
    EXPECT_THAT(CurlHelper::getVersionInfo(),
        MatchesRegex("libcurl: [0-9.]+.*, SSL: .*, libz: [0-9.]+, Features: SSL HTTP2.*"));
}
