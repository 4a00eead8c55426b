#include "agent/IpEndpoint.h"

#include "agent/StringUtils.h"

#include <iterator>
#include <stdexcept>
#include <vector>

namespace agent {

IpEndpoint::IpEndpoint(const std::string& host, unsigned int port)
    : m_host(host)
    , m_port(port)
{
}

IpEndpoint::IpEndpoint(const std::string& hostPortPair)
    : IpEndpoint("0.0.0.0", 0)
{
    this->hostPortPair(hostPortPair);
}

void IpEndpoint::hostPortPair(const std::string& pair)
{
    std::vector<std::string> pieces;
    split(pair.begin(), pair.end(), std::back_inserter(pieces), ':', '\\');
    if (pieces.empty()) throw std::invalid_argument("Invalid host and port pair: \"" + pair + "\"");
    const unsigned int port = pieces.size() > 1 ? static_cast<unsigned int>(std::stoi(pieces[1])) : m_port;
    m_host = pieces[0];
    m_port = port;
}

} // namespace agent
