#include "agent/CowFileSize.h"

#include "config/MiB.h"

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace agent {

using info::Logger;

namespace {

constexpr unsigned long kSmallest = 10;           // MiB
constexpr unsigned long kLargestDefault = 10'240; // MiB
constexpr unsigned long kLargestOnFat = 4'095;    // MiB

std::string sizeKey(const std::string& volume)
{
    return "volumes." + volume + ".cowFileSizeMiB";
}

} // namespace

ICowFileSize::~ICowFileSize() = default;

unsigned long getDefaultCowFileSize(unsigned long volumeSizeBytes, bool autoExpand)
{
    return std::clamp(toMiB(volumeSizeBytes / 10), kSmallest, autoExpand ? kSmallest : kLargestDefault);
}

unsigned long getClampedCowFileSize(unsigned long sizeMiB, unsigned long volumeSizeBytes)
{
    return std::max(std::min(sizeMiB, toMiB(volumeSizeBytes / 2)), kSmallest);
}

CowFileSize::CowFileSize(const IConfig& config)
    : m_config(config)
{
}

unsigned long CowFileSize::getCustomCowFileSize(const std::string& volume) const
{
    unsigned long size = 0;
    m_config.getValue(sizeKey(volume), size);
    if (size == 0) throw std::invalid_argument("A custom cow file size for volume " + volume + " does not exist!");
    return size;
}

unsigned long CowFileSize::customSizeOr(unsigned long otherwise, Logger& logger, const std::string& volume) const
{
    try {
        const unsigned long custom = getCustomCowFileSize(volume);
        Logger::Entry(logger, Logger::DEBUG)
            << "Found the " << sizeKey(volume) << " configuration option (" << custom << ")";
        return custom;
    } catch (...) { // a backup with the default size is better than none
        return otherwise;
    }
}

unsigned long CowFileSize::getCowFileSize(Logger& logger, const std::string& volume, unsigned long volumeSizeBytes,
    const std::string& fileSystemType, bool autoExpand) const
{
    const unsigned long size = customSizeOr(getDefaultCowFileSize(volumeSizeBytes, autoExpand), logger, volume);
    const unsigned long clamped = getClampedCowFileSize(size, volumeSizeBytes);
    if (clamped != size)
        Logger::Entry(logger, Logger::WARNING)
            << "Invalid cow file size (" << size << ") Clamping to (" << clamped << ")";
    return fileSystemType == "vfat" ? std::min(clamped, kLargestOnFat) : clamped;
}

unsigned long LegacyCowFileSize::getCowFileSize(Logger& /*logger*/, const std::string& /*volume*/,
    unsigned long volumeSizeBytes, const std::string& /*fileSystemType*/, bool /*autoExpand*/) const
{
    constexpr unsigned long kDividend = 1'048'576'000; // 1,000 MiB
    constexpr unsigned long kLargest = 50;             // MiB
    if (volumeSizeBytes == 0) return kLargest;
    const unsigned long quotient =
        (volumeSizeBytes + kDividend - 1) / volumeSizeBytes; // a sum that wraps is below 10, too
    return std::clamp(quotient, kSmallest, kLargest);
}

} // namespace agent
