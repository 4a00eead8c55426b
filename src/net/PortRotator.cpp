#include "agent/PortRotator.h"

#include <algorithm>

namespace agent {

IPortRotator::~IPortRotator() = default;

PortRotator::PortRotator(const std::vector<unsigned int>& ports)
    : m_order(ports)
    , m_configured(ports)
{
}

unsigned int PortRotator::getPort(unsigned int preferred)
{
    if (preferred == m_lastPreferred) {
        if (m_next >= m_order.size()) m_next = 0;
        return m_order[m_next++];
    }
    m_order = m_configured;
    const auto found = std::ranges::find(m_order, preferred);
    if (found != m_order.end()) {
        std::iter_swap(found, m_order.begin());
    } else {
        m_order.insert(m_order.begin(), preferred);
    }
    m_lastPreferred = preferred;
    m_next = 1;
    return m_order[0];
}

} // namespace agent
