#include "agent/AsyncService.h"
#include "Support.h"

#include <semaphore>

/// Counts its runs; can be made to wait in them, or to throw.
struct Work : IService {
    void run() override
    {
        begun.release();
        if (gate != nullptr) gate->acquire();
        if (failure) std::rethrow_exception(failure);
        ++runs;
    }
    std::counting_semaphore<> begun{0};
    std::counting_semaphore<>* gate = nullptr;
    std::exception_ptr failure;
    std::atomic<int> runs = 0;
};

struct AsyncServiceTest : FileFixture {
    AsyncService::Options options() const
    {
        return AsyncService::Options().serviceName("backup").serviceTarget(m_work);
    }

    // What a trigger's future throws.
    static std::string outcomeOf(std::future<void> future)
    {
        if (future.wait_for(30s) != std::future_status::ready) return "pending";
        try {
            future.get();
        } catch (const std::future_error&) { // not looked into: TSan does not see how the library counts its owners
            return "broken";
        }
        return "nothing";
    }

    std::shared_ptr<Work> m_work = std::make_shared<Work>();
};

TEST_F(AsyncServiceTest, NeedsANameAndATarget)
{
    const auto made = [&](const AsyncService::Options& options) {
        return thrownBy([&] { const AsyncService service(m_log.logger(), options); });
    };
    EXPECT_EQ(made({}), "invalid argument: Must provide service name.");
    EXPECT_EQ(made(AsyncService::Options().serviceName("n")), "invalid argument: Must provide target service.");
    EXPECT_EQ(options().interval([] { return 1h; }).getInterval(), 1h);
    EXPECT_EQ(options().interval([] { return 1h; }).runOnDemand(true).getInterval(), nanoseconds::max());
}

TEST_F(AsyncServiceTest, RunsWhenAsked)
{
    AsyncService service(m_log.logger(), options().runOnDemand(true));
    service.stop(); // nothing to stop
    auto early = service.triggerRun();
    auto earlier = std::exchange(early, service.triggerRun());
    EXPECT_EQ(outcomeOf(std::move(earlier)), "broken") << "replaced";
    EXPECT_TRUE(service.isStopped());
    service.start();
    service.start();
    EXPECT_FALSE(service.isStopped());
    EXPECT_EQ(outcomeOf(std::move(early)), "nothing") << "kept for the start";
    service.stop();
    auto late = service.triggerRun();
    service.stop();
    EXPECT_EQ(outcomeOf(std::move(late)), "broken");
    service.start(); // again
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(outcomeOf(service.triggerRun()), "nothing");
    EXPECT_EQ(m_work->runs, 2) << "once a trigger, and not at the start";
}

TEST_F(AsyncServiceTest, RunsAtOnceAndThenEveryInterval)
{
    std::atomic<int> asked = 0;
    AsyncService service(m_log.logger(), options().interval([&] { return ++asked < 3 ? 1ms : 24h; }));
    service.start();
    for (int run = 0; run < 3; ++run) ASSERT_TRUE(m_work->begun.try_acquire_for(30s)) << run;
    EXPECT_EQ(outcomeOf(service.triggerRun()), "nothing") << "in the middle of a long wait";
    service.stop();
    EXPECT_EQ(m_work->runs, 4);
    AsyncService late(m_log.logger(), options().interval([] { return nanoseconds::min(); }));
    late.start();
    EXPECT_EQ(outcomeOf(late.triggerRun()), "nothing") << "longer overdue than the machine has been up";
}

TEST_F(AsyncServiceTest, ATriggerDuringARunBelongsToTheNextOne)
{
    std::counting_semaphore<> gate(0);
    m_work->gate = &gate;
    AsyncService service(m_log.logger(), options());
    service.start();
    ASSERT_TRUE(m_work->begun.try_acquire_for(30s));
    auto trigger = std::async(std::launch::async, [&] { return service.triggerRun(); });
    EXPECT_EQ(trigger.wait_for(50ms), std::future_status::timeout) << "waits for the end of the run";
    gate.release();
    auto future = trigger.get();
    EXPECT_EQ(future.wait_for(50ms), std::future_status::timeout) << "the first run was not its";
    ASSERT_TRUE(m_work->begun.try_acquire_for(30s));
    gate.release();
    EXPECT_EQ(outcomeOf(std::move(future)), "nothing");
}

TEST_F(AsyncServiceTest, TellsWhatEndedItsThread)
{
    const std::string line = "1 Exception occurred during onStart run for service: 'backup'. Reason: no work today";
    m_work->failure = std::make_exception_ptr(std::runtime_error("no work today"));
    {
        AsyncService service(m_log.logger(), options().runOnDemand(true));
        service.start();
        EXPECT_EQ(outcomeOf(service.triggerRun()), "broken");
        EXPECT_FALSE(service.isStopped()) << "until it is";
        auto late = service.triggerRun();
        EXPECT_EQ(thrownBy([&] { service.stop(); }), "runtime: no work today");
        EXPECT_EQ(outcomeOf(std::move(late)), "broken");
        service.stop(); // told once
        service.start();
        EXPECT_EQ(outcomeOf(service.triggerRun()), "broken");
    }
    EXPECT_THAT(m_log.lines(), ElementsAre(line, line, "1 no work today")) << "the last one by the destructor";
}
