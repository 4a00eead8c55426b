#include "StagedReplica.h"

#include "agent/PosixError.h"
#include "agent/file/Operations.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace backup {

namespace {

bool isOfSize(const agent::Path& path, unsigned long size)
{
    return agent::file::exists(path) && agent::file::size(path) == size;
}

void syncFolderOf(const agent::Path& path)
{
    const agent::Path folder = path.filePath().u8string().empty() ? agent::Path(".") : path.filePath();
    const int fd = ::open(folder.u8string().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const int result = fd < 0 ? -1 : ::fsync(fd);
    const int error = errno;
    if (fd >= 0) (void)::close(fd);
    if (result != 0) throw agent::PosixError("fsync(\"" + folder.u8string() + "\") failed", error);
}

} // namespace

StagedReplica::StagedReplica(agent::Path replica, unsigned long size)
    : m_replica(std::move(replica))
    , m_path(m_replica + ".partial")
    , m_isCopy(isOfSize(m_replica, size))
{
    if (agent::file::exists(m_path)) agent::file::remove(m_path, false);
    m_isCopy ? agent::file::copy(m_replica, m_path, false) : agent::file::truncate(m_path, size);
    m_image.emplace(m_path.u8string(), ImageFile::Access::ReadWrite);
}

StagedReplica::~StagedReplica()
{
    if (!m_path.u8string().empty())
        (void)::unlink(m_path.u8string().c_str()); // best effort: the next one overwrites it
}

void StagedReplica::publish()
{
    m_image->sync();
    agent::file::rename(m_path, m_replica);
    m_path = {};
    syncFolderOf(m_replica);
}

} // namespace backup
