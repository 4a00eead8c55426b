#include "agent/ssl/FipsModuleInitializer.h"

namespace agent::ssl {

using info::Logger;

IFipsModuleInitializer::~IFipsModuleInitializer() = default;

FipsModuleInitializer::FipsModuleInitializer(Logger& logger, db::IDbConfigDataProvider& config, IFipsModule& fipsModule,
    core::script::ICommandUtility& commandUtility, filesystem::IFileStreamFactory& fileStreamFactory)
    : m_logger(logger)
    , m_config(config)
    , m_fipsModule(fipsModule)
    , m_commandUtility(commandUtility)
    , m_fileStreamFactory(fileStreamFactory)
{
}

bool FipsModuleInitializer::init(bool fipsRequested)
{
    if (!fipsRequested || m_fipsModule.isSupported()) return true;
    Logger::Entry(m_logger, Logger::ERROR) << "FIPS mode is not supported by this agent.";
    return false;
}

} // namespace agent::ssl
