#include "agent/AsyncService.h"

#include "agent/ScopeExit.h"
#include "agent/Thread.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace agent {

using info::Logger;
using std::chrono::nanoseconds;

IService::~IService() = default;

AsyncService::Options& AsyncService::Options::serviceName(std::string name)
{
    m_serviceName = std::move(name);
    return *this;
}

AsyncService::Options& AsyncService::Options::serviceTarget(std::shared_ptr<IService> target)
{
    m_target = std::move(target);
    return *this;
}

AsyncService::Options& AsyncService::Options::runOnDemand(bool onDemand)
{
    m_runOnDemand = onDemand;
    if (onDemand) m_interval = nullptr;
    return *this;
}

AsyncService::Options& AsyncService::Options::interval(std::function<nanoseconds()> provider)
{
    m_interval = std::move(provider);
    return *this;
}

nanoseconds AsyncService::Options::getInterval() const
{
    return m_interval ? m_interval() : nanoseconds::max();
}

AsyncService::AsyncService(Logger& logger, Options options)
    : m_logger(logger)
    , m_options(std::move(options))
{
    if (m_options.m_serviceName.empty()) throw std::invalid_argument("Must provide service name.");
    if (!m_options.m_target) throw std::invalid_argument("Must provide target service.");
}

AsyncService::~AsyncService()
{
    try_ignore([this] { AsyncService::stop(); }, m_logger);
}

void AsyncService::start()
{
    const std::lock_guard lock(m_mutex);
    if (!m_isStopped.exchange(false)) return;
    try {
        m_main = std::async(std::launch::async, [this] { onStart(); });
    } catch (...) {
        m_isStopped = true;
        throw;
    }
}

void AsyncService::stop()
{
    const auto dropLateTrigger = make_scope_exit([this] {
        const std::lock_guard lock(m_mutex);
        dropTrigger("stop reset of outstanding run promise");
    });
    std::future<void> thread;
    {
        const std::lock_guard lock(m_mutex);
        m_isStopped = true;
        thread = std::move(m_main); // of two that stop at once only one may wait for it
    }
    m_wakeUp.notify_one();
    if (thread.valid()) thread.get();
}

std::future<void> AsyncService::triggerRun()
{
    std::future<void> done;
    {
        const std::lock_guard lock(m_mutex);
        m_trigger = std::make_unique<std::promise<void>>(); // an earlier one is broken
        done = m_trigger->get_future();
    }
    m_wakeUp.notify_one();
    return done;
}

bool AsyncService::isStopped() const
{
    return m_isStopped;
}

// --- on the service thread ----------------------------------------------------------------------------------------

void AsyncService::onStart()
{
    SetThreadName(getThreadID(), ("__" + m_options.m_serviceName).c_str());
    std::unique_lock lock(m_mutex); // let go only while waiting, so that no trigger comes during a run
    const auto dropOutstanding = make_scope_exit([this] { dropTrigger("onStart exit"); });
    try {
        runUntilStopped(lock);
    } catch (...) {
        logFailure("onStart run", std::current_exception());
        throw;
    }
}

void AsyncService::runUntilStopped(std::unique_lock<std::mutex>& lock)
{
    if (m_options.m_runOnDemand) waitForNextRun(lock);
    while (!m_isStopped) {
        m_options.m_target->run();
        if (m_trigger) std::exchange(m_trigger, nullptr)->set_value();
        waitForNextRun(lock);
    }
}

void AsyncService::waitForNextRun(std::unique_lock<std::mutex>& lock)
{
    using Clock = std::chrono::steady_clock;
    const auto isDue = [this] { return m_isStopped || m_trigger; };
    // A deadline before the clock's zero would be refused at once, without the mutex being let go.
    const nanoseconds interval = std::max(m_options.getInterval(), nanoseconds(0));
    const auto now = Clock::now();
    if (interval > Clock::time_point::max() - now) { // the deadline would not fit the clock
        m_wakeUp.wait(lock, isDue);
    } else {
        m_wakeUp.wait_until(lock, now + interval, isDue);
    }
}

void AsyncService::dropTrigger(const char* during) noexcept
{
    try {
        m_trigger = nullptr;
    } catch (...) {
        logFailure(during, std::current_exception());
    }
}

void AsyncService::logFailure(const char* during, const std::exception_ptr& reason) noexcept
try {
    Logger::Entry(m_logger, Logger::ERROR) << "Exception occurred during " << during << " for service: '"
                                           << m_options.m_serviceName << "'. Reason: " << eptr_str(reason);
} catch (...) { // no memory for a line, which must not keep the thread from telling stop()
}

} // namespace agent
