#include "agent/core/script/CommandUtility.h"

namespace agent::core::script {

ICommandUtility::~ICommandUtility() = default;

std::shared_ptr<ICommandStream> CommandUtility::execute(info::Logger& logger, const std::string& command,
    const std::string& workingDirectory, bool reserved1, bool killOnDestruction, bool keepSession, bool readOutput,
    bool reserved2)
{
    return std::make_shared<UnixCommandStream>(
        logger, command, workingDirectory, reserved1, killOnDestruction, keepSession, readOutput, reserved2);
}

} // namespace agent::core::script
