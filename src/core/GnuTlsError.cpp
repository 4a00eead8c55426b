#include "agent/GnuTlsError.h"

#include <gnutls/gnutls.h>

namespace agent {

constinit std::mutex GnuTlsError::m_lock;

GnuTlsError::GnuTlsError(const std::string& message, int code)
    : generic_library_error("GnuTls", message, code, &GnuTlsError::textOf)
{
}

GnuTlsError::~GnuTlsError() = default;

std::string GnuTlsError::textOf(int code)
{
    const std::lock_guard guard(m_lock);
    const char* const text = gnutls_strerror(code);
    return text != nullptr ? text : "";
}

} // namespace agent
