#pragma once

#include "agent/CowFileSize.h"
#include "agent/Export.h"
#include "agent/IConfig.h"
#include "agent/info/Logger.h"

#include <memory>
#include <string>

namespace agent {

/// Whether and how a volume's copy-on-write file grows. Ask the has-operations first. Sizes are MiB.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ICowFileAutoExpandParams {
public:
    virtual ~ICowFileAutoExpandParams();

    virtual bool hasStepSize() const = 0;
    virtual bool hasReservedSpace() const = 0;

    /// By how much the file grows at a time.
    virtual unsigned long getStepSize() const = 0;

    /// Space of the volume to leave free.
    virtual unsigned long getReservedSpace() const = 0;
};

/// The file grows. A value.
class AGENTKIT_API CowFileAutoExpandParamsEnabled : public ICowFileAutoExpandParams {
public:
    /// @throws std::invalid_argument  for a step of 0
    CowFileAutoExpandParamsEnabled(unsigned long stepSizeMiB, unsigned long reservedSpaceMiB);

    bool hasStepSize() const override;
    bool hasReservedSpace() const override;
    unsigned long getStepSize() const override;
    unsigned long getReservedSpace() const override;

private:
    unsigned long m_stepSizeMiB;
    unsigned long m_reservedSpaceMiB;
};

/// The file keeps its size: there is neither step nor reserve, and asking for one is a std::logic_error.
class AGENTKIT_API CowFileAutoExpandParamsDisabled : public ICowFileAutoExpandParams {
public:
    bool hasStepSize() const override;
    bool hasReservedSpace() const override;
    unsigned long getStepSize() const override;
    unsigned long getReservedSpace() const override;
};

/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ICowFileAutoExpandParamsProvider {
public:
    virtual ~ICowFileAutoExpandParamsProvider();

    /// The arguments are those of ICowFileSize::getCowFileSize.
    virtual std::unique_ptr<ICowFileAutoExpandParams> getAutoExpandParams(info::Logger& logger,
        const std::string& volume, unsigned long volumeSizeBytes, const std::string& fileSystemType,
        bool autoExpand) const = 0;
};

/// Takes step and reserve from the configuration, "volumes." + volume + ".autoExpand.stepSizeMiB" and
/// ".reservedSpaceMiB", or else half of the initial size, at least 10, and 15 % of the volume, both rounded up. Files
/// on "vfat" do not grow, nor those with ".autoExpand.disable" set.
///
/// Threads: any number, as far as the configuration allows it.
class AGENTKIT_API CowFileAutoExpandParamsProvider : public ICowFileAutoExpandParamsProvider {
public:
    /// @param config, cowFileSize  borrowed; must outlive this
    CowFileAutoExpandParamsProvider(const IConfig& config, const ICowFileSize& cowFileSize);

    /// Whatever goes wrong with a configured step or reserve, the default takes its place; those that are found are
    /// logged at DEBUG.
    /// @throws whatever the configuration throws for ".autoExpand.disable", or the initial size
    std::unique_ptr<ICowFileAutoExpandParams> getAutoExpandParams(info::Logger& logger, const std::string& volume,
        unsigned long volumeSizeBytes, const std::string& fileSystemType, bool autoExpand) const override;

    bool isAutoExpandDisabled(const std::string& volume) const;

    /// MiB.
    /// @throws std::invalid_argument  if it is missing or 0
    unsigned long getCustomAutoExpandStepSize(const std::string& volume) const;
    unsigned long getCustomAutoExpandReservedSpace(const std::string& volume) const;

private:
    const IConfig& m_config;
    const ICowFileSize& m_cowFileSize;
};

} // namespace agent
