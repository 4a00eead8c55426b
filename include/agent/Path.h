#pragma once

#include "agent/Export.h"

#include <functional>
#include <string>

namespace agent {

/// The name of a file or directory: a UTF-8 text with '/' between its parts. It is kept without a '/' at its
/// end (but for "/" itself) and is otherwise taken literally: "." and ".." mean nothing here, and no file is
/// asked.
///
///     const Path file = Path("/var/lib/agent") / volume / "changes.bitmap";
///
/// Threads: a value.
class AGENTKIT_API Path {
public:
    Path() = default;

    /// Not explicit: functions that take a path are called with plain strings, too.
    Path(std::string path);
    Path(const char* path);

    static Path convert(std::string path);
    static Path convert(const std::wstring& path);

    /// Adds `s` as it stands; where a '/' would meet a '/', one of them is dropped.
    Path& concat(std::string s);

    /// Adds `s`, without one '/' at either end, as a further part. Nothing but a '/' or two adds nothing.
    Path& append(std::string s);

    const std::string& u8string() const { return m_path; }
    const std::string& portable_string() const { return m_path; }

    /// What comes before the last '/': the containing directory, "/" for an entry of the root directory, empty
    /// without any '/'.
    Path filePath() const;

    /// What comes after the last '/', or everything without one.
    std::string fileName() const;

    friend bool operator==(const Path&, const Path&) = default;

private:
    std::string m_path;
};

/// The left path with the right one appended as a further part.
AGENTKIT_API Path operator/(Path left, const Path& right);
AGENTKIT_API Path operator/(Path left, const std::string& right);
AGENTKIT_API Path operator/(Path left, const char* right);

/// The left path with the right one added as it stands.
AGENTKIT_API Path operator+(Path left, const Path& right);
AGENTKIT_API Path operator+(Path left, const std::string& right);
AGENTKIT_API Path operator+(Path left, const char* right);

} // namespace agent

template <>
struct std::hash<agent::Path> {
    std::size_t operator()(const agent::Path& path) const noexcept { return std::hash<std::string>()(path.u8string()); }
};
