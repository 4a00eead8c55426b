#include "agent/crc32c.h"

#include "block/Crc32cPolynomial.h"

#include <atomic>
#include <cstring>

#if defined(__x86_64__)
#include <cpuid.h>
#include <nmmintrin.h>
#endif

namespace {

using agent::detail::Crc32cTable;
using agent::detail::makeSliceTable;

// Slicing: the number is the distance, in bits, from the byte that the table serves to the end of the register
// after the step; 32 is the ordinary table for a byte at a time.
constexpr Crc32cTable crc_tableil8_o32 = makeSliceTable(0);
constexpr Crc32cTable crc_tableil8_o40 = makeSliceTable(1);
constexpr Crc32cTable crc_tableil8_o48 = makeSliceTable(2);
constexpr Crc32cTable crc_tableil8_o56 = makeSliceTable(3);
constexpr Crc32cTable crc_tableil8_o64 = makeSliceTable(4);
constexpr Crc32cTable crc_tableil8_o72 = makeSliceTable(5);
constexpr Crc32cTable crc_tableil8_o80 = makeSliceTable(6);
constexpr Crc32cTable crc_tableil8_o88 = makeSliceTable(7);
static_assert(crc_tableil8_o32[1] == 0xF26B8303);

template <typename Word>
Word load(const unsigned char* bytes)
{
    Word word = 0;
    std::memcpy(&word, bytes, sizeof word);
    return word;
}

std::uint32_t addByte(std::uint32_t crc, unsigned char byte)
{
    return crc_tableil8_o32[(crc ^ byte) & 0xFF] ^ (crc >> 8);
}

std::uint32_t addBytes(std::uint32_t crc, const unsigned char* bytes, unsigned long length)
{
    for (unsigned long i = 0; i < length; ++i) crc = addByte(crc, bytes[i]);
    return crc;
}

// The bytes before the next address that is a multiple of four.
unsigned long bytesToAlignment(const unsigned char* bytes, unsigned long length)
{
    const unsigned long lead = -reinterpret_cast<std::uintptr_t>(bytes) % 4;
    return lead < length ? lead : length;
}

std::uint32_t nearTables(std::uint32_t word)
{
    return crc_tableil8_o56[word & 0xFF] ^ crc_tableil8_o48[word >> 8 & 0xFF] ^ crc_tableil8_o40[word >> 16 & 0xFF] ^
           crc_tableil8_o32[word >> 24];
}

std::uint32_t farTables(std::uint32_t word)
{
    return crc_tableil8_o88[word & 0xFF] ^ crc_tableil8_o80[word >> 8 & 0xFF] ^ crc_tableil8_o72[word >> 16 & 0xFF] ^
           crc_tableil8_o64[word >> 24];
}

#if defined(__x86_64__)

using agent::detail::ZeroShift;

bool hasCrcInstruction()
{
    unsigned int eax = 0;
    unsigned int ebx = 0;
    unsigned int ecx = 0;
    unsigned int edx = 0;
    return __get_cpuid(1, &eax, &ebx, &ecx, &edx) != 0 && (ecx & bit_SSE4_2) != 0;
}

// The instruction has a latency of three cycles but may start in each: three chains side by side keep it busy.
// Moves `bytes` on, by as many stretches of three chains as fit.
template <unsigned long ChainBytes>
__attribute__((target("sse4.2"))) std::uint64_t addChains(
    std::uint64_t crc, const unsigned char*& bytes, unsigned long& length)
{
    static_assert(ChainBytes % 8 == 0);
    while (length >= 3 * ChainBytes) {
        std::uint64_t second = 0;
        std::uint64_t third = 0;
        for (const unsigned char* const end = bytes + ChainBytes; bytes != end; bytes += 8) {
            crc = _mm_crc32_u64(crc, load<std::uint64_t>(bytes));
            second = _mm_crc32_u64(second, load<std::uint64_t>(bytes + ChainBytes));
            third = _mm_crc32_u64(third, load<std::uint64_t>(bytes + 2 * ChainBytes));
        }
        crc = ZeroShift<ChainBytes>::apply(static_cast<std::uint32_t>(crc)) ^ second;
        crc = ZeroShift<ChainBytes>::apply(static_cast<std::uint32_t>(crc)) ^ third;
        bytes += 2 * ChainBytes;
        length -= 3 * ChainBytes;
    }
    return crc;
}

#endif

} // namespace

uint32_t crc32c_sarwate(uint32_t crc, const void* data, unsigned long length)
{
    return addBytes(crc, static_cast<const unsigned char*>(data), length);
}

uint32_t crc32c_sarwate_ms(uint32_t crc, const void* data, unsigned long length)
{
    return ~crc32c_sarwate(crc, data, length);
}

uint32_t crc32c_slice_4(uint32_t crc, const void* data, unsigned long length)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    const unsigned long lead = bytesToAlignment(bytes, length);
    crc = addBytes(crc, bytes, lead);
    bytes += lead;
    length -= lead;
    for (; length >= 4; bytes += 4, length -= 4) crc = nearTables(crc ^ load<std::uint32_t>(bytes));
    return addBytes(crc, bytes, length);
}

uint32_t crc32c_slice_8(uint32_t crc, const void* data, unsigned long length)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    const unsigned long lead = bytesToAlignment(bytes, length);
    crc = addBytes(crc, bytes, lead);
    bytes += lead;
    length -= lead;
    for (; length >= 8; bytes += 8, length -= 8) {
        crc = farTables(crc ^ load<std::uint32_t>(bytes)) ^ nearTables(load<std::uint32_t>(bytes + 4));
    }
    return addBytes(crc, bytes, length);
}

#if defined(__x86_64__)

__attribute__((target("sse4.2"))) uint32_t crc32c_hw32(uint32_t crc, const void* data, unsigned long length)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (; length >= 4; bytes += 4, length -= 4) crc = _mm_crc32_u32(crc, load<std::uint32_t>(bytes));
    return crc;
}

__attribute__((target("sse4.2"))) uint32_t crc32c_hw64(uint32_t crc, const void* data, unsigned long length)
{
    // The longer a chain, the better the processor fetches the three places ahead: 256 KiB reads as fast as
    // memory delivers. 1360, because three of them fill a page but for two words; the shortest is for sectors.
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::uint64_t wide = addChains<256UL << 10>(crc, bytes, length);
    wide = addChains<16UL << 10>(wide, bytes, length);
    wide = addChains<1360>(wide, bytes, length);
    wide = addChains<168>(wide, bytes, length);
    for (; length >= 8; bytes += 8, length -= 8) wide = _mm_crc32_u64(wide, load<std::uint64_t>(bytes));
    return static_cast<std::uint32_t>(wide);
}

#endif

uint32_t crc32c(uint32_t crc, const void* data, unsigned long length)
{
    using Routine = uint32_t (*)(uint32_t, const void*, unsigned long);
    // Two threads may both choose on first use; they choose alike.
    static std::atomic<Routine> chosen{nullptr};
    Routine routine = chosen.load(std::memory_order_relaxed);
    if (routine == nullptr) {
#if defined(__x86_64__)
        routine = hasCrcInstruction() ? crc32c_hw64 : crc32c_slice_8;
#else
        routine = crc32c_slice_8;
#endif
        chosen.store(routine, std::memory_order_relaxed);
    }
    return routine(crc, data, length);
}
