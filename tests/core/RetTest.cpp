#include "agent/vnt/common/Ret.h"
#include "Thrown.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using agent::test::thrownBy;
using vnt::common::Ret;
using vnt::common::RetNoLog;

class RetReports : public testing::Test {
protected:
    RetReports()
    {
        Ret::set_logger([this](int level, int code, const std::string& text) {
            reports.push_back(std::to_string(level) + " " + std::to_string(code) + " " + text);
        });
    }
    ~RetReports() override { Ret::set_logger({}); }

    std::vector<std::string> reports;
};

TEST_F(RetReports, AnErrorOnceHoweverOftenItIsCopied)
{
    Ret copy = Ret(104, "Connection lost");
    Ret assigned;
    assigned = copy;
    copy.log();
    EXPECT_EQ(Ret(0, "x").code, -1); // never a success
    EXPECT_EQ(reports, (std::vector<std::string>{"500 104 Connection lost ", "500 -1 x "}));
    EXPECT_EQ(assigned.code, 104);
    EXPECT_EQ(assigned.message, "Connection lost");
}

TEST_F(RetReports, ACopyOfWhatWasNeverReported)
{
    RetNoLog source(1, "m");
    source.detail = "d";
    source.logged = false;
    source = *&source; // to itself: nothing happens
    EXPECT_TRUE(reports.empty());
    Ret copy;
    copy = source;
    EXPECT_TRUE(copy.logged);
    EXPECT_EQ(reports, std::vector<std::string>{"500 1 m d"});
}

TEST_F(RetReports, NeitherSuccessNorRetNoLog)
{
    const RetNoLog quiet(0, "x");
    const Ret copy = quiet; // NOLINT(performance-unnecessary-copy-initialization): the copy is the test
    EXPECT_EQ(copy.code, 0);
    EXPECT_TRUE(Ret().logged && Ret().code == 0);
    EXPECT_TRUE(reports.empty());
}

TEST(Ret, CountsAsReportedEvenIfTheLoggerThrows)
{
    Ret::set_logger([](int, int, const std::string& text) { throw std::runtime_error(text); });
    RetNoLog error(1, "x");
    error.logged = false;
    EXPECT_EQ(thrownBy([&] { error.log(); }), "runtime: x ");
    EXPECT_EQ(thrownBy([&] { error.log(); }), "nothing");
    Ret::set_logger({});
}

TEST(Ret, PrintsOnStandardOutputWithoutALogger)
{
    testing::internal::CaptureStdout();
    EXPECT_TRUE(Ret(5, "x").logged);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "x \n");
}

TEST(Ret, ThrowOnErrorPrefersTheDetail)
{
    RetNoLog error(32, "m");
    const std::string tail = ": Broken pipe | ERROR(Posix) : 32 (0x00000020)";
    EXPECT_EQ(thrownBy([&] { Ret::throw_on_error(std::move(error)); }), "posix: m" + tail);
    error.detail = "d";
    EXPECT_EQ(thrownBy([&] { Ret::throw_on_error(std::move(error)); }), "posix: d" + tail);
    EXPECT_EQ(thrownBy([&] { Ret::throw_on_error(RetNoLog(0, "a success with a message")); }), "nothing");
}

} // namespace
