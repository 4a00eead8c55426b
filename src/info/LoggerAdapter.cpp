#include "agent/vnt/LoggerAdapter.h"

namespace vnt {

namespace {

agent::info::Logger::Level levelOf(common::loglevel level)
{
    switch (level) {
    case common::loglevel_debug:
        return agent::info::Logger::DEBUG;
    case common::loglevel_information:
        return agent::info::Logger::INFO;
    default:
        return agent::info::Logger::ERROR;
    }
}

} // namespace

std::function<void(common::loglevel, int, const std::string&)> LoggerAdapter::toLogCallback(agent::info::Logger& logger)
{
    return [&logger](common::loglevel level, int code, const std::string& message) {
        agent::info::Logger::Entry entry(logger, levelOf(level));
        entry << message;
        if (code != 0) entry << " code: " << code;
    };
}

} // namespace vnt
