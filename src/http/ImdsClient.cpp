#include "agent/ImdsClient.h"

#include "core/OutsideJson.h"

#include <chrono>
#include <stdexcept>
#include <utility>

namespace agent {

using info::Logger;
using Status = IRetryMethod::RetriableFuncStatus;

namespace {

/// The address is the platform's own, the same on every machine, and reached without encryption.
constexpr const char* kDefaultUrl = "http://169.254.169.254/metadata/instance?api-version=2020-06-01";
constexpr std::chrono::seconds kAttemptTimeout{2};

constexpr int kFailureThreshold = 5;
constexpr unsigned long kOpenTimeoutMs = 3'000;

constexpr unsigned long kInitialIntervalMs = 500;
constexpr unsigned long kMaxRetryTimeMs = 600'000;
constexpr unsigned long kIntervalCapMs = 10'000;
constexpr unsigned long kMaxJitterMs = 250;
constexpr double kMultiplier = 1.5;

// HTTP status codes (RFC 9110 and RFC 6585); Gone and the others come while the service is being updated.
constexpr long kOk = 200;
constexpr long kGone = 410;
constexpr long kTooManyRequests = 429;
constexpr long kInternalServerError = 500;

} // namespace

IImdsClient::~IImdsClient() = default;

ImdsClient::ImdsClient(const IHTTPRequester& requester, Logger& logger, const info::ISystemInfoProvider& systemInfo,
    std::string url, std::function<bool()> isCanceled)
    : m_requester(requester)
    , m_logger(logger)
    , m_systemInfo(systemInfo)
    , m_circuitBreaker(logger, kFailureThreshold, kOpenTimeoutMs)
    , m_retryMethod(std::make_unique<TruncatedExponentialBackoffRetry>(
          logger, kInitialIntervalMs, kMaxRetryTimeMs, kIntervalCapMs, kMaxJitterMs, kMultiplier))
    , m_url(std::move(url))
    , m_isCanceled(std::move(isCanceled))
{
}

void ImdsClient::setRetryMethod(std::unique_ptr<IRetryMethod> retryMethod)
{
    m_retryMethod = std::move(retryMethod);
}

nlohmann::json ImdsClient::imdsData() const
{
    return m_data;
}

bool ImdsClient::isAzure() const
{
    if (!m_isInitialized) throw std::runtime_error("ImdsClient needs to be initialized first.");
    return m_isAzure;
}

bool ImdsClient::init()
{
    m_isAzure = m_systemInfo.checkAzureFootprint() && sendImdsRequest() && parseImdsRequest();
    m_isInitialized = true;
    return m_isAzure;
}

std::string ImdsClient::resourceId() const
{
    return m_resourceId;
}

std::string ImdsClient::subscriptionId() const
{
    return m_subscriptionId;
}

bool ImdsClient::sendImdsRequest()
{
    std::string response;
    if (!m_retryMethod->callWithRetry([&] { return attempt(response); })) return false;
    try {
        m_data = parseOutsideJson(response);
        return true;
    } catch (const std::exception& e) {
        Logger::Entry(m_logger, Logger::DEBUG) << "Azure IMDS http request failed to parse: " << e.what();
        return false;
    }
}

Status ImdsClient::attempt(std::string& response)
{
    if (m_isCanceled()) {
        Logger::Entry(m_logger, Logger::INFO) << "Azure IMDS http request canceled";
        return Status::Failure;
    }
    long statusCode = 0;
    try {
        m_circuitBreaker.execute([&] {
            statusCode = m_requester.getRequest(
                m_url.empty() ? kDefaultUrl : m_url, response, m_logger, {"Metadata: true"}, kAttemptTimeout);
        });
    } catch (const CircuitBreakerOpenError& e) {
        Logger::Entry(m_logger, Logger::INFO)
            << "Azure IMDS http request failed due to open circuit breaker: " << e.what();
        return Status::Retry;
    } catch (const std::exception& e) {
        Logger::Entry(m_logger, Logger::INFO) << "Azure IMDS http request failed: " << e.what();
        return Status::Retry;
    }
    return judge(statusCode, response);
}

Status ImdsClient::judge(long statusCode, const std::string& response)
{
    switch (statusCode) {
    case kOk:
        if (!response.empty()) return Status::Success;
        Logger::Entry(m_logger, Logger::INFO)
            << "Azure IMDS response body was empty even though it responded with HTTP(OK).";
        return Status::Failure;
    case kGone:
    case kTooManyRequests:
    case kInternalServerError:
        Logger::Entry(m_logger, Logger::INFO)
            << "ImdsClient retry-aware func retrying due to response code: " << statusCode << ".";
        return Status::Retry;
    default:
        Logger::Entry(m_logger, Logger::INFO)
            << "ImdsClient retry-aware func failed due to response code: " << statusCode << ".";
        return Status::Failure;
    }
}

bool ImdsClient::parseImdsRequest()
{
    if (!m_data.is_object() || !m_data.contains("compute")) return false;
    const nlohmann::json compute = m_data["compute"];
    if (!compute.contains("resourceId") || !compute.contains("subscriptionId")) return false;
    try {
        m_resourceId = compute["resourceId"].get<std::string>();
        m_subscriptionId = compute["subscriptionId"].get<std::string>();
        return true;
    } catch (const std::exception& e) {
        Logger::Entry(m_logger, Logger::DEBUG) << "Azure IMDS response failed to parse: " << e.what();
        return false;
    }
}

} // namespace agent
