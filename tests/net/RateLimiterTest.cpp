#include "agent/vnt/protocol/RateLimiter.h"
#include "FakeClock.h"
#include "Support.h"

using namespace vnt::protocol;

using vnt::common::Ret;

constexpr unsigned int kMax = 0xFFFF'FFFF;

struct Manager : agent::core::IConnectionBandwidthManager {
    bool isLimited() const override { return limited; }
    void setLimited(bool value) override { limited = value; }
    unsigned int limitInBitsPerSecond() const override { return limit; }
    void setLimitInBitsPerSecond(unsigned int rate) override { limit = rate; }
    unsigned int nominalRateInBitsPerSecond() const override { return clock.now < raisedAt ? 0 : nominal; }
    void setNominalRateInBitsPerSecond(unsigned int rate) override { nominal = rate; }
    unsigned int maximumWriteSizeInBits() const override { return maximum; }

    FakeClock clock;
    nanoseconds raisedAt{0}; // the rate is 0 before
    bool limited = false;
    unsigned int limit = 0;
    unsigned int nominal = 80'000; // 10 bytes a millisecond
    unsigned int maximum = kMax;
};

TEST(RateLimiter, PacesPieces)
{
    struct Case {
        const char* why;
        unsigned int rate;
        unsigned int maximum;    // bits
        nanoseconds idle;        // before the write
        nanoseconds raisedAfter; // until then the rate is 0
        unsigned int size;
        std::vector<unsigned int> pieces; // the first ones
        std::vector<nanoseconds> sleeps;  // the first ones
    };
    for (const Case& c : {
             Case{"whole milliseconds earn", 80'000, kMax, 6999us, 0s, 10'000, {60, 60}, {6400us}},
             Case{"what exceeds the maximum is lost", 800'000, 8'000, 60s, 0s, 5'950, {1000, 0, 100}, {640us}},
             Case{"months of idling", kMax, kMax, 24h * 300, 0s, 1'000, {1'000}, {}},
             Case{"an interrupted sleep goes on", 80'000, kMax, 0s, 120ms, 100, {0, 100}, {50ms, 25ms, 50ms}},
         }) {
        Manager manager;
        manager.nominal = c.rate;
        manager.maximum = c.maximum;
        manager.clock.interruptions = c.raisedAfter > 0s ? 1 : 0;
        manager.raisedAt = manager.clock.now + c.raisedAfter;
        RateLimiter limiter(manager);
        manager.clock.now += c.idle;
        const std::vector<unsigned char> data(c.size);
        std::vector<unsigned int> pieces;
        const unsigned char* next = data.data();
        const Ret ret = limiter.write(next, c.size, [&](const unsigned char* piece, unsigned int size) {
            EXPECT_EQ(piece, next) << c.why;
            next += size;
            pieces.push_back(size);
            return Ret();
        });
        EXPECT_TRUE(ret.code == 0 && next == data.data() + c.size) << c.why;
        pieces.resize(c.pieces.size());
        EXPECT_EQ(pieces, c.pieces) << c.why;
        manager.clock.sleeps.resize(c.sleeps.size());
        EXPECT_EQ(manager.clock.sleeps, c.sleeps) << c.why;
    }
}

TEST(RateLimiter, TakesTheLowerRateAndEndsWithTheFirstError)
{
    Manager manager;
    RateLimiter limiter(manager);
    manager.limit = 5;
    EXPECT_EQ(limiter.rateOfIncreaseInBitsPerSecond(), 80'000U) << "not limited";
    manager.limited = true;
    EXPECT_EQ(limiter.rateOfIncreaseInBitsPerSecond(), 5U);
    manager.limit = 80'001;
    EXPECT_EQ(limiter.rateOfIncreaseInBitsPerSecond(), 80'000U);

    manager.maximum = 0; // would wait for ever
    int calls = 0;
    const auto fail = [&](auto, auto) { return ++calls < 3 ? Ret() : vnt::common::RetNoLog(-1, "broken"); };
    EXPECT_EQ(limiter.write(nullptr, 100, fail).message, "broken");
    EXPECT_EQ(calls, 3);
}
