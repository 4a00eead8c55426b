#include "agent/vnt/protocol/RateLimiter.h"

#include "FakeClock.h"
#include "Support.h"
#include <numeric>

namespace vnt::protocol {
namespace {

using namespace std::chrono_literals;
using common::Ret;
using Pieces = std::vector<unsigned int>;
using Sleeps = std::vector<std::chrono::nanoseconds>;

constexpr unsigned int kMax = 0xFFFF'FFFF;

struct Manager : agent::core::IConnectionBandwidthManager {
    bool isLimited() const override { return limited; }
    void setLimited(bool value) override { limited = value; }
    unsigned int limitInBitsPerSecond() const override { return limit; }
    void setLimitInBitsPerSecond(unsigned int rate) override { limit = rate; }
    unsigned int nominalRateInBitsPerSecond() const override { return clock.now < raisedAt ? 0 : nominal; }
    void setNominalRateInBitsPerSecond(unsigned int rate) override { nominal = rate; }
    unsigned int maximumWriteSizeInBits() const override { return maximum; }

    bool limited = false;
    unsigned int limit = 0;
    unsigned int nominal = 80'000; // 10 bytes a millisecond
    unsigned int maximum = kMax;
    agent::test::FakeClock clock;
    std::chrono::nanoseconds raisedAt{0}; // the rate is 0 before
};

TEST(RateLimiter, TheLimitCountsIfInForceAndNotAboveTheNominalRate)
{
    Manager manager;
    const auto rate = [&](bool limited, unsigned int limit) {
        manager.setLimited(limited);
        manager.setLimitInBitsPerSecond(limit);
        return RateLimiter(manager).rateOfIncreaseInBitsPerSecond();
    };
    EXPECT_THAT((Pieces{rate(false, 5), rate(true, 5), rate(true, 80'000), rate(true, 80'001)}),
        testing::ElementsAre(80'000, 5, 80'000, 80'000));
}

TEST(RateLimiter, PacesPieces)
{
    struct Case {
        const char* why;
        unsigned int rate;
        unsigned int maximum; // bits
        std::chrono::nanoseconds idle;
        std::chrono::nanoseconds raisedAfter;
        int interruptions;
        unsigned int size;
        Pieces pieces; // the first ones
        Sleeps sleeps; // the first ones
    };
    for (const Case& c :
        {
            Case{"whole milliseconds earn", 80'000, kMax, 6399us, 0s, 0, 60, {60}, {}},
            Case{"a turn without credit is an empty call", 80'000, kMax, 0s, 0s, 0, 6'400, {0, 60, 60},
                {6400us, 6400us}},
            Case{"what exceeds the maximum is lost", 800'000, 8'000, 60s, 0s, 0, 6'000, {1000, 0, 100}, {640us, 640us}},
            Case{"months of idling", kMax, kMax, 24h * 300, 0s, 0, 1'000, {1'000}, {}},
            Case{"a standstill ends with it", 80'000, kMax, 0s, 120ms, 0, 100, {0, 100}, {50ms, 50ms, 50ms}},
            Case{"an interrupted sleep goes on", 80'000, kMax, 0s, 40ms, 1, 100, {0, 100}, {50ms, 25ms}},
        }) {
        Manager manager;
        manager.nominal = c.rate;
        manager.maximum = c.maximum;
        manager.clock.interruptions = c.interruptions;
        manager.raisedAt = manager.clock.now + c.raisedAfter;
        RateLimiter limiter(manager);
        manager.clock.now += c.idle;
        const std::vector<unsigned char> data(c.size);
        Pieces pieces;
        const Ret ret = limiter.write(data.data(), c.size, [&](const unsigned char*, unsigned int size) {
            pieces.push_back(size);
            return Ret();
        });
        EXPECT_EQ(ret.code, 0);
        EXPECT_EQ(std::accumulate(pieces.begin(), pieces.end(), 0U), c.size) << c.why;
        pieces.resize(c.pieces.size());
        EXPECT_EQ(pieces, c.pieces) << c.why;
        manager.clock.sleeps.resize(c.sleeps.size());
        EXPECT_EQ(manager.clock.sleeps, c.sleeps) << c.why;
    }
}

TEST(RateLimiter, SendsAllInOrderAtTheRate)
{
    Manager manager;
    manager.maximum = 400; // 50 bytes, less than a turn earns
    const auto start = manager.clock.now;
    std::string data(10'000, '\0');
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i % 251);
    std::string sent;
    const Ret ret = RateLimiter(manager).write(reinterpret_cast<const unsigned char*>(data.data()), 10'000,
        [&](const unsigned char* piece, unsigned int size) {
            EXPECT_LE(size, 50U);
            sent.append(reinterpret_cast<const char*>(piece), size);
            return Ret();
        });
    EXPECT_EQ(ret.code, 0);
    EXPECT_EQ(sent, data);
    EXPECT_GE(manager.clock.now - start, 1s);
}

TEST(RateLimiter, EndsWithTheFirstError)
{
    Manager manager;
    manager.maximum = 0; // would wait for ever
    RateLimiter limiter(manager);
    int calls = 0;
    const auto fail = [&](const unsigned char*, unsigned int size) {
        EXPECT_EQ(size, 0U);
        return ++calls < 3 ? Ret() : common::RetNoLog(32, "broken");
    };
    EXPECT_EQ(limiter.write(nullptr, 0, fail).code, 0);
    EXPECT_EQ(calls, 0) << "nothing to write";
    EXPECT_EQ(limiter.write(nullptr, 100, fail).message, "broken");
    EXPECT_EQ(calls, 3);
}

} // namespace
} // namespace vnt::protocol
