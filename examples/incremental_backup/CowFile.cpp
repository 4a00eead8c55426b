#include "CowFile.h"

#include "agent/Config.h"
#include "agent/CowFileAutoExpand.h"
#include "agent/CowFileSize.h"
#include "agent/Path.h"

#include <memory>

namespace backup {

void printCowFile(const Options& options, unsigned long volumeSize, agent::info::Logger& logger)
{
    using namespace agent;
    const auto store = std::make_shared<JSONConfigDataProvider>(options.config, true);
    const Config config(store, ConfigOptions(ConfigOptions::forVolumes()));
    config.validate();
    const CowFileSize size(config);
    const CowFileAutoExpandParamsProvider provider(config, size);

    const std::string volume = options.volume.empty() ? Path(options.current).fileName() : options.volume;
    const auto expansion = provider.getAutoExpandParams(logger, volume, volumeSize, options.fileSystem, true);
    const bool grows = expansion->hasStepSize();
    const auto initial = size.getCowFileSize(logger, volume, volumeSize, options.fileSystem, grows);

    info::Logger::Entry line(logger, info::Logger::INFO);
    line << "Snapshot: " << initial << " MiB for " << volume;
    if (grows) line << ", grows by " << expansion->getStepSize() << " MiB";
    if (expansion->hasReservedSpace()) line << ", leaves " << expansion->getReservedSpace() << " MiB free";
}

} // namespace backup
