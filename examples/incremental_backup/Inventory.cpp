#include "Inventory.h"

#include "agent/TelemetryStore.h"
#include "agent/info/SystemInfoProvider.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <string>
#include <vector>

namespace backup {

using agent::info::Logger;
using nlohmann::json;

namespace {

std::vector<std::string> namesOf(const std::vector<agent::Path>& paths)
{
    std::vector<std::string> names(paths.size());
    std::transform(paths.begin(), paths.end(), names.begin(), [](const agent::Path& path) { return path.u8string(); });
    return names;
}

json inventoryOf(const agent::info::ISystemInfoProvider& system, Logger& logger)
{
    json inventory;
    // What a machine does not tell is left out; a container, for instance, has no disks.
    const auto add = [&](const char* name, const auto& ask) {
        try {
            inventory[name] = ask();
        } catch (const std::exception& e) {
            Logger::Entry(logger, Logger::DEBUG) << name << ": " << e.what();
        }
    };
    add("operatingSystem", [&] { return system.getOSVersion(); });
    add("architecture", [&] { return system.getOSArchitecture(); });
    add("addressBits", [&] { return system.getOSArchitectureBitSize(); });
    add("kernel", [&] {
        unsigned int first = 0;
        unsigned int second = 0;
        unsigned int third = 0;
        std::string rest;
        system.getOSVersionNumbers(first, second, third, rest);
        return std::vector{first, second, third};
    });
    add("processor", [&] { return system.getCPUModelName(); });
    add("microarchitecture", [&] { return system.getCPUMicroarchitectureInfo(); });
    add("processors", [&] { return system.getNumberOfCPUs(); });
    add("megahertz", [&] { return system.getCPUSpeed(); });
    add("memory", [&] { return system.getRAM(); });
    add("hostName", [&] { return system.getHostName(); });
    add("uptimeSeconds", [&] { return system.getSystemUptime(); });
    add("homeDirectories", [&] { return namesOf(system.getUserHomeDirs()); });
    add("serialNumber", [&] { return system.getSMBIOSID(); });
    add("productName", [&] { return system.getSMBIOSName(); });
    add("productUuid", [&] { return system.getSMBIOSUUID(); });
    add("vendor", [&] { return system.getSMBIOSVendor(); });
    add("ipv4Addresses", [&] { return system.getIPv4Addresses(logger); });
    add("macAddresses", [&] { return system.getMACAddresses(logger); });
    add("disks", [&] { return system.getPhysicalDiskInfo(); });
    return inventory;
}

} // namespace

void printInventory(const agent::Path& store, Logger& logger)
{
    const json inventory = inventoryOf(agent::info::SystemInfoProvider(), logger);
    const auto [patch, existed] = agent::TelemetryStore(store, logger).diffAndUpdateServices(inventory);
    std::cout << inventory.dump(2) << '\n';
    std::cout << (existed ? "Changes since the last time: " : "Nothing was known so far: ") << patch.dump() << '\n';
}

} // namespace backup
