#include "agent/core/block/Extents.h"
#include "Support.h"

#include <linux/fiemap.h>
#include <linux/fs.h>

namespace {

/// What the system answers while a test has one set.
struct Script {
    unsigned int counted = 0; ///< number of extents that the first request reports
    std::vector<fiemap_extent> extents = {};
    long failingCall = 0; ///< SYS_ioctl fails at the request of number `counted`
    int requests = 0;     ///< so far
};
std::optional<Script> g_script;

int result(long call, int otherwise)
{
    if (!g_script || g_script->failingCall != call) return otherwise;
    errno = EIO;
    return -1;
}

int answer(fiemap& request)
{
    const bool counts = g_script->requests++ == 0;
    EXPECT_TRUE(request.fm_start == 0 && request.fm_length == ~0ULL && request.fm_flags == 0);
    const auto count = std::min<std::size_t>(request.fm_extent_count, g_script->extents.size());
    std::copy_n(g_script->extents.begin(), count, static_cast<fiemap_extent*>(request.fm_extents));
    request.fm_mapped_extents = counts ? g_script->counted : static_cast<unsigned int>(count);
    return g_script->requests == static_cast<int>(g_script->counted) ? result(SYS_ioctl, 0) : 0;
}

} // namespace

// The library's calls come here first.
extern "C" AGENTKIT_API int ioctl(int fd, unsigned long request, void* argument) noexcept
{
    if (g_script && request == FS_IOC_FIEMAP) return answer(*static_cast<fiemap*>(argument));
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}
extern "C" AGENTKIT_API int fstat64(int fd, struct stat64* status) noexcept
{
    return result(SYS_fstat, static_cast<int>(::syscall(SYS_fstat, fd, status)));
}
using namespace agent::core::block;

using Ranges = std::vector<BlockRange>;

struct Extents : FileFixture {
    ~Extents() override { g_script.reset(); }

    static fiemap_extent extent(unsigned long physical, unsigned long length, unsigned int flags = 0)
    {
        fiemap_extent extent{};
        extent.fe_physical = physical;
        extent.fe_length = length;
        extent.fe_flags = FIEMAP_EXTENT_ENCODED | flags;
        return extent;
    }

    std::string m_file = m_dir.file("file", std::string(4097, 'x'));
    std::string m_quoted = '"' + m_file + '"';
    Ranges m_out{{7, 7}};
};

TEST_F(Extents, TellWhatWasFoundAndWhatWasExpected)
{
    const std::string reports = "4 FIEMAP IoCtl of file " + m_quoted + " reports ";
    const std::string got = "4 FBRE Linux: Exclude extent { ";
    const std::string exactly = "4 FBRE Linux: FIEMAP got as many extents as we thought we should have (2 for file ";
    const std::string fewer = "2 FBRE Linux: identified fewer extents for file " + m_quoted +
                              " than we thought we should have (expected 3, got 1)";
    const std::string more = "2 FBRE Linux: identified more extents for file " + m_quoted +
                             " than we thought we should have (expected 2, but got some amount more); some blocks "
                             "may not be excluded properly";
    const auto first = extent(1UL << 44, 8192);
    const auto last = extent(4096, 12287, FIEMAP_EXTENT_LAST);
    using Case = std::tuple<const char*, unsigned int, std::vector<fiemap_extent>, Ranges, std::string>;
    for (const auto& [why, counted, found, ranges, end] : std::vector<Case>{
             {"none, and no word about it", 0, {}, {}, ""},
             {"both divisions round down", 2, {extent(8191, 4095), last}, {{1, 0}, {1, 2}}, exactly + m_quoted + ")"},
             {"fewer: the index is told", 3, {first, last, first}, {{1UL << 32, 2}, {1, 2}}, fewer},
             {"more", 2, {first, first, last}, {{1UL << 32, 2}, {1UL << 32, 2}}, more},
             {"emptied meanwhile", 2, {}, {{0, 0}, {0, 0}}, more},
         }) {
        g_script = Script{.counted = counted, .extents = found};
        CapturingLogger log;
        extents(log.logger(), m_file, 4096, m_out);
        EXPECT_EQ(g_script->requests, 2) << why;
        EXPECT_EQ(m_out, ranges) << why;
        std::vector<std::string> lines{"4 FBRE Linux: Block Size = 4096", "4 FBRE Linux: Block Count = 2",
            reports + std::to_string(counted) + " (pre-merged) extents"};
        for (const auto& range : ranges)
            lines.push_back(got + std::to_string(range.start()) + ", " + std::to_string(range.count()) + " }");
        if (counted != 0) lines.push_back(end);
        EXPECT_EQ(log.lines(), lines) << why;
    }
}

TEST_F(Extents, FailWithTheirOwnWords)
{
    const auto fails = [&](const std::string& path, const Script& script, const std::string& text, int code) {
        g_script = script;
        EXPECT_EQ(thrownBy([&] { extents(m_log.logger(), path, 512, m_out); }), posix(text, code));
        EXPECT_EQ(m_out, (Ranges{{7, 7}})) << "left as it was";
    };
    const std::string excluded = "FIEMAP IoCtl for excluded file " + m_quoted + " failed, error ";
    fails(m_dir / "no", {}, "Failed to open handle to file \"" + (m_dir / "no") + "\", error: ", ENOENT);
    const std::string pipe = m_dir / "pipe"; // is refused, not waited for
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    fails(pipe, {.failingCall = SYS_fstat}, "Failed to stat file \"" + pipe + "\", error: ", EIO);
    fails(m_file, {.counted = 1, .failingCall = SYS_ioctl},
        "FIEMAP IoCtl for file " + m_quoted + " failed, error: ", EIO);
    fails(m_file, {.counted = 2, .failingCall = SYS_ioctl}, excluded, EIO);
    fails(m_file, {.counted = ~0U}, excluded, EINVAL);
    EXPECT_EQ(g_script->requests, 1) << "no memory is asked for that the kernel would not fill";
    EXPECT_EQ(thrownBy([&] { extents(m_log.logger(), m_file, 0, m_out); }).substr(0, 17), "invalid argument:");
}
