#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>

namespace agent {

/// A unit of work.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IService {
public:
    virtual ~IService();

    virtual void run() = 0;
};

/// Runs a service over and over on a thread of its own: at once and then every interval, or only when asked.
///
///     AsyncService backup(logger, AsyncService::Options().serviceName("backup").serviceTarget(target)
///                                     .interval([] { return std::chrono::hours(1); }));
///     backup.start();
///     backup.triggerRun().wait(); // now, please
///
/// A run that throws ends the thread, and so does an interval provider; it is logged at ERROR, and stop() throws it
/// again. Until then the service does not count as stopped, and triggers wait for that stop().
///
/// Threads: triggerRun() and isStopped() from any; start() and stop() from one at a time. The service runs with the
/// mutex held, so all but isStopped() wait for the end of a run. Called from within a run, they deadlock.
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API AsyncService {
public:
    /// What to run and when. Setters return the object, for chaining.
    class AGENTKIT_API Options {
    public:
        Options& serviceName(std::string name);
        Options& serviceTarget(std::shared_ptr<IService> target);

        /// True: only when triggered; an interval set before is forgotten. One set later holds from the first wait on.
        Options& runOnDemand(bool onDemand);

        /// @param provider  asked before each wait how long it may be; 0 and less is none
        Options& interval(std::function<std::chrono::nanoseconds()> provider);

        /// What the provider says; the largest duration, which is no interval, without one.
        std::chrono::nanoseconds getInterval() const;

    private:
        friend class AsyncService;
        std::string m_serviceName;
        std::shared_ptr<IService> m_target;
        bool m_runOnDemand = false;
        std::function<std::chrono::nanoseconds()> m_interval;
    };

    /// Starts nothing.
    /// @param logger  borrowed; must outlive the service
    /// @throws std::invalid_argument  without a name or a target
    AsyncService(info::Logger& logger, Options options);
    AsyncService(const AsyncService&) = delete;
    AsyncService& operator=(const AsyncService&) = delete;

    /// Stops. An exception that stop() throws is logged; what is no std::exception ends the process.
    virtual ~AsyncService();

    /// Starts the thread, unless it is running. A stopped service can be started again.
    /// @throws std::system_error  if there is no thread to be had; the service is stopped then
    virtual void start();

    /// Ends the thread after the run that is going on, and waits for it. Triggers that are still waiting report a
    /// broken promise.
    /// @throws whatever ended the thread
    virtual void stop();

    /// Asks for a run at once.
    /// @return  ready when the next run that begins after this call is done. Reports a broken promise if another
    ///          trigger comes before that run, or it throws, or the service is stopped.
    std::future<void> triggerRun();

    bool isStopped() const;

private:
    void onStart();
    void runUntilStopped(std::unique_lock<std::mutex>& lock);
    void waitForNextRun(std::unique_lock<std::mutex>& lock);
    void dropTrigger(const char* during) noexcept;
    void logFailure(const char* during, const std::exception_ptr& reason) noexcept;

    info::Logger& m_logger;
    Options m_options;
    std::atomic<bool> m_isStopped = true;
    std::future<void> m_main; // the thread's
    std::mutex m_mutex;
    std::condition_variable m_wakeUp;
    std::unique_ptr<std::promise<void>> m_trigger; // pending
};

} // namespace agent
