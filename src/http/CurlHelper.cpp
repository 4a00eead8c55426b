#include "agent/CurlHelper.h"

#include "core/Ascii.h"
#include "core/SigpipeGuard.h"

#include "agent/CURLError.h"
#include "agent/File.h"
#include "agent/Format.h"
#include "agent/StringUtils.h"

#include <algorithm>
#include <climits>
#include <new>
#include <string_view>
#include <utility>

namespace agent {

using info::Logger;
using nlohmann::json;
using std::chrono::seconds;

namespace {

constexpr std::size_t kLongestTrace = 512;                   // bytes of a text, before escaping
constexpr seconds kLongestTimeout = seconds(INT_MAX / 1000); // 24 days; libcurl refuses more

/// What the long forms of the requests give one by one.
struct Switches {
    bool verifyCertificates;
    bool failOnError;
    bool verbose;
};

struct Authentication {
    CurlHelper::Credentials credentials;
    IHTTPRequester::ClientCertificate clientCertificate;
};

template <typename Value>
void set(const CurlHelper::CurlAndHeaders& request, CURLoption option, Value value)
{
    checkCurl(curl_easy_setopt(request.handle(), option, value), "");
}

/// One request, step by step. Without a call of authenticate() or send() there are no credentials and no body.
class Request {
public:
    Request(Logger& logger, const Switches& switches)
        : m_switches(switches)
    {
        // Whether tracing can be set up is not worth a request.
        if (switches.verbose) {
            (void)curl_easy_setopt(m_resources->handle(), CURLOPT_DEBUGDATA, &logger);
            (void)curl_easy_setopt(
                m_resources->handle(), CURLOPT_DEBUGFUNCTION, CurlHelper::CurlAndHeaders::log_callback);
        } else {
            (void)curl_easy_setopt(
                m_resources->handle(), CURLOPT_DEBUGFUNCTION, CurlHelper::CurlAndHeaders::noop_callback);
        }
    }

    void authenticate(const Authentication& authentication)
    {
        std::string user;
        std::string password;
        authentication.credentials(user, password);
        set(*m_resources, CURLOPT_HTTPAUTH, CURLAUTH_BASIC);
        set(*m_resources, CURLOPT_USERNAME, user.c_str());
        set(*m_resources, CURLOPT_PASSWORD, password.c_str());

        Path certificate;
        Path privateKey;
        authentication.clientCertificate(certificate, privateKey);
        if (certificate != Path()) set(*m_resources, CURLOPT_SSLCERT, certificate.u8string().c_str());
        if (privateKey != Path()) set(*m_resources, CURLOPT_SSLKEY, privateKey.u8string().c_str());
    }

    void configure(const std::string& url, const std::vector<std::string>& headers)
    {
        for (const char* const header :
            {"Content-Type: application/json", "Accept: application/json", "charsets: utf-8"})
            m_resources->append(header);
        m_resources->append(format_utc(std::chrono::system_clock::now(), "Date: %a, %d %b %Y %H:%M:%S %z"));
        set(*m_resources, CURLOPT_HTTPHEADER, m_resources->headers());
        set(*m_resources, CURLOPT_URL, url.c_str());
        if (!m_switches.verifyCertificates) {
            set(*m_resources, CURLOPT_SSL_VERIFYPEER, 0L);
            set(*m_resources, CURLOPT_SSL_VERIFYHOST, 0L);
        }
        set(*m_resources, CURLOPT_FAILONERROR, m_switches.failOnError ? 1L : 0L);
        set(*m_resources, CURLOPT_VERBOSE, 1L); // the debug function decides
        set(*m_resources, CURLOPT_NOSIGNAL, 1L);
        for (const std::string& header : headers) m_resources->append(header); // the list's head stays
    }

    /// The method of a request without body, or of one whose body is not posted.
    void method(const char* name) { set(*m_resources, CURLOPT_CUSTOMREQUEST, name); }

    /// @param data  is not copied
    void send(const std::string& data)
    {
        set(*m_resources, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(data.size()));
        set(*m_resources, CURLOPT_POSTFIELDS, data.data());
    }

