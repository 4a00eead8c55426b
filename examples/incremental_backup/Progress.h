#pragma once

#include <string>

namespace backup {

/// One line on standard error that follows long work; silent when that is no terminal. The line is gone
/// again when the object is.
class Progress {
public:
    Progress(std::string label, unsigned long total);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    void advance(unsigned long amount);

private:
    std::string m_label;
    unsigned long m_total;
    unsigned long m_done = 0;
    int m_shownPercent = -1;
    bool m_isShown;
};

} // namespace backup
