// Certificates, names, thumbprints and endpoints from outside. What is taken is compared with what its parts say.

#include "Require.h"

#include "agent/Certificate.h"
#include "agent/DistinguishedName.h"
#include "agent/GnuTlsError.h"
#include "agent/IpEndpoint.h"
#include "agent/SSLCertificateThumbprint.h"
#include "agent/info/Logger.h"

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace {

using agent::fuzz::require;

// A name that is put together again from its fields is the same name, unless a '+' or ',' within cuts it anew.
void name(const std::string& text)
{
    const agent::DistinguishedName first(text);
    const std::string fields = first.getCommonName() + first.getOrganization() + first.getOrganizationalUnit();
    require(first.isValid() == !fields.empty());
    if (fields.find_first_of("+,\\") != std::string::npos) return;
    const agent::DistinguishedName second(
        "CN=" + first.getCommonName() + ",O=" + first.getOrganization() + ",OU=" + first.getOrganizationalUnit());
    require(second.getDeviceId() == first.getDeviceId() && second.getCommonName() == first.getCommonName());
}

void endpoint(const std::string& text)
{
    try {
        const agent::IpEndpoint parsed(text);
        require(text.starts_with(parsed.host()));
    } catch (const std::logic_error&) { // no number, or too large a one
    }
}

void certificate(std::string data, gnutls_x509_crt_fmt_t format)
{
    agent::info::Logger silent{agent::info::Logger::Printer()};
    agent::Certificate parsed(silent);
    const gnutls_datum_t buffer{reinterpret_cast<unsigned char*>(data.data()), static_cast<unsigned int>(data.size())};
    try {
        parsed.parseCerts(&buffer, 1, format);
    } catch (const agent::GnuTlsError&) {
        require(parsed.getChain().empty());
        return;
    }
    std::size_t links = 0;
    for (const agent::Certificate* link = &parsed; link != nullptr; link = link->getIssuerCertificate().get()) ++links;
    require(parsed.getChain().size() == links);
    require(parsed.getThumbprint()->str().size() == 40);
    (void)parsed.hasNSComment(data.substr(0, data.size() % 130));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(data), size);
    name(text);
    endpoint(text);
    certificate(text, GNUTLS_X509_FMT_DER);
    certificate(text, GNUTLS_X509_FMT_PEM);
    return 0;
}