    /// @return  the status code
    long perform(curl_write_callback write, void* target, seconds timeout)
    {
        set(*m_resources, CURLOPT_WRITEFUNCTION, write);
        set(*m_resources, CURLOPT_WRITEDATA, target);
        if (timeout > seconds::zero())
            set(*m_resources, CURLOPT_TIMEOUT, static_cast<long>(std::min(timeout, kLongestTimeout).count()));
        {
            const SigpipeGuard guard;
            checkCurl(curl_easy_perform(m_resources->handle()), "");
        }
        long status = 0;
        checkCurl(curl_easy_getinfo(m_resources->handle(), CURLINFO_RESPONSE_CODE, &status), "");
        return status;
    }

private:
    std::shared_ptr<CurlHelper::CurlAndHeaders> m_resources = std::make_shared<CurlHelper::CurlAndHeaders>();
    Switches m_switches;
};

enum class Method { Get, Post, Put };

/// What requests have in common: all of it but for the body, which is null where there is none.
long exchange(Method method, const std::string& url, const std::string* body, std::string& response, Logger& logger,
    const Authentication* authentication, const std::vector<std::string>& headers, seconds timeout,
    const Switches& switches)
{
    response.clear();
    Request request(logger, switches);
    if (authentication != nullptr) request.authenticate(*authentication);
    request.configure(url, headers);
    if (method != Method::Post) request.method(method == Method::Get ? "GET" : "PUT");
    if (body != nullptr) request.send(*body);
    return request.perform(CurlHelper::writeDataCallback, &response, timeout);
}

/// The same for a JSON body.
long exchangeJson(Method method, const std::string& url, const json& body, std::string& response, Logger& logger,
    const Authentication* authentication, const std::vector<std::string>& headers, seconds timeout,
    const Switches& switches)
{
    response.clear();
    const std::string text = body.dump();
    return exchange(method, url, &text, response, logger, authentication, headers, timeout, switches);
}

/// HTTP/2 tells request headers in informational texts: takes the values out of those with credentials.
void redactHeaders(std::string& text)
{
    const auto sameLetter = [](char a, char b) { return ascii::toLower(a) == b; };
    for (const std::string_view name : {"authorization", "cookie"}) { // "proxy-authorization", too
        auto found = text.begin();
        while ((found = std::search(found, text.end(), name.begin(), name.end(), sameLetter)) != text.end()) {
            found += static_cast<std::ptrdiff_t>(name.size());
            const auto colon = text.find_first_not_of(" \t", static_cast<std::size_t>(found - text.begin()));
            if (colon == std::string::npos || text[colon] != ':') continue;
            text.replace(colon + 1, std::min(text.find('\n', colon), text.size()) - colon - 1, " <redacted>");
            found = text.begin() + static_cast<std::ptrdiff_t>(colon);
        }
    }
}

/// Takes user and password out of a URL, which libcurl quotes: that of a proxy, above all, as the environment has it.
/// An apostrophe inside a word is none: a certificate's subject may hold one, and a mail address.
void redactUrl(std::string& text)
{
    const auto isInWord = [&](std::size_t i) {
        return i != 0 && (ascii::isDigit(text[i - 1]) || ascii::isLetter(text[i - 1]));
    };
    auto quote = text.find('\'');
    while (quote != std::string::npos && isInWord(quote)) quote = text.find('\'', quote + 1);
    const auto at = text.rfind('@');
    if (at != std::string::npos && quote < at) text.replace(quote + 1, at - quote - 1, "<redacted>");
}

std::string escaped(const std::string& text)
{
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (ascii::isPrintable(c) || ascii::isSpace(c)) {
            result += c;
        } else {
            result += '<' + StringUtils::byte_array_to_hex(&byte, 1) + '>';
        }
    }
    return result;
}

std::string cut(std::string text)
{
    if (text.size() <= kLongestTrace) return text;
    const std::size_t dropped = text.size() - kLongestTrace;
    text.resize(kLongestTrace);
    return text + "... <truncated remaining " + std::to_string(dropped) + "B>";
}

} // namespace

IHTTPRequester::~IHTTPRequester() = default;

// --- libcurl as a whole -------------------------------------------------------------------------------------------

CURLcode CurlHelper::Setup()
{
    return curl_global_init(CURL_GLOBAL_ALL);
}

void CurlHelper::Cleanup()
{
    curl_global_cleanup();
}

std::string CurlHelper::getVersionInfo()
{
    const curl_version_info_data& info = *curl_version_info(CURLVERSION_NINTH);
    std::string text = "libcurl: ";
    text += info.version;
    const auto add = [&](const char* label, const char* version) {
        if (version != nullptr) (text += label) += version;
    };
    add(", SSL: ", info.ssl_version);
    add(", SSH: ", info.libssh_version);
    add(", libz: ", info.libz_version);
    text += ", Features:";
    constexpr std::pair<int, const char*> kFeatures[] = {
        {CURL_VERSION_SSL, " SSL"},
        {CURL_VERSION_HTTP2, " HTTP2"},
        {CURL_VERSION_HTTP3, " HTTP3"},
        {CURL_VERSION_BROTLI, " BROTLI"},
        {CURL_VERSION_NTLM, " NTLM"},
    };
    for (const auto& [bit, name] : kFeatures)
        if ((info.features & bit) != 0) text += name;
    return text;
}

// --- a request's resources ----------------------------------------------------------------------------------------

