#include "Support.h"
#include "agent/info/SystemInfoProvider.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <netpacket/packet.h>
#include <sys/utsname.h>

namespace {
std::map<std::string, std::string> g_files; // where a file is found instead
utsname g_names{};
ifaddrs* g_interfaces = nullptr;
} // namespace

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
extern "C" AGENTKIT_API void freeifaddrs(ifaddrs* interfaces) noexcept
{
    EXPECT_EQ(interfaces, std::exchange(g_interfaces, nullptr));
}

using namespace agent::info;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// What a question gets for an answer, or what is thrown.
std::string answer(const std::function<std::string()>& ask)
{
    std::string text;
    const std::string thrown = thrownBy([&] { text = ask(); });
    return thrown == "nothing" ? text : thrown;
}

struct SystemInfo : FileFixture {
    ~SystemInfo() override { g_files.clear(); }
    void put(const std::string& path, const std::string& content)
    {
        g_files[path] = m_dir.file(std::to_string(g_files.size()), content);
    }

    const SystemInfoProvider m_info{};
};

TEST_F(SystemInfo, AsksTheKernel)
{
    for (const auto& [release, expected] :
        Pairs{{"6.1.0-13-amd64", "{ 6, 1, 0 }13-amd64"}, {"5.14", "{ 5, 14, 0 }"}, {"4..9-rc2.x", "{ 4, 9, 0 }x"}}) {
        *std::copy(release.begin(), release.end(), g_names.release) = 0;
        unsigned int n[3];
        std::string rest;
        m_info.getOSVersionNumbers(n[0], n[1], n[2], rest);
        EXPECT_EQ(testing::PrintToString(n) + rest, expected);
    }
    EXPECT_EQ(m_info.getOSArchitectureBitSize(), 32U) << "of an unknown machine";
    std::string_view("x86_64").copy(g_names.machine, 6);
    EXPECT_EQ(m_info.getOSArchitecture() + std::to_string(m_info.getOSArchitectureBitSize()), "x86_6464");
    EXPECT_EQ(m_info.getHostName() + '\n', contentOf("/proc/sys/kernel/hostname"));
    EXPECT_EQ(m_info.getRAM() / static_cast<unsigned long>(::sysconf(_SC_PAGESIZE)), ::sysconf(_SC_PHYS_PAGES));
    for (int i = 0; i < 2; ++i) EXPECT_THAT(m_info.getUserHomeDirs(), Contains(Path("/root")));
    EXPECT_EQ(thrownBy([&] { m_info.getServices(); }), "runtime: getServicesis not implemented.");
}

TEST_F(SystemInfo, ReadsFiles)
{
    for (const char* const path : {"/etc/os-release", "/etc/lsb-release"}) put(path, "ID=x\nVERSION=1\n");
    for (const auto& [path, content, expected] :
        std::vector<std::array<std::string, 3>>{{"redhat", "", "runtime: failed to get OS version"},
            {"redhat", "Red 8\nmore\n", "Red 8"}, {"lsb", "DISTRIB_DESCRIPTION=D 9\n", "D 9"},
            {"os", "PRETTY_NAME=\"p\"\nNAME=\"N \"\n", "N  "}, {"os", "VERSION=\"12 (x)\"\nNAME=\"N\"", "N 12 (x)"}}) {
        put("/etc/" + path + "-release", content);
        EXPECT_EQ(answer([this] { return m_info.getOSVersion(); }), expected);
    }
    const std::string facts =
        "vendor_id\t: V\ncpu family\t: 25\nmodel name\t: M: 3 \t\n model\t\t: 17\nstepping\t: 1\n";
    put("/proc/cpuinfo", facts + "cpu MHz\t\t: 2399.998\n\nmodel name\t: other\ncpu MHz\t\t: 1\n");
    EXPECT_EQ(m_info.getCPUModelName() + std::to_string(m_info.getCPUSpeed()), "M: 32399");
    EXPECT_EQ(
        m_info.getCPUMicroarchitectureInfo().dump(), R"({"familyId":25,"modelId":17,"stepping":1,"vendorId":"V"})");
    put("/proc/cpuinfo", "cpu MHz\t: fast\n");
    EXPECT_EQ(thrownBy([this] { m_info.getCPUSpeed(); }), "runtime: Unable to read /proc/cpuinfo");
    for (const std::string name : {"name", "serial", "uuid"})
        put("/sys/class/dmi/id/product_" + name, name + "\n2nd\n");
    g_files["/sys/class/dmi/id/sys_vendor"] = "/no/such";
    EXPECT_EQ(m_info.getSMBIOSName() + m_info.getSMBIOSVendor() + m_info.getSMBIOSID() + m_info.getSMBIOSUUID(),
        "nameserialuuid");
}

TEST_F(SystemInfo, ListsNetworkAddresses)
{
    sockaddr_in ip{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    sockaddr_ll none{AF_PACKET, 0, 1, 0, 0, 6, {}};
    sockaddr_ll mac{AF_PACKET, 0, 2, 0, 0, 6, {0x00, 0x16, 0x3e, 0x0A, 0xFF, 1}};
    ifaddrs entries[4] = {}; // the first has no address
    for (int i = 0; i < 3; ++i) entries[i].ifa_next = &entries[i + 1];
    entries[1].ifa_addr = reinterpret_cast<sockaddr*>(&ip);
    entries[2].ifa_addr = reinterpret_cast<sockaddr*>(&none);
    entries[3].ifa_addr = reinterpret_cast<sockaddr*>(&mac);
    CapturingLogger log;
    g_interfaces = entries;
    EXPECT_THAT(m_info.getIPv4Addresses(log.logger()), ElementsAre("127.0.0.1"));
    g_interfaces = entries;
    EXPECT_THAT(m_info.getMACAddresses(log.logger()), ElementsAre("00-16-3e-0a-ff-01"));
    EXPECT_EQ(g_interfaces, nullptr) << "freed";
    EXPECT_THAT(
        log.lines(), ElementsAre("4 Found an IPv4 address: 127.0.0.1", "4 Found a mac address: 00-16-3e-0a-ff-01"));
}

TEST_F(SystemInfo, ReadsTheDiskTable)
{
    ::setenv("PATH", (m_dir.path() + ":/usr/bin:/bin").c_str(), 1);
    const auto sigchld = std::signal(SIGCHLD, SIG_IGN); // which hides how the command ends
    const std::string unable = "runtime: Unable to fetch physical disk info: ";
    for (const auto& [script, expected] :
        Pairs{
            {"echo; echo; echo \"   0   512110190592 A B  C\t\"; echo '1 7'",
                R"([{"mediaType":"SSD","model":"A B  C","size":512110190592},{"mediaType":"HDD","model":"","size":7}])"},
            {"yes '' | head -100000; echo 2 5", "runtime: Unable to translate media type: 2"},
            {"echo; echo 1", "invalid argument: stoull"},
            {":", unable + "No command output."},
            {"echo x; exit 3", unable + "lsblk command execution failed with code: 3"},
        }) {
        const std::string check = "#!/bin/sh\n[ \"$*\" = '-b -io ROTA,SIZE,MODEL' ] || exit 9\n";
        ::chmod(m_dir.file("lsblk", check + script).c_str(), 0700);
        EXPECT_EQ(answer([this] { return m_info.getPhysicalDiskInfo().dump(); }), expected) << script;
    }
    (void)std::signal(SIGCHLD, sigchld);
}

} // namespace
