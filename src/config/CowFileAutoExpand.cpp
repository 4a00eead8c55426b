#include "agent/CowFileAutoExpand.h"

#include "config/MiB.h"

#include <algorithm>
#include <stdexcept>

namespace agent {

using info::Logger;

namespace {

constexpr unsigned long kSmallestStep = 10; // MiB

std::string autoExpandKey(const std::string& volume, const char* name)
{
    return "volumes." + volume + ".autoExpand." + name;
}

unsigned long customValue(const IConfig& config, const std::string& volume, const char* name, const char* missing)
{
    unsigned long value = 0;
    config.getValue(autoExpandKey(volume, name), value);
    if (value == 0) throw std::invalid_argument(missing);
    return value;
}

template <typename Getter>
unsigned long customOr(unsigned long otherwise, Logger& logger, const std::string& key, Getter getCustom)
{
    try {
        const unsigned long custom = getCustom();
        Logger::Entry(logger, Logger::DEBUG) << "Found the " << key << " configuration option (" << custom << ")";
        return custom;
    } catch (...) { // a backup with the default is better than none
        return otherwise;
    }
}

// 15 % of the volume: 3 bytes of 20, in units of 20 MiB so that no product can wrap.
unsigned long defaultReserve(unsigned long volumeSizeBytes)
{
    constexpr unsigned long kTwentyMiB = 20 * kMiB;
    return 3 * (volumeSizeBytes / kTwentyMiB) + (3 * (volumeSizeBytes % kTwentyMiB) + kTwentyMiB - 1) / kTwentyMiB;
}

} // namespace

ICowFileAutoExpandParams::~ICowFileAutoExpandParams() = default;
ICowFileAutoExpandParamsProvider::~ICowFileAutoExpandParamsProvider() = default;

CowFileAutoExpandParamsEnabled::CowFileAutoExpandParamsEnabled(
    unsigned long stepSizeMiB, unsigned long reservedSpaceMiB)
    : m_stepSizeMiB(stepSizeMiB)
    , m_reservedSpaceMiB(reservedSpaceMiB)
{
    if (stepSizeMiB == 0) throw std::invalid_argument("stepSizeMiB must be greater than 0");
}

bool CowFileAutoExpandParamsEnabled::hasStepSize() const
{
    return true;
}

bool CowFileAutoExpandParamsEnabled::hasReservedSpace() const
{
    return true;
}

unsigned long CowFileAutoExpandParamsEnabled::getStepSize() const
{
    return m_stepSizeMiB;
}

unsigned long CowFileAutoExpandParamsEnabled::getReservedSpace() const
{
    return m_reservedSpaceMiB;
}

bool CowFileAutoExpandParamsDisabled::hasStepSize() const
{
    return false;
}

bool CowFileAutoExpandParamsDisabled::hasReservedSpace() const
{
    return false;
}

unsigned long CowFileAutoExpandParamsDisabled::getStepSize() const
{
    throw std::logic_error("getStepSize() called on CowFileAutoExpandParamsDisabled");
}

unsigned long CowFileAutoExpandParamsDisabled::getReservedSpace() const
{
    throw std::logic_error("getReservedSpace() called on CowFileAutoExpandParamsDisabled");
}

CowFileAutoExpandParamsProvider::CowFileAutoExpandParamsProvider(const IConfig& config, const ICowFileSize& cowFileSize)
    : m_config(config)
    , m_cowFileSize(cowFileSize)
{
}

bool CowFileAutoExpandParamsProvider::isAutoExpandDisabled(const std::string& volume) const
{
    bool isDisabled = false;
    m_config.getValue(autoExpandKey(volume, "disable"), isDisabled);
    return isDisabled;
}

unsigned long CowFileAutoExpandParamsProvider::getCustomAutoExpandStepSize(const std::string& volume) const
{
    return customValue(m_config, volume, "stepSizeMiB", "stepSize is not set");
}

unsigned long CowFileAutoExpandParamsProvider::getCustomAutoExpandReservedSpace(const std::string& volume) const
{
    return customValue(m_config, volume, "reservedSpaceMiB", "reservedSpace is not set");
}

std::unique_ptr<ICowFileAutoExpandParams> CowFileAutoExpandParamsProvider::getAutoExpandParams(Logger& logger,
    const std::string& volume, unsigned long volumeSizeBytes, const std::string& fileSystemType, bool autoExpand) const
{
    if (isAutoExpandDisabled(volume) || fileSystemType == "vfat")
        return std::make_unique<CowFileAutoExpandParamsDisabled>();

    const unsigned long initial =
        m_cowFileSize.getCowFileSize(logger, volume, volumeSizeBytes, fileSystemType, autoExpand);
    const unsigned long step = customOr(initial / 2 + initial % 2, logger, autoExpandKey(volume, "stepSizeMiB"),
        [&] { return getCustomAutoExpandStepSize(volume); });
    const unsigned long reserve = customOr(defaultReserve(volumeSizeBytes), logger,
        autoExpandKey(volume, "reservedSpaceMiB"), [&] { return getCustomAutoExpandReservedSpace(volume); });
    return std::make_unique<CowFileAutoExpandParamsEnabled>(std::max(step, kSmallestStep), reserve);
}

} // namespace agent
