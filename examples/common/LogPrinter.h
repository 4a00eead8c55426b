#pragma once

#include "agent/File.h"
#include "agent/Path.h"
#include "agent/info/Decorators.h"
#include "agent/info/Logger.h"

namespace backup {

/// Delivers the program's log lines: those of level INFO and above to the screen as they are, and all of them to a
/// log file, with date, thread id and tag. What the file cannot take goes to standard error.
class LogPrinter {
public:
    /// @param logFile  is appended to
    /// @throws agent::PosixError  if it cannot be opened
    explicit LogPrinter(const agent::Path& logFile);

    /// A logger that prints here. The printer must outlive it.
    agent::info::Logger makeLogger() const;

private:
    bool writeToFile(const std::string& line) const;

    agent::info::Logger m_silent{agent::info::Logger::Printer()}; // the log does not log its own opening
    agent::File m_file;
    agent::info::DateDecorator m_date;
    agent::info::ThreadIdDecorator m_thread;
    agent::info::TagDecorator m_tag;
    agent::info::MultiDecorator m_decorator;
};

} // namespace backup
