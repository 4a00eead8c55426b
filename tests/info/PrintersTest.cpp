#include "agent/info/Printers.h"
#include "Support.h"
#include "agent/vnt/LoggerAdapter.h"

#include <iostream>

using namespace agent::info;

using Time = std::chrono::system_clock::time_point;

constexpr Time kWhen{std::chrono::seconds(1'000'000)};

struct Printers : testing::Test {
    // Remembers who printed what.
    Logger::Printer recorder(const std::string& name)
    {
        return [this, name](const std::string& message, Logger::Level level, Time when) {
            EXPECT_EQ(when, kWhen);
            m_printed.push_back(name + std::to_string(level) + message);
        };
    }
    FailsafePrinter::FalliblePrinter fallible(const std::string& name, bool prints)
    {
        return [print = recorder(name), prints](auto... logged) { return print(logged...), prints; };
    }

    std::vector<std::string> m_printed;
};

TEST_F(Printers, HandMessagesOn)
{
    const TagDecorator tag;
    const auto important = [](const std::string&, Logger::Level level, Time) { return level <= Logger::INFO; };
    const MultiPrinter print(
        {recorder("a"), FilteredPrinter(important, recorder("b")), DecoratedPrinter(tag, recorder("c"))});
    print("x", Logger::INFO, kWhen);
    print("y", Logger::DEBUG, kWhen);
    EXPECT_THAT(m_printed, ElementsAre("a3x", "b3x", "c3[INFO:]     x", "a4y", "c4[DEBUG:]    y"));

    testing::internal::CaptureStdout();
    ScreenPrinter()("no newline", Logger::ERROR, kWhen);
    std::cout.setstate(std::ios::badbit); // as after a disk was full
    std::cout.width(9);
    ScreenPrinter()(", more", Logger::ERROR, kWhen);
    std::cout.clear();
    std::cout.width(0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "no newline, more");
}

TEST_F(Printers, TheFailsafeStopsAtTheFirstThatPrints)
{
    const auto prints = [this](const std::vector<FailsafePrinter::FalliblePrinter>& printers) {
        m_printed.clear();
        testing::internal::CaptureStderr();
        const FailsafePrinter print(printers);
        print("x", Logger::INFO, kWhen);
        return testing::internal::GetCapturedStderr();
    };
    const std::string failure = "~~Logging Error~~ All printers in sequence failed to print log message\n";
    EXPECT_EQ(prints({}), failure);
    EXPECT_EQ(prints({fallible("a", false), {}, fallible("b", false)}), failure);
    EXPECT_THAT(m_printed, ElementsAre("a3x", "b3x"));
    EXPECT_EQ(prints({{}, fallible("a", false), fallible("b", true), fallible("c", true)}), "");
    EXPECT_THAT(m_printed, ElementsAre("a3x", "b3x"));
}

TEST(LoggerAdapter, TranslatesLevelsAndAddsTheCode)
{
    CapturingLogger log;
    const auto callback = ::vnt::LoggerAdapter::toLogCallback(log.logger());
    using ::vnt::common::loglevel;
    callback(::vnt::common::loglevel_information, 0, "ok");
    callback(::vnt::common::loglevel_debug, -1, "closed");
    callback(::vnt::common::loglevel_error, 12345, "lost");
    callback(static_cast<loglevel>(7), 5, "ok");
    EXPECT_THAT(log.lines(), ElementsAre("3 ok", "4 closed code: -1", "1 lost code: 12345", "1 ok code: 5"));
}
