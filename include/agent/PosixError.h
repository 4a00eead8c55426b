#pragma once

#include "agent/Export.h"
#include "agent/exception/LibraryError.h"

#include <string>

namespace agent {

/// A failed system call; the code is its `errno` value.
///
///     const int error = errno;  // before building the message, which may overwrite errno
///     throw PosixError("stat64(\"" + path + "\") failed", error);
class AGENTKIT_API PosixError : public exception::generic_library_error<int> {
public:
    PosixError(const std::string& message, int errnum);
    PosixError(const PosixError&) = default;
    PosixError& operator=(const PosixError&) = default;
    ~PosixError() override;

    /// The system's text for an `errno` value, "Unknown error" for 0. Any thread may call it.
    static std::string strerror(int errnum);
};

} // namespace agent
