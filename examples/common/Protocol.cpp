#include "Protocol.h"

#include "agent/crc32c.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <utility>

namespace backup::protocol {

namespace {

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kRangeSize = 16;
constexpr std::uint64_t kLargestImage = 1ULL << 56; // bytes; keeps all sums far from their limits

[[noreturn]] void fail(const std::string& text)
{
    throw std::runtime_error("protocol error: " + text);
}

void append(std::vector<char>& content, std::uint64_t value, unsigned int size)
{
    while (size-- > 0) content.push_back(static_cast<char>(value >> (8 * size)));
}

std::uint64_t parse(const char* bytes, std::size_t size)
{
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < size; ++i) value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

} // namespace

void send(const Writer& write, Type type, const std::vector<char>& content)
{
    std::vector<char> message;
    message.reserve(kHeaderSize + content.size());
    append(message, static_cast<std::uint32_t>(type), 4);
    append(message, content.size(), 4);
    message.insert(message.end(), content.begin(), content.end());
    write(message.data(), static_cast<unsigned int>(message.size()));
}

Message receive(const Reader& read)
{
    std::array<char, kHeaderSize> header{};
    read(header.data(), header.size());
    const std::uint64_t type = parse(header.data(), 4);
    const std::uint64_t size = parse(header.data() + 4, 4);
    if (type < std::uint64_t(Type::Hello) || type > std::uint64_t(Type::Failure))
        fail("message of type " + std::to_string(type));
    if (size > kMaximumContent) fail("message of " + std::to_string(size) + " bytes");
    Message message{static_cast<Type>(type), std::vector<char>(size)};
    if (size != 0) read(message.content.data(), static_cast<unsigned int>(size));
    return message;
}

Message expect(const Reader& read, Type type)
{
    Message message = receive(read);
    if (message.type == Type::Failure)
        throw std::runtime_error("the server reports: " + std::string(message.content.begin(), message.content.end()));
    if (message.type != type)
        fail("message of type " + std::to_string(int(message.type)) + " instead of " + std::to_string(int(type)));
    return message;
}

Content& Content::u32(std::uint32_t value)
{
    append(m_content, value, 4);
    return *this;
}

Content& Content::u64(std::uint64_t value)
{
    append(m_content, value, 8);
    return *this;
}

Content& Content::bytes(const char* data, std::size_t size)
{
    m_content.insert(m_content.end(), data, data + size);
    return *this;
}

Parser::Parser(const Message& message)
    : m_message(message)
{
}

std::uint32_t Parser::u32()
{
    return static_cast<std::uint32_t>(number(4));
}

std::uint64_t Parser::u64()
{
    return number(8);
}

std::uint64_t Parser::number(std::size_t size)
{
    return parse(bytes(size), size);
}

const char* Parser::bytes(std::size_t size)
{
    if (size > rest()) fail("a message is too short");
    return m_message.content.data() + std::exchange(m_position, m_position + size);
}

void Parser::end() const
{
    if (rest() != 0) fail("a message is too long");
}

std::vector<char> helloOf(const BlockMap& map)
{
    Content content;
    content.u64(map.blockSize()).u64(map.imageSize());
    for (const agent::BlockRange& range : map.covered()) content.u64(range.start()).u64(range.count());
    return content.take();
}

BlockMap parseHello(const Message& message)
{
    Parser parser(message);
    const std::uint64_t blockSize = parser.u64();
    const std::uint64_t imageSize = parser.u64();
    if (!agent::isPowerOfTwo(blockSize) || blockSize > kMaximumContent) fail("blocks of " + std::to_string(blockSize));
    if (imageSize > kLargestImage) fail("an image of " + std::to_string(imageSize) + " bytes");

    // A map knows what it leaves out; the ranges tell what is between that.
    std::vector<agent::BlockRange> excluded;
    const std::uint64_t blockCount = imageSize / blockSize + (imageSize % blockSize != 0 ? 1 : 0);
    std::uint64_t end = 0;
    while (parser.rest() >= kRangeSize) {
        const std::uint64_t start = parser.u64();
        const std::uint64_t count = parser.u64();
        if (start < end || start > blockCount || count > blockCount - start) fail("ranges beyond the image");
        excluded.emplace_back(end, start - end);
        end = start + count;
    }
    parser.end();
    excluded.emplace_back(end, blockCount - end);
    return {imageSize, blockSize, std::move(excluded)};
}

std::uint32_t digestOf(const ImageFile& image, const BlockMap& map)
{
    std::uint32_t digest = 0;
    std::vector<char> data;
    map.forEachPiece(map.covered(), [&](const agent::BlockRange& piece) {
        data.resize(map.bytesIn(piece));
        image.read(map.offsetOf(piece.start()), data.data(), data.size());
        digest = crc32c(digest, data.data(), data.size());
    });
    return digest;
}

} // namespace backup::protocol
