#include "agent/info/Printers.h"

#include <iostream>
#include <utility>

namespace agent::info {

using Time = std::chrono::system_clock::time_point;

namespace {

// Past the stream's state, which a disk that is full for a moment would leave bad for the rest of the process, and
// past a width that somebody else has set.
void print(const std::ostream& stream, const std::string& text)
{
    (void)stream.rdbuf()->sputn(text.data(), static_cast<std::streamsize>(text.size()));
    (void)stream.rdbuf()->pubsync();
}

} // namespace

void ScreenPrinter::operator()(const std::string& message, Logger::Level /*level*/, Time /*when*/) const
{
    print(std::cout, message);
}

DecoratedPrinter::DecoratedPrinter(std::reference_wrapper<const IDecorator> decorator, Logger::Printer printer)
    : m_decorator(decorator)
    , m_printer(std::move(printer))
{
}

void DecoratedPrinter::operator()(std::string message, Logger::Level level, Time when) const
{
    m_printer(m_decorator.get().decorate(std::move(message), level, when), level, when);
}

FilteredPrinter::FilteredPrinter(Filter filter, Logger::Printer printer)
    : m_filter(std::move(filter))
    , m_printer(std::move(printer))
{
}

void FilteredPrinter::operator()(std::string message, Logger::Level level, Time when) const
{
    if (m_filter(message, level, when)) m_printer(std::move(message), level, when);
}

MultiPrinter::MultiPrinter(std::vector<Logger::Printer> printers)
    : m_printers(std::move(printers))
{
}

void MultiPrinter::operator()(const std::string& message, Logger::Level level, Time when) const
{
    for (const Logger::Printer& printer : m_printers) printer(message, level, when);
}

FailsafePrinter::FailsafePrinter(std::vector<FalliblePrinter> printers)
    : m_printers(std::move(printers))
{
}

void FailsafePrinter::operator()(const std::string& message, Logger::Level level, Time when) const
{
    for (const FalliblePrinter& printer : m_printers) {
        if (printer && printer(message, level, when)) return;
    }
    print(std::cerr, "~~Logging Error~~ All printers in sequence failed to print log message\n");
}

} // namespace agent::info
