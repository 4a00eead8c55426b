#include "LogPrinter.h"

#include "agent/PosixError.h"
#include "agent/info/Printers.h"

#include <iostream>

namespace backup {

using agent::FileOpenMode;
using agent::info::Logger;

LogPrinter::LogPrinter(const agent::Path& logFile)
    : m_file(m_silent, logFile, FileOpenMode::Write | FileOpenMode::Append | FileOpenMode::Create)
    , m_decorator({m_date, m_thread, m_tag})
{
}

Logger LogPrinter::makeLogger() const
{
    const auto important = [](const std::string&, Logger::Level level, auto) { return level <= Logger::INFO; };
    const auto toFile = [this](const std::string& line, auto, auto) { return writeToFile(line); };
    const auto toStandardError = [](const std::string& line, auto, auto) {
        return (std::cerr << line << std::flush).good();
    };
    using namespace agent::info;
    return Logger(MultiPrinter({
        FilteredPrinter(important, ScreenPrinter()),
        DecoratedPrinter(m_decorator, FailsafePrinter({toFile, toStandardError})),
    }));
}

bool LogPrinter::writeToFile(const std::string& line) const
{
    try {
        m_file.write(line);
        return true;
    } catch (const agent::PosixError&) {
        return false;
    }
}

} // namespace backup
