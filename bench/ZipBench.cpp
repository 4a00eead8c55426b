// Packing one file, by processor time: against zlib's deflate alone, with the same reads and writes and no checksum,
// and against Info-ZIP's program; all at level 6.

#include "agent/Zip.h"
#include "agent/info/Logger.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <zlib.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kLevel = 6;
constexpr std::size_t kPiece = 1'048'576;
constexpr std::size_t kSize = 32 * kPiece; // bytes of the file

std::string logText()
{
    std::mt19937 random(1); // NOLINT(cert-msc*): the same text each time
    std::string text;
    for (int i = 0; text.size() < kSize; ++i) {
        text += "2024-05-01T10:34:56." + std::to_string(random() % 1000) + "Z [TID " + std::to_string(random() % 50) +
                "] [DEBUG:]    FBRE Linux: Exclude extent { " + std::to_string(random()) + ", " +
                std::to_string(random() % 4096) + " }\n";
    }
    text.resize(kSize);
    return text;
}

// Text, zeros and noise by turns, as in an image of a disk.
std::string mixedData()
{
    std::string data = logText();
    std::mt19937 random(2); // NOLINT(cert-msc*): the same data each time
    for (std::size_t i = 0; i < data.size(); ++i) {
        if (i / kPiece % 3 == 1) data[i] = '\0';
        if (i / kPiece % 3 == 2) data[i] = static_cast<char>(random());
    }
    return data;
}

/// A directory with the file to pack, for the time of a benchmark.
class Place {
public:
    explicit Place(const std::string& data)
    {
        std::filesystem::create_directory(m_path);
        std::ofstream(source(), std::ios::binary) << data;
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;
    ~Place() { std::filesystem::remove_all(m_path); }

    std::string source() const { return m_path + "/source"; }
    std::string archive() const { return m_path + "/packed.zip"; }

private:
    std::string m_path = std::filesystem::temp_directory_path().string() + "/agentkit_zip_bench";
};

void packByAgentkit(const Place& place)
{
    agent::info::Logger silent{agent::info::Logger::Printer()};
    agent::Zip(silent).compress({{"source", place.source()}}, place.archive(), kLevel);
}

void packByZlib(const Place& place)
{
    std::ifstream in(place.source(), std::ios::binary);
    std::ofstream out(place.archive(), std::ios::binary);
    std::vector<char> piece(kPiece);
    std::vector<char> packed(65'536);
    z_stream stream{};
    (void)deflateInit2(&stream, kLevel, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    for (bool more = true; more;) {
        in.read(piece.data(), static_cast<std::streamsize>(piece.size()));
        more = in.good();
        stream.next_in = reinterpret_cast<Bytef*>(piece.data());
        stream.avail_in = static_cast<uInt>(in.gcount());
        do {
            stream.next_out = reinterpret_cast<Bytef*>(packed.data());
            stream.avail_out = static_cast<uInt>(packed.size());
            (void)deflate(&stream, more ? Z_NO_FLUSH : Z_FINISH);
            out.write(packed.data(), static_cast<std::streamsize>(packed.size() - stream.avail_out));
        } while (stream.avail_out == 0);
    }
    (void)deflateEnd(&stream);
}

void packByInfoZip(const Place& place)
{
    // NOLINTNEXTLINE(cert-env33-c): paths of our own making
    if (std::system(
            ("rm -f " + place.archive() + " && zip -6 -q -j " + place.archive() + " " + place.source()).c_str()) != 0)
        std::abort();
}

double processorSeconds()
{
    double seconds = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        rusage usage{};
        (void)getrusage(who, &usage);
        for (const timeval& time : {usage.ru_utime, usage.ru_stime})
            seconds += static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
    }
    return seconds;
}

void pack(benchmark::State& state, void (*packer)(const Place&), std::string (*data)())
{
    const Place place(data());
    for (auto _ : state) {
        const double start = processorSeconds();
        packer(place);
        state.SetIterationTime(processorSeconds() - start);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kSize));
}

BENCHMARK_CAPTURE(pack, text, packByAgentkit, logText)->Name("zip/agentkit/text")->UseManualTime();
BENCHMARK_CAPTURE(pack, text, packByZlib, logText)->Name("zip/zlib/text")->UseManualTime();
BENCHMARK_CAPTURE(pack, text, packByInfoZip, logText)->Name("zip/infozip/text")->UseManualTime();
BENCHMARK_CAPTURE(pack, mixed, packByAgentkit, mixedData)->Name("zip/agentkit/mixed")->UseManualTime();
BENCHMARK_CAPTURE(pack, mixed, packByZlib, mixedData)->Name("zip/zlib/mixed")->UseManualTime();
BENCHMARK_CAPTURE(pack, mixed, packByInfoZip, mixedData)->Name("zip/infozip/mixed")->UseManualTime();

} // namespace
