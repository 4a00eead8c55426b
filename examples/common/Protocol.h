#pragma once

#include "BlockMap.h"
#include "ImageFile.h"

#include "agent/BlockRange.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

/// What the agent and the backup server say to each other, over TLS.
///
/// Every message is a header of eight bytes, its type and the length of what follows, and then that. All numbers are
/// unsigned and big-endian; a digest is the CRC-32C of the covered blocks of an image, one after the other.
///
///     agent                                         server
///     Hello   block size, image size, and the  ->
///             start and count of each range of
///             covered blocks
///                                              <-   Base    1 and the digest of its replica; 0 and 0 without one
///     Blocks  start and count, the CRC-32C of  ->           any number of times
///             each block, data
///     End     how many blocks were sent        ->
///                                              <-   Digest  of the new replica, read back from the disk
///     Commit                                   ->
///                                              <-   Done    the new replica has taken the old one's place
///
/// Checksums, digests and the 1 of Base have 32 bits, all other numbers 64. The image's last block may be short; its
/// checksum is that of the block filled up with zeros. In place of any answer the server may send Failure and a text;
/// between Hello and End it keeps that until the End. The first bytes of the backup of an image of one block:
/// 00000001 00000020, 0000000000001000 0000000000001000, 0000000000000000 0000000000000001.
namespace backup::protocol {

enum class Type : std::uint32_t {
    Hello = 1,
    Base = 2,
    Blocks = 3,
    End = 4,
    Digest = 5,
    Commit = 6,
    Done = 7,
    Failure = 8,
};

/// Move all of the bytes, or throw.
using Writer = std::function<void(const void* data, unsigned int size)>;
using Reader = std::function<void(void* data, unsigned int size)>;

struct Message {
    Type type;
    std::vector<char> content;
};

/// The largest content that is accepted: the largest block, and room for what goes with it.
inline constexpr std::uint32_t kMaximumContent = (256U << 20) + (1U << 20);

void send(const Writer& write, Type type, const std::vector<char>& content);

/// @throws std::runtime_error  for a message that is too long, or of an unknown type
Message receive(const Reader& read);

/// Receives a message of this type.
/// @throws std::runtime_error  with the text of a Failure, or if it is another
Message expect(const Reader& read, Type type);

/// Puts a message's content together.
class Content {
public:
    Content& u32(std::uint32_t value);
    Content& u64(std::uint64_t value);
    Content& bytes(const char* data, std::size_t size);
    std::vector<char> take() { return std::move(m_content); }

private:
    std::vector<char> m_content;
};

/// Takes a message's content apart; what is missing or left over is a std::runtime_error.
class Parser {
public:
    explicit Parser(const Message& message);

    std::uint32_t u32();
    std::uint64_t u64();
    std::size_t rest() const { return m_message.content.size() - m_position; }

    /// The next bytes; they stay the message's.
    const char* bytes(std::size_t size);
    void end() const;

private:
    std::uint64_t number(std::size_t size);

    const Message& m_message;
    std::size_t m_position = 0;
};

std::vector<char> helloOf(const BlockMap& map);

/// @throws std::runtime_error  for a map that makes no sense
BlockMap parseHello(const Message& message);

/// CRC-32C of the covered blocks of an image.
std::uint32_t digestOf(const ImageFile& image, const BlockMap& map);

} // namespace backup::protocol
