#include "agent/info/SystemInfoProvider.h"

#include "core/Ascii.h"
#include "core/Io.h"

#include "agent/PosixError.h"
#include "agent/core/script/CommandStream.h"

#include <fcntl.h>
#include <ifaddrs.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netpacket/packet.h>
#include <pwd.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace agent::info {

using core::script::UnixCommandStream;
using nlohmann::json;

namespace {

constexpr const char* kDmiDirectory = "/sys/class/dmi/id";
constexpr const char* kProcessorFile = "/proc/cpuinfo";
constexpr const char* kDiskCommand = "lsblk -b -io ROTA,SIZE,MODEL";
constexpr std::string_view kBlanks = " \n\r\t\f\v";

[[noreturn]] void fail(const char* what)
{
    const int error = errno;
    throw PosixError(what, error);
}

std::string_view trim(std::string_view text)
{
    const auto first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

// --- files --------------------------------------------------------------------------------------------------------

// Nothing if it cannot be opened; else as much as can be read.
std::optional<std::string> contentOf(const Path& path)
{
    const UniqueFd file = io::open(path, O_RDONLY);
    if (!file.isOpen()) return std::nullopt;
    std::string content;
    std::array<char, 4096> piece;
    for (ssize_t length; (length = io::read(file.get(), piece.data(), piece.size())) > 0;)
        content.append(piece.data(), static_cast<std::size_t>(length));
    return content;
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> linesOf(const char* path)
{
    return linesOf(contentOf(path).value_or(std::string()));
}

std::string firstLineOf(const Path& path)
{
    const std::string content = contentOf(path).value_or(std::string());
    return content.substr(0, content.find('\n'));
}

// What follows the prefix in the last of the lines that begin with it, as in a shell that reads the file.
std::string valueOf(const std::vector<std::string>& lines, const std::string& prefix)
{
    std::string value;
    for (const std::string& line : lines) {
        if (line.starts_with(prefix)) value = line.substr(prefix.size());
    }
    return value;
}

std::string unquoted(std::string text)
{
    std::erase(text, '"');
    return text;
}

// --- processor ----------------------------------------------------------------------------------------------------

/// The first value of a key. A value may hold another key's text.
std::string processorFact(std::string_view key)
{
    for (const std::string& line : linesOf(kProcessorFile)) {
        const auto colon = line.find(':');
        if (colon != std::string::npos && line.find(key) < colon)
            return std::string(trim(std::string_view(line).substr(colon + 1)));
    }
    throw std::runtime_error("Unable to read /proc/cpuinfo");
}

// The digits at the beginning: a fraction is dropped.
unsigned int processorNumber(std::string_view key)
{
    const std::string fact = processorFact(key);
    unsigned int number = 0;
    if (std::from_chars(fact.data(), fact.data() + fact.size(), number).ec != std::errc())
        throw std::runtime_error("Unable to read /proc/cpuinfo");
    return number;
}

// --- network ------------------------------------------------------------------------------------------------------

struct InterfacesDeleter {
    void operator()(ifaddrs* interfaces) const noexcept { ::freeifaddrs(interfaces); }
};

std::string ipv4Address(const sockaddr& address, Logger& logger)
{
    char host[NI_MAXHOST];
    const int result = ::getnameinfo(&address, sizeof(sockaddr_in), host, sizeof host, nullptr, 0, NI_NUMERICHOST);
    if (result != 0) {
        Logger::Entry(logger, Logger::DEBUG) << "Failed to get ip address with error " << ::gai_strerror(result);
        return {};
    }
    Logger::Entry(logger, Logger::DEBUG) << "Found an IPv4 address: " << host;
    return host;
}

std::string macAddress(const sockaddr& address, Logger& logger)
{
    constexpr int kSize = 6;
    const auto& link = reinterpret_cast<const sockaddr_ll&>(address);
    std::string text;
    for (int i = 0; i < kSize; ++i) {
        if (i != 0) text += '-';
        text += ascii::kHexDigits[link.sll_addr[i] / 16];
        text += ascii::kHexDigits[link.sll_addr[i] % 16];
    }
    if (text == "00-00-00-00-00-00") return {}; // the loopback's
    Logger::Entry(logger, Logger::DEBUG) << "Found a mac address: " << text;
    return text;
}

/// @param toText  empty for an address that does not count
std::vector<std::string> networkAddresses(
    Logger& logger, int family, std::string (*toText)(const sockaddr& address, Logger& logger))
{
    ifaddrs* raw = nullptr;
    if (::getifaddrs(&raw) != 0) fail("Could not get network information");
    const std::unique_ptr<ifaddrs, InterfacesDeleter> interfaces(raw);
    std::vector<std::string> addresses;
    for (const ifaddrs* entry = interfaces.get(); entry != nullptr; entry = entry->ifa_next) {
        if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != family) continue;
        std::string text = toText(*entry->ifa_addr, logger);
        if (!text.empty()) addresses.push_back(std::move(text));
    }
    return addresses;
}

// --- disks --------------------------------------------------------------------------------------------------------

struct CommandResult {
    int status;
    std::string output;
};

// The guard keeps the status from being lost before it is asked for, in a program that ignores SIGCHLD. The output
// is read first: more of it than a pipe holds would keep the command from ending.
CommandResult run(const std::string& command)
{
    Logger silent{Logger::Printer()};
    const auto guard = UnixCommandStream::restartChld(true);
    UnixCommandStream stream(silent, command, "", false, true, true, true, false);
    std::string output;
    for (std::string piece; stream.getNext(piece);) output += piece;
    return {stream.finish(), std::move(output)};
}

std::string diskTable()
{
    const std::string unable = "Unable to fetch physical disk info: ";
    std::optional<CommandResult> result;
    try {
        result = run(kDiskCommand);
    } catch (const PosixError&) {
        throw std::runtime_error(unable + "lsblk failed.");
    }
    if (result->status != 0)
        throw std::runtime_error(
            unable + "lsblk command execution failed with code: " + std::to_string(result->status));
    if (result->output.empty()) throw std::runtime_error(unable + "No command output.");
    return std::move(result->output);
}

const char* mediaTypeOf(const std::string& rotational)
{
    if (rotational == "0") return "SSD";
    if (rotational == "1") return "HDD";
    throw std::runtime_error("Unable to translate media type: " + rotational);
}

// Cuts off the first word.
std::string nextWord(std::string_view& text)
{
    text = trim(text);
    const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
    text.remove_prefix(word.size());
    return std::string(word);
}

json diskOf(std::string_view line)
{
    json disk;
    disk["mediaType"] = mediaTypeOf(nextWord(line));
    disk["size"] = std::uint64_t{std::stoull(nextWord(line))};
    disk["model"] = trim(line);
    return disk;
}

} // namespace

ISystemInfoProvider::~ISystemInfoProvider() = default;

void SystemInfoProvider::getOSVersionNumbers(
    unsigned int& majorNumber, unsigned int& minorNumber, unsigned int& patch, std::string& extra) const
{
    utsname names{};
    if (::uname(&names) != 0) fail("Could not get kernel version, uname failed");
    char* text = names.release; // null from the second piece on
    char* rest = nullptr;
    for (unsigned int* const number : {&majorNumber, &minorNumber, &patch}) {
        const char* const piece = ::strtok_r(std::exchange(text, nullptr), ".-", &rest);
        *number = piece != nullptr ? static_cast<unsigned int>(std::strtol(piece, nullptr, 10)) : 0;
    }
    extra = rest;
}

std::string SystemInfoProvider::getOSVersion() const
{
    const auto osRelease = linesOf("/etc/os-release");
    if (const std::string name = unquoted(valueOf(osRelease, "NAME=")); !name.empty())
        return name + ' ' + unquoted(valueOf(osRelease, "VERSION="));
    if (std::string text = valueOf(linesOf("/etc/lsb-release"), "DISTRIB_DESCRIPTION="); !text.empty()) return text;
    if (std::string text = firstLineOf("/etc/redhat-release"); !text.empty()) return text;
    throw std::runtime_error("failed to get OS version");
}

std::string SystemInfoProvider::getTerminalServerMode() const
{
    throw std::runtime_error("getTerminalServerModeis not implemented.");
}

std::string SystemInfoProvider::getOSArchitecture() const
{
    utsname names{};
    if (::uname(&names) != 0) fail("could not get OS architecture. uname failed");
    return names.machine;
}

unsigned int SystemInfoProvider::getOSArchitectureBitSize() const
{
    return getOSArchitecture() == "x86_64" ? 64 : 32;
}

std::string SystemInfoProvider::getCPUModelName() const
{
    return processorFact("model name");
}

json SystemInfoProvider::getCPUMicroarchitectureInfo() const
{
    return {
        {"familyId", processorNumber("cpu family")},
        {"modelId", processorNumber("model\t")}, // not "model name"
        {"stepping", processorNumber("stepping")},
        {"vendorId", processorFact("vendor_id")},
    };
}

unsigned int SystemInfoProvider::getNumberOfCPUs() const
{
    const long number = ::sysconf(_SC_NPROCESSORS_ONLN);
    if (number < 0) fail("could not get number of CPUs. sysconf(_SC_NPROCESSORS_ONLN) failed");
    return static_cast<unsigned int>(number);
}

unsigned int SystemInfoProvider::getCPUSpeed() const
{
    return processorNumber("cpu MHz");
}

std::uint64_t SystemInfoProvider::getRAM() const
{
    struct sysinfo facts {};
    if (::sysinfo(&facts) != 0) fail("could not get system ram. sysinfo failed");
    return facts.totalram;
}

std::string SystemInfoProvider::getHostName() const
{
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name) != 0) fail("could not get hostname. gethostname failed");
    return name;
}

