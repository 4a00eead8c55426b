// TLS, by the processor time of the measured side alone: the stream against bare SSL_write and SSL_read with a context
// of the same settings, and against TCP without TLS. The peer works on a thread of its own.

#include "TestCertificates.h"

#include "agent/CertificateStoreFactory.h"
#include "agent/FileWriters.h"
#include "agent/OpenSSLStream.h"
#include "agent/info/Logger.h"

#include <benchmark/benchmark.h>
#include <poll.h>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

namespace {

using agent::test::Identity;

constexpr std::size_t kBatch = 4UL << 20; // bytes of one iteration
constexpr std::chrono::seconds kTimeout{10};

enum class Direction { Write, Read };

void require(bool isDone)
{
    if (!isDone) std::abort();
}

/// An authority that this process trusts, and what it has issued, as files too.
struct Pki {
    Pki()
    {
        std::filesystem::create_directory(folder);
        agent::truncateAndWrite(logger, folder + "/authority", authority.pem());
        require(::setenv("SSL_CERT_FILE", (folder + "/authority").c_str(), 1) == 0);
        agent::CertificateStoreFactory(logger).createStore(files)->addCertificate(client.pem(), client.keyPem());
        (void)std::signal(SIGPIPE, SIG_IGN); // the bare loops raise it
    }
    Pki(const Pki&) = delete;
    Pki& operator=(const Pki&) = delete;
    ~Pki() { std::filesystem::remove_all(folder); }

    agent::info::Logger logger{agent::info::Logger::Printer()};
    std::string folder = std::filesystem::temp_directory_path().string() + "/agentkit_tls_bench";
    agent::FileCertificateStoreDescriptor files{folder + "/certificate", folder + "/key", "", ""};
    Identity authority{agent::test::CertificateSpec{.subject = {{"CN", "Authority"}}}};
    Identity client{agent::test::CertificateSpec{}, &authority};
    Identity server{{.names = "IP:127.0.0.1"}, &authority};
};

Pki& pki()
{
    static Pki instance;
    return instance;
}

std::vector<char>& buffer(std::size_t size)
{
    static thread_local std::vector<char> data;
    if (data.size() < size) data.assign(size, 'x');
    return data;
}

void awaitSocket(int fd, short events)
{
    pollfd wait{fd, events, 0};
    require(::poll(&wait, 1, -1) == 1);
}

/// The measured end, of one of three kinds. Each moves `size` bytes.
class AgentkitEnd {
public:
    explicit AgentkitEnd(const std::shared_ptr<agent::TCPConnector>& connector)
        : m_stream(
              pki().logger, connector, agent::CertificateStoreFactory(pki().logger).createStore(pki().files), kTimeout)
    {
        m_stream.connect();
    }
    void write(std::size_t size) { m_stream.write(buffer(size).data(), static_cast<unsigned int>(size)); }
    void read(std::size_t size)
    {
        unsigned int count = 0;
        for (std::size_t done = 0; done < size; done += count)
            m_stream.read(buffer(size).data(), static_cast<unsigned int>(size - done), count);
    }

private:
    agent::OpenSSLStream m_stream;
};

class OpenSslEnd {
public:
    explicit OpenSslEnd(const std::shared_ptr<agent::TCPConnector>& connector)
        : m_context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free)
        , m_ssl(nullptr, SSL_free)
    {
        SSL_CTX_set_options(m_context.get(), SSL_OP_NO_SSLv3 | SSL_OP_NO_TLSv1 | SSL_OP_NO_TLSv1_1);
        SSL_CTX_set_default_verify_paths(m_context.get());
        SSL_CTX_set_verify(m_context.get(), SSL_VERIFY_PEER, nullptr);
        SSL_CTX_use_certificate(m_context.get(), pki().client.x509());
        SSL_CTX_use_PrivateKey(m_context.get(), pki().client.key());
        m_ssl.reset(SSL_new(m_context.get()));
        SSL_set_fd(m_ssl.get(), connector->fd());
        SSL_set1_host(m_ssl.get(), "127.0.0.1");
        whileBlocked([&] { return SSL_connect(m_ssl.get()); });
    }
    void write(std::size_t size)
    {
        whileBlocked([&] { return SSL_write(m_ssl.get(), buffer(size).data(), static_cast<int>(size)); });
    }
    void read(std::size_t size)
    {
        for (std::size_t done = 0; done < size;)
            done += static_cast<std::size_t>(whileBlocked(
                [&] { return SSL_read(m_ssl.get(), buffer(size).data(), static_cast<int>(size - done)); }));
    }

private:
    template <typename Call>
    int whileBlocked(Call call)
    {
        int count = 0;
        while ((count = call()) <= 0) {
            const int error = SSL_get_error(m_ssl.get(), count);
            require(error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE);
            awaitSocket(SSL_get_fd(m_ssl.get()), error == SSL_ERROR_WANT_READ ? POLLIN : POLLOUT);
        }
        return count;
    }

