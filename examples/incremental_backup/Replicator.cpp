#include "Replicator.h"

#include "Progress.h"

#include "agent/BitRangeFinder.h"

#include <algorithm>
#include <chrono>
#include <numeric>
#include <stdexcept>

namespace backup {

using agent::BlockRange;
using agent::info::Logger;

Replicator::Replicator(Logger& logger, const BlockMap& map)
    : m_logger(logger)
    , m_map(map)
    , m_generator(agent::BufferChecksumGeneratorFactory().createBufferChecksumGenerator(agent::ChecksumType::CRC32C))
{
}

void Replicator::loadChanges(const std::string& bitmapPath, bool msbFirst)
{
    m_ranges.clear();
    if (m_map.blockCount() == 0) return; // the finder takes no empty bitmap

    const ImageFile file(bitmapPath, ImageFile::Access::ReadOnly);
    std::vector<char> bitmap((m_map.blockCount() + 7) / 8);
    file.read(0, bitmap.data(), bitmap.size());

    using Factory = agent::BitRangeFinderFactory;
    const auto finder = Factory().createBitRangeFinder(Factory::Bit, true, msbFirst);
    m_ranges = finder->findRanges(bitmap.data(), m_map.blockCount());
    Logger::Entry(m_logger, Logger::DEBUG) << "The bitmap marks " << m_ranges.size() << " ranges";
}

void Replicator::apply(const ImageFile& current, const ImageFile& replica)
{
    const auto start = std::chrono::steady_clock::now();
    try {
        copyRanges(current, [&](const BlockRange& piece, const char* data, std::size_t size, const auto&) {
            replica.write(m_map.offsetOf(piece.start()), data, size);
        });
        replica.sync();
    } catch (const std::exception& e) {
        throw std::runtime_error(
            "\"" + replica.path() + "\" is incomplete, " + progressSoFar() + " written: " + e.what());
    }
    m_totals.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void Replicator::send(const ImageFile& current, RemoteReplica& remote)
{
    const auto start = std::chrono::steady_clock::now();
    try {
        copyRanges(current, [&](const BlockRange& piece, const char* data, std::size_t size, const auto& checksums) {
            remote.send(piece, data, size, checksums);
        });
    } catch (const std::exception& e) {
        throw std::runtime_error(
            "the replica at " + remote.name() + " is as it was, " + progressSoFar() + " sent: " + e.what());
    }
    m_totals.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

std::string Replicator::progressSoFar() const
{
    const auto wanted = std::accumulate(m_ranges.begin(), m_ranges.end(), 0UL,
        [](unsigned long sum, const BlockRange& range) { return sum + range.count(); });
    return std::to_string(m_totals.blocks) + " of " + std::to_string(wanted) + " changed blocks were";
}

void Replicator::copyRanges(const ImageFile& current, const Sink& sink)
{
    m_totals = {};
    m_blockChecksums.clear();
    Progress progress("Copying", m_map.bytesIn(m_ranges));
    std::vector<char> buffer;
    m_map.forEachPiece(m_ranges, [&](const BlockRange& piece) {
        readPiece(current, piece, buffer);
        std::vector<std::uint32_t> checksums;
        for (unsigned long block = 0; block < piece.count(); ++block) checksums.push_back(checksum(buffer, block));
        const unsigned long bytes = m_map.bytesIn(piece);
        sink(piece, buffer.data(), bytes, checksums);
        m_blockChecksums.insert(m_blockChecksums.end(), checksums.begin(), checksums.end());
        m_totals.blocks += piece.count();
        m_totals.bytes += bytes;
        progress.advance(bytes);
    });
}

std::string Replicator::verify(const ImageFile& current, const ImageFile& replica) const
{
    const std::string difference = compareBytes(current, replica);
    return difference.empty() ? compareChecksums(replica) : difference;
}

std::string Replicator::compareBytes(const ImageFile& current, const ImageFile& replica) const
{
    Progress progress("Verifying", m_map.bytesIn(m_map.covered()));
    std::string difference;
    std::vector<char> expected;
    std::vector<char> found;
    m_map.forEachPiece(m_map.covered(), [&](const BlockRange& piece) {
        const unsigned long offset = m_map.offsetOf(piece.start());
        const unsigned long size = m_map.bytesIn(piece);
        expected.resize(size);
        found.resize(size);
        current.read(offset, expected.data(), size);
        replica.read(offset, found.data(), size);
        const auto at = std::mismatch(expected.begin(), expected.end(), found.begin()).first;
        if (at != expected.end() && difference.empty())
            difference = "\"" + replica.path() + "\" differs from \"" + current.path() + "\" at byte " +
                         std::to_string(offset + static_cast<unsigned long>(at - expected.begin()));
        progress.advance(size);
    });
    return difference;
}

std::string Replicator::compareChecksums(const ImageFile& replica) const
{
    std::string difference;
    std::vector<char> buffer;
    auto expected = m_blockChecksums.begin();
    m_map.forEachPiece(m_ranges, [&](const BlockRange& piece) {
        readPiece(replica, piece, buffer);
        for (unsigned long block = 0; block < piece.count(); ++block) {
            if (checksum(buffer, block) == *expected++ || !difference.empty()) continue;
            difference =
                "\"" + replica.path() + "\" has the wrong checksum in block " + std::to_string(piece.start() + block);
        }
    });
    return difference;
}

// Whole blocks in any case: where the image ends within its last block, zeros follow.
void Replicator::readPiece(const ImageFile& image, const BlockRange& piece, std::vector<char>& buffer) const
{
    buffer.assign(piece.count() * m_map.blockSize(), '\0');
    image.read(m_map.offsetOf(piece.start()), buffer.data(), m_map.bytesIn(piece));
}

std::uint32_t Replicator::checksum(std::vector<char>& piece, unsigned long blockInPiece) const
{
    std::uint32_t value = 0;
    char* const block = piece.data() + blockInPiece * m_map.blockSize();
    if (!m_generator->generateChecksum(block, static_cast<unsigned int>(m_map.blockSize()), value)) {
        throw std::runtime_error("no checksum could be computed");
    }
    return value;
}

} // namespace backup
