#include "agent/info/Logger.h"
#include "Support.h"

using namespace agent::info;

using Texts = std::vector<std::string>;
using Entry = Logger::Entry;

TEST(LoggerEntry, PrintsItselfWithANewlineAndFlushWithout)
{
    CapturingLogger log;
    Entry(log.logger(), Logger::INFO) << "abc " << 1234567 << ' ' << 0.5; // ungrouped in every locale
    Entry(log.logger(), Logger::INFO) << "";                              // nothing written, nothing printed
    {
        Entry entry(log.logger(), Logger::DEBUG);
        entry << "def";
        EXPECT_EQ(entry.flush().str(), "");
    }
    for (const int level : {-3, 9}) Entry(log.logger(), static_cast<Logger::Level>(level)) << level;
    {
        Entry source(log.logger(), Logger::WARNING);
        source << "x";
        Entry moved(std::move(source)); // leaves text and level behind
        moved << 1234 << "y";
    }
    ASSERT_EQ(log.lines(), (Texts{"3 abc 1234567 0.5", "4 def", "0 -3", "4 9", "-1 1234y", "2 x"}));
    EXPECT_TRUE(log.entries()[0].text.ends_with("0.5\n") && log.entries()[1].text.ends_with("def"));
}

TEST(LoggerEntry, StaysSilentInEveryBadStateAndWithoutAPrinter)
{
    CapturingLogger log;
    Logger silent({});
    for (const auto state : {std::ios::badbit, std::ios::failbit, std::ios::eofbit, std::ios::goodbit}) {
        Entry entry(state == std::ios::goodbit ? silent : log.logger(), Logger::ERROR);
        entry << "kept";
        entry.setstate(state);
        EXPECT_EQ(entry.flush().str(), "kept");
    }
    EXPECT_TRUE(log.entries().empty());
}

TEST(LoggerEntry, APrintersExceptionLeavesFlushButNotTheDestructor)
{
    int calls = 0;
    Logger logger([&](const std::string& text, Logger::Level, auto) {
        ++calls;
        throw std::runtime_error(text);
    });
    {
        Entry entry(logger, Logger::INFO);
        entry << "lost"; // and not printed twice: the entry is emptied before the printer runs
        EXPECT_EQ(thrownBy([&] { entry.flush(); }), "runtime: lost");
    }
    Entry(logger, Logger::INFO) << "swallowed"; // and the lock was released
    EXPECT_EQ(calls, 2);
}

TEST(LoggerThreads, CopiesShareOneLockAndStampsNeverDecrease)
{
    CapturingLogger log;
    {
        const auto logLines = [copy = log.logger()]() mutable {
            for (int i = 0; i < 2000; ++i) Entry(copy, Logger::INFO) << i;
        };
        const std::jthread threads[] = {std::jthread(logLines), std::jthread(logLines), std::jthread(logLines)};
    }
    EXPECT_EQ(log.entries().size(), 6000U);
    EXPECT_TRUE(std::is_sorted(
        log.entries().begin(), log.entries().end(), [](const auto& a, const auto& b) { return a.when < b.when; }));
}
