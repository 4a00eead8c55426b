#include "Support.h"
#include "agent/info/SystemInfoProvider.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>

namespace {
std::map<std::string, std::string> g_files; // where a file is found instead
utsname g_names{};
ifaddrs* g_interfaces = nullptr;
int g_freed = 0;
} // namespace

// NOLINTBEGIN(cert-dcl50-cpp,readability-inconsistent-declaration-parameter-name)
extern "C" AGENTKIT_API int open(const char* path, int flags, ...)
{
    const auto other = g_files.find(path);
    const char* const real = other != g_files.end() ? other->second.c_str() : path;
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, real, flags, 0600));
}
extern "C" AGENTKIT_API int uname(utsname* names) noexcept
{
    return *names = g_names, 0;
}
extern "C" AGENTKIT_API int getifaddrs(ifaddrs** interfaces) noexcept
{
    return *interfaces = g_interfaces, 0;
}
extern "C" AGENTKIT_API void freeifaddrs(ifaddrs* /*interfaces*/) noexcept
{
    ++g_freed;
}
// NOLINTEND(cert-dcl50-cpp,readability-inconsistent-declaration-parameter-name)

namespace agent::info {
namespace {

using test::thrownBy;
using testing::ElementsAre;
using Pairs = std::vector<std::pair<std::string, std::string>>;

/// What a question gets for an answer, or what is thrown.
std::string answer(const std::function<std::string()>& ask)
{
    std::string text;
    const std::string thrown = thrownBy([&] { text = ask(); });
    return thrown == "nothing" ? text : thrown;
}

class SystemInfo : public testing::Test {
protected:
    ~SystemInfo() override { g_files.clear(); }
    void put(const std::string& path, const std::string& content)
    {
        g_files[path] = m_dir.file(std::to_string(g_files.size()), content);
    }

