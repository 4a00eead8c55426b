#include "agent/info/Printers.h"

#include <iostream>
#include <utility>

namespace agent::info {

using Time = std::chrono::system_clock::time_point;

void ScreenPrinter::operator()(const std::string& message, Logger::Level /*level*/, Time /*when*/) const
{
    std::cout << message << std::flush;
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
    std::cerr << "~~Logging Error~~ All printers in sequence failed to print log message" << std::endl;
}

} // namespace agent::info
