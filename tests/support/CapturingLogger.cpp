#include "CapturingLogger.h"

#include <array>
#include <utility>

namespace agent::test {

namespace {

std::string nameOf(info::Logger::Level level)
{
    static const std::array<std::string, 5> names{"CRITICAL", "ERROR", "WARNING", "INFO", "DEBUG"};
    const auto index = static_cast<std::size_t>(level);
    return index < names.size() ? names[index] : std::to_string(level);
}

} // namespace

CapturingLogger::CapturingLogger()
    : m_logger([this](std::string text, info::Logger::Level level, auto when) {
        m_entries.push_back({std::move(text), level, when});
    })
{
}

std::vector<std::string> CapturingLogger::lines() const
{
    std::vector<std::string> lines;
    for (const auto& entry : m_entries) {
        std::string text = entry.text;
        if (text.ends_with('\n')) text.pop_back();
        lines.push_back(nameOf(entry.level) + " " + text);
    }
    return lines;
}

} // namespace agent::test
