#include "agent/DistinguishedName.h"

#include "agent/StringUtils.h"

#include <iterator>
#include <locale>
#include <sstream>
#include <string_view>
#include <utility>
#include <vector>

namespace agent {

namespace {

constexpr char kEscape = '\\';

std::vector<std::string> piecesOf(const std::string& text, char separator)
{
    std::vector<std::string> pieces;
    split(text.begin(), text.end(), std::back_inserter(pieces), separator, kEscape);
    return pieces;
}

int leadingInteger(const std::string& text)
{
    std::istringstream stream(text);
    stream.imbue(std::locale::classic()); // another might take "1.234" for a number with grouped digits
    int number = -1;
    return stream >> number ? number : -1;
}

} // namespace

DistinguishedName::DistinguishedName(const std::string& text)
{
    for (const std::string& piece : piecesOf(text, ',')) {
        partialParse(piece);
        for (const std::string& value : piecesOf(piece, '+')) partialParse(value);
    }
}

void DistinguishedName::partialParse(const std::string& piece)
{
    constexpr std::string_view kCommonName = "CN=";
    constexpr std::string_view kOrganization = "O=";
    constexpr std::string_view kOrganizationalUnit = "OU=";
    if (piece.starts_with(kCommonName)) {
        setCommonName(piece.substr(kCommonName.size()));
    } else if (piece.starts_with(kOrganization)) {
        m_organization = piece.substr(kOrganization.size());
    } else if (piece.starts_with(kOrganizationalUnit)) {
        m_organizationalUnit = piece.substr(kOrganizationalUnit.size());
    }
}

void DistinguishedName::setCommonName(std::string commonName)
{
    m_deviceId = leadingInteger(commonName);
    m_commonName = std::move(commonName);
}

bool DistinguishedName::isValid() const
{
    return !m_commonName.empty() || !m_organization.empty() || !m_organizationalUnit.empty();
}

} // namespace agent
