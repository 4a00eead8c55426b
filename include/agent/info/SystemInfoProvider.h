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

    /// The kernel's release, in numbers, and what comes after the third of them.
    virtual void getOSVersionNumbers(
        unsigned int& majorNumber, unsigned int& minorNumber, unsigned int& patch, std::string& extra) const = 0;

    /// The distribution's name and version.
    virtual std::string getOSVersion() const = 0;
    virtual std::string getTerminalServerMode() const = 0;

    /// Of the kernel, for instance "x86_64".
    virtual std::string getOSArchitecture() const = 0;
    virtual unsigned int getOSArchitectureBitSize() const = 0;
    virtual std::string getCPUModelName() const = 0;

    /// An object: "familyId", "modelId" and "stepping", unsigned, and "vendorId", a string.
    virtual nlohmann::json getCPUMicroarchitectureInfo() const = 0;

    /// Processors online.
    virtual unsigned int getNumberOfCPUs() const = 0;

    /// MHz.
    virtual unsigned int getCPUSpeed() const = 0;

    /// In units of the kernel's, which are bytes on all machines of today.
    virtual std::uint64_t getRAM() const = 0;
    virtual std::string getHostName() const = 0;

    /// Seconds since the machine was started.
    virtual std::int64_t getSystemUptime() const = 0;
    virtual nlohmann::json getServices() const = 0;
    virtual nlohmann::json getInstalledPrograms() const = 0;

    /// Those of all users that the password database knows.
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

    /// An array of objects: "mediaType", "SSD" or "HDD", "size" in bytes, and "model".
    virtual nlohmann::json getPhysicalDiskInfo() const = 0;

    /// Whether the machine shows signs of running in Azure.
    virtual bool checkAzureFootprint() const = 0;
};

} // namespace agent::info
