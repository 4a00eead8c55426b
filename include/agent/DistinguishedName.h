#pragma once

#include "agent/Export.h"

#include <string>

namespace agent {

/// The parts of an X.509 name that the agent looks at, from its text form: "CN=12345,O=Example,OU=Backup".
///
/// Pieces are cut at ',' and again at '+', unless a backslash stands before them; backslashes stay in the pieces.
/// Prefixes are matched as they stand, with their case and without trimming blanks, and of a field that occurs more
/// than once the last one counts: certificates in the field were issued, and are compared, by these rules.
/// Threads: a value.
class AGENTKIT_API DistinguishedName {
public:
    explicit DistinguishedName(const std::string& text);

    /// Takes over the field that one piece such as "O=Example" sets, if any.
    void partialParse(const std::string& piece);

    /// Sets the device id as well.
    void setCommonName(std::string commonName);

    /// Whether at least one of the three texts is not empty.
    bool isValid() const;

    const std::string& getCommonName() const { return m_commonName; }
    const std::string& getOrganization() const { return m_organization; }
    const std::string& getOrganizationalUnit() const { return m_organizationalUnit; }

    /// The number that the common name begins with, after blanks; -1 without one, or if it does not fit.
    int getDeviceId() const { return m_deviceId; }

private:
    std::string m_commonName;
    std::string m_organization;
    std::string m_organizationalUnit;
    int m_deviceId = -1;
};

} // namespace agent
