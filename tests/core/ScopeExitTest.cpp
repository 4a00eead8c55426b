#include "agent/ScopeExit.h"
#include "Support.h"

// Leaves a scope whose action throws; tells what the hook heard and what came out.
static std::string leaveScope(bool byException)
{
    std::string events;
    try {
        const scope_exit guard([] { throw std::runtime_error("action"); },
            [&](const std::exception_ptr& e) {
                events += "hook " + eptr_str(e);
                if (byException) throw 7; // ignored: another exception is on its way
            });
        if (byException) throw std::logic_error("body");
    } catch (const std::exception& e) {
        events += std::string(", caught ") + e.what();
    }
    return events;
}

TEST(ScopeExit, AFailureGoesOnUnlessAnotherExceptionLeavesTheScope)
{
    EXPECT_EQ(leaveScope(false), "hook action, caught action");
    EXPECT_EQ(leaveScope(true), "hook action, caught body");
    std::string events; // exceptions in flight before the scope do not count
    const auto leaveByException = [&] {
        const auto guard = make_scope_exit([&] { events = leaveScope(false); });
        throw std::logic_error("outer");
    };
    EXPECT_THROW(leaveByException(), std::logic_error);
    EXPECT_EQ(events, "hook action, caught action");
}

TEST(TryIgnoreDeathTest, LogsAStandardExceptionAndEndsTheProcessOnAnyOther)
{
    CapturingLogger log;
    try_ignore([] { throw std::runtime_error("Clean-up failed"); }, log.logger());
    EXPECT_EQ(log.lines(), std::vector<std::string>{"1 Clean-up failed"});
    EXPECT_DEATH(try_ignore([] { throw 7; }, log.logger()), "");
    EXPECT_EQ(eptr_str({}) + eptr_str(std::make_exception_ptr(7)), "Unknown exception (catch all)");
}
