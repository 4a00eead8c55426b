#pragma once

#include "agent/Export.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <nlohmann/json.hpp>

#include <string>

namespace agent {

/// Remembers the host's inventories as they were last reported, so that only changes need to be sent.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ITelemetryStore {
public:
    struct Difference {
        nlohmann::json patch; ///< from the last document to the new one (RFC 6902)
        bool existed;         ///< whether there was a file of the last one
    };

    virtual ~ITelemetryStore();

    virtual Difference diffAndUpdateServices(const nlohmann::json& newDocument) = 0;
    virtual Difference diffAndUpdateInstalledPrograms(const nlohmann::json& newDocument) = 0;

    /// Forget what was reported. What is not there is no error.
    virtual void resetTelemetryData() const = 0;
    virtual void resetServicesData() const = 0;
    virtual void resetInstalledProgramsData() const = 0;
};

/// Keeps the services in "Services.json" and the programs in "InstalledPrograms.json", each as the member "data" of a
/// JSON object, in a directory that is created when it is needed.
///
/// Threads: calls for one inventory one at a time.
class AGENTKIT_API TelemetryStore : public ITelemetryStore {
public:
    /// @param logger  borrowed; must outlive the store
    TelemetryStore(const Path& directory, info::Logger& logger);

    /// If the directory cannot be created, that is logged at ERROR, nothing is stored, and the patch is null.
    /// @throws PosixError, std::runtime_error  if the file cannot be read, understood or written
    Difference diffAndUpdateServices(const nlohmann::json& newDocument) override;
    Difference diffAndUpdateInstalledPrograms(const nlohmann::json& newDocument) override;

    /// @throws PosixError  if a file cannot be removed
    void resetTelemetryData() const override;
    void resetServicesData() const override;
    void resetInstalledProgramsData() const override;

private:
    Difference diffAndUpdateInternal(const std::string& fileName, const nlohmann::json& newDocument);
    void checkAndDeleteFile(const Path& path) const;

    Path m_directory;
    info::Logger& m_logger;
};

} // namespace agent
