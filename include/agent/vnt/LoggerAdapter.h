#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"
#include "agent/vnt/common/Ret.h"

#include <functional>
#include <string>

namespace vnt {

/// Lets the wire-protocol layer report to a logger:
///
///     vnt::common::Ret::set_logger(vnt::LoggerAdapter::toLogCallback(logger));
class AGENTKIT_API LoggerAdapter {
public:
    /// A callback that logs the message and, unless the code is 0, " code: " and the code: at DEBUG for the level 0,
    /// at INFO for 200 and at ERROR for any other.
    /// @param logger  borrowed; must outlive the callback and its copies
    static std::function<void(common::loglevel, int, const std::string&)> toLogCallback(agent::info::Logger& logger);
};

} // namespace vnt
