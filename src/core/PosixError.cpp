#include "agent/PosixError.h"

#include <array>
#include <cstring>

namespace agent {

PosixError::PosixError(const std::string& message, int errnum)
    : generic_library_error("Posix", message, errnum, &PosixError::strerror)
{
}

PosixError::~PosixError() = default;

std::string PosixError::strerror(int errnum)
{
    if (errnum == 0) return "Unknown error";
    std::array<char, 1024> buffer{};
    // The GNU form: the text is what it returns, which need not be the buffer.
    return ::strerror_r(errnum, buffer.data(), buffer.size());
}

} // namespace agent
