// The checksums over blocks from a page to a large read, against a library made for them, the portable routine
// and a bare read of the memory.

#include "agent/BufferChecksum.h"
#include "agent/crc32c.h"

#include <benchmark/benchmark.h>
#include <isa-l/crc.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using Buffer = std::vector<char>;
using Routine = std::uint32_t (*)(Buffer&);

std::uint32_t agentkitCrc32c(Buffer& data)
{
    return crc32c(0, data.data(), data.size());
}
std::uint32_t slicingBy8(Buffer& data)
{
    return crc32c_slice_8(0, data.data(), data.size());
}
std::uint32_t libisalCrc32c(Buffer& data)
{
    return crc32_iscsi(reinterpret_cast<unsigned char*>(data.data()), static_cast<int>(data.size()), 0);
}

std::uint32_t agentkitCrc32(Buffer& data)
{
    unsigned int checksum = 0;
    const agent::BufferChecksumGeneratorGCryptCRC32 generator;
    (void)generator.generateChecksum(data.data(), static_cast<unsigned int>(data.size()), checksum);
    return checksum;
}
std::uint32_t libisalCrc32(Buffer& data)
{
    return crc32_gzip_refl(0, reinterpret_cast<const unsigned char*>(data.data()), data.size());
}

// The floor: what it takes to touch the data at all.
std::uint32_t readWords(Buffer& data)
{
    std::uint64_t sum = 0;
    for (std::size_t i = 0; i < data.size(); i += sizeof sum) {
        std::uint64_t word = 0;
        std::memcpy(&word, &data[i], sizeof word);
        sum += word;
    }
    return static_cast<std::uint32_t>(sum);
}

// @param expected  what the routine has to agree with; null: it is no checksum
void checksum(benchmark::State& state, Routine routine, Routine expected, std::size_t size)
{
    Buffer data(size);
    for (std::size_t i = 0; i < size; ++i) data[i] = static_cast<char>(i * 31 + i / 256);
    if (expected != nullptr && routine(data) != expected(data)) state.SkipWithError("another checksum");
    for (auto _ : state) benchmark::DoNotOptimize(routine(data));
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(size));
}

void add(const std::string& name, Routine routine, Routine expected)
{
    for (const std::size_t size : {4UL << 10, 64UL << 10, 1UL << 20, 64UL << 20}) {
        const auto run = [=](benchmark::State& state) { checksum(state, routine, expected, size); };
        benchmark::RegisterBenchmark((name + "/" + std::to_string(size)).c_str(), run)->MinTime(0.2);
    }
}

const bool registered = [] {
    add("crc32c/agentkit", agentkitCrc32c, slicingBy8);
    add("crc32c/libisal", libisalCrc32c, slicingBy8);
    add("crc32c/slice_8", slicingBy8, slicingBy8);
    add("crc32c/read", readWords, nullptr);
    add("crc32/agentkit", agentkitCrc32, libisalCrc32);
    add("crc32/libisal", libisalCrc32, libisalCrc32);
    add("crc32/read", readWords, nullptr);
    return true;
}();

} // namespace
