#pragma once

#include "agent/Export.h"
#include "agent/IConfig.h"
#include "agent/info/Logger.h"

#include <string>

namespace agent {

/// Decides how large the copy-on-write file of a volume's snapshot starts.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ICowFileSize {
public:
    virtual ~ICowFileSize();

    /// @param volume           the volume's name in the configuration, opaque here
    /// @param volumeSizeBytes  bytes
    /// @param fileSystemType   of the volume; "vfat" is special
    /// @param autoExpand       whether the file may grow later
    /// @return                 MiB (1,048,576 bytes)
    virtual unsigned long getCowFileSize(info::Logger& logger, const std::string& volume, unsigned long volumeSizeBytes,
        const std::string& fileSystemType, bool autoExpand) const = 0;
};

/// A tenth of the volume in MiB, rounded up, from 10 to 10,240; always 10 for a file that is left to grow.
AGENTKIT_API unsigned long getDefaultCowFileSize(unsigned long volumeSizeBytes, bool autoExpand);

/// The size, all in MiB, cut to half the volume rounded up, but never less than 10.
AGENTKIT_API unsigned long getClampedCowFileSize(unsigned long sizeMiB, unsigned long volumeSizeBytes);

/// The size that the configuration gives the volume, "volumes." + volume + ".cowFileSizeMiB", or else the default;
/// clamped in either case. On "vfat" at most 4095 MiB, since a FAT file ends below 4 GiB.
///
/// Threads: any number, as far as the configuration allows it.
class AGENTKIT_API CowFileSize : public ICowFileSize {
public:
    /// @param config  borrowed; must outlive this
    explicit CowFileSize(const IConfig& config);

    /// Whatever goes wrong with the configured size, the default takes its place. A configured size is logged at
    /// DEBUG, a clamped one as a warning.
    unsigned long getCowFileSize(info::Logger& logger, const std::string& volume, unsigned long volumeSizeBytes,
        const std::string& fileSystemType, bool autoExpand) const override;

    /// The configured size in MiB, unclamped.
    /// @throws std::invalid_argument  if it is missing or 0
    unsigned long getCustomCowFileSize(const std::string& volume) const;

private:
    unsigned long customSizeOr(unsigned long otherwise, info::Logger& logger, const std::string& volume) const;

    const IConfig& m_config;
};

/// The rule of the first agents: 1,000 MiB divided by the volume's size in bytes, rounded up, from 10 to 50, and 50 for
/// a volume of no size. All but tiny volumes get 10. Kept for installations that were sized by it.
class AGENTKIT_API LegacyCowFileSize : public ICowFileSize {
public:
    unsigned long getCowFileSize(info::Logger& logger, const std::string& volume, unsigned long volumeSizeBytes,
        const std::string& fileSystemType, bool autoExpand) const override;
};

} // namespace agent