std::int64_t SystemInfoProvider::getSystemUptime() const
{
    struct sysinfo facts {};
    if (::sysinfo(&facts) != 0) fail("could not get system uptime. sysinfo failed");
    return facts.uptime;
}

json SystemInfoProvider::getServices() const
{
    throw std::runtime_error("getServicesis not implemented.");
}

json SystemInfoProvider::getInstalledPrograms() const
{
    throw std::runtime_error("getInstalledProgramsis not implemented.");
}

std::vector<Path> SystemInfoProvider::getUserHomeDirs() const
{
    struct Closer {
        Closer() { ::setpwent(); }
        Closer(const Closer&) = delete;
        Closer& operator=(const Closer&) = delete;
        ~Closer() { ::endpwent(); }
    };
    static std::mutex mutex; // there is one position in the database, and one entry, for the whole process
    const std::lock_guard lock(mutex);
    const Closer closer;
    std::vector<Path> directories;
    while (const passwd* const user = ::getpwent()) directories.emplace_back(user->pw_dir);
    return directories;
}

std::string SystemInfoProvider::getSMBIOSID() const
{
    return firstLineOf(kDmiDirectory / Path("product_serial"));
}

std::string SystemInfoProvider::getSMBIOSName() const
{
    return firstLineOf(kDmiDirectory / Path("product_name"));
}

std::string SystemInfoProvider::getSMBIOSUUID() const
{
    return firstLineOf(kDmiDirectory / Path("product_uuid"));
}

std::string SystemInfoProvider::getSMBIOSVendor() const
{
    return firstLineOf(kDmiDirectory / Path("sys_vendor"));
}

bool SystemInfoProvider::isConnectionCostRestricted() const
{
    return false;
}

std::vector<std::string> SystemInfoProvider::getIPv4Addresses(Logger& logger) const
{
    return networkAddresses(logger, AF_INET, ipv4Address);
}

std::vector<std::string> SystemInfoProvider::getMACAddresses(Logger& logger) const
{
    return networkAddresses(logger, AF_PACKET, macAddress);
}

json SystemInfoProvider::getGPUInfo() const
{
    throw std::runtime_error("getGPUInfo is not implemented.");
}

json SystemInfoProvider::getPhysicalDiskInfo() const
{
    json disks = json::array();
    bool isHeading = true;
    for (const std::string& line : linesOf(diskTable())) {
        if (!std::exchange(isHeading, false) && !trim(line).empty()) disks.push_back(diskOf(line));
    }
    return disks;
}

bool SystemInfoProvider::checkAzureFootprint() const
{
    return false;
}

} // namespace agent::info
