#include "agent/info/Logger.h"
#include "CapturingLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iomanip>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

namespace agent::info {
namespace {

using Texts = std::vector<std::string>;
using Entry = Logger::Entry;

static_assert(std::is_same_v<std::underlying_type_t<Logger::Level>, int>);

TEST(LoggerEntry, PrintsItselfWithANewlineWhenItIsDestroyed)
{
    test::CapturingLogger log;
    Entry(log.logger(), Logger::INFO) << "abc " << 1234567 << ' ' << 0.5;
    Entry(log.logger(), Logger::INFO) << ""; // nothing written, nothing printed
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].text, "abc 1234567 0.5\n"); // ungrouped in every locale
    EXPECT_EQ(log.entries()[0].level, Logger::INFO);
}

TEST(LoggerEntry, FlushPrintsWithoutANewlineAndLeavesAnEmptyEntry)
{
    test::CapturingLogger log;
    {
        Entry entry(log.logger(), Logger::DEBUG);
        entry << "abc";
        EXPECT_EQ(&entry.flush(), &entry);
        EXPECT_EQ(entry.str(), "");
    }
    ASSERT_EQ(log.entries().size(), 1U);
    EXPECT_EQ(log.entries()[0].text, "abc");
}

TEST(LoggerEntry, ClampsItsLevel)
{
    test::CapturingLogger log;
    for (const int level : {-3, 0, 4, 9})
        Entry(log.logger(), static_cast<Logger::Level>(level)) << "x";
    EXPECT_EQ(log.lines(), (Texts{"CRITICAL x", "CRITICAL x", "DEBUG x", "DEBUG x"}));
}

TEST(LoggerEntry, AMoveLeavesTextAndLevelBehind)
{
    test::CapturingLogger log;
    {
        Entry source(log.logger(), Logger::WARNING);
        source << "x";
        Entry moved(std::move(source));
        EXPECT_EQ(moved.str(), "");
        moved << 1234 << "y";
    }
    EXPECT_EQ(log.lines(), (Texts{"-1 1234y", "WARNING x"}));
}

TEST(LoggerEntry, StaysSilentInEveryBadStateAndWithoutAPrinter)
{
    test::CapturingLogger log;
    for (const auto state : {std::ios::badbit, std::ios::failbit, std::ios::eofbit}) {
        Entry entry(log.logger(), Logger::ERROR);
        entry << "kept";
        entry.setstate(state);
        entry.flush();
        EXPECT_EQ(entry.str(), "kept");
    }
    EXPECT_TRUE(log.entries().empty());

    Logger silent({});
    Entry entry(silent, Logger::ERROR);
    entry << "kept";
    EXPECT_NO_THROW(entry.flush());
    EXPECT_EQ(entry.str(), "kept");
}

TEST(LoggerEntry, APrintersExceptionLeavesFlushButNotTheDestructor)
{
    int calls = 0;
    Logger logger([&](const std::string&, Logger::Level, auto) {
        ++calls;
        throw std::runtime_error("printer");
    });
    {
        Entry entry(logger, Logger::INFO);
        entry << "lost";
        EXPECT_THROW(entry.flush(), std::runtime_error);
        EXPECT_EQ(entry.str(), ""); // emptied before the printer ran, so it is not printed twice
    }
    Entry(logger, Logger::INFO) << "swallowed"; // and the lock was released
    EXPECT_EQ(calls, 2);
}

TEST(LoggerThreads, CopiesShareOneLockAndStampsNeverDecrease)
{
    test::CapturingLogger log;
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([copy = log.logger(), t]() mutable {
            for (int i = 0; i < kLines; ++i)
                Entry(copy, Logger::INFO) << t << ' ' << i;
        });
    }
    for (auto& thread : threads)
        thread.join();

    ASSERT_EQ(log.entries().size(), static_cast<std::size_t>(kThreads * kLines));
    EXPECT_TRUE(std::is_sorted(log.entries().begin(), log.entries().end(),
        [](const auto& a, const auto& b) { return a.when < b.when; }));
}

} // namespace
} // namespace agent::info
