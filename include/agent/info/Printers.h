#pragma once

#include "agent/Export.h"
#include "agent/info/Decorators.h"
#include "agent/info/Logger.h"

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// The building blocks of a logger's printer. Each is a function object that can be given to a logger or to another
/// printer:
///
///     const auto important = [](std::string, Logger::Level level, auto) { return level <= Logger::INFO; };
///     Logger logger(DecoratedPrinter(all, MultiPrinter({toFile, FilteredPrinter(important, ScreenPrinter())})));
///
/// Exceptions of a printer pass through all of them, and end at the log entry. Threads: a logger calls its printer
/// under its lock; what several loggers share must be safe by itself, and these are if the printers in them are.
namespace agent::info {

/// Writes messages to standard output as they are and flushes it. What cannot be written is lost; the next message is
/// tried all the same.
class AGENTKIT_API ScreenPrinter {
public:
    void operator()(const std::string& message, Logger::Level level, std::chrono::system_clock::time_point when) const;
};

/// Hands the decorated message on.
class AGENTKIT_API DecoratedPrinter {
public:
    /// @param decorator  borrowed; must outlive the printer and its copies
    DecoratedPrinter(std::reference_wrapper<const IDecorator> decorator, Logger::Printer printer);

    /// @throws std::bad_function_call  if the printer is empty
    void operator()(std::string message, Logger::Level level, std::chrono::system_clock::time_point when) const;

private:
    std::reference_wrapper<const IDecorator> m_decorator;
    Logger::Printer m_printer;
};

/// Hands on what a filter accepts.
class AGENTKIT_API FilteredPrinter {
public:
    using Filter = std::function<bool(std::string, Logger::Level, std::chrono::system_clock::time_point)>;

    FilteredPrinter(Filter filter, Logger::Printer printer);

    /// @throws std::bad_function_call  if the filter is empty, or the printer when it is needed
    void operator()(std::string message, Logger::Level level, std::chrono::system_clock::time_point when) const;

private:
    Filter m_filter;
    Logger::Printer m_printer;
};

/// Hands each message to every printer in order.
class AGENTKIT_API MultiPrinter {
public:
    explicit MultiPrinter(std::vector<Logger::Printer> printers);

    /// @throws std::bad_function_call  at a printer that is empty; those after it do not get the message
    void operator()(const std::string& message, Logger::Level level, std::chrono::system_clock::time_point when) const;

private:
    std::vector<Logger::Printer> m_printers;
};

/// Hands each message to the first printer that can print it. If none can, standard error gets the line "~~Logging
/// Error~~ All printers in sequence failed to print log message"; the message itself is lost.
class AGENTKIT_API FailsafePrinter {
public:
    /// Tells whether it printed.
    using FalliblePrinter = std::function<bool(std::string, Logger::Level, std::chrono::system_clock::time_point)>;

    /// @param printers  an empty one counts as one that cannot print; one that throws does not: the exception passes
    explicit FailsafePrinter(std::vector<FalliblePrinter> printers);

    void operator()(const std::string& message, Logger::Level level, std::chrono::system_clock::time_point when) const;

private:
    std::vector<FalliblePrinter> m_printers;
};

} // namespace agent::info
