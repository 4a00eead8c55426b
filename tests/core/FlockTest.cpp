#include "agent/Flock.h"
#include "Support.h"

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <optional>
#include <thread>

namespace agent {
namespace {

using test::contentOf;
using test::posix;
using test::thrownBy;

// Runs the action in a child process and waits for it; true if it returned true.
bool inChild(const std::function<bool()>& action)
{
    const pid_t child = ::fork();
    if (child == 0) ::_exit(action() ? 0 : 1);
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

TEST(Flock, HasOneOwnerAmongProcesses)
{
    const test::TempDir dir;
    const std::string path = dir.file("lock", "left behind by a longer process id");
    const std::string held = posix("File already locked. File " + path, EWOULDBLOCK);
    const auto descriptors = test::openDescriptors();
    {
        Flock lock(path);
        lock.WritePid();
        lock.WritePid();
        EXPECT_EQ(contentOf(path), std::to_string(::getpid()));
        EXPECT_EQ(thrownBy([&] { const Flock second(path); }), held);
        EXPECT_TRUE(inChild([&] { return thrownBy([&] { const Flock second(path); }) == held; }));
        EXPECT_EQ(contentOf(path), std::to_string(::getpid())) << "whoever is turned away leaves the file";
        EXPECT_EQ(test::openDescriptors(), descriptors + 1);
    }
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

TEST(Flock, AForkSharesItUntilBothLetGo)
{
    const test::TempDir dir;
    const std::string path = dir / "lock";
    std::optional<Flock> lock(path);
    EXPECT_TRUE(inChild([&] { return lock.reset(), true; }));
    EXPECT_NE(thrownBy([&] { const Flock second(path); }), "nothing") << "the parent has it still";
    lock.reset();
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
}

TEST(Flock, ADeadOwnerDoesNotHoldItAndAnothersFileIsLeftAlone)
{
    const test::TempDir dir;
    const std::string path = dir / "lock";
    EXPECT_TRUE(inChild([&] { return (new Flock(path)) != nullptr; })) << "never released";
    EXPECT_EQ(::access(path.c_str(), F_OK), 0);
    {
        const Flock lock(path);
        ::unlink(path.c_str());
        (void)dir.file("lock", "another's");
    }
    EXPECT_EQ(contentOf(path), "another's");
}

TEST(Flock, FailuresNameTheFile)
{
    const test::TempDir dir;
    const auto descriptors = test::openDescriptors();
    EXPECT_EQ(thrownBy([&] { const Flock lock(dir / "no/lock"); }),
        posix("Unable to open lock file. File " + (dir / "no/lock"), ENOENT));
    EXPECT_EQ(thrownBy([&] { const Flock lock(dir / "lock/"); }),
        posix("Unable to open lock file. File " + (dir / "lock/"), EISDIR));

    const std::string pipe = dir / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    EXPECT_EQ(thrownBy([&] { Flock(pipe).WritePid(); }), posix("Unable to truncate lock file. File " + pipe, EINVAL));

    EXPECT_TRUE(inChild([&] {
        (void)std::signal(SIGXFSZ, SIG_IGN);
        const rlimit nothing{0, 0};
        ::setrlimit(RLIMIT_FSIZE, &nothing);
        const std::string path = dir / "lock";
        return thrownBy([&] { Flock(path).WritePid(); }) == posix("Unable to write to lock file. File " + path, EFBIG);
    }));
    EXPECT_EQ(test::openDescriptors(), descriptors);
}

// Owners remove the file on release while others already wait with it open: the deleted file must not count.
TEST(Flock, NeverHasTwoOwnersWhileProcessesTakeTurns)
{
    constexpr int kProcesses = 8;
    constexpr int kTurns = 500;
    const test::TempDir dir;
    const std::string path = dir / "lock";
    void* const shared = ::mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    auto* const owners = new (shared) std::atomic<int>(0);

    const auto takeTurns = [&] {
        bool alone = true;
        for (int turns = 0; turns < kTurns;) {
            try {
                const Flock lock(path);
                alone = owners->fetch_add(1) == 0 && alone;
                std::this_thread::yield();
                owners->fetch_sub(1);
                ++turns;
            } catch (const PosixError& e) {
                if (e.code() != EWOULDBLOCK) return false;
                std::this_thread::yield();
            }
        }
        return alone;
    };
    std::vector<pid_t> children;
    for (int i = 0; i < kProcesses; ++i) {
        children.push_back(::fork());
        if (children.back() == 0) ::_exit(takeTurns() ? 0 : 1);
    }
    for (const pid_t child : children) {
        int status = -1;
        ::waitpid(child, &status, 0);
        EXPECT_EQ(status, 0);
    }
    EXPECT_NE(::access(path.c_str(), F_OK), 0);
    ::munmap(shared, 4096);
}

} // namespace
} // namespace agent
