#include "Support.h"
#include "agent/CURLError.h"
#include "agent/GnuTlsError.h"

using exception::generic_library_error;

TEST(LibraryError, EveryLibraryComposesItsTextAlike)
{
    const std::pair<std::string, std::string> cases[] = {
        {PosixError("open(\"/tmp/x\") failed", ENOENT).what(),
            "open(\"/tmp/x\") failed: No such file or directory | ERROR(Posix) : 2 (0x00000002)"},
        {PosixError("", 0).what(), "Unknown error | ERROR(Posix) : 0 (0x00000000)"},
        {PosixError("x", 123456).what(), "x: Unknown error 123456 | ERROR(Posix) : 123456 (0x0001e240)"},
        {GnuTlsError("import", -50).what(), "import: The request is invalid. | ERROR(GnuTls) : -50 (0xffffffce)"},
        {CURLError("Curl error", CURLE_COULDNT_CONNECT).what(),
            "Curl error: Couldn't connect to server | ERROR(CURL) : 7 (0x00000007)"},
        {generic_library_error<int>("Zlib", "inflate", -3, [](int) { return ""; }).what(),
            "inflate: Unknown error | ERROR(Zlib) : -3 (0xfffffffd)"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(text, expected);
    const PosixError denied("stat64", EACCES);
    const exception::library_error& base = denied;
    EXPECT_EQ(dynamic_cast<const generic_library_error<int>&>(base).codeText(), "Permission denied");
    EXPECT_THROW(generic_library_error<int>::format("Zlib", "inflate", 1, {}), std::bad_function_call);

    const std::string tail = ": Failed sending data to the peer | ERROR(CURL) : 55 (0x00000037)";
    EXPECT_EQ(thrownBy([] { checkCurl(CURLE_SEND_ERROR, ""); }), "runtime: Curl error" + tail);
    EXPECT_EQ(thrownBy([] { checkCurl(CURLE_SEND_ERROR, "upload"); }), "runtime: Curl error: upload" + tail);
}
