#pragma once

#include "agent/info/Logger.h"

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace agent::test {

/// A logger that remembers what it is told. Log from as many threads as you like; read when they are done.
class CapturingLogger {
public:
    struct Entry {
        std::string text; ///< as the printer got it, newline included
        info::Logger::Level level;
        std::chrono::system_clock::time_point when;
    };

    info::Logger& logger() { return m_logger; }
    const std::vector<Entry>& entries() const { return m_entries; }

    /// "level text" of each entry, the level as a number and the text without the newline at its end.
    std::vector<std::string> lines() const
    {
        std::vector<std::string> lines;
        for (const Entry& entry : m_entries) {
            lines.push_back(std::to_string(entry.level) + ' ' + entry.text);
            if (lines.back().ends_with('\n')) lines.back().pop_back();
        }
        return lines;
    }

private:
    std::vector<Entry> m_entries;
    info::Logger m_logger{[this](std::string text, info::Logger::Level level, auto when) {
        m_entries.push_back({std::move(text), level, when});
    }};
};

} // namespace agent::test
