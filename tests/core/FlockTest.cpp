#include "agent/Flock.h"
#include "Support.h"

struct FlockTest : FileFixture {
    bool isThere() const { return std::filesystem::exists(m_path); }
    std::string takenBy(const std::string& path) const
    {
        return thrownBy([&] { Flock(path).WritePid(); });
    }

    std::string m_path = m_dir / "lock";
};

TEST_F(FlockTest, HasOneOwnerAmongProcesses)
{
    (void)m_dir.file("lock", "left behind by a longer process id");
    const std::string held = posix("File already locked. File " + m_path, EWOULDBLOCK);
    std::optional<Flock> lock(m_path);
    lock->WritePid();
    lock->WritePid();
    EXPECT_EQ(takenBy(m_path), held);
    EXPECT_TRUE(inChild([&] { return takenBy(m_path) == held; }));
    EXPECT_EQ(contentOf(m_path), std::to_string(::getpid())) << "whoever is turned away leaves the file";

    EXPECT_TRUE(inChild([&] { return lock.reset(), true; }));
    EXPECT_EQ(takenBy(m_path), held) << "a fork shares the lock, and the parent has it still";
    lock.reset();
    EXPECT_FALSE(isThere());
}

TEST_F(FlockTest, ADeadOwnerDoesNotHoldItAndAnothersFileIsLeftAlone)
{
    EXPECT_TRUE(inChild([&] { return (new Flock(m_path)) != nullptr; })) << "never released";
    EXPECT_TRUE(isThere());
    {
        const Flock lock(m_path);
        std::filesystem::remove(m_path);
        (void)m_dir.file("lock", "another's");
    }
    EXPECT_EQ(contentOf(m_path), "another's");
}

TEST_F(FlockTest, FailuresNameTheFile)
{
    const std::string pipe = m_dir / "pipe";
    ASSERT_EQ(::mkfifo(pipe.c_str(), 0600), 0);
    for (const auto& [path, text, code] : {std::tuple(m_dir / "no/lock", "Unable to open lock file. File ", ENOENT),
             {m_dir / "lock/", "Unable to open lock file. File ", EISDIR},
             {pipe, "Unable to truncate lock file. File ", EINVAL}})
        EXPECT_EQ(takenBy(path), posix(text + path, code));
}

// Owners remove the file on release while others already wait with it open: the deleted file must not count.
TEST_F(FlockTest, NeverHasTwoOwnersWhileProcessesTakeTurns)
{
    const auto takeTurns = [&] {
        bool alone = true;
        for (int turns = 0; turns < 150;) {
            try {
                const Flock lock(m_path);
                alone = ::mkdir((m_dir / "owned").c_str(), 0700) == 0 && alone;
                std::this_thread::yield();
                ::rmdir((m_dir / "owned").c_str());
                ++turns;
            } catch (const PosixError& e) {
                if (e.code() != EWOULDBLOCK) return false;
                std::this_thread::yield();
            }
        }
        return alone;
    };
    for (int i = 0; i < 8; ++i) {
        if (::fork() == 0) ::_exit(takeTurns() ? 0 : 1);
    }
    for (int status = 0; ::wait(&status) > 0;) EXPECT_EQ(status, 0);
    EXPECT_FALSE(isThere());
}
