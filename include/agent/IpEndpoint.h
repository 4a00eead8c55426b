#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// A host and a port. A value.
class AGENTKIT_API IpEndpoint {
public:
    IpEndpoint(const std::string& host, unsigned int port);

    /// From "host:port"; the port is 0 if there is none.
    /// @throws std::invalid_argument, std::out_of_range  as hostPortPair
    explicit IpEndpoint(const std::string& hostPortPair);

    /// Takes host and port from "host:port". A colon after a backslash is part of the host, and so is the backslash.
    /// Without a port the old one stays. What follows a second colon is ignored; a negative port is stored as its
    /// unsigned image.
    /// @throws std::invalid_argument  for an empty text, or a port that is no number
    /// @throws std::out_of_range      for a port beyond an int
    void hostPortPair(const std::string& pair);

    const std::string& host() const { return m_host; }
    unsigned int port() const { return m_port; }
    void port(unsigned int port) { m_port = port; }

private:
    std::string m_host;
    unsigned int m_port;
};

} // namespace agent
