// Socket reads and writes with time-outs, by processor time of this side, against bare poll, read and write; and how
// near the rate limiter comes to its budget, and at what price.

#include "agent/vnt/SocketIo.h"
#include "agent/vnt/protocol/RateLimiter.h"

#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

using agent::vnt::SocketIo;
using ::vnt::common::Ret;

constexpr std::size_t kTurn = 4'194'304;     // bytes an iteration
constexpr unsigned int kLargest = 1'048'576; // bytes of a piece
constexpr std::chrono::seconds kTimeout{30};

using Peer = void (*)(int fd);
using Move = std::size_t (*)(int fd, char* buffer, unsigned int size); // one call; returns the bytes moved

double processorSeconds()
{
    timespec time{};
    (void)clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

/// A connection over the loopback, non-blocking at this end. Another process at its other end sends or receives as fast
/// as it can.
class Connection {
public:
    explicit Connection(Peer peer)
    {
        sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
        auto* const raw = reinterpret_cast<sockaddr*>(&address);
        socklen_t length = sizeof address;
        const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
        const bool isListening = ::bind(listener, raw, length) == 0 && ::listen(listener, 1) == 0;
        if (!isListening || ::getsockname(listener, raw, &length) != 0 || ::connect(m_fd, raw, length) != 0)
            std::abort();
        const int accepted = ::accept(listener, nullptr, nullptr);
        (void)::close(listener);
        m_peer = ::fork();
        if (m_peer == 0) {
            (void)::close(m_fd);
            peer(accepted);
            ::_exit(0);
        }
        (void)::close(accepted);
        (void)::fcntl(m_fd, F_SETFL, O_NONBLOCK);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection()
    {
        (void)::close(m_fd);
        (void)::waitpid(m_peer, nullptr, 0);
    }

    int fd() const { return m_fd; }

private:
    int m_fd = ::socket(AF_INET, SOCK_STREAM, 0);
    pid_t m_peer = -1;
};

void receiveAll(int fd)
{
    std::vector<char> buffer(kLargest);
    while (::read(fd, buffer.data(), buffer.size()) > 0) {
    }
}

void sendForEver(int fd)
{
    const std::vector<char> buffer(kLargest);
    while (::send(fd, buffer.data(), buffer.size(), MSG_NOSIGNAL) > 0) {
    }
}

std::size_t readByAgentkit(int fd, char* buffer, unsigned int size)
{
    return SocketIo::read(fd, kTimeout, size, buffer).code == 0 ? size : 0;
}

std::size_t writeByAgentkit(int fd, char* buffer, unsigned int size)
{
    return SocketIo::write(fd, kTimeout, size, buffer).code == 0 ? size : 0;
}

std::size_t readBare(int fd, char* buffer, unsigned int size)
{
    pollfd wait{fd, POLLRDNORM, 0};
    (void)::poll(&wait, 1, 1000);
    return static_cast<std::size_t>(::read(fd, buffer, size));
}

std::size_t writeBare(int fd, char* buffer, unsigned int size)
{
    std::size_t written = 0;
    while (written < size) {
        pollfd wait{fd, POLLWRNORM, 0};
        (void)::poll(&wait, 1, 1000);
        written += static_cast<std::size_t>(::write(fd, buffer + written, size - written));
    }
    return written;
}

void transfer(benchmark::State& state, Move move, Peer peer, unsigned int piece)
{
    const Connection connection(peer);
    std::vector<char> buffer(kLargest);
    std::int64_t moved = 0;
    std::int64_t calls = 0;
    for (auto _ : state) {
        const double start = processorSeconds();
        for (std::size_t turn = 0; turn < kTurn; ++calls) {
            const std::size_t count = move(connection.fd(), buffer.data(), piece);
            if (count == 0 || count > piece) std::abort();
            turn += count;
            moved += static_cast<std::int64_t>(count);
        }
        state.SetIterationTime(processorSeconds() - start);
    }
    state.SetBytesProcessed(moved);
    state.counters["bytes/call"] = static_cast<double>(moved) / static_cast<double>(calls);
}

/// A fixed rate, and writes of at most 1 MiB.
class FixedRate : public agent::core::IConnectionBandwidthManager {
public:
    explicit FixedRate(unsigned int rate)
        : m_rate(rate)
    {
    }
    bool isLimited() const override { return false; }
    void setLimited(bool /*limited*/) override {}
    unsigned int limitInBitsPerSecond() const override { return m_rate; }
    void setLimitInBitsPerSecond(unsigned int rate) override { m_rate = rate; }
    unsigned int nominalRateInBitsPerSecond() const override { return m_rate; }
    void setNominalRateInBitsPerSecond(unsigned int rate) override { m_rate = rate; }
    unsigned int maximumWriteSizeInBits() const override { return kLargest * 8; }

private:
    unsigned int m_rate;
};

// A second's worth of bytes in one write. The writer does nothing, so that all the processor time is the limiter's.
void pace(benchmark::State& state, unsigned int rate)
{
    FixedRate manager(rate);
    const std::vector<unsigned char> data(rate / 8);
    double calls = 0;
    double emptyCalls = 0;
    const double startOfProcessor = processorSeconds();
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        ::vnt::protocol::RateLimiter limiter(manager);
        const auto count = [&](const unsigned char*, unsigned int size) {
            ++(size == 0 ? emptyCalls : calls);
            return Ret();
        };
        (void)limiter.write(data.data(), static_cast<unsigned int>(data.size()), count);
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["share_of_budget"] = static_cast<double>(state.iterations()) / elapsed;
    state.counters["share_of_processor"] = (processorSeconds() - startOfProcessor) / elapsed;
    state.counters["pieces/s"] = calls / elapsed;
    state.counters["empty_calls/s"] = emptyCalls / elapsed;
}

const bool kRegistered = [] {
    for (unsigned int size = 1024; size <= kLargest; size *= 4) {
        const auto add = [&](const std::string& name, Move move, Peer peer) {
            const auto run = [=](benchmark::State& state) { transfer(state, move, peer, size); };
            benchmark::RegisterBenchmark((name + '/' + std::to_string(size)).c_str(), run)->UseManualTime();
        };
        add("socket_read/agentkit", readByAgentkit, sendForEver);
        add("socket_read/poll+read", readBare, sendForEver);
        add("socket_write/agentkit", writeByAgentkit, receiveAll);
        add("socket_write/poll+write", writeBare, receiveAll);
    }
    for (const unsigned int rate : {8'000'000U, 80'000'000U, 1'000'000'000U}) {
        const auto run = [=](benchmark::State& state) { pace(state, rate); };
        benchmark::RegisterBenchmark(("rate_limiter/agentkit/" + std::to_string(rate)).c_str(), run)->Iterations(2);
    }
    return true;
}();

} // namespace
