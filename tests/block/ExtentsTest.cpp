#include "agent/core/block/Extents.h"
#include "Support.h"

#include <linux/fiemap.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <optional>

namespace {

/// What the file system answers while a test has one set.
struct Script {
    unsigned int counted = 0; ///< number of extents that the first request reports
    std::vector<fiemap_extent> extents = {};
    int countError = 0;
    int fetchError = 0;
    int statError = 0;
    int closeError = 0;
    int requests = 0; ///< so far
};
std::optional<Script> g_script;

int failing(int error)
{
    errno = error;
    return error == 0 ? 0 : -1;
}

int answer(fiemap& request)
{
    EXPECT_EQ(request.fm_start, 0U);
    EXPECT_EQ(request.fm_length, ~0ULL);
    EXPECT_EQ(request.fm_flags, 0U);
    if (g_script->requests++ == 0) {
        EXPECT_EQ(request.fm_extent_count, 0U);
        request.fm_mapped_extents = g_script->counted;
        return failing(g_script->countError);
    }
    EXPECT_EQ(request.fm_extent_count, g_script->counted);
    const auto count = std::min<std::size_t>(request.fm_extent_count, g_script->extents.size());
    std::copy_n(g_script->extents.begin(), count, static_cast<fiemap_extent*>(request.fm_extents));
    request.fm_mapped_extents = static_cast<unsigned int>(count);
    return failing(g_script->fetchError);
}

} // namespace

// The library's calls come here first.
extern "C" AGENTKIT_API int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (g_script && request == FS_IOC_FIEMAP) return answer(*static_cast<fiemap*>(argument));
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, argument));
}

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): the system's declaration
extern "C" AGENTKIT_API int fstat64(int fd, struct stat64* status) noexcept
{
    if (g_script && g_script->statError != 0) return failing(g_script->statError);
    return static_cast<int>(::syscall(SYS_fstat, fd, status));
}

extern "C" AGENTKIT_API int close(int fd)
{
    const auto result = static_cast<int>(::syscall(SYS_close, fd));
    return g_script && g_script->closeError != 0 ? failing(g_script->closeError) : result;
}

namespace agent::core::block {
namespace {

using test::thrownBy;
using Ranges = std::vector<BlockRange>;
using Lines = std::vector<std::string>;

class Extents : public testing::Test {
protected:
    ~Extents() override
    {
        g_script.reset();
        EXPECT_EQ(test::openDescriptors(), m_descriptors);
    }

    static fiemap_extent extent(unsigned long physical, unsigned long length, bool last = false)
    {
        fiemap_extent extent{};
        extent.fe_physical = physical;
        extent.fe_length = length;
        extent.fe_flags = FIEMAP_EXTENT_ENCODED | (last ? FIEMAP_EXTENT_LAST : 0U);
        return extent;
    }

    decltype(test::openDescriptors()) m_descriptors = test::openDescriptors();
    test::TempDir m_dir;
    test::CapturingLogger m_log;
    std::string m_file = m_dir.file("file", std::string(4097, 'x'));
    Ranges m_out{{7, 7}};
};

TEST_F(Extents, AreThoseThatTheSystemsOwnToolFinds)
{
    for (const int islands : {0, 1, 40}) {
        const std::string path = m_dir / std::to_string(islands);
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "w"), &std::fclose);
        for (int i = 0; i < islands; ++i) {
            (void)std::fseek(file.get(), i * 1'000'000L, SEEK_SET);
            (void)std::fputs("some data", file.get());
        }
        (void)std::fflush(file.get());
        (void)::ftruncate(::fileno(file.get()), 50'000'000);
        (void)::fsync(::fileno(file.get()));

        Ranges expected;
        const std::string command = "filefrag -v -b512 " + path + " 2>/dev/null";
        const std::unique_ptr<std::FILE, int (*)(std::FILE*)> tool(
            ::popen(command.c_str(), "r"), &::pclose); // NOLINT(cert-env33-c): a path of our own making
        char line[256];
        unsigned long start = 0;
        unsigned long count = 0;
        while (std::fgets(line, sizeof line, tool.get()) != nullptr) {
            // NOLINTNEXTLINE(cert-err34-c): numbers of the tool, and wrong ones would not compare equal
            if (std::sscanf(line, " %*d: %*d.. %*d: %lu.. %*d: %lu:", &start, &count) == 2)
                expected.emplace_back(start, count);
        }
        const std::string failure = thrownBy([&] { extents(m_log.logger(), path, 512, m_out); });
        if (failure.find("FIEMAP IoCtl for file") != std::string::npos) GTEST_SKIP() << failure;
        EXPECT_EQ(failure, "nothing");
        EXPECT_EQ(m_out, expected);
        EXPECT_GE(m_out.size(), static_cast<std::size_t>(islands));
    }
}

