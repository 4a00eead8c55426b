#include "PeriodicBackup.h"

#include "agent/AsyncService.h"

#include <pthread.h>

#include <atomic>
#include <csignal>
#include <exception>
#include <memory>

namespace backup {

using agent::info::Logger;

namespace {

std::atomic<bool> g_isStopping = false;

sigset_t stopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    return signals;
}

class BackupService : public agent::IService {
public:
    BackupService(std::function<void()> backup, Logger& logger)
        : m_backup(std::move(backup))
        , m_logger(logger)
    {
    }

    void run() override
    {
        try {
            m_backup();
        } catch (const std::exception& e) {
            Logger::Entry(m_logger, Logger::ERROR) << (isStopping() ? "Stopped: " : "This backup failed: ") << e.what();
        }
    }

private:
    std::function<void()> m_backup;
    Logger& m_logger;
};

} // namespace

void holdStopSignals()
{
    const sigset_t signals = stopSignals();
    (void)::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

bool isStopping()
{
    return g_isStopping;
}

void runPeriodically(std::chrono::seconds interval, const std::function<void()>& backup, Logger& logger)
{
    agent::AsyncService service(logger, agent::AsyncService::Options()
                                            .serviceName("backup")
                                            .serviceTarget(std::make_shared<BackupService>(backup, logger))
                                            .interval([interval] { return interval; }));
    service.start();
    const sigset_t signals = stopSignals();
    int signal = 0;
    (void)::sigwait(&signals, &signal);
    g_isStopping = true;
    Logger::Entry(logger, Logger::INFO) << "Stopping on signal " << signal;
    service.stop();
}

} // namespace backup
