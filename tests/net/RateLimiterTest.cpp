#include "agent/vnt/protocol/RateLimiter.h"
#include "FakeClock.h"
#include "Support.h"

namespace vnt::protocol {
namespace {

using namespace std::chrono_literals;
using agent::test::FakeClock;
using common::Ret;
using std::chrono::nanoseconds;

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
        int interruptions;
        unsigned int size;
        std::vector<unsigned int> pieces; // the first ones
        std::vector<nanoseconds> sleeps;  // the first ones
    };
    for (const Case& c : {
             Case{"whole milliseconds earn", 80'000, kMax, 6999us, 0s, 0, 10'000, {60, 60}, {6400us}},
             Case{"no credit: an empty call", 80'000, kMax, 0s, 0s, 0, 10'000, {0, 60, 60}, {6400us, 6400us}},
             Case{"what exceeds the maximum is lost", 800'000, 8'000, 60s, 0s, 0, 6'000, {1000, 0, 100}, {640us}},
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
        std::vector<unsigned int> pieces;
        const unsigned char* next = data.data();
        const Ret ret = limiter.write(next, c.size, [&](const unsigned char* piece, unsigned int size) {
            EXPECT_EQ(piece, next) << c.why;
            next += size;
            pieces.push_back(size);
            return Ret();
        });
        EXPECT_EQ(ret.code, 0);
        EXPECT_EQ(next, data.data() + c.size) << c.why;
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
    const auto rate = [&](bool limited, unsigned int limit) {
        manager.setLimited(limited);
        manager.setLimitInBitsPerSecond(limit);
        return limiter.rateOfIncreaseInBitsPerSecond();
    };
    EXPECT_EQ(rate(true, 5), 5U);
    EXPECT_EQ(rate(true, 80'001), 80'000U);
    EXPECT_EQ(rate(false, 5), 80'000U);

    manager.maximum = 0; // would wait for ever
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
