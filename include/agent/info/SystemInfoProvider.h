#pragma once

#include "agent/Export.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace agent::info {

/// Answers questions about the machine. What a platform does not support throws std::runtime_error.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API ISystemInfoProvider {
public:
    virtual ~ISystemInfoProvider();

    /// The kernel's release, in numbers, and what comes after the third of them: 6, 1, 0 and "13-amd64" for
    /// "6.1.0-13-amd64". Numbers that it lacks are 0.
    virtual void getOSVersionNumbers(
        unsigned int& majorNumber, unsigned int& minorNumber, unsigned int& patch, std::string& extra) const = 0;

    /// The distribution's name and version.
    virtual std::string getOSVersion() const = 0;
    virtual std::string getTerminalServerMode() const = 0;

    /// Of the kernel, for instance "x86_64".
    virtual std::string getOSArchitecture() const = 0;

    /// 64 for "x86_64", and 32 for everything else.
    virtual unsigned int getOSArchitectureBitSize() const = 0;
    virtual std::string getCPUModelName() const = 0;

    /// An object: "familyId", "modelId" and "stepping", unsigned, and "vendorId", a string.
    virtual nlohmann::json getCPUMicroarchitectureInfo() const = 0;

    /// Processors online.
    virtual unsigned int getNumberOfCPUs() const = 0;

    /// MHz.
    virtual unsigned int getCPUSpeed() const = 0;

    /// In the kernel's units, which are bytes on all 64-bit machines.
    virtual std::uint64_t getRAM() const = 0;
    virtual std::string getHostName() const = 0;

    /// Seconds since the machine was started.
    virtual std::int64_t getSystemUptime() const = 0;
    virtual nlohmann::json getServices() const = 0;
    virtual nlohmann::json getInstalledPrograms() const = 0;

    /// Those of all users that the password database knows, in its order, repeated ones too.
    virtual std::vector<Path> getUserHomeDirs() const = 0;

    /// The machine's serial number, product name, UUID and maker, as its firmware tells them (DMI). Empty where it does
    /// not; some need root.
    virtual std::string getSMBIOSID() const = 0;
    virtual std::string getSMBIOSName() const = 0;
    virtual std::string getSMBIOSUUID() const = 0;
    virtual std::string getSMBIOSVendor() const = 0;

    virtual bool isConnectionCostRestricted() const = 0;

    /// Addresses of all network interfaces, those of the loopback included for IPv4 and left out for MAC.
    virtual std::vector<std::string> getIPv4Addresses(Logger& logger) const = 0;
    virtual std::vector<std::string> getMACAddresses(Logger& logger) const = 0;
    virtual nlohmann::json getGPUInfo() const = 0;

    /// An array of objects: "mediaType", "SSD" or "HDD", "size" in bytes, and "model", a string.
    virtual nlohmann::json getPhysicalDiskInfo() const = 0;

    /// Whether the machine shows signs of running in Azure.
    virtual bool checkAzureFootprint() const = 0;
};

/// Asks Linux, anew at each question: uname and its like, /proc, /etc, the firmware's facts in /sys, and `lsblk`.
///
/// Without support, and throwing std::runtime_error: getTerminalServerMode, getServices, getInstalledPrograms and
/// getGPUInfo. Failed system calls are PosixError; facts that cannot be read are std::runtime_error.
/// Threads: any; getPhysicalDiskInfo() holds SIGCHLD at its default meanwhile, in the whole process, and
/// getUserHomeDirs() walks the C library's one position in the password database.
class AGENTKIT_API SystemInfoProvider : public ISystemInfoProvider {
public:
    void getOSVersionNumbers(
        unsigned int& majorNumber, unsigned int& minorNumber, unsigned int& patch, std::string& extra) const override;

    /// From /etc/os-release, else /etc/lsb-release, else /etc/redhat-release.
    std::string getOSVersion() const override;
    std::string getTerminalServerMode() const override;
    std::string getOSArchitecture() const override;
    unsigned int getOSArchitectureBitSize() const override;
    std::string getCPUModelName() const override;
    nlohmann::json getCPUMicroarchitectureInfo() const override;
    unsigned int getNumberOfCPUs() const override;
    unsigned int getCPUSpeed() const override;
    std::uint64_t getRAM() const override;
    std::string getHostName() const override;
    std::int64_t getSystemUptime() const override;
    nlohmann::json getServices() const override;
    nlohmann::json getInstalledPrograms() const override;
    std::vector<Path> getUserHomeDirs() const override;
    std::string getSMBIOSID() const override;
    std::string getSMBIOSName() const override;
    std::string getSMBIOSUUID() const override;
    std::string getSMBIOSVendor() const override;

    /// Always false.
    bool isConnectionCostRestricted() const override;
    std::vector<std::string> getIPv4Addresses(Logger& logger) const override;

    /// As "00-16-3e-0a-0b-0c".
    std::vector<std::string> getMACAddresses(Logger& logger) const override;
    nlohmann::json getGPUInfo() const override;

    /// Takes as long as `lsblk` does; whole disks and partitions alike.
    /// @throws std::runtime_error     if `lsblk` fails, prints nothing, or prints another flag than 0 or 1
    /// @throws std::invalid_argument  or std::out_of_range, for a size that is no number
    nlohmann::json getPhysicalDiskInfo() const override;

    /// Always false: no request is made to a metadata service on this provider's word.
    bool checkAzureFootprint() const override;
};

} // namespace agent::info
