#include "Progress.h"

#include <unistd.h>

#include <iostream>
#include <utility>

namespace backup {

Progress::Progress(std::string label, unsigned long total)
    : m_label(std::move(label))
    , m_total(total)
    , m_isShown(::isatty(STDERR_FILENO) == 1)
{
}

Progress::~Progress()
{
    if (m_shownPercent >= 0) std::cerr << "\r\033[K" << std::flush; // back to the margin, erase the line
}

void Progress::advance(unsigned long amount)
{
    m_done += amount;
    if (!m_isShown || m_total == 0) return;
    const int percent = static_cast<int>(100.0 * static_cast<double>(m_done) / static_cast<double>(m_total));
    if (percent == m_shownPercent) return;
    m_shownPercent = percent;
    std::cerr << '\r' << m_label << ' ' << percent << " %" << std::flush;
}

} // namespace backup
