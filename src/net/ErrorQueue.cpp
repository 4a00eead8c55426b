#include "agent/ssl/ErrorQueue.h"

#include <openssl/err.h>

#include <cstddef>
#include <exception>

namespace agent::ssl {

namespace {

extern "C" int appendLine(const char* line, std::size_t length, void* text) noexcept
{
    try {
        static_cast<std::string*>(text)->append(line, length);
    } catch (const std::exception&) { // no memory for the line; the rest of the queue must go all the same
    }
    return 1;
}

} // namespace

std::string pumpOpenSSLErrorQueueToString()
{
    std::string text;
    ::ERR_print_errors_cb(&appendLine, &text);
    return text;
}

} // namespace agent::ssl
