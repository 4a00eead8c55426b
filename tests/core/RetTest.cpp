#include "agent/vnt/common/Ret.h"
#include "Support.h"

using vnt::common::Ret;
using vnt::common::RetNoLog;

TEST(Ret, AnErrorReportsItselfOnceHoweverOftenItIsCopied)
{
    std::string reports;
    Ret::set_logger([&](int level, int code, const std::string& text) {
        reports += std::to_string(level) + ' ' + std::to_string(code) + ' ' + text + '|';
    });
    Ret copy = Ret(104, "Connection lost");
    Ret assigned;
    assigned = copy;
    copy.log();
    EXPECT_EQ(assigned.code, 104);
    EXPECT_EQ(Ret(0, "x").code, -1); // never a success
    EXPECT_EQ(reports, "500 104 Connection lost |500 -1 x |");

    RetNoLog quiet(0, "m");
    assigned = quiet;
    EXPECT_TRUE(assigned.code == 0 && Ret().logged && Ret().code == 0);
    quiet.detail = "d";
    quiet.logged = false;
    assigned = quiet; // a copy of what was never reported
    EXPECT_EQ(reports, "500 104 Connection lost |500 -1 x |500 0 m d|");

    Ret::set_logger([](int, int, const std::string& text) { throw std::runtime_error(text); });
    EXPECT_EQ(thrownBy([&] { quiet.log(); }), "runtime: m d");
    EXPECT_EQ(thrownBy([&] { quiet.log(); }), "nothing"); // counts as reported all the same

    Ret::set_logger({});
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
