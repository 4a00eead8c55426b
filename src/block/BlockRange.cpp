#include "agent/BlockRange.h"

#include "agent/Format.h"

#include <ios>
#include <locale>
#include <stdexcept>
#include <type_traits>

namespace agent {

static_assert(std::is_trivially_copyable_v<BlockRange>);

namespace {

constexpr unsigned int kLargestPowerOfTwo = 0x80000000U; // that 32 bits hold
constexpr unsigned long kDefaultBlockSize = 4096;
constexpr unsigned long kMaxBlockCount = 0xFFFFFFFFUL;

// Numbers of a range are read back by programs: no grouping, whatever locale the stream has.
class ClassicNumbers {
public:
    explicit ClassicNumbers(std::ostream& os)
        : m_os(os)
        , m_saved(os.getloc())
    {
        if (m_saved != std::locale::classic()) m_os.imbue(std::locale::classic());
    }
    ClassicNumbers(const ClassicNumbers&) = delete;
    ClassicNumbers& operator=(const ClassicNumbers&) = delete;
    ~ClassicNumbers()
    {
        if (m_saved != std::locale::classic()) m_os.imbue(m_saved);
    }

private:
    std::ostream& m_os;
    std::locale m_saved;
};

// Adds the flags that the stream came with to those that it has at the end.
class FlagsAddedBack {
public:
    explicit FlagsAddedBack(std::ostream& os)
        : m_os(os)
        , m_saved(os.flags())
    {
    }
    FlagsAddedBack(const FlagsAddedBack&) = delete;
    FlagsAddedBack& operator=(const FlagsAddedBack&) = delete;
    ~FlagsAddedBack() { m_os.setf(m_saved); }

private:
    std::ostream& m_os;
    std::ios_base::fmtflags m_saved;
};

std::ostream& withBasePrefix(std::ostream& os)
{
    return os << std::hex << std::showbase;
}

} // namespace

std::ostream& operator<<(std::ostream& os, const BlockRange& range)
{
    const ClassicNumbers classic(os);
    return os << '[' << range.start() << ", " << range.end() << ')';
}

void logTo(std::ostream& os, const BlockRange& range, unsigned long blockSize)
{
    const ClassicNumbers classic(os);
    const FlagsAddedBack flags(os);
    constexpr int kPrecision = 6;
    const unsigned long firstByte = range.start() * blockSize;
    const unsigned long byteCount = range.count() * blockSize;
    const unsigned long endByte = firstByte + byteCount;

    os << std::dec;
    os << "Byte range: [" << firstByte << ", " << endByte << ") ([" << formatBytes(firstByte, kPrecision) << ", "
       << formatBytes(endByte, kPrecision) << "))" << std::endl;
    os << "Byte count: " << byteCount << " (" << formatBytes(byteCount, kPrecision) << ')' << std::endl;
    os << "Block range: " << range << " (" << withBasePrefix << range << ')' << std::endl;
    os << "Block count: " << std::dec << range.count() << " (" << withBasePrefix << range.count() << ')' << std::endl;
}

BlockRange scaleBlockRangeFSLargerBlockSize(unsigned long ratio, const BlockRange& range, unsigned long offset)
{
    const unsigned long rest = range.end() % ratio; // how far the end sticks into its last large block
    const unsigned long whole = range.count() - rest;
    const bool isNegative = static_cast<long>(whole) < 0;
    return {(range.start() + offset + ratio - 1) / ratio, isNegative ? 0 : whole / ratio};
}

BlockRange scaleBlockRangeFSSmallerBlockSize(unsigned long ratio, const BlockRange& range, unsigned long offset)
{
    return {(range.start() + offset) * ratio, range.count() * ratio};
}

unsigned int roundUpNextHighestPowerOfTwo(unsigned int v)
{
    if (v == 0) return 1;
    if (v > kLargestPowerOfTwo) throw std::runtime_error("Next largest power of 2 exceeds uint32_t capacity");
    unsigned int x = v - 1;
    for (unsigned int shift = 1; shift <= 16; shift *= 2) x |= x >> shift;
    return x + 1;
}

bool isPowerOfTwo(unsigned long v)
{
    return v != 0 && (v & (v - 1)) == 0;
}

unsigned long adjustBlockSizeSoBlockCountFitsInto32Bits(unsigned long totalSize, unsigned long blockSize)
{
    unsigned long size = blockSize > kLargestPowerOfTwo ? kDefaultBlockSize : blockSize;
    while (totalSize / size > kMaxBlockCount) {
        size = roundUpNextHighestPowerOfTwo(static_cast<unsigned int>(size + 1));
    }
    return size;
}

} // namespace agent
