#include "agent/ScopeExit.h"
#include "CapturingLogger.h"

#include <gtest/gtest.h>

#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent {
namespace {

using Texts = std::vector<std::string>;

// Leaves a scope whose action throws "action"; reports what the hook heard and what came out.
Texts leaveScope(const char* thrownInside)
{
    Texts events;
    const auto hook = [&](const std::exception_ptr& e) { events.push_back("hook " + eptr_str(e)); };
    try {
        const scope_exit guard([] { throw std::runtime_error("action"); }, hook);
        if (thrownInside != nullptr) throw std::logic_error(thrownInside);
    } catch (const std::exception& e) {
        events.push_back(std::string("caught ") + e.what());
    }
    return events;
}

TEST(ScopeExit, AFailureGoesOnUnlessAnotherExceptionLeavesTheScope)
{
    EXPECT_EQ(leaveScope(nullptr), (Texts{"hook action", "caught action"}));
    EXPECT_EQ(leaveScope("body"), (Texts{"hook action", "caught body"}));
}

TEST(ScopeExit, ExceptionsInFlightBeforeTheScopeDoNotCount)
{
    struct LeavesAScope {
        Texts& events;
        ~LeavesAScope() { events = leaveScope(nullptr); }
    };
    Texts events;
    try {
        const LeavesAScope object{events};
        throw std::logic_error("outer");
    } catch (const std::logic_error&) {
        EXPECT_EQ(events, (Texts{"hook action", "caught action"}));
    }
}

TEST(ScopeExit, RunsOnEveryWayOutAndIgnoresAThrowingHookDuringUnwinding)
{
    int runs = 0;
    {
        const auto guard = make_scope_exit([&] { ++runs; });
        EXPECT_EQ(runs, 0);
    }
    EXPECT_EQ(runs, 1);
    EXPECT_THROW({ const auto guard = make_scope_exit([] { throw 7; }); }, int);
    try {
        const scope_exit guard([] { throw 1; }, [](const std::exception_ptr& e) { std::rethrow_exception(e); });
        throw std::logic_error("body");
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "body");
    }
}

TEST(TryIgnore, LogsAStandardExceptionAtError)
{
    test::CapturingLogger log;
    try_ignore([] { throw std::runtime_error("Clean-up failed"); }, log.logger());
    try_ignore([] {}, log.logger());
    EXPECT_EQ(log.lines(), Texts{"ERROR Clean-up failed"});
}

TEST(TryIgnoreDeathTest, AnythingElseEndsTheProcess)
{
    test::CapturingLogger log;
    EXPECT_DEATH(try_ignore([] { throw 7; }, log.logger()), "");
}

TEST(EptrStr, TellsWhatWasThrown)
{
    EXPECT_EQ(eptr_str({}), "");
    EXPECT_EQ(eptr_str(std::make_exception_ptr(std::logic_error("l"))), "l");
    EXPECT_EQ(eptr_str(std::make_exception_ptr(7)), "Unknown exception (catch all)");
}

} // namespace
} // namespace agent
