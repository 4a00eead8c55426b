#include "agent/info/Logger.h"

#include <algorithm>
#include <locale>
#include <utility>

namespace agent::info {

namespace {

constexpr auto kUnknownLevel = static_cast<Logger::Level>(-1);

Logger::Level clampLevel(int level)
{
    return static_cast<Logger::Level>(
        std::clamp(level, static_cast<int>(Logger::CRITICAL), static_cast<int>(Logger::DEBUG)));
}

// A comparison costs far less than an imbue, and most programs never leave the classic locale.
void useClassicLocale(std::stringstream& stream)
{
    if (stream.getloc() != std::locale::classic()) stream.imbue(std::locale::classic());
}

} // namespace

Logger::Logger(Printer printer)
    : m_printer(std::move(printer))
    , m_lock(std::make_shared<std::mutex>())
{
}

Logger::~Logger() = default;

Logger::Entry::Entry(Logger& logger, Level level)
    : m_logger(logger)
    , m_level(clampLevel(level))
{
    useClassicLocale(*this);
}

Logger::Entry::Entry(Entry&& other) // NOLINT(performance-noexcept-move-constructor): makes a new stream
    : m_logger(other.m_logger)
    , m_level(kUnknownLevel)
{
    useClassicLocale(*this);
}

Logger::Entry::~Entry()
{
    try {
        if (fail() || rdbuf()->view().empty()) return;
        rdbuf()->sputc('\n'); // past the stream's formatting: a width that was left over must not pad it
        flush();
    } catch (...) { // a log line must never end the process
    }
}

Logger::Entry& Logger::Entry::flush()
{
    if (!m_logger.m_printer || !good()) return *this;

    std::string text = std::move(*rdbuf()).str(); // takes the buffer over and leaves it empty
    const std::lock_guard guard(*m_logger.m_lock);
    m_logger.m_printer(std::move(text), m_level, std::chrono::system_clock::now());
    return *this;
}

} // namespace agent::info
