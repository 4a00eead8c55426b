#include "agent/info/Decorators.h"
#include "Support.h"

using namespace agent::info;

using Time = IDecorator::Time;

constexpr Time kWhen = std::chrono::sys_days(std::chrono::May / 1 / 2024) + 10h + 34min + 56s + 789ms;

struct Decorators : testing::Test {
    static void setZone(const char* zone)
    {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
    static std::string threadPrefix()
    {
        const std::string digits = std::to_string(::syscall(SYS_gettid));
        return "[TID " + std::string(7 - digits.size(), '0') + digits + "] ";
    }
    std::string stamp(Time when) const { return m_date.decorate("", Logger::INFO, when); }

    DateDecorator m_date;
    ThreadIdDecorator m_thread;
    TagDecorator m_tag;
    MultiDecorator m_all{{m_date, m_thread, m_tag}};
    Logger::Level m_level = Logger::DEBUG;
    Time m_when{};
};

TEST_F(Decorators, MakeALineAndTakeItApart)
{
    setZone("CET-1CEST,M3.5.0,M10.5.0/3");
    const std::string line = m_all.decorate("Started\n", Logger::INFO, kWhen);
    EXPECT_EQ(
        line, "2024-05-01T10:34:56.789Z 2024-05-01T12:34:56.789+0200 " + threadPrefix() + "[INFO:]     Started\n");
    EXPECT_EQ(m_all.undecorate(line, m_level, m_when), "Started\n");
    EXPECT_EQ(m_level, Logger::INFO);
    EXPECT_EQ(m_when, kWhen);
    setZone("AAA+4"); // within the same second
    EXPECT_EQ(stamp(kWhen).substr(25), "2024-05-01T06:34:56.789-0400 ");
}

TEST_F(Decorators, RoundTimesDownAndTellTheHourThatRepeats)
{
    setZone("CET-1CEST,M3.5.0,M10.5.0/3"); // at 01:00 UTC on 27 October 2024 the clock goes back from 03:00 to 02:00
    EXPECT_EQ(stamp(Time(1us)), "1970-01-01T00:00:00.000Z 1970-01-01T01:00:00.000+0100 ");
    EXPECT_EQ(stamp(Time(-1us)), "1969-12-31T23:59:59.999Z 1970-01-01T00:59:59.999+0100 ");
    const Time change = std::chrono::sys_days(std::chrono::October / 27 / 2024) + 1h;
    EXPECT_EQ(stamp(change - 1ms).substr(25), "2024-10-27T02:59:59.999+0200 ");
    EXPECT_EQ(stamp(change).substr(25), "2024-10-27T02:00:00.000+0100 ");
}

TEST_F(Decorators, ShowTheThreadAlsoAfterAFork)
{
    const auto isShown = [this] { return m_thread.decorate("m", Logger::INFO, kWhen) == threadPrefix() + "m"; };
    EXPECT_TRUE(isShown());
    std::thread([&] { EXPECT_TRUE(isShown()); }).join();
    EXPECT_TRUE(inChild(isShown));
}

TEST_F(Decorators, TakeOffNothingButTheirOwnPrefix)
{
    const std::string digits(1'000'000, '7');
    for (const std::string line :
        {"", "[TID ]  x", "[TID 12", "[TID 1x] m", " [TID 1] m", "[INFO:]    x", "[info:]     x"}) {
        EXPECT_EQ(m_thread.undecorate(line, m_level, m_when), line);
        EXPECT_EQ(m_tag.undecorate(line, m_level, m_when), line);
    }
    EXPECT_EQ(m_thread.undecorate("[TID " + digits, m_level, m_when), "[TID " + digits);
    EXPECT_EQ(m_thread.undecorate("[TID " + digits + "]  [TID 1] m", m_level, m_when), " [TID 1] m");
    EXPECT_EQ(m_level, Logger::DEBUG);
    EXPECT_EQ(m_tag.undecorate("[CRITICAL:] [ERROR:]    x", m_level, m_when), "[ERROR:]    x");
    EXPECT_EQ(m_level, Logger::CRITICAL);
}

TEST_F(Decorators, RefuseALineWithoutADate)
{
    const std::string utc = "2024-05-01T10:34:56.789Z ";
    const std::string local = "2024-05-01T12:34:56.789+0200 ";
    for (const std::string& line : {std::string(), std::string(1'000'000, 'x'), utc, utc + "x", ' ' + utc + local,
             utc + local.substr(0, local.size() - 1), utc + utc, "2024-02-30T10:34:56.789Z " + local,
             "2024-05-01T24:34:56.789Z " + local, "9999-05-01T10:34:56.789Z " + local,
             "2024-05-01 10:34:56.789Z " + local, "2024-05-01T10:34:56.789  " + local}) {
        EXPECT_EQ(thrownBy([&] { (void)m_date.undecorate(line, m_level, m_when); }),
            posix("Could not parse date out of formatted log message: " + line.substr(0, 80), EINVAL));
    }
    EXPECT_EQ(m_when, Time());
}

TEST_F(Decorators, HaveATagForEachLevelAndNoOther)
{
    const char* const tags[] = {"[CRITICAL:] m", "[ERROR:]    m", "[WARNING:]  m", "[INFO:]     m", "[DEBUG:]    m"};
    const auto decorate = [&](int level) { return m_tag.decorate("m", static_cast<Logger::Level>(level), kWhen); };
    for (int level = 0; level < 5; ++level) EXPECT_EQ(decorate(level), tags[level]);
    for (const int level : {-1, 5}) EXPECT_EXIT((void)decorate(level), testing::KilledBySignal(SIGABRT), "");
}
