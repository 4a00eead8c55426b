#pragma once

#include "agent/Export.h"

#include <vector>

namespace agent {

/// Chooses the port to try next.
class AGENTKIT_API IPortRotator {
public:
    virtual ~IPortRotator();
    virtual unsigned int getPort(unsigned int preferred) = 0;
};

/// Cycles through a list of ports, a preferred one first:
///
///     PortRotator ports({1, 2, 3});
///     ports.getPort(2);  // 2, then 1, 3, 2, 1, 3 and so on
///
/// Threads: one at a time.
class AGENTKIT_API PortRotator : public IPortRotator {
public:
    /// @param ports  must not be empty unless a preferred port other than 0 is asked for first
    explicit PortRotator(const std::vector<unsigned int>& ports);

    /// The preferred port when it is a new one; else the next of the list. The list begins with the preferred port,
    /// which changes places with its first port if it is in the list, and is put before it if not.
    /// @param preferred  0 at first: the list as it is
    unsigned int getPort(unsigned int preferred) override;

private:
    unsigned int m_lastPreferred = 0;
    unsigned long m_next = 0; // index in m_order
    std::vector<unsigned int> m_order;
    const std::vector<unsigned int> m_configured;
};

} // namespace agent
