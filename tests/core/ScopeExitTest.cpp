#include "agent/ScopeExit.h"
#include "CapturingLogger.h"

#include <gtest/gtest.h>

#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent {
namespace {

using Texts = std::vector<std::string>;

// Leaves a scope whose action throws; tells what the hook heard and what came out.
Texts leaveScope(bool byException)
{
    Texts events;
    const auto hook = [&](const std::exception_ptr& e) {
        events.push_back("hook " + eptr_str(e));
        if (byException) throw 7; // ignored: another exception is on its way
    };
    try {
        const scope_exit guard([] { throw std::runtime_error("action"); }, hook);
        if (byException) throw std::logic_error("body");
    } catch (const std::exception& e) {
        events.push_back(std::string("caught ") + e.what());
    }
    return events;
}

TEST(ScopeExit, AFailureGoesOnUnlessAnotherExceptionLeavesTheScope)
{
    EXPECT_EQ(leaveScope(false), (Texts{"hook action", "caught action"}));
    EXPECT_EQ(leaveScope(true), (Texts{"hook action", "caught body"}));
    int runs = 0;
    EXPECT_THROW(
        {
            const auto counts = make_scope_exit([&] { ++runs; });
            const auto throws = make_scope_exit([] { throw 7; });
        },
        int);
    EXPECT_EQ(runs, 1);
}

TEST(ScopeExit, ExceptionsInFlightBeforeTheScopeDoNotCount)
{
    struct LeavesAScope {
        Texts& events;
        ~LeavesAScope() { events = leaveScope(false); }
    };
    Texts events;
    try {
        [[maybe_unused]] const LeavesAScope object{events};
        throw std::logic_error("outer");
    } catch (const std::logic_error&) {
        EXPECT_EQ(events, (Texts{"hook action", "caught action"}));
    }
}

TEST(TryIgnoreDeathTest, LogsAStandardExceptionAndEndsTheProcessOnAnyOther)
{
    test::CapturingLogger log;
    try_ignore([] { throw std::runtime_error("Clean-up failed"); }, log.logger());
    EXPECT_EQ(log.lines(), Texts{"1 Clean-up failed"});
    EXPECT_DEATH(try_ignore([] { throw 7; }, log.logger()), "");
}

TEST(EptrStr, TellsWhatWasThrown)
{
    EXPECT_EQ(eptr_str({}), "");
    EXPECT_EQ(eptr_str(std::make_exception_ptr(7)), "Unknown exception (catch all)");
}

} // namespace
} // namespace agent
