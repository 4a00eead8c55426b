#pragma once

#include "agent/Export.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>

namespace agent::info {

/// The one logging handle of the library. It neither formats nor writes anything: it hands each finished
/// message, with its level and time, to a printer that the embedding program supplies.
///
///     Logger logger([](std::string text, Logger::Level, auto) { std::clog << text; });
///     Logger::Entry(logger, Logger::INFO) << "Found " << ranges.size() << " ranges";
///
/// Lifetime: a logger must outlive its entries and every component that was given a reference to it.
/// Threads: all printing through a logger and its copies is serialised by one mutex, held while the
/// printer runs. A printer must therefore not log through the logger that calls it: it would deadlock.
class AGENTKIT_API Logger {
public:
    /// Lower is more severe. The type is fixed because the value -1 occurs: see the move of an entry.
    enum Level : int {
        CRITICAL = 0,
        ERROR = 1,
        WARNING = 2,
        INFO = 3,
        DEBUG = 4,
    };

    using Printer = std::function<void(std::string message, Level level, std::chrono::system_clock::time_point when)>;

    class Entry;

    /// @param printer  receives every message; an empty one makes the logger silent
    explicit Logger(Printer printer);

    /// A copy has a printer of its own and shares the lock. There is no move: a logger without its lock
    /// would be of no use to the entries that still refer to it.
    Logger(const Logger&) = default;
    Logger& operator=(const Logger&) = default;
    ~Logger();

private:
    Printer m_printer;
    std::shared_ptr<std::mutex> m_lock;
};

/// One message: a string stream that prints itself when it is destroyed. Numbers are written in the
/// classic locale, whatever the program's.
///
/// An entry into which nothing was written prints nothing, and neither does one whose stream is in a
/// failed state or at end-of-file. Threads: an entry belongs to the thread that made it.
class AGENTKIT_API Logger::Entry : public std::stringstream {
public:
    /// @param level  below 0 counts as CRITICAL, above 4 as DEBUG
    Entry(Logger& logger, Level level);

    /// Deliberately no transfer: the new entry is empty, is bound to the same logger and has the level
    /// -1, which printers must accept as unknown. The source keeps its text and its level and still
    /// prints them. Code that returns entries by value relies on each text being printed just once, by
    /// the entry it was written to.
    Entry(Entry&& other); // NOLINT(performance-noexcept-move-constructor): makes a new stream

    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;
    Entry& operator=(Entry&&) = delete;

    /// Prints the rest, followed by a newline. Exceptions, the printer's included, are swallowed.
    ~Entry() override;

    /// Prints what has been written so far, without adding a newline, and empties the entry. The time is
    /// taken under the lock, so stamps never decrease in printing order.
    /// @throws std::system_error      if the lock cannot be taken
    /// @throws whatever the printer throws; the text is gone then
    Entry& flush();

private:
    Logger& m_logger;
    Level m_level;
};

} // namespace agent::info