CurlHelper::CurlAndHeaders::CurlAndHeaders()
    : m_handle(curl_easy_init())
{
    if (m_handle == nullptr) throw exception::library_error("Error during curl_easy_init");
}

CurlHelper::CurlAndHeaders::~CurlAndHeaders()
{
    const SigpipeGuard guard; // TLS takes its leave of a peer that may be gone
    curl_easy_cleanup(m_handle);
    curl_slist_free_all(m_headers);
}

void CurlHelper::CurlAndHeaders::append(const std::string& header)
{
    curl_slist* const headers = curl_slist_append(m_headers, header.c_str());
    if (headers == nullptr) throw std::bad_alloc();
    m_headers = headers;
}

int CurlHelper::CurlAndHeaders::log_callback(
    CURL* /*handle*/, curl_infotype type, char* data, std::size_t size, void* logger)
try {
    if (type >= CURLINFO_HEADER_IN && type <= CURLINFO_SSL_DATA_OUT) return 0;
    const std::string prefix = type == CURLINFO_TEXT
                                   ? "CURLINFO_TEXT: "
                                   : "Unknown curlinfo_type (" + std::to_string(static_cast<int>(type)) + "): ";
    std::string text(data, size);
    if (text.ends_with('\n')) text.pop_back();
    redactHeaders(text);
    redactUrl(text);
    Logger::Entry(*static_cast<Logger*>(logger), Logger::INFO) << prefix << escaped(cut(std::move(text)));
    return 0;
} catch (...) { // must not cross libcurl; a line is lost
    return 0;
}

int CurlHelper::CurlAndHeaders::noop_callback(
    CURL* /*handle*/, curl_infotype /*type*/, char* /*data*/, std::size_t /*size*/, void* /*logger*/)
{
    return 0;
}

std::size_t CurlHelper::writeDataCallback(char* data, std::size_t size, std::size_t count, void* response)
try {
    if (data == nullptr || response == nullptr) return 0;
    static_cast<std::string*>(response)->append(data, size * count); // libcurl's size is 1
    return size * count;
} catch (...) {
    return 0;
}

std::size_t CurlHelper::writeFileCallback(char* data, std::size_t size, std::size_t count, void* file)
try {
    if (file == nullptr) return 0;
    static_cast<const File*>(file)->write(data, size * count);
    return size * count;
} catch (...) {
    return 0;
}

// --- requests -----------------------------------------------------------------------------------------------------

CurlHelper::CurlHelper(const IConfig& config, bool verifyCertificates, bool failOnError, const std::string& verboseKey,
    Credentials credentials)
    : m_config(config)
    , m_verifyCertificates(verifyCertificates)
    , m_failOnError(failOnError)
    , m_verboseKey(verboseKey)
    , m_credentials(std::move(credentials))
{
}

void CurlHelper::setCertificateVerification(bool verify)
{
    m_verifyCertificates = verify;
}

bool CurlHelper::isVerbose() const
{
    bool verbose = false;
    m_config.getValue(m_verboseKey, verbose);
    return verbose;
}

long CurlHelper::postRequest(
    const std::string& url, const json& body, std::string& response, Logger& logger, seconds timeout) const
{
    return postRequest(url, body, response, logger, timeout, m_verifyCertificates, m_failOnError, isVerbose());
}

long CurlHelper::postRequest(const std::string& url, const json& body, std::string& response, Logger& logger,
    seconds timeout, bool verifyCertificates, bool failOnError, bool verbose) const
{
    return exchangeJson(
        Method::Post, url, body, response, logger, nullptr, {}, timeout, {verifyCertificates, failOnError, verbose});
}

long CurlHelper::postRequestWithBasicAuth(const std::string& url, const json& body, std::string& response,
    Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers, seconds timeout) const
{
    return postRequestWithBasicAuth(url, body, response, logger, m_credentials, std::move(clientCertificate), headers,
        timeout, m_verifyCertificates, m_failOnError, isVerbose());
}

long CurlHelper::postRequestWithBasicAuth(const std::string& url, const json& body, std::string& response,
    Logger& logger, Credentials credentials, ClientCertificate clientCertificate,
    const std::vector<std::string>& headers, seconds timeout, bool verifyCertificates, bool failOnError,
    bool verbose) const
{
    const Authentication authentication{std::move(credentials), std::move(clientCertificate)};
    return exchangeJson(Method::Post, url, body, response, logger, &authentication, headers, timeout,
        {verifyCertificates, failOnError, verbose});
}

long CurlHelper::postRequestWithBasicAuth(const std::string& url, const std::string& body, std::string& response,
    Logger& logger, Credentials credentials, ClientCertificate clientCertificate,
    const std::vector<std::string>& headers, seconds timeout, bool verifyCertificates, bool failOnError,
    bool verbose) const
{
    return postRequestBinaryWithBasicAuth(url, body, response, logger, std::move(credentials),
        std::move(clientCertificate), headers, timeout, verifyCertificates, failOnError, verbose);
}

