#include "agent/BlockRange.h"

#include "agent/Format.h"

#include <ios>
#include <locale>
#include <sstream>
#include <stdexcept>
#include <type_traits>

namespace agent {

static_assert(std::is_trivially_copyable_v<BlockRange>);

namespace {

constexpr unsigned int kLargestPowerOfTwo = 0x80000000U; // that 32 bits hold
constexpr unsigned long kDefaultBlockSize = 4096;
constexpr unsigned long kMaxBlockCount = 0xFFFFFFFFUL;

// A number in the stream's base, but without the grouping of its locale: programs read these texts back. The stream
// itself is left alone; giving it another locale would flush a file.
struct Ungrouped {
    unsigned long value;
};

std::ostream& operator<<(std::ostream& os, const Ungrouped& number)
{
    if (os.getloc() == std::locale::classic()) return os << number.value;
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text.flags(os.flags());
    text << number.value;
    return os << text.str();
}

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
    return os << '[' << Ungrouped{range.start()} << ", " << Ungrouped{range.end()} << ')';
}

void logTo(std::ostream& os, const BlockRange& range, unsigned long blockSize)
{
    const FlagsAddedBack flags(os);
    constexpr int kPrecision = 6;
    const unsigned long byteCount = range.count() * blockSize;
    const BlockRange bytes(range.start() * blockSize, byteCount);

    os << std::dec;
    os << "Byte range: " << bytes << " ([" << formatBytes(bytes.start(), kPrecision) << ", "
       << formatBytes(bytes.end(), kPrecision) << "))" << std::endl;
    os << "Byte count: " << Ungrouped{byteCount} << " (" << formatBytes(byteCount, kPrecision) << ')' << std::endl;
    os << "Block range: " << range << " (" << withBasePrefix << range << ')' << std::endl;
    os << "Block count: " << std::dec << Ungrouped{range.count()} << " (" << withBasePrefix << Ungrouped{range.count()}
       << ')' << std::endl;
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
