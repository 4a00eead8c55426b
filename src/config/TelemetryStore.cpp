#include "agent/TelemetryStore.h"

#include "agent/JSONConfigDataProvider.h"
#include "agent/JSONDiffFile.h"
#include "agent/dir/Operations.h"
#include "agent/file/Operations.h"

#include <exception>

namespace agent {

using info::Logger;

namespace {

constexpr const char* kServices = "Services.json";
constexpr const char* kInstalledPrograms = "InstalledPrograms.json";

} // namespace

ITelemetryStore::~ITelemetryStore() = default;

TelemetryStore::TelemetryStore(const Path& directory, Logger& logger)
    : m_directory(directory)
    , m_logger(logger)
{
}

TelemetryStore::Difference TelemetryStore::diffAndUpdateServices(const nlohmann::json& newDocument)
{
    return diffAndUpdateInternal(kServices, newDocument);
}

TelemetryStore::Difference TelemetryStore::diffAndUpdateInstalledPrograms(const nlohmann::json& newDocument)
{
    return diffAndUpdateInternal(kInstalledPrograms, newDocument);
}

TelemetryStore::Difference TelemetryStore::diffAndUpdateInternal(
    const std::string& fileName, const nlohmann::json& newDocument)
{
    const Path path = m_directory / fileName;
    bool existed = false;
    if (dir::isDirectory(m_directory)) {
        existed = file::exists(path);
    } else {
        try {
            dir::make(m_directory, true);
        } catch (const std::exception& e) {
            Logger::Entry(m_logger, Logger::ERROR)
                << "Could not create Telemetry dir: '" << m_directory.u8string() << "'. Error: " << e.what();
            return {nullptr, false};
        }
    }
    JSONConfigDataProvider store(path, false);
    return {JSONDiffFile::diffAndUpdate(store, "data", newDocument), existed};
}

void TelemetryStore::resetTelemetryData() const
{
    resetServicesData();
    resetInstalledProgramsData();
}

void TelemetryStore::resetServicesData() const
{
    checkAndDeleteFile(m_directory / kServices);
}

void TelemetryStore::resetInstalledProgramsData() const
{
    checkAndDeleteFile(m_directory / kInstalledPrograms);
}

void TelemetryStore::checkAndDeleteFile(const Path& path) const
{
    if (file::exists(path)) file::remove(path, true);
}

} // namespace agent