    test::TempDir m_dir;
    const SystemInfoProvider m_info{};
};

TEST_F(SystemInfo, AsksTheKernel)
{
    for (const auto& [release, expected] :
        Pairs{{"6.1.0-13-amd64", "6 1 0 13-amd64"}, {"5.14", "5 14 0 "}, {"4..9-rc2.x", "4 9 0 x"}}) {
        *std::copy(release.begin(), release.end(), g_names.release) = 0;
        unsigned int n[] = {9, 9, 9};
        std::string rest = "?";
        m_info.getOSVersionNumbers(n[0], n[1], n[2], rest);
        EXPECT_EQ(
            std::to_string(n[0]) + ' ' + std::to_string(n[1]) + ' ' + std::to_string(n[2]) + ' ' + rest, expected);
    }
    for (const auto& [machine, bits] : std::map<std::string, unsigned int>{{"aarch64", 32}, {"x86_64", 64}}) {
        *std::copy(machine.begin(), machine.end(), g_names.machine) = 0;
        EXPECT_EQ(m_info.getOSArchitectureBitSize(), bits) << machine;
    }
    struct sysinfo facts {};
    EXPECT_TRUE(::sysinfo(&facts) == 0 && m_info.getRAM() == facts.totalram);
    EXPECT_LE(m_info.getSystemUptime() - facts.uptime, 1);
    EXPECT_EQ(m_info.getHostName() + '\n', test::contentOf("/proc/sys/kernel/hostname"));
    EXPECT_THAT(m_info.getUserHomeDirs(), testing::Contains(Path("/root")));
    EXPECT_EQ(m_info.getUserHomeDirs(), m_info.getUserHomeDirs()) << "from the beginning each time";
    EXPECT_FALSE(m_info.isConnectionCostRestricted() || m_info.checkAzureFootprint());
    EXPECT_EQ(thrownBy([&] { m_info.getServices(); }), "runtime: getServicesis not implemented.");
    EXPECT_EQ(thrownBy([&] { m_info.getGPUInfo(); }), "runtime: getGPUInfo is not implemented.");
}

TEST_F(SystemInfo, ReadsFiles)
{
    put("/etc/os-release", "ID=x\nVERSION_ID=\"1\"\n");
    put("/etc/lsb-release", "DISTRIB_ID=d\n");
    for (const auto& [path, content, expected] :
        std::vector<std::array<std::string, 3>>{{"redhat", "", "runtime: failed to get OS version"},
            {"redhat", "Red 8\nmore\n", "Red 8"}, {"lsb", "DISTRIB_ID=d\nDISTRIB_DESCRIPTION=D 9\n", "D 9"},
            {"os", "PRETTY_NAME=\"p\"\nNAME=\"N \"\n", "N  "}, {"os", "VERSION=\"12 (x)\"\nNAME=\"N\"", "N 12 (x)"}}) {
        put("/etc/" + path + "-release", content);
        EXPECT_EQ(answer([this] { return m_info.getOSVersion(); }), expected);
    }
    const std::string unable = "runtime: Unable to read /proc/cpuinfo";
    const std::string rest = "vendor_id\t: V\ncpu family\t: 25\nmodel name\t: M: 3 \t\nmodel\t\t: 17\nstepping\t: 1\n";
    for (const auto& [content, expected] : Pairs{{"", unable}, {rest, unable}, {rest + "cpu MHz\t: fast\n", unable},
             {rest + "cpu MHz\t\t: 2399.998\n\nmodel name\t: other\ncpu MHz\t\t: 1\n",
                 R"(M: 3 {"familyId":25,"modelId":17,"stepping":1,"vendorId":"V"}2399)"}}) {
        put("/proc/cpuinfo", content);
        EXPECT_EQ(answer([this] {
            return m_info.getCPUModelName() + ' ' + m_info.getCPUMicroarchitectureInfo().dump() +
                   std::to_string(m_info.getCPUSpeed());
        }),
            expected);
    }
    put("/sys/class/dmi/id/product_serial", "serial\n");
    put("/sys/class/dmi/id/product_name", "name\nsecond\n");
    put("/sys/class/dmi/id/product_uuid", "uuid");
    EXPECT_EQ(m_info.getSMBIOSID() + ',' + m_info.getSMBIOSName() + ',' + m_info.getSMBIOSUUID(), "serial,name,uuid");
    g_files["/sys/class/dmi/id/sys_vendor"] = "/no/such";
    EXPECT_EQ(m_info.getSMBIOSVendor(), "");
}

TEST_F(SystemInfo, ListsNetworkAddresses)
{
    sockaddr_in ip{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_ll none{AF_PACKET, 0, 1, 0, 0, 6, {}};
    sockaddr_ll mac{AF_PACKET, 0, 2, 0, 0, 6, {0x00, 0x16, 0x3e, 0x0A, 0xFF, 1}};
    ifaddrs entries[5] = {}; // the first has no address
    for (int i = 0; i < 4; ++i) entries[i].ifa_next = &entries[i + 1];
    entries[1].ifa_addr = entries[4].ifa_addr = reinterpret_cast<sockaddr*>(&ip);
    entries[2].ifa_addr = reinterpret_cast<sockaddr*>(&none);
    entries[3].ifa_addr = reinterpret_cast<sockaddr*>(&mac);
    g_interfaces = entries;
    test::CapturingLogger log;
    EXPECT_THAT(m_info.getIPv4Addresses(log.logger()), ElementsAre("127.0.0.1", "127.0.0.1"));
    EXPECT_THAT(m_info.getMACAddresses(log.logger()), ElementsAre("00-16-3e-0a-ff-01"));
    EXPECT_EQ(g_freed, 2);
    const std::string found = "4 Found an IPv4 address: 127.0.0.1";
    EXPECT_THAT(log.lines(), ElementsAre(found, found, "4 Found a mac address: 00-16-3e-0a-ff-01"));
}

TEST_F(SystemInfo, ReadsTheDiskTable)
{
    const char* const old = std::getenv("PATH");
    const std::string path = old != nullptr ? old : "/bin";
    ::setenv("PATH", (m_dir.path() + ':' + path).c_str(), 1);
    const auto sigchld = std::signal(SIGCHLD, SIG_IGN);
    const std::string unable = "runtime: Unable to fetch physical disk info: ";
    const std::string line = R"({"mediaType":"HDD","model":"","size":7})";
    std::string many = line;
    for (int i = 1; i < 20'000; ++i) many += "," + line;
    for (const auto& [script, expected] : Pairs{
             {"echo $*", "[]"}, // the heading alone
             {"echo; echo; echo \"   0   512110190592 A B  C\t\"; echo '1 7'",
                 R"([{"mediaType":"SSD","model":"A B  C","size":512110190592},)" + line + "]"},
             {"yes 1 7 | head -20001", "[" + many + "]"}, // more than a pipe holds
             {"echo; echo 2 5", "runtime: Unable to translate media type: 2"},
             {"echo; echo '`-1 5 x'", "runtime: Unable to translate media type: `-1"},
             {"echo; echo 1", "invalid argument: stoull"},
             {"echo; echo 0 99999999999999999999", "logic: stoull"},
             {":", unable + "No command output."},
             {"echo x; exit 3", unable + "lsblk command execution failed with code: 3"},
         }) {
        const std::string check = "#!/bin/sh\n[ \"$*\" = '-b -io ROTA,SIZE,MODEL' ] || exit 9\n";
        ::chmod(m_dir.file("lsblk", check + script).c_str(), 0700);
        EXPECT_EQ(answer([this] { return m_info.getPhysicalDiskInfo().dump(); }), expected) << script;
    }
    (void)std::signal(SIGCHLD, sigchld);
    ::setenv("PATH", path.c_str(), 1);
}

} // namespace
} // namespace agent::info
