#include "agent/MemoryOutputStreamBuffer.h"

#include <algorithm>
#include <limits>
#include <stdexcept>

namespace agent {

MemoryOutputStreamBuffer::MemoryOutputStreamBuffer(std::vector<char>& bytes, bool mayGrow)
    : m_bytes(bytes)
    , m_mayGrow(mayGrow)
{
    putFrom(0);
}

MemoryOutputStreamBuffer::~MemoryOutputStreamBuffer() = default;

// Makes the whole vector the put area, the next byte at `position`.
void MemoryOutputStreamBuffer::putFrom(std::size_t position)
{
    constexpr std::size_t kLongestBump = std::numeric_limits<int>::max(); // pbump takes an int
    setp(m_bytes.data(), m_bytes.data() + m_bytes.size());
    for (; position > kLongestBump; position -= kLongestBump) pbump(static_cast<int>(kLongestBump));
    pbump(static_cast<int>(position));
}

MemoryOutputStreamBuffer::int_type MemoryOutputStreamBuffer::overflow(int_type character)
{
    if (!m_mayGrow) throw std::runtime_error("MemoryOutputStreamBuffer overflow was called and resizing is disabled.");

    const auto position = static_cast<std::size_t>(pptr() - pbase());
    m_bytes.resize(std::max(m_bytes.size() * 2, m_bytes.size() + 100));
    putFrom(position);
    if (!traits_type::eq_int_type(character, traits_type::eof())) sputc(traits_type::to_char_type(character));
    return traits_type::not_eof(character);
}

MemoryOutputStreamBuffer::pos_type MemoryOutputStreamBuffer::seekoff(
    off_type offset, std::ios_base::seekdir from, std::ios_base::openmode which)
{
    const auto size = static_cast<off_type>(m_bytes.size());
    off_type base = 0;
    if (from == std::ios_base::cur) base = pptr() - pbase();
    if (from == std::ios_base::end) base = size;
    if ((which & std::ios_base::out) == 0 || offset < -base || offset > size - base) return {off_type(-1)};

    putFrom(static_cast<std::size_t>(base + offset));
    return {base + offset};
}

MemoryOutputStreamBuffer::pos_type MemoryOutputStreamBuffer::seekpos(pos_type position, std::ios_base::openmode which)
{
    return seekoff(position, std::ios_base::beg, which);
}

} // namespace agent