TEST_F(Extents, TellWhatWasFoundAndWhatWasExpected)
{
    struct Case {
        const char* why;
        unsigned int counted;
        std::vector<fiemap_extent> extents;
        Ranges ranges;
        std::string end;
    };
    const std::string q = "\"" + m_file + "\"";
    const auto fewer = [&](int expected, int index) {
        return "2 FBRE Linux: identified fewer extents for file " + q + " than we thought we should have (expected " +
               std::to_string(expected) + ", got " + std::to_string(index) + ")";
    };
    const std::string more =
        "2 FBRE Linux: identified more extents for file " + q +
        " than we thought we should have (expected 2, but got some amount more); some blocks may not be excluded "
        "properly";
    const std::string exactly = "4 FBRE Linux: FIEMAP got as many extents as we thought we should have (2 for file ";
    const auto first = extent(1UL << 44, 8192);
    for (const auto& [why, counted, found, ranges, end] : std::vector<Case>{
             {"none, and no word about it", 0, {}, {}, ""},
             {"both divisions round down", 2, {extent(8191, 4095), extent(4096, 12287, true)}, {{1, 0}, {1, 2}},
                 exactly + q + ")"},
             {"fewer: the index is told", 3, {first, extent(0, 4096, true)}, {{1UL << 32, 2}, {0, 1}}, fewer(3, 1)},
             {"what comes after the last is left out", 3, {extent(0, 4096, true), first}, {{0, 1}}, fewer(3, 0)},
             {"more", 2, {first, extent(0, 4096), extent(0, 0, true)}, {{1UL << 32, 2}, {0, 1}}, more},
             {"emptied meanwhile", 2, {}, {{0, 0}, {0, 0}}, more},
         }) {
        g_script = Script{.counted = counted, .extents = found};
        test::CapturingLogger log;
        extents(log.logger(), m_file, 4096, m_out);
        EXPECT_EQ(g_script->requests, 2) << why;
        EXPECT_EQ(m_out, ranges) << why;

        Lines lines{"4 FBRE Linux: Block Size = 4096", "4 FBRE Linux: Block Count = 2",
            "4 FIEMAP IoCtl of file " + q + " reports " + std::to_string(counted) + " (pre-merged) extents"};
        for (const BlockRange& range : ranges)
            lines.push_back("4 FBRE Linux: Exclude extent { " + std::to_string(range.start()) + ", " +
                            std::to_string(range.count()) + " }");
        if (!end.empty()) lines.push_back(end);
        EXPECT_EQ(log.lines(), lines) << why;
    }
}

TEST_F(Extents, FailWithTheirOwnWords)
{
    const auto fails = [&](const std::string& path, const std::string& text, int code) {
        EXPECT_EQ(thrownBy([&] { extents(m_log.logger(), path, 512, m_out); }), test::posix(text, code));
        EXPECT_EQ(m_out, (Ranges{{7, 7}})) << "left as it was";
    };
    const std::string q = "\"" + m_file + "\"";
    fails(m_dir / "no", "Failed to open handle to file \"" + (m_dir / "no") + "\", error: ", ENOENT);
    g_script = Script{.statError = EIO};
    fails(m_file, "Failed to stat file " + q + ", error: ", EIO);
    g_script = Script{.counted = 1, .countError = EOPNOTSUPP};
    fails(m_file, "FIEMAP IoCtl for file " + q + " failed, error: ", EOPNOTSUPP);
    g_script = Script{.counted = 1, .fetchError = EBUSY};
    fails(m_file, "FIEMAP IoCtl for excluded file " + q + " failed, error ", EBUSY);
    g_script = Script{.counted = ~0U};
    fails(m_file, "FIEMAP IoCtl for excluded file " + q + " failed, error ", EINVAL);
    EXPECT_EQ(g_script->requests, 1) << "no memory is asked for that the kernel would not fill";
    EXPECT_EQ(thrownBy([&] { extents(m_log.logger(), m_file, 0, m_out); }).substr(0, 17), "invalid argument:");

    g_script = Script{.closeError = EIO};
    extents(m_log.logger(), m_file, 512, m_out);
    EXPECT_EQ(
        m_log.lines().back(), "2 Failed to close file handle to excluded file " + q + ": " + PosixError::strerror(EIO));
    EXPECT_TRUE(m_out.empty());
}

} // namespace
} // namespace agent::core::block
