#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <array>
#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace agent::info {

/// Puts a prefix before a log message, and takes it off again.
///
///     const DateDecorator date;
///     const ThreadIdDecorator thread;
///     const TagDecorator tag;
///     const MultiDecorator all({date, thread, tag});
///
/// decorates the message "Started" to
///
///     2024-05-01T10:34:56.789Z 2024-05-01T12:34:56.789+0200 [TID 0012345] [INFO:]     Started
///
/// The order of its virtual functions is part of the binary interface.
/// Threads: decorators do not change; any number of threads may share one.
class AGENTKIT_API IDecorator {
public:
    using Time = std::chrono::system_clock::time_point;

    virtual ~IDecorator();

    /// The message with the prefix.
    virtual std::string decorate(std::string message, Logger::Level level, Time when) const = 0;

    /// The line without the prefix, which must be its very beginning, and the one blank after it. Sets of `level`
    /// and `when` what the prefix tells, and leaves the rest as it was.
    virtual std::string undecorate(std::string line, Logger::Level& level, Time& when) const = 0;
};

/// The level in brackets, padded to 12 characters: "[INFO:]     ".
class AGENTKIT_API TagDecorator : public IDecorator {
public:
    /// A level outside the table, as a moved log entry has, is a programming error and ends the process.
    std::string decorate(std::string message, Logger::Level level, Time when) const override;

    /// A line that does not begin with a tag comes back as it is.
    std::string undecorate(std::string line, Logger::Level& level, Time& when) const override;

private:
    static const std::array<std::string_view, 5> m_tags;
};

/// The time twice, to the millisecond: in UTC and, with the offset, in the zone of the process:
/// "2024-05-01T10:34:56.789Z 2024-05-01T12:34:56.789+0200 ".
class AGENTKIT_API DateDecorator : public IDecorator {
public:
    /// A change of the zone is seen from the `tzset` on that follows it.
    std::string decorate(std::string message, Logger::Level level, Time when) const override;

    /// The time comes from the UTC stamp, so that it is right also in the hour that a change from daylight saving
    /// time repeats.
    /// @throws PosixError  beginning "Could not parse date out of formatted log message:", code EINVAL, if the line
    ///                     does not begin with the two stamps
    std::string undecorate(std::string line, Logger::Level& level, Time& when) const override;
};

/// The id of the thread that decorates, in seven digits or more: "[TID 0012345] ".
class AGENTKIT_API ThreadIdDecorator : public IDecorator {
public:
    std::string decorate(std::string message, Logger::Level level, Time when) const override;

    /// A line that does not begin with a thread id comes back as it is.
    std::string undecorate(std::string line, Logger::Level& level, Time& when) const override;
};

/// Several decorators in one: the first of them makes the leftmost prefix, and is the first to take its own off.
/// Without any, messages stay as they are.
class AGENTKIT_API MultiDecorator : public IDecorator {
public:
    /// @param decorators  borrowed; must outlive this one
    explicit MultiDecorator(std::vector<std::reference_wrapper<const IDecorator>> decorators);

    std::string decorate(std::string message, Logger::Level level, Time when) const override;
    std::string undecorate(std::string line, Logger::Level& level, Time& when) const override;

private:
    std::vector<std::reference_wrapper<const IDecorator>> m_decorators;
};

} // namespace agent::info
