#pragma once

#include "agent/Export.h"
#include "agent/exception/LibraryError.h"

#include <mutex>
#include <string>

namespace agent {

/// A failed GnuTLS call; the code is GnuTLS's own, a negative number.
///
/// Threads: GnuTLS's lookup of error texts is not trusted to be re-entrant, so it runs under a mutex of
/// the class. A failure to lock it throws `std::system_error` in place of this error.
class AGENTKIT_API GnuTlsError : public exception::generic_library_error<int> {
public:
    GnuTlsError(const std::string& message, int code);
    GnuTlsError(const GnuTlsError&) = default;
    GnuTlsError& operator=(const GnuTlsError&) = default;
    ~GnuTlsError() override;

private:
    static std::string textOf(int code);

    static std::mutex m_lock;
};

} // namespace agent