long CurlHelper::postRequestBinaryWithBasicAuth(const std::string& url, const std::string& data, std::string& response,
    Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers, seconds timeout) const
{
    return postRequestBinaryWithBasicAuth(url, data, response, logger, m_credentials, std::move(clientCertificate),
        headers, timeout, m_verifyCertificates, m_failOnError, isVerbose());
}

long CurlHelper::postRequestBinaryWithBasicAuth(const std::string& url, const std::string& data, std::string& response,
    Logger& logger, Credentials credentials, ClientCertificate clientCertificate,
    const std::vector<std::string>& headers, seconds timeout, bool verifyCertificates, bool failOnError,
    bool verbose) const
{
    const Authentication authentication{std::move(credentials), std::move(clientCertificate)};
    return exchange(Method::Post, url, &data, response, logger, &authentication, headers, timeout,
        {verifyCertificates, failOnError, verbose});
}

long CurlHelper::putRequest(
    const std::string& url, const json& body, std::string& response, Logger& logger, seconds timeout) const
{
    return putRequest(url, body, response, logger, timeout, m_verifyCertificates, m_failOnError, isVerbose());
}

long CurlHelper::putRequest(const std::string& url, const json& body, std::string& response, Logger& logger,
    seconds timeout, bool verifyCertificates, bool failOnError, bool verbose) const
{
    return exchangeJson(
        Method::Put, url, body, response, logger, nullptr, {}, timeout, {verifyCertificates, failOnError, verbose});
}

long CurlHelper::putRequestWithBasicAuth(const std::string& url, const json& body, std::string& response,
    Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers, seconds timeout) const
{
    return putRequestWithBasicAuth(url, body, response, logger, m_credentials, std::move(clientCertificate), headers,
        timeout, m_verifyCertificates, m_failOnError, isVerbose());
}

long CurlHelper::putRequestWithBasicAuth(const std::string& url, const json& body, std::string& response,
    Logger& logger, Credentials credentials, ClientCertificate clientCertificate,
    const std::vector<std::string>& headers, seconds timeout, bool verifyCertificates, bool failOnError,
    bool verbose) const
{
    const Authentication authentication{std::move(credentials), std::move(clientCertificate)};
    return exchangeJson(Method::Put, url, body, response, logger, &authentication, headers, timeout,
        {verifyCertificates, failOnError, verbose});
}

long CurlHelper::getRequest(const std::string& url, std::string& response, Logger& logger,
    const std::vector<std::string>& headers, seconds timeout) const
{
    return getRequest(url, response, logger, headers, timeout, m_verifyCertificates, m_failOnError, isVerbose());
}

long CurlHelper::getRequest(const std::string& url, std::string& response, Logger& logger,
    const std::vector<std::string>& headers, seconds timeout, bool verifyCertificates, bool failOnError,
    bool verbose) const
{
    return exchange(Method::Get, url, nullptr, response, logger, nullptr, headers, timeout,
        {verifyCertificates, failOnError, verbose});
}

long CurlHelper::getRequestWithBasicAuth(const std::string& url, std::string& response, Logger& logger,
    ClientCertificate clientCertificate, const std::vector<std::string>& headers, seconds timeout) const
{
    return getRequestWithBasicAuth(url, response, logger, m_credentials, std::move(clientCertificate), headers, timeout,
        m_verifyCertificates, m_failOnError, isVerbose());
}

long CurlHelper::getRequestWithBasicAuth(const std::string& url, std::string& response, Logger& logger,
    Credentials credentials, ClientCertificate clientCertificate, const std::vector<std::string>& headers,
    seconds timeout, bool verifyCertificates, bool failOnError, bool verbose) const
{
    const Authentication authentication{std::move(credentials), std::move(clientCertificate)};
    return exchange(Method::Get, url, nullptr, response, logger, &authentication, headers, timeout,
        {verifyCertificates, failOnError, verbose});
}

void CurlHelper::downloadFile(const std::string& url, const Path& target, Logger& logger) const
{
    downloadFile(url, target, logger, m_verifyCertificates, m_failOnError, isVerbose());
}

void CurlHelper::downloadFile(const std::string& url, const Path& target, Logger& logger, bool verifyCertificates,
    bool failOnError, bool verbose) const
{
    File file(logger, target, FileOpenMode::Write | FileOpenMode::Create);
    Request request(logger, {verifyCertificates, failOnError, verbose});
    request.configure(url, {});
    (void)request.perform(writeFileCallback, &file, seconds::zero());
}

} // namespace agent
