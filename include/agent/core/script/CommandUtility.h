#pragma once

#include "agent/Export.h"
#include "agent/core/script/CommandStream.h"
#include "agent/info/Logger.h"

#include <memory>
#include <string>

namespace agent::core::script {

/// Starts commands. Code that takes this interface can be tested without running any.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ICommandUtility {
public:
    virtual ~ICommandUtility();

    /// The parameters are those of UnixCommandStream.
    virtual std::shared_ptr<ICommandStream> execute(info::Logger& logger, const std::string& command,
        const std::string& workingDirectory, bool reserved1, bool killOnDestruction, bool keepSession, bool readOutput,
        bool reserved2) = 0;
};

/// Starts commands by "/bin/sh".
/// Threads: without state.
class AGENTKIT_API CommandUtility : public ICommandUtility {
public:
    std::shared_ptr<ICommandStream> execute(info::Logger& logger, const std::string& command,
        const std::string& workingDirectory, bool reserved1, bool killOnDestruction, bool keepSession, bool readOutput,
        bool reserved2) override;
};

} // namespace agent::core::script