    std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> m_context;
    std::unique_ptr<SSL, decltype(&SSL_free)> m_ssl;
};

class TcpEnd {
public:
    explicit TcpEnd(const std::shared_ptr<agent::TCPConnector>& connector)
        : m_fd(connector->fd())
    {
    }
    void write(std::size_t size)
    {
        moveAll(size, POLLOUT, [this](char* data, std::size_t rest) { return ::write(m_fd, data, rest); });
    }
    void read(std::size_t size)
    {
        moveAll(size, POLLIN, [this](char* data, std::size_t rest) { return ::read(m_fd, data, rest); });
    }

private:
    template <typename Call>
    void moveAll(std::size_t size, short events, Call call)
    {
        for (std::size_t done = 0; done < size;) {
            const ssize_t count = call(buffer(size).data(), size - done);
            if (count > 0) {
                done += static_cast<std::size_t>(count);
            } else {
                awaitSocket(m_fd, events);
            }
        }
    }

    int m_fd;
};

// The peer takes or gives as much as it can, until the connection is gone.
void servePlainly(int fd, Direction direction)
{
    auto& data = buffer(kBatch);
    while ((direction == Direction::Write ? ::read(fd, data.data(), data.size())
                                          : ::write(fd, data.data(), data.size())) > 0) {
    }
}

void serveTls(SSL* ssl, Direction direction)
{
    auto& data = buffer(kBatch);
    const auto size = static_cast<int>(data.size());
    while ((direction == Direction::Write ? SSL_read(ssl, data.data(), size) : SSL_write(ssl, data.data(), size)) > 0) {
    }
}

double threadSeconds()
{
    timespec time{};
    require(::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time) == 0);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

template <typename End>
void transfer(benchmark::State& state, Direction direction, std::size_t piece)
{
    constexpr bool isPlain = std::is_same_v<End, TcpEnd>;
    const agent::test::TcpServer server(
        isPlain ? std::function<void(int)>([=](int fd) { servePlainly(fd, direction); })
                : agent::test::tls({pki().server, &pki().authority}, [=](SSL* ssl) { serveTls(ssl, direction); }));
    const auto connector = std::make_shared<agent::TCPConnector>("127.0.0.1", server.port(), kTimeout);
    require(connector->connect().code == 0);
    End end(connector);
    for (auto _ : state) {
        const double start = threadSeconds();
        for (std::size_t done = 0; done < kBatch; done += piece)
            direction == Direction::Write ? end.write(piece) : end.read(piece);
        state.SetIterationTime(threadSeconds() - start);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kBatch));
}

[[maybe_unused]] const bool isRegistered = [] {
    for (const auto& [name, direction] :
        {std::pair("tls_write/", Direction::Write), std::pair("tls_read/", Direction::Read)}) {
        for (std::size_t piece = 1 << 10; piece <= 1 << 20; piece *= 4) {
            const auto add = [&piece, group = name, way = direction](const std::string& variant, auto run) {
                benchmark::RegisterBenchmark((group + variant + "/" + std::to_string(piece)).c_str(), run, way, piece)
                    ->UseManualTime();
            };
            add("agentkit", transfer<AgentkitEnd>);
            add("openssl", transfer<OpenSslEnd>);
            add("tcp", transfer<TcpEnd>);
        }
    }
    return true;
}();

} // namespace
