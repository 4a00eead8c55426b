#pragma once

#include "agent/info/Logger.h"

#include <chrono>
#include <functional>

namespace backup {

/// To be called before any thread is started: from here on, SIGINT and SIGTERM wait for runPeriodically() to take them.
void holdStopSignals();

/// Whether a signal to stop has come; from any thread.
bool isStopping();

/// Runs a backup at once and then every interval, until SIGINT or SIGTERM. A backup that fails is logged, and the next
/// one may do better.
/// @param backup  looks at isStopping() where it takes long
void runPeriodically(std::chrono::seconds interval, const std::function<void()>& backup, agent::info::Logger& logger);

} // namespace backup
