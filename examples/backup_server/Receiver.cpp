#include "Receiver.h"

#include "agent/crc32c.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace backup {

using agent::BlockRange;
using agent::info::Logger;
using protocol::Type;

namespace {

/// Checks a block, which the image's end may have cut short, as if zeros followed.
bool isIntact(const char* data, std::size_t size, std::size_t blockSize, std::uint32_t checksum)
{
    if (size == blockSize) return crc32c(0, data, size) == checksum;
    std::vector<char> block(data, data + size);
    block.resize(blockSize);
    return crc32c(0, block.data(), blockSize) == checksum;
}

} // namespace

Receiver::Receiver(Logger& logger, agent::Path replica, protocol::Reader read, protocol::Writer write)
    : m_logger(logger)
    , m_replica(std::move(replica))
    , m_read(std::move(read))
    , m_write(std::move(write))
{
}

void Receiver::receive()
{
    try {
        run();
    } catch (const std::exception& e) {
        const std::string text = e.what();
        try {
            protocol::send(m_write, Type::Failure, {text.begin(), text.end()});
        } catch (const std::exception& second) {
            Logger::Entry(m_logger, Logger::DEBUG) << "The agent could not be told: " << second.what();
        }
        throw;
    }
}

void Receiver::run()
{
    const BlockMap map = protocol::parseHello(protocol::expect(m_read, Type::Hello));
    StagedReplica staged(m_replica, map.imageSize());
    const std::uint32_t base = staged.isCopy() ? protocol::digestOf(staged.image(), map) : 0;
    protocol::send(m_write, Type::Base, protocol::Content().u32(staged.isCopy() ? 1 : 0).u32(base).take());

    receiveBlocks(map, staged);
    staged.image().sync();
    const std::uint32_t digest = protocol::digestOf(staged.image(), map);
    protocol::send(m_write, Type::Digest, protocol::Content().u32(digest).take());

    (void)protocol::expect(m_read, Type::Commit);
    staged.publish();
    protocol::send(m_write, Type::Done, {});
    Logger::Entry(m_logger, Logger::INFO)
        << m_replica.u8string() << " was brought up to date, " << m_blocks << " blocks";
}

// After a failure the rest is read all the same: the agent looks for an answer only when it has sent everything.
void Receiver::receiveBlocks(const BlockMap& map, StagedReplica& staged)
{
    std::string failure;
    m_blocks = 0;
    protocol::Message message = protocol::receive(m_read);
    for (; message.type == Type::Blocks; message = protocol::receive(m_read)) {
        if (!failure.empty()) continue;
        try {
            apply(message, map, staged.image());
        } catch (const std::exception& e) {
            failure = e.what();
        }
    }
    if (!failure.empty()) throw std::runtime_error(failure);
    protocol::Parser parser(message);
    if (message.type != Type::End || parser.u64() != m_blocks)
        throw std::runtime_error("protocol error: " + std::to_string(m_blocks) + " blocks came, and that is not all");
}

void Receiver::apply(const protocol::Message& message, const BlockMap& map, const ImageFile& image)
{
    protocol::Parser parser(message);
    const unsigned long start = parser.u64();
    const unsigned long count = parser.u64();
    if (start >= map.blockCount() || count > map.blockCount() - start)
        throw std::runtime_error("protocol error: blocks beyond the image");
    const BlockRange piece(start, count);
    if (count > parser.rest() / sizeof(std::uint32_t) ||
        parser.rest() - count * sizeof(std::uint32_t) != map.bytesIn(piece))
        throw std::runtime_error("protocol error: blocks without their data");

    std::vector<std::uint32_t> checksums(count);
    for (std::uint32_t& checksum : checksums) checksum = parser.u32();
    const unsigned long size = parser.rest();
    const char* const data = parser.bytes(size);
    for (unsigned long block = 0; block < count; ++block) {
        const unsigned long at = block * map.blockSize();
        if (!isIntact(data + at, std::min(map.blockSize(), size - at), map.blockSize(), checksums[block]))
            throw std::runtime_error("block " + std::to_string(start + block) + " was damaged on its way");
    }
    image.write(map.offsetOf(start), data, size);
    m_blocks += count;
}

} // namespace backup
