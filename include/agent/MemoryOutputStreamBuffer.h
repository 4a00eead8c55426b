#pragma once

#include "agent/Export.h"

#include <cstddef>
#include <streambuf>
#include <vector>

namespace agent {

/// A stream buffer that writes into a caller's vector, from its first byte on, and lets it grow if allowed.
///
///     std::vector<char> bytes(4096);
///     MemoryOutputStreamBuffer buffer(bytes, true);
///     std::ostream stream(&buffer);
///     stream << text;
///     bytes.resize(stream.tellp());  // the vector's size is room, not content
///
/// The vector must outlive the buffer and be left alone meanwhile. Threads: one at a time.
class AGENTKIT_API MemoryOutputStreamBuffer : public std::streambuf {
public:
    /// @param mayGrow  whether writing past the end makes room: the larger of twice the size and 100 bytes more.
    ///                 If not, it throws std::runtime_error; a stream turns that into its bad state.
    MemoryOutputStreamBuffer(std::vector<char>& bytes, bool mayGrow);
    ~MemoryOutputStreamBuffer() override;

protected:
    int_type overflow(int_type character) override;

    /// The end is the vector's size. A target outside the vector is refused: -1, and the position stays.
    pos_type seekoff(off_type offset, std::ios_base::seekdir from, std::ios_base::openmode which) override;
    pos_type seekpos(pos_type position, std::ios_base::openmode which) override;

private:
    void putFrom(std::size_t position);

    std::vector<char>& m_bytes;
    bool m_mayGrow;
};

} // namespace agent
