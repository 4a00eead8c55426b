#include "ChangeTracker.h"

#include "Progress.h"

#include "agent/BlockRangeBitmapStream.h"
#include "agent/PosixError.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <vector>

namespace backup {

namespace {

class ChangeCollector {
public:
    void add(unsigned long block)
    {
        if (m_run.count() != 0 && m_run.end() == block) {
            ++m_run.count();
            return;
        }
        finishRun();
        m_run = agent::BlockRange(block, 1);
    }

    std::set<agent::BlockRange> take()
    {
        finishRun();
        return std::move(m_changes);
    }

private:
    void finishRun()
    {
        if (!m_run.isEmpty()) m_changes.insert(m_changes.end(), m_run);
    }

    agent::BlockRange m_run;
    std::set<agent::BlockRange> m_changes;
};

[[noreturn]] void throwNoCopy(const ImageFile& replica, const ImageFile& previous, unsigned long offset)
{
    throw std::runtime_error("\"" + replica.path() + "\" is no copy of \"" + previous.path() +
                             "\" (they differ from byte " + std::to_string(offset) + " on); it was left as it is");
}

} // namespace

std::set<agent::BlockRange> findChanges(
    const BlockMap& map, const ImageFile& previous, const ImageFile& current, const ImageFile* replica)
{
    Progress progress("Comparing", map.bytesIn(map.covered()));
    std::vector<char> before;
    std::vector<char> now;
    ChangeCollector changes;
    map.forEachPiece(map.covered(), [&](const agent::BlockRange& piece) {
        const unsigned long offset = map.offsetOf(piece.start());
        const unsigned long size = map.bytesIn(piece);
        before.resize(size);
        now.resize(size);
        previous.read(offset, before.data(), size);
        if (replica != nullptr) {
            replica->read(offset, now.data(), size);
            const auto equal =
                static_cast<unsigned long>(std::mismatch(now.begin(), now.end(), before.begin()).first - now.begin());
            if (equal != size) throwNoCopy(*replica, previous, offset + equal);
        }
        current.read(offset, now.data(), size);
        for (unsigned long at = 0; at < size; at += map.blockSize()) {
            const auto length = std::min(map.blockSize(), size - at);
            if (std::memcmp(&before[at], &now[at], length) != 0) changes.add((offset + at) / map.blockSize());
        }
        progress.advance(size);
    });
    return changes.take();
}

void writeBitmap(
    const std::string& path, const BlockMap& map, const std::set<agent::BlockRange>& changes, bool msbFirst)
{
    std::ofstream stream(path, std::ios::binary | std::ios::trunc);
    agent::BlockRangeBitmapStream(stream, map.blockCount(), 0).toBitmap(changes, msbFirst);
    stream.close();
    const int error = errno;
    if (stream.fail()) throw agent::PosixError("close(\"" + path + "\") failed", error);
}

} // namespace backup
