#pragma once

#include "agent/Export.h"
#include "agent/IConfig.h"
#include "agent/Path.h"
#include "agent/info/Logger.h"

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace agent {

/// Makes HTTP requests. Each gives the status code of the answer, whatever it is, and its body.
///
/// Headers are whole lines such as "Metadata: true". A time-out is for the whole request; 0 or less is none.
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IHTTPRequester {
public:
    /// Fills in the paths of a client certificate and of its private key; empty ones are not used.
    using ClientCertificate = std::function<void(Path& certificate, Path& privateKey)>;

    virtual ~IHTTPRequester();

    virtual long postRequest(const std::string& url, const nlohmann::json& body, std::string& response,
        info::Logger& logger, std::chrono::seconds timeout) const = 0;
    virtual long postRequestWithBasicAuth(const std::string& url, const nlohmann::json& body, std::string& response,
        info::Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout) const = 0;

    /// Posts bytes of any value.
    virtual long postRequestBinaryWithBasicAuth(const std::string& url, const std::string& data, std::string& response,
        info::Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout) const = 0;
    virtual long putRequest(const std::string& url, const nlohmann::json& body, std::string& response,
        info::Logger& logger, std::chrono::seconds timeout) const = 0;
    virtual long putRequestWithBasicAuth(const std::string& url, const nlohmann::json& body, std::string& response,
        info::Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout) const = 0;
    virtual long getRequest(const std::string& url, std::string& response, info::Logger& logger,
        const std::vector<std::string>& headers, std::chrono::seconds timeout) const = 0;
    virtual long getRequestWithBasicAuth(const std::string& url, std::string& response, info::Logger& logger,
        ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout) const = 0;

    /// Whether the certificate and the name of a server are checked.
    virtual void setCertificateVerification(bool verify) = 0;

    /// Gets a file.
    virtual void downloadFile(const std::string& url, const Path& target, info::Logger& logger) const = 0;
};

/// HTTP and HTTPS by libcurl, a connection a request.
///
///     CurlHelper::Setup(); // once, at the program's start
///     CurlHelper http(config, true, false, "http.verbose", credentials);
///     std::string answer;
///     if (http.postRequest(url, {{"id", 7}}, answer, logger, std::chrono::seconds(30)) == 200) ...
///
/// Each request has the headers Content-Type, Accept, charsets and Date, in this order and before the caller's. The
/// response is emptied first, and holds what had arrived when a request fails. Redirections are not followed.
///
/// The forms without switches take them from the object, and tracing from the configuration. A traced request logs
/// libcurl's informational texts at INFO: no bodies, and credentials in headers and proxies redacted.
///
/// Failures of libcurl are CURLError, also a status of 400 and above if that is to fail; a body that is not UTF-8 is
/// nlohmann::json::type_error. What the callbacks for credentials and certificates throw passes through; an empty one
/// is std::bad_function_call. Threads: any number at once, after Setup(), but for setCertificateVerification(). No
/// SIGPIPE is raised.
class AGENTKIT_API CurlHelper : public IHTTPRequester {
public:
    using Credentials = std::function<void(std::string& user, std::string& password)>;

    /// libcurl's global initialisation; call it from one thread, before all else.
    static CURLcode Setup();

    /// Its end, after the last request.
    static void Cleanup();

    /// One line about the libcurl in use: versions and features.
    static std::string getVersionInfo();

    /// @param config       borrowed; must outlive this
    /// @param failOnError  a status of 400 and above is a CURLError
    /// @param verboseKey   of the boolean in the configuration that switches tracing on; asked at each request
    /// @param credentials  asked at each request with basic authentication
    CurlHelper(const IConfig& config, bool verifyCertificates, bool failOnError, const std::string& verboseKey,
        Credentials credentials);

    long postRequest(const std::string& url, const nlohmann::json& body, std::string& response, info::Logger& logger,
        std::chrono::seconds timeout) const override;
    long postRequestWithBasicAuth(const std::string& url, const nlohmann::json& body, std::string& response,
        info::Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout) const override;
    long postRequestBinaryWithBasicAuth(const std::string& url, const std::string& data, std::string& response,
        info::Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout) const override;
    long putRequest(const std::string& url, const nlohmann::json& body, std::string& response, info::Logger& logger,
        std::chrono::seconds timeout) const override;
    long putRequestWithBasicAuth(const std::string& url, const nlohmann::json& body, std::string& response,
        info::Logger& logger, ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout) const override;
    long getRequest(const std::string& url, std::string& response, info::Logger& logger,
        const std::vector<std::string>& headers, std::chrono::seconds timeout) const override;
    long getRequestWithBasicAuth(const std::string& url, std::string& response, info::Logger& logger,
        ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout) const override;
    void setCertificateVerification(bool verify) override;

    /// Beware: a file that exists is overwritten from its beginning, but not truncated.
    /// @throws PosixError  if the file cannot be opened; a failed write is the CURLError of a failed write
    void downloadFile(const std::string& url, const Path& target, info::Logger& logger) const override;

    /// The same with all switches given, and with the credentials where there are any.
    long postRequest(const std::string& url, const nlohmann::json& body, std::string& response, info::Logger& logger,
        std::chrono::seconds timeout, bool verifyCertificates, bool failOnError, bool verbose) const;
    long postRequestWithBasicAuth(const std::string& url, const nlohmann::json& body, std::string& response,
        info::Logger& logger, Credentials credentials, ClientCertificate clientCertificate,
        const std::vector<std::string>& headers, std::chrono::seconds timeout, bool verifyCertificates,
        bool failOnError, bool verbose) const;

    /// @param body  JSON text
    long postRequestWithBasicAuth(const std::string& url, const std::string& body, std::string& response,
        info::Logger& logger, Credentials credentials, ClientCertificate clientCertificate,
        const std::vector<std::string>& headers, std::chrono::seconds timeout, bool verifyCertificates,
        bool failOnError, bool verbose) const;
    long postRequestBinaryWithBasicAuth(const std::string& url, const std::string& data, std::string& response,
        info::Logger& logger, Credentials credentials, ClientCertificate clientCertificate,
        const std::vector<std::string>& headers, std::chrono::seconds timeout, bool verifyCertificates,
        bool failOnError, bool verbose) const;
    long putRequest(const std::string& url, const nlohmann::json& body, std::string& response, info::Logger& logger,
        std::chrono::seconds timeout, bool verifyCertificates, bool failOnError, bool verbose) const;
    long putRequestWithBasicAuth(const std::string& url, const nlohmann::json& body, std::string& response,
        info::Logger& logger, Credentials credentials, ClientCertificate clientCertificate,
        const std::vector<std::string>& headers, std::chrono::seconds timeout, bool verifyCertificates,
        bool failOnError, bool verbose) const;
    long getRequest(const std::string& url, std::string& response, info::Logger& logger,
        const std::vector<std::string>& headers, std::chrono::seconds timeout, bool verifyCertificates,
        bool failOnError, bool verbose) const;
    long getRequestWithBasicAuth(const std::string& url, std::string& response, info::Logger& logger,
        Credentials credentials, ClientCertificate clientCertificate, const std::vector<std::string>& headers,
        std::chrono::seconds timeout, bool verifyCertificates, bool failOnError, bool verbose) const;
    void downloadFile(const std::string& url, const Path& target, info::Logger& logger, bool verifyCertificates,
        bool failOnError, bool verbose) const;

    /// libcurl's resources of one request.
    class AGENTKIT_API CurlAndHeaders {
    public:
        /// @throws exception::library_error  if there is no handle to be had
        CurlAndHeaders();
        CurlAndHeaders(const CurlAndHeaders&) = delete;
        CurlAndHeaders& operator=(const CurlAndHeaders&) = delete;
        ~CurlAndHeaders();

        CURL* handle() const { return m_handle; }

        /// Adds a header line at the end.
        void append(const std::string& header);
        curl_slist* headers() const { return m_headers; }

        /// Logs libcurl's informational texts, of which it keeps 512 bytes; for CURLOPT_DEBUGFUNCTION.
        /// @param logger  an info::Logger
        static int log_callback(CURL* handle, curl_infotype type, char* data, std::size_t size, void* logger);

        /// Ignores everything.
        static int noop_callback(CURL* handle, curl_infotype type, char* data, std::size_t size, void* logger);

    private:
        CURL* m_handle;
        curl_slist* m_headers = nullptr;
    };

    /// For CURLOPT_WRITEFUNCTION: adds to a std::string.
    /// @return  the bytes taken; 0, which makes the transfer fail, without a target
    static std::size_t writeDataCallback(char* data, std::size_t size, std::size_t count, void* response);

    /// The same for a File; 0 also if it cannot be written.
    static std::size_t writeFileCallback(char* data, std::size_t size, std::size_t count, void* file);

private:
    bool isVerbose() const;

    std::string m_errorText; // reserved
    const IConfig& m_config;
    bool m_verifyCertificates;
    bool m_failOnError;
    std::string m_verboseKey;
    Credentials m_credentials;
};

} // namespace agent
