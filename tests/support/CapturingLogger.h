#pragma once

#include "agent/info/Logger.h"

#include <chrono>
#include <string>
#include <vector>

namespace agent::test {

struct CapturedEntry {
    std::string text; ///< as the printer got it, newline included
    info::Logger::Level level;
    std::chrono::system_clock::time_point when;
};

/// A logger that remembers what it is told.
/// Threads: log from as many as you like; read when they are done.
class CapturingLogger {
public:
    CapturingLogger();
    CapturingLogger(const CapturingLogger&) = delete;
    CapturingLogger& operator=(const CapturingLogger&) = delete;

    info::Logger& logger() { return m_logger; }
    const std::vector<CapturedEntry>& entries() const { return m_entries; }

    /// "LEVEL text" of each entry, without the newline at its end: easy to compare with a list.
    std::vector<std::string> lines() const;

private:
    std::vector<CapturedEntry> m_entries;
    info::Logger m_logger;
};

} // namespace agent::test
