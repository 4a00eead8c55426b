// JSON requests over loopback, by the processor time of the client's thread: against a bare libcurl easy handle with
// the same options. A connection a request on both sides.

#include "agent/CurlHelper.h"
#include "agent/Format.h"
#include "agent/info/Logger.h"

#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

namespace {

constexpr std::chrono::seconds kTimeout{10};

void require(bool isDone)
{
    if (!isDone) std::abort();
}

/// Answers every request alike, on a thread of its own; the requests fit one packet.
class Server {
public:
    Server()
    {
        auto* const address = reinterpret_cast<sockaddr*>(&m_address);
        socklen_t length = sizeof m_address;
        require(::bind(m_listener, address, length) == 0 && ::listen(m_listener, 64) == 0);
        require(::getsockname(m_listener, address, &length) == 0);
        m_thread = std::thread([this] { serve(); });
    }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;
    ~Server()
    {
        (void)::shutdown(m_listener, SHUT_RDWR);
        m_thread.join();
        (void)::close(m_listener);
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(ntohs(m_address.sin_port)) + "/"; }

private:
    void serve() const
    {
        const std::string answer = "HTTP/1.1 200 OK\r\nContent-Length: 14\r\n\r\n{\"state\":\"up\"}";
        char buffer[4096];
        for (int fd = 0; (fd = ::accept(m_listener, nullptr, nullptr)) >= 0; (void)::close(fd)) {
            (void)::read(fd, buffer, sizeof buffer);
            (void)::send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        }
    }

    sockaddr_in m_address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    int m_listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::thread m_thread;
};

struct NoConfig : agent::IConfig {
    void getValue(const std::string& /*key*/, bool& /*value*/) const override {}
    void getValue(const std::string& /*key*/, unsigned long& /*value*/) const override {}
    void getValue(const std::string& /*key*/, std::string& /*value*/) const override {}
    std::string getJSON() const override { return {}; }
    void setJSON(nlohmann::json /*document*/, bool /*replace*/) override {}
};

const nlohmann::json& document()
{
    static const nlohmann::json json = {
        {"host", "volume-server-7"}, {"blocks", {1, 2, 3, 5, 8, 13, 21}}, {"done", false}};
    return json;
}

void agentkitRequest(const std::string& url, bool isPost)
{
    static const NoConfig config;
    static agent::info::Logger silent{agent::info::Logger::Printer()};
    static const agent::CurlHelper http(config, true, true, "", {});
    std::string response;
    require((isPost ? http.postRequest(url, document(), response, silent, kTimeout)
                    : http.getRequest(url, response, silent, {}, kTimeout)) == 200);
}

std::size_t append(char* data, std::size_t size, std::size_t count, void* response)
{
    static_cast<std::string*>(response)->append(data, size * count);
    return size * count;
}

int ignore(CURL* /*handle*/, curl_infotype /*type*/, char* /*data*/, std::size_t /*size*/, void* /*pointer*/)
{
    return 0;
}

void libcurlRequest(const std::string& url, bool isPost)
{
    std::string response;
    const std::string body = isPost ? document().dump() : "";
    const std::string date = agent::format_utc(std::chrono::system_clock::now(), "Date: %a, %d %b %Y %H:%M:%S %z");
    CURL* const curl = curl_easy_init();
    curl_slist* headers = nullptr;
    for (const char* const header :
        {"Content-Type: application/json", "Accept: application/json", "charsets: utf-8", date.c_str()})
        headers = curl_slist_append(headers, header);
    curl_easy_setopt(curl, CURLOPT_DEBUGFUNCTION, ignore);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    if (isPost) {
        curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body.c_str());
    } else {
        curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, "GET");
    }
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, append);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 10L);
    long status = 0;
    require(
        curl_easy_perform(curl) == CURLE_OK && curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status) == CURLE_OK);
    require(status == 200);
    curl_easy_cleanup(curl);
    curl_slist_free_all(headers);
}

double threadSeconds()
{
    timespec time{};
    require(::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time) == 0);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

void requests(benchmark::State& state, void (*request)(const std::string&, bool), bool isPost)
{
    (void)agent::CurlHelper::Setup();
    const Server server;
    const std::string url = server.url();
    for (auto _ : state) {
        const double start = threadSeconds();
        request(url, isPost);
        state.SetIterationTime(threadSeconds() - start);
    }
}

BENCHMARK_CAPTURE(requests, get, agentkitRequest, false)->Name("http/agentkit/get")->UseManualTime();
BENCHMARK_CAPTURE(requests, get, libcurlRequest, false)->Name("http/libcurl/get")->UseManualTime();
BENCHMARK_CAPTURE(requests, post, agentkitRequest, true)->Name("http/agentkit/post")->UseManualTime();
BENCHMARK_CAPTURE(requests, post, libcurlRequest, true)->Name("http/libcurl/post")->UseManualTime();

} // namespace
