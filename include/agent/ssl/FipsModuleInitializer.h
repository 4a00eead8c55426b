#pragma once

#include "agent/Export.h"
#include "agent/db/IDbConfigDataProvider.h"
#include "agent/filesystem/FileStreamFactory.h"
#include "agent/info/Logger.h"
#include "agent/ssl/FipsModule.h"

#include <string>

namespace agent::core::script {
class ICommandUtility;
}

namespace agent::ssl {

/// Decides at start-up whether the agent may run as it was told to.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IFipsModuleInitializer {
public:
    virtual ~IFipsModuleInitializer();

    /// @return  false if FIPS mode is requested and cannot be had: the caller must refuse to run
    virtual bool init(bool fipsRequested) = 0;
};

/// Asks the FIPS module. What else it is given is not used here: it is for embedding programs, whose initializers
/// derive from this one and prepare the machine.
class AGENTKIT_API FipsModuleInitializer : public IFipsModuleInitializer {
public:
    /// All are borrowed and must outlive the initializer.
    FipsModuleInitializer(info::Logger& logger, db::IDbConfigDataProvider& config, IFipsModule& fipsModule,
        core::script::ICommandUtility& commandUtility, filesystem::IFileStreamFactory& fileStreamFactory);

    /// Logs why, when it returns false.
    bool init(bool fipsRequested) override;

protected:
    info::Logger& m_logger;
    db::IDbConfigDataProvider& m_config;
    IFipsModule& m_fipsModule;
    core::script::ICommandUtility& m_commandUtility;
    filesystem::IFileStreamFactory& m_fileStreamFactory;
    int m_status = 0;
    std::string m_detail;
};

} // namespace agent::ssl
