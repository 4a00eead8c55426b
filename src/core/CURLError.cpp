#include "agent/CURLError.h"

namespace agent {

namespace exception {
template class generic_library_error<CURLcode>;
}

CURLError::CURLError(const std::string& message, CURLcode code)
    : generic_library_error("CURL", message, code, &curl_easy_strerror)
{
}

CURLError::~CURLError() = default;

void checkCurl(CURLcode code, const std::string& context)
{
    if (code == CURLE_OK) return;
    throw CURLError(context.empty() ? "Curl error" : "Curl error: " + context, code);
}

} // namespace agent
