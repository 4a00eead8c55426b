#include "agent/dir/Operations.h"
#include "Support.h"
#include "agent/FileWriters.h"
#include "agent/file/Operations.h"

#include <cstdarg>
#include <unordered_set>

namespace {

std::atomic<int> g_opens = 0;
std::atomic<int> g_inheritableOpens = 0;

} // namespace

// The library's calls come here first.
extern "C" AGENTKIT_API int open(const char* path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const auto mode =
        (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0; // NOLINT(clang-analyzer-valist.Uninitialized)
    va_end(arguments);
    ++g_opens;
    g_inheritableOpens += (flags & O_CLOEXEC) == 0 ? 1 : 0;
    return ::openat(AT_FDCWD, path, flags, mode);
}

struct Operations : FileFixture {
    ~Operations() override { EXPECT_EQ(g_inheritableOpens, 0); }

    static std::string q(const Path& path) { return "\"" + path.u8string() + "\""; }
};

TEST_F(Operations, AnswerQuestions)
{
    const std::string file = m_dir.file("file", "12345");
    file::symlink("nowhere", m_dir / "dangling");
    EXPECT_TRUE(file::exists(file) && dir::isDirectory(m_dir.path()) && !dir::isDirectory(file));
    EXPECT_FALSE(file::exists(m_dir.path()) || file::exists(m_dir / "dangling") || file::exists(file + "/x"));
    EXPECT_FALSE(file::isHardlink(file) || file::isHardlink(m_dir.path()) || file::isReparsePoint(file));
    file::hardlink(file, m_dir / "second");
    EXPECT_TRUE(file::isHardlink(file) && file::findHardlinks(file).empty());
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(dir::getInode(file) + file::size(file), status.st_ino + 5);
    EXPECT_EQ(file::getModifiedTime(file).time_since_epoch().count(),
        status.st_mtim.tv_sec * 1'000'000'000 + status.st_mtim.tv_nsec);
    EXPECT_EQ(dir::installationDir().fileName(), "core"); // where the build puts this test
}

TEST_F(Operations, NameTheCallAndThePathInTheirFailures)
{
    const Path none(m_dir / "none");
    const Path below = none / "x";
    const Path file = m_dir.file("file", "");
    const Path link(m_dir / "link");
    file::symlink(m_dir.path(), link);
    const std::string stat = "stat64(" + q(none) + ") failed";
    const std::string notWritten = "Failed to write all content to: /dev/full";
    std::unordered_set<Path> found;
    for (const auto& [text, code, action] : std::vector<std::tuple<std::string, int, std::function<void()>>>{
             {stat, ENOENT, [&] { file::size(none); }},
             {"std::remove(" + q(none) + ") failed", ENOENT, [&] { file::remove(none, false); }},
             {"Couldn't open " + q(none) + " for removal", ENOENT, [&] { file::remove(none, true); }},
             {"std::rename(" + q(none) + ", " + q(file) + ") failed", ENOENT, [&] { file::rename(none, file); }},
             {"symlink(\"t\" -> " + q(file) + ") failed", EEXIST, [&] { file::symlink("t", file); }},
             {"symlink(" + q(none) + " -> " + q(below) + ") failed", ENOENT, [&] { file::hardlink(none, below); }},
             {"Path is not a symlink.", EINVAL, [&] { file::symlinkTarget(file); }},
             {"creat(" + q(below) + ") failed", ENOENT, [&] { file::truncate(below, 1); }},
             {"ftruncate(" + q(file) + ") failed", EINVAL, [&] { file::truncate(file, 1UL << 63); }},
             {"Could not create a temporary file", ENOENT, [&] { file::getTempFile(none, "x"); }},
             {"opendir(" + q(none) + ") failed", ENOENT, [&] { dir::listFullPathRecursive(none, found, true); }},
             {"dir::remove (" + q(none) + ") failed", ENOENT, [&] { dir::remove(none); }},
             {"Failed to remove " + q(link) + " - not a directory", ENOTDIR, [&] { dir::remove(link); }},
             {"dir::make directory is empty", EINVAL, [] { dir::make(Path(), true); }},
             {"Copying " + q(file) + " -> " + q(below) + " failed - not copying non-directory", ENOTDIR,
                 [&] { dir::copy(file, below); }},
             {"Failed to open: " + below.u8string(), ENOENT, [&] { truncateAndWrite(m_log.logger(), below, ""); }},
             {notWritten, ENOSPC, [&] { truncateAndWrite(m_log.logger(), "/dev/full", "x"); }},
             {notWritten, ENOSPC, [&] { BufferToFile("/dev/full", "x", "w"); }},
         })
        EXPECT_EQ(thrownBy(action), posix(text, code));
    EXPECT_TRUE(m_log.entries().empty());
}

TEST_F(Operations, RemoveLinksMakeTemporaryFilesAndTruncate)
{
    const std::string file = m_dir.file("file", "");
    file::hardlink(file, m_dir / "second"); // still shows the mode after the removal: it is given in decimal
    file::remove(file, true);
    EXPECT_FALSE(file::exists(file));
    EXPECT_EQ(modeOf(m_dir / "second"), 01224U);

    const std::string longTarget = "/" + std::string(4094, 'x');
    file::symlink(longTarget, m_dir / "link");
    EXPECT_EQ(file::symlinkTarget(m_dir / "link").u8string(), longTarget);

    const Path made = file::getTempFile(m_dir.path(), "part_");
    EXPECT_TRUE(made.u8string().starts_with(m_dir / "part_") && made.fileName().size() == 11) << made.u8string();
    EXPECT_EQ(modeOf(made.u8string()), 0600U);

    file::truncate(m_dir / "new", 4);
    file::truncate(m_dir.file("old", "12345"), 2);
    EXPECT_EQ(contentOf(m_dir / "old") + contentOf(m_dir / "new"), "12" + std::string(4, '\0'));
}

TEST_F(Operations, RenameDuplicatePathFindsTheFirstFreeName)
{
    dir::make(m_dir / "d.d/a.tar (2).gz", true);
    for (const char* const taken : {"a.tar.gz", "a.tar (1).gz", "plain", "blank .txt", ".rc"})
        m_dir.file(std::string("d.d/") + taken, "");
    const std::pair<const char*, const char*> cases[] = {{"free", "free"}, {"a.tar.gz", "a.tar (3).gz"},
        {"plain", "plain (1)"}, {"blank .txt", "blank (1).txt"}, {".rc", " (1).rc"}};
    for (const auto& [name, expected] : cases)
        EXPECT_EQ(file::renameDuplicatePath(Path(m_dir / "d.d") / name), Path(m_dir / "d.d") / expected);
}

TEST_F(Operations, CopyKeepsContentAndModeAndRefusesWhatWouldLoseData)
{
    const std::string from = m_dir.file("from", std::string(1'000'000, 'b'));
    ASSERT_EQ(::chmod(from.c_str(), 0662), 0); // bits that the umask usually takes away
    file::copy(from, m_dir / "to", false);
    EXPECT_EQ(contentOf(m_dir / "to"), contentOf(from));
    EXPECT_EQ(modeOf(m_dir / "to"), 0662U);
    file::copy(m_dir.file("small", "s"), m_dir / "to", true);
    EXPECT_EQ(modeOf(m_dir / "to"), 0662U); // keeps its own

    file::symlink(from, m_dir / "link");
    ASSERT_EQ(::mkfifo((m_dir / "fifo").c_str(), 0600), 0);
    const auto refuses = [&](const Path& a, const Path& b, int code, bool overwrite = true, const char* why = "") {
        EXPECT_EQ(thrownBy([&] { file::copy(a, b, overwrite); }),
            posix("file::copy(" + q(a) + " -> " + q(b) + ") failed" + why, code));
    };
    refuses(from, m_dir / "to", EEXIST, false, " - dest file exists");
    refuses(from, m_dir.path(), EISDIR, true, " - expected dest file name, not directory");
    refuses(m_dir / "fifo", m_dir / "to", EINVAL);
    refuses(from, m_dir / "fifo", ENXIO);  // no reader, and no wait for one
    refuses(from, m_dir / "link", EINVAL); // itself, by another name
    EXPECT_EQ(contentOf(m_dir / "to"), "s");
    EXPECT_EQ(file::size(from), 1'000'000U);
    EXPECT_TRUE(inChild([&] { // a full disk, for which the file size limit stands in
        (void)::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{600'000, 600'000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        refuses(from, m_dir / "half", EFBIG, false);
        return !HasFailure() && !file::exists(m_dir / "half");
    }));
}

TEST_F(Operations, MakeCreatesWhatIsMissing)
{
    const Path deep(m_dir / "a/b");
    EXPECT_EQ(thrownBy([&] { dir::make(deep, false); }),
        posix("dir::make(" + q(deep) + "), mkdir(" + q(deep) + ") failed", ENOENT));
    dir::make(deep, true);
    dir::make(deep, false); // exists: success
    EXPECT_EQ(modeOf(deep.u8string()), 0755U);
    const std::string file = m_dir.file("file", "");
    for (const auto& path : {file, file + "/x/y"})
        EXPECT_EQ(thrownBy([&] { dir::make(path, true); }),
            posix("dir::make(" + q(path) + "): " + q(file) + " already exists and is not a directory", ENOTDIR));
}

TEST_F(Operations, ListFullPathRecursiveWalksLoopsOnceAndRemoveFollowsNoLink)
{
    dir::make(m_dir / "t/z/sub", true);
    m_dir.file("t/z/file", "");
    file::symlink(m_dir / "t", m_dir / "t/z/sub/loop");
    file::symlink(m_dir / "t/z", m_dir / "t/a"); // listed before "z", walked after it
    file::symlink("nowhere", m_dir / "t/dangling");
    dir::make(m_dir / "outside", false);
    m_dir.file("outside/kept", "");
    file::symlink(m_dir / "outside", m_dir / "t/z/sub/out");
    const Path top(m_dir / "t");
    std::unordered_set<Path> all;
    dir::listFullPathRecursive(top, all, true);
    EXPECT_THAT(all, UnorderedElementsAre(top / "z", top / "z/file", top / "z/sub", top / "z/sub/loop",
                         top / "z/sub/out", top / "z/sub/out/kept", top / "a", top / "dangling"));
    std::unordered_set<Path> files{"kept"};
    dir::listFullPathRecursive(top, files, false);
    EXPECT_THAT(files, UnorderedElementsAre("kept", top / "z/file", top / "z/sub/out/kept"));
    std::unordered_set<Path> chosen; // a refused directory is walked all the same
    dir::listFullPathRecursive(top, chosen, [](const Path& path) { return path.fileName() == "loop"; });
    EXPECT_THAT(chosen, UnorderedElementsAre(top / "z/sub/loop"));
    dir::remove(top);
    EXPECT_TRUE(!dir::isDirectory(top) && file::exists(m_dir / "outside/kept"));
}

TEST_F(Operations, CopyTreeKeepsLinksModesAndWhatIsThere)
{
    dir::make(m_dir / "t/sub", true);
    m_dir.file("t/sub/file", "f");
    file::symlink("sub/file", m_dir / "t/link");
    ASSERT_EQ(::chmod((m_dir / "t/sub").c_str(), 0700), 0);
    dir::make(m_dir / "t2", false); // begins with the same letters, lies beside it
    m_dir.file("t2/own", "o");
    dir::copy(m_dir / "t", m_dir / "t2");
    EXPECT_EQ(contentOf(m_dir / "t2/sub/file") + contentOf(m_dir / "t2/own"), "fo");
    EXPECT_EQ(file::symlinkTarget(m_dir / "t2/link"), Path("sub/file"));
    EXPECT_EQ(modeOf(m_dir / "t2/sub"), 0700U);

    file::symlink(m_dir / "t", m_dir / "link");
    const auto refusesInside = [&](const Path& a, const Path& b) { // a copy would never end
        EXPECT_EQ(thrownBy([&] { dir::copy(a, b); }),
            posix("Copying " + q(a) + " -> " + q(b) + " failed - destination lies inside the source", EINVAL));
    };
    for (const std::string& inside : {m_dir / "t", m_dir / "t/sub/new", m_dir / "link/new"})
        refusesInside(m_dir / "t", inside);
    EXPECT_TRUE(inChild([&] {
        std::filesystem::current_path(m_dir / "t");
        refusesInside(".", "sub/new");
        dir::remove(m_dir / "t");
        return !HasFailure() && thrownBy([] { dir::working(); }) == posix("stat64(\".\") failed", ENOENT);
    }));
}

TEST_F(Operations, TempIsTheFirstVariableThatIsNotEmpty)
{
    for (const char* const name : {"TMPDIR", "TMP", "TEMP", "TEMPDIR"}) ::unsetenv(name);
    EXPECT_EQ(dir::temp(), Path("/tmp"));
    ::setenv("TEMPDIR", "/4", 1);
    ::setenv("TMP", "/2/", 1);
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(dir::temp(), Path("/2"));
    EXPECT_EQ((::setenv("TMPDIR", "/1", 1), dir::temp()), Path("/1"));
    for (const char* const name : {"TMPDIR", "TMP", "TEMPDIR"}) ::unsetenv(name);
}

TEST_F(Operations, WritersReplaceOrAppend)
{
    const std::string file = m_dir.file("file", "old and longer");
    truncateAndWrite(m_log.logger(), file, "new");
    BufferToFile(file, "0123456789", "a", 2, 3, '\n');
    BufferToFile(file, "0123456789", "a", 99, 3);
    EXPECT_EQ(contentOf(file), "new234\n");
    EXPECT_NE(g_opens, 0); // the hook was hit
}
