#include "agent/vnt/common/Ret.h"
#include "agent/PosixError.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace {

using vnt::common::loglevel;
using vnt::common::Ret;
using vnt::common::RetNoLog;

class RetReports : public testing::Test {
protected:
    RetReports()
    {
        Ret::set_logger([this](loglevel level, int code, const std::string& text) {
            reports.push_back(std::to_string(level) + " " + std::to_string(code) + " " + text);
        });
    }
    ~RetReports() override { Ret::set_logger({}); }

    std::vector<std::string> reports;
};

TEST_F(RetReports, AnErrorOnceHoweverOftenItIsCopied)
{
    const Ret error(ECONNRESET, "Connection lost");
    Ret copy = error;
    Ret assigned;
    assigned = copy;
    copy.log();
    EXPECT_EQ(reports, std::vector<std::string>{"500 104 Connection lost "});
    EXPECT_TRUE(assigned.logged);
    EXPECT_EQ(assigned.code, ECONNRESET);
    EXPECT_EQ(assigned.message, "Connection lost");
}

TEST_F(RetReports, ZeroGivenAsAnErrorAsMinusOne)
{
    EXPECT_EQ(Ret(0, "x").code, -1);
    EXPECT_EQ(reports, std::vector<std::string>{"500 -1 x "});
}

TEST_F(RetReports, TheDetailOfACopyNotYetReported)
{
    Ret source(1, "m");
    source.detail = "d";
    source.logged = false;
    Ret copy;
    copy = source;
    EXPECT_EQ(copy.detail, "d");
    EXPECT_TRUE(copy.logged);
    EXPECT_EQ(reports.back(), "500 1 m d");
    source = *&source; // to itself: nothing happens, no report either
    EXPECT_FALSE(source.logged);
}

TEST_F(RetReports, NeitherSuccessNorRetNoLog)
{
    const Ret success;
    EXPECT_EQ(success.code, 0);
    EXPECT_TRUE(success.logged);
    const RetNoLog quiet(0, "x");
    const Ret copy = quiet; // NOLINT(performance-unnecessary-copy-initialization): the copy is the test
    EXPECT_EQ(copy.code, 0);
    EXPECT_EQ(copy.message, "x");
    EXPECT_EQ(RetNoLog(7, "x").code, 7);
    EXPECT_TRUE(reports.empty());
}

TEST_F(RetReports, OnceEvenIfTheLoggerThrows)
{
    int calls = 0;
    Ret error(1, "x");
    Ret::set_logger([&](loglevel, int, const std::string&) {
        ++calls;
        throw std::runtime_error("printer");
    });
    error.logged = false;
    EXPECT_THROW(error.log(), std::runtime_error);
    EXPECT_NO_THROW(error.log());
    EXPECT_EQ(calls, 1);
}

TEST(Ret, PrintsOnStandardOutputWithoutALogger)
{
    testing::internal::CaptureStdout();
    const Ret error(5, "x");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "x \n");
    EXPECT_TRUE(error.logged);
}

TEST(Ret, ThrowOnErrorPrefersTheDetail)
{
    const auto thrownBy = [](const std::string& detail) -> std::pair<std::string, int> {
        RetNoLog error(EPIPE, "m");
        error.detail = detail;
        try {
            Ret::throw_on_error(std::move(error));
        } catch (const agent::PosixError& e) {
            return {e.what(), e.code()};
        }
        return {};
    };
    const std::string tail = ": Broken pipe | ERROR(Posix) : 32 (0x00000020)";
    EXPECT_EQ(thrownBy(""), (std::pair{"m" + tail, EPIPE}));
    EXPECT_EQ(thrownBy("d"), (std::pair{"d" + tail, EPIPE}));
    EXPECT_NO_THROW(Ret::throw_on_error(Ret()));
    EXPECT_NO_THROW(Ret::throw_on_error(RetNoLog(0, "a success that has something to say")));
}

} // namespace
