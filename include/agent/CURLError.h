#pragma once

#include "agent/Export.h"
#include "agent/exception/LibraryError.h"

#include <curl/curl.h>

#include <string>

namespace agent {

namespace exception {
extern template class AGENTKIT_API generic_library_error<CURLcode>;
}

/// A failed libcurl call; the code is the `CURLcode` it returned.
class AGENTKIT_API CURLError : public exception::generic_library_error<CURLcode> {
public:
    CURLError(const std::string& message, CURLcode code);
    CURLError(const CURLError&) = default;
    CURLError& operator=(const CURLError&) = default;
    ~CURLError() override;
};

/// Does nothing for `CURLE_OK`.
/// @param context  what was being done; may be empty
/// @throws CURLError  "Curl error", followed by ": " and the context unless that is empty
AGENTKIT_API void checkCurl(CURLcode code, const std::string& context);

} // namespace agent
