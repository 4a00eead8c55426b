#include "agent/CURLError.h"
#include "agent/GnuTlsError.h"
#include "agent/PosixError.h"

#include <gnutls/gnutls.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <stdexcept>
#include <string>

namespace agent {
namespace {

using exception::generic_library_error;
using exception::library_error;

TEST(LibraryError, EveryLibraryComposesItsTextAlike)
{
    struct Case {
        const char* why;
        std::string text;
        std::string expected;
    };
    const Case cases[] = {
        {"call, argument and errno", PosixError("open(\"/tmp/x\") failed", ENOENT).what(),
            "open(\"/tmp/x\") failed: No such file or directory | ERROR(Posix) : 2 (0x00000002)"},
        {"no message, no error", PosixError("", 0).what(), "Unknown error | ERROR(Posix) : 0 (0x00000000)"},
        {"an unknown errno has a text of the system's own", PosixError("x", 123456).what(),
            "x: Unknown error 123456 | ERROR(Posix) : 123456 (0x0001e240)"},
        {"a negative code shows as two's complement",
            GnuTlsError("gnutls_x509_crt_init", GNUTLS_E_INVALID_REQUEST).what(),
            "gnutls_x509_crt_init: The request is invalid. | ERROR(GnuTls) : -50 (0xffffffce)"},
        {"libcurl", CURLError("Curl error", CURLE_COULDNT_CONNECT).what(),
            "Curl error: Couldn't connect to server | ERROR(CURL) : 7 (0x00000007)"},
        {"a code without a text",
            generic_library_error<int>("Zlib", "inflate", -3, [](int) { return std::string(); }).what(),
            "inflate: Unknown error | ERROR(Zlib) : -3 (0xfffffffd)"},
    };
    for (const auto& [why, text, expected] : cases)
        EXPECT_EQ(text, expected) << why;
}

TEST(LibraryError, AHandlerReadsTheCodeBackFromTheCommonBase)
{
    try {
        throw PosixError("stat64(\"/x\") failed", EACCES);
    } catch (const library_error& e) {
        const auto& posix = dynamic_cast<const generic_library_error<int>&>(e);
        EXPECT_EQ(posix.code(), EACCES);
        EXPECT_EQ(posix.codeText(), "Permission denied");
    }
    EXPECT_EQ(CURLError("", CURLE_OPERATION_TIMEDOUT).code(), CURLE_OPERATION_TIMEDOUT);
}

TEST(LibraryError, ACodeToTextFunctionIsRequired)
{
    EXPECT_THROW(generic_library_error<int>::format("Zlib", "inflate", 1, {}), std::bad_function_call);
}

TEST(CheckCurl, ThrowsForEveryCodeButOk)
{
    EXPECT_NO_THROW(checkCurl(CURLE_OK, "anything"));
    const auto textOf = [](const std::string& context) -> std::string {
        try {
            checkCurl(CURLE_SEND_ERROR, context);
        } catch (const CURLError& e) {
            return e.what();
        }
        return "";
    };
    const std::string tail = ": Failed sending data to the peer | ERROR(CURL) : 55 (0x00000037)";
    EXPECT_EQ(textOf(""), "Curl error" + tail);
    EXPECT_EQ(textOf("upload"), "Curl error: upload" + tail);
}

} // namespace
} // namespace agent
