#include "agent/dir/Operations.h"
#include "CapturingLogger.h"
#include "TempDir.h"
#include "agent/FileWriters.h"
#include "agent/PosixError.h"
#include "agent/file/Operations.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace agent {
namespace {

namespace fs = std::filesystem;
using test::contentOf;
using test::TempDir;
using testing::UnorderedElementsAre;

class Operations : public testing::Test {
protected:
    ~Operations() override { EXPECT_EQ(test::openDescriptors(), m_descriptors); }

    // A message begins with the text and carries the code.
    static void expectFailure(const std::function<void()>& action, const std::string& text, int code)
    {
        try {
            action();
            ADD_FAILURE() << "nothing thrown instead of " << text;
        } catch (const PosixError& e) {
            EXPECT_EQ(std::string(e.what()).substr(0, text.size() + 2), text + ": ");
            EXPECT_EQ(e.code(), code) << text;
        }
    }

    static mode_t modeOf(const std::string& path)
    {
        struct stat status {};
        EXPECT_EQ(::stat(path.c_str(), &status), 0);
        return status.st_mode & 07777;
    }

    TempDir dir;

private:
    std::size_t m_descriptors = test::openDescriptors();
};

TEST_F(Operations, TellAFileFromADirectoryAndFromNothing)
{
    const std::string file = dir.file("file", "12345");
    file::symlink("nowhere", dir / "dangling");
    EXPECT_TRUE(file::exists(file));
    for (const auto& none : {dir.path(), dir / "none", dir / "dangling", file + "/x"})
        EXPECT_FALSE(file::exists(none));
    EXPECT_TRUE(dir::isDirectory(dir.path()));
    EXPECT_FALSE(dir::isDirectory(file) || dir::isDirectory(dir / "none"));
    EXPECT_EQ(file::size(file), 5U);
    EXPECT_FALSE(file::isHardlink(file));
    file::hardlink(file, dir / "second");
    EXPECT_TRUE(file::isHardlink(file));
    EXPECT_FALSE(file::isHardlink(dir.path()));
    EXPECT_FALSE(file::isReparsePoint(file) || dir::containsReparsePoint(dir.path()));
    EXPECT_TRUE(file::findHardlinks(file).empty());
    struct stat status {};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(dir::getInode(file), status.st_ino);
    EXPECT_EQ(file::getModifiedTime(file).time_since_epoch(),
        std::chrono::seconds(status.st_mtim.tv_sec) + std::chrono::nanoseconds(status.st_mtim.tv_nsec));
    const auto volume = dir::volumeData(file);
    EXPECT_GE(volume.totalBytes, volume.freeBytes);
    EXPECT_GE(volume.freeBytes, volume.availableBytes);
    EXPECT_GT(volume.blockSize, 0U);
}

TEST_F(Operations, NameTheCallAndThePathInTheirFailures)
{
    const Path none(dir / "none");
    const Path below = none / "x";
    const std::string file = dir.file("file", "");
    const auto q = [](const Path& path) { return "\"" + path.u8string() + "\""; };
    const std::string stat = "stat64(" + q(none) + ") failed";
    for (const std::function<void()>& query :
        std::vector<std::function<void()>>{[&] { file::size(none); }, [&] { file::getModifiedTime(none); },
            [&] { file::isHardlink(none); }, [&] { file::isReparsePoint(none); },
            [&] { file::findHardlinks(none); }, [&] { dir::getInode(none); },
            [&] { dir::containsReparsePoint(none); }, [&] { dir::volumeData(none); }}) {
        expectFailure(query, stat, ENOENT);
    }
    expectFailure([&] { file::remove(none, false); }, "std::remove(" + q(none) + ") failed", ENOENT);
    expectFailure([&] { file::remove(none, true); }, "Couldn't open " + q(none) + " for removal", ENOENT);
    expectFailure(
        [&] { file::remove(dir.path(), true); }, "Couldn't open " + q(dir.path()) + " for removal", EISDIR);
    expectFailure(
        [&] { file::rename(none, file); }, "std::rename(" + q(none) + ", " + q(file) + ") failed", ENOENT);
    expectFailure([&] { file::symlink("t", file); }, "symlink(\"t\" -> " + q(file) + ") failed", EEXIST);
    expectFailure(
        [&] { file::hardlink(none, below); }, "symlink(" + q(none) + " -> " + q(below) + ") failed", ENOENT);
    expectFailure([&] { file::symlinkTarget(file); }, "Path is not a symlink.", EINVAL);
    expectFailure([&] { file::symlinkTarget(none); }, "Path is not a symlink.", ENOENT);
    expectFailure([&] { file::truncate(below, 1); }, "creat(" + q(below) + ") failed", ENOENT);
    expectFailure([&] { file::truncate(file, 1UL << 63); }, "ftruncate(" + q(file) + ") failed", EINVAL);
    expectFailure([&] { file::getTempFile(none, "x"); }, "Could not create a temporary file", ENOENT);
    expectFailure([&] { dir::list(none); }, "opendir(" + q(none) + ") failed", ENOENT);
    expectFailure([&] { dir::remove(none); }, "dir::remove (" + q(none) + ") failed", ENOENT);
    expectFailure([&] { dir::remove(file); }, "Failed to remove " + q(file) + " - not a directory", ENOTDIR);
    test::CapturingLogger log;
    expectFailure(
        [&] { truncateAndWrite(log.logger(), below, ""); }, "Failed to open: " + below.u8string(), ENOENT);
    expectFailure([&] { truncateAndWrite(log.logger(), "/dev/full", "x"); },
        "Failed to write all content to: /dev/full", ENOSPC);
    expectFailure(
        [&] { BufferToFile("/dev/full", "x", "w"); }, "Failed to write all content to: /dev/full", ENOSPC);
    EXPECT_TRUE(log.entries().empty());
}

TEST_F(Operations, RemoveGivesTheModeInDecimal)
{
    const std::string file = dir.file("file", "");
    file::hardlink(file, dir / "second"); // shows the mode after the removal
    file::remove(file, true);
    EXPECT_FALSE(file::exists(file));
    EXPECT_EQ(modeOf(dir / "second"), 01224U); // 660 in decimal
    file::remove(dir / "second", false);
    EXPECT_TRUE(dir::list(dir.path()).empty());
}

TEST_F(Operations, LinksAndTemporaryFiles)
{
    const std::string longName = "/" + std::string(4094, 'x');
    file::symlink(longName, dir / "link");
    EXPECT_EQ(file::symlinkTarget(dir / "link").u8string(), longName);
    EXPECT_EQ(file::symlinkTarget("/proc/self/cwd"), dir::working()); // of size 0, says stat

    const Path first = file::getTempFile(dir.path(), "part_");
    const Path second = file::getTempFile(dir.path(), "part_");
    EXPECT_NE(first, second);
    EXPECT_EQ(first.filePath().u8string(), dir.path());
    EXPECT_TRUE(first.fileName().starts_with("part_") && first.fileName().size() == 11);
    EXPECT_EQ(modeOf(first.u8string()), 0600U);
}

TEST_F(Operations, TruncateCutsExtendsAndCreates)
{
    const std::string file = dir.file("file", "12345");
    file::truncate(file, 2);
    EXPECT_EQ(contentOf(file), "12");
    file::truncate(file, 3);
    EXPECT_EQ(contentOf(file), std::string("12\0", 3));
    file::truncate(dir / "new", 4);
    EXPECT_EQ(file::size(dir / "new"), 4U);
}

TEST_F(Operations, RenameDuplicatePathFindsTheFirstFreeName)
{
    const auto renamed = [&](const std::string& name) {
        return file::renameDuplicatePath(dir / name).u8string().substr(dir.path().size() + 1);
    };
    for (const char* const taken : {"a.tar.gz", "a.tar (1).gz", "plain", "blank .txt", ".rc"})
        dir.file(taken, "");
    dir::make(dir / "a.tar (2).gz", false);
    dir::make(dir / "d.d", false);
    EXPECT_EQ(renamed("free"), "free");
    EXPECT_EQ(renamed("a.tar.gz"), "a.tar (3).gz");
    EXPECT_EQ(renamed("plain"), "plain (1)");
    EXPECT_EQ(renamed("blank .txt"), "blank (1).txt");
    EXPECT_EQ(renamed(".rc"), " (1).rc");
    EXPECT_EQ(renamed("d.d"), "d (1).d");
    dir.file("d.d/x", "");
    EXPECT_EQ(renamed("d.d/x"), "d.d/x (1)"); // dots of the directory do not count
}

TEST_F(Operations, CopyKeepsContentAndMode)
{
    const std::string big(1'000'000, 'b');
    const std::string from = dir.file("from", big);
    ASSERT_EQ(::chmod(from.c_str(), 0640), 0);
    file::copy(from, dir / "to", false);
    EXPECT_EQ(contentOf(dir / "to"), big);
    EXPECT_EQ(modeOf(dir / "to"), 0640U);
    file::copy(dir.file("small", "s"), dir / "to", true);
    EXPECT_EQ(contentOf(dir / "to"), "s");
}

TEST_F(Operations, CopyRefusesWhatWouldLoseData)
{
    const std::string from = dir.file("from", "precious");
    const std::string to = dir.file("to", "old");
    file::symlink(from, dir / "link");
    ASSERT_EQ(::mkfifo((dir / "fifo").c_str(), 0600), 0);
    const auto text = [](const std::string& a, const std::string& b) {
        return "file::copy(\"" + a + "\" -> \"" + b + "\") failed";
    };
    expectFailure([&] { file::copy(from, to, false); }, text(from, to) + " - dest file exists", EEXIST);
    expectFailure([&] { file::copy(from, dir.path(), true); },
        text(from, dir.path()) + " - expected dest file name, not directory", EISDIR);
    expectFailure([&] { file::copy(dir / "none", to, true); }, text(dir / "none", to), ENOENT);
    expectFailure([&] { file::copy(dir / "fifo", to, true); }, text(dir / "fifo", to), EINVAL);
    expectFailure([&] { file::copy(dir.path(), to, true); }, text(dir.path(), to), EISDIR);
    expectFailure([&] { file::copy(from, dir / "link", true); }, text(from, dir / "link"), EINVAL);
    expectFailure([&] { file::copy(from, "/dev/full", true); }, text(from, "/dev/full"), EINVAL);
    EXPECT_EQ(contentOf(from), "precious");
    EXPECT_EQ(contentOf(to), "old");
}

TEST_F(Operations, CopyLeavesNoHalfFileBehind)
{
    const std::string from = dir.file("from", std::string(1'000'000, 'x'));
    const pid_t child = ::fork();
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{600'000, 600'000};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        try {
            file::copy(from, dir / "to", false);
        } catch (const PosixError& e) {
            ::_exit(e.code() == EFBIG && !file::exists(dir / "to") ? 0 : 1);
        }
        ::_exit(2);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(Operations, MakeCreatesWhatIsMissing)
{
    const Path deep = Path(dir / "a") / "b" / "c";
    expectFailure([&] { dir::make(deep, false); },
        "dir::make(\"" + deep.u8string() + "\"), mkdir(\"" + deep.u8string() + "\") failed", ENOENT);
    dir::make(deep, true);
    dir::make(deep, false); // exists: success
    EXPECT_TRUE(dir::isDirectory(deep));
    EXPECT_EQ(modeOf(deep.u8string()), 0755U);

    expectFailure([] { dir::make(Path(), true); }, "dir::make directory is empty", EINVAL);
    const std::string file = dir.file("file", "");
    const std::string inFile = file + "/x/y";
    for (const auto& path : {file, inFile}) {
        expectFailure([&] { dir::make(path, true); },
            "dir::make(\"" + path + "\"): \"" + file + "\" already exists and is not a directory", ENOTDIR);
    }
}

TEST_F(Operations, MakeBearsOthersThatMakeTheSame)
{
    for (int round = 0; round < 50; ++round) {
        const Path deep = Path(dir / std::to_string(round)) / "b" / "c" / "d";
        std::vector<std::thread> threads;
        for (int i = 0; i < 4; ++i)
            threads.emplace_back([&] { EXPECT_NO_THROW(dir::make(deep, true)); });
        for (auto& thread : threads)
            thread.join();
    }
}

TEST_F(Operations, RemoveNeverFollowsALink)
{
    dir::make(dir / "outside", false);
    dir.file("outside/kept", "");
    dir::make(dir / "tree/sub", true);
    file::symlink(dir / "outside", dir / "tree/sub/link");
    file::symlink(dir / "outside", dir / "link");
    expectFailure([&] { dir::remove(dir / "link"); },
        "Failed to remove \"" + (dir / "link") + "\" - not a directory", ENOTDIR);
    dir::remove(dir / "tree");
    EXPECT_FALSE(dir::isDirectory(dir / "tree"));
    EXPECT_TRUE(file::exists(dir / "outside/kept"));
}

TEST_F(Operations, ListFullPathRecursiveWalksLoopsOnceAndNamesThingsByTheirOwnNames)
{
    dir::make(dir / "t/z/sub", true);
    dir.file("t/z/file", "");
    file::symlink(dir / "t", dir / "t/z/sub/loop");
    file::symlink(dir / "t/z", dir / "t/a");
    file::symlink("nowhere", dir / "t/dangling");
    const Path top(dir / "t");

    std::unordered_set<Path> all;
    dir::listFullPathRecursive(top, all, true);
    EXPECT_THAT(all, UnorderedElementsAre(top / "z", top / "z/file", top / "z/sub", top / "z/sub/loop",
                         top / "a", top / "dangling"));
    std::unordered_set<Path> files{Path("kept")};
    dir::listFullPathRecursive(top, files, false);
    EXPECT_THAT(files, UnorderedElementsAre(Path("kept"), top / "z/file"));
    std::unordered_set<Path> chosen; // a refused directory is walked all the same
    dir::listFullPathRecursive(top, chosen, [](const Path& path) { return path.fileName() == "loop"; });
    EXPECT_THAT(chosen, UnorderedElementsAre(top / "z/sub/loop"));
    EXPECT_THAT(dir::list(top / "z"), UnorderedElementsAre("file", "sub"));
}

TEST_F(Operations, CopyTreeKeepsLinksModesAndWhatIsThere)
{
    dir::make(dir / "t/sub", true);
    dir.file("t/sub/file", "f");
    file::symlink("sub/file", dir / "t/link");
    ASSERT_EQ(::chmod((dir / "t/sub").c_str(), 0700), 0);
    dir::make(dir / "copy", false);
    dir.file("copy/own", "o");
    dir::copy(dir / "t", dir / "copy");
    EXPECT_EQ(contentOf(dir / "copy/sub/file"), "f");
    EXPECT_EQ(contentOf(dir / "copy/own"), "o");
    EXPECT_EQ(file::symlinkTarget(dir / "copy/link").u8string(), "sub/file");
    EXPECT_EQ(modeOf(dir / "copy/sub"), 0700U);

    const auto text = [&](const std::string& a, const std::string& b) {
        return "Copying \"" + a + "\" -> \"" + b + "\" failed";
    };
    expectFailure([&] { dir::copy(dir / "copy/own", dir / "x"); },
        text(dir / "copy/own", dir / "x") + " - not copying non-directory", ENOTDIR);
    expectFailure([&] { dir::copy(dir / "t", dir / "t/sub/new"); },
        text(dir / "t", dir / "t/sub/new") + " - destination lies inside the source", EINVAL);
    expectFailure([&] { dir::copy(dir / "t", dir / "copy"); }, // what is there is not overwritten
        "symlink(\"sub/file\" -> \"" + (dir / "copy/link") + "\") failed", EEXIST);
}

TEST_F(Operations, TempIsTheFirstVariableThatIsNotEmpty)
{
    for (const char* const name : {"TMPDIR", "TMP", "TEMP", "TEMPDIR"})
        ::unsetenv(name);
    EXPECT_EQ(dir::temp(), Path("/tmp"));
    ::setenv("TEMPDIR", "/4", 1);
    ::setenv("TMP", "/2/", 1);
    ::setenv("TMPDIR", "", 1);
    EXPECT_EQ(dir::temp(), Path("/2"));
    for (const char* const name : {"TMPDIR", "TMP", "TEMPDIR"})
        ::unsetenv(name);
}

TEST_F(Operations, KnowWhereTheProgramIs)
{
    EXPECT_EQ(dir::root(), Path("/"));
    EXPECT_EQ(dir::working().u8string(), fs::current_path().string());
    EXPECT_EQ(dir::installationDir().u8string(), fs::read_symlink("/proc/self/exe").parent_path().string());
    const pid_t child = ::fork();
    if (child == 0) { // in a directory that is gone
        dir::make(dir / "gone", false);
        if (::chdir((dir / "gone").c_str()) != 0) ::_exit(2);
        dir::remove(dir / "gone");
        expectFailure([] { dir::working(); }, "stat64(\".\") failed", ENOENT);
        ::_exit(HasFailure() ? 1 : 0);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

TEST_F(Operations, WritersReplaceOrAppend)
{
    test::CapturingLogger log;
    const std::string file = dir.file("file", "old and longer");
    truncateAndWrite(log.logger(), file, "new");
    EXPECT_EQ(contentOf(file), "new");
    BufferToFile(file, "0123456789", "a", 2, 3, '\n');
    BufferToFile(file, "0123456789", "a", 8);
    BufferToFile(file, "0123456789", "a", 99, 3);
    EXPECT_EQ(contentOf(file), "new234\n89");
    BufferToFile(file, "all", "w");
    EXPECT_EQ(contentOf(file), "all");
}

} // namespace
} // namespace agent
