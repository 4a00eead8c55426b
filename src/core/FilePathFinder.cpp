#include "agent/core/FilePathFinder.h"

#include "agent/dir/Operations.h"

#include <algorithm>
#include <unordered_set>

namespace agent::core {

FilePathFinder::FilePathFinder(const Path& root)
    : m_root(root)
{
}

std::vector<Path> FilePathFinder::getFilePaths(
    const Path& directory, const std::function<bool(const Path&)>& predicate) const
{
    std::unordered_set<Path> found;
    dir::listFullPathRecursive(directory == Path() ? m_root : directory, found,
        [&](const Path& path) { return !dir::isDirectory(path) && predicate(path); });

    std::vector<Path> files(found.begin(), found.end());
    std::ranges::sort(files, {}, &Path::u8string);
    return files;
}

} // namespace agent::core
