#pragma once

#include "agent/CircuitBreaker.h"
#include "agent/CurlHelper.h"
#include "agent/Export.h"
#include "agent/RetryMethod.h"
#include "agent/info/Logger.h"
#include "agent/info/SystemInfoProvider.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <memory>
#include <string>

namespace agent {

/// Knows which cloud resource the machine is.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IImdsClient {
public:
    virtual ~IImdsClient();

    virtual nlohmann::json imdsData() const = 0;
    virtual bool isAzure() const = 0;
    virtual bool init() = 0;
    virtual std::string resourceId() const = 0;
    virtual std::string subscriptionId() const = 0;
};

/// Asks the Azure Instance Metadata Service, once, and keeps the answer.
///
///     ImdsClient client(http, logger, systemInfo, "", [&] { return stopping.load(); });
///     if (client.init()) report(client.resourceId());
///
/// It is asked only if the system information provider sees signs of Azure; the one for this platform never does.
/// Attempts that fail in passing are repeated, by default with growing waits for ten minutes, and spared by a breaker
/// of five failures and three seconds. They are logged at INFO.
///
/// Threads: one; the cancel check may look at what others set. An attempt that is under way takes two seconds at most.
class AGENTKIT_API ImdsClient : public IImdsClient {
public:
    /// Asks nothing yet.
    /// @param requester   borrowed, as are the logger and the provider; they must outlive this
    /// @param url         of the service; the well-known one if empty
    /// @param isCanceled  asked before each attempt; must not be empty
    ImdsClient(const IHTTPRequester& requester, info::Logger& logger, const info::ISystemInfoProvider& systemInfo,
        std::string url, std::function<bool()> isCanceled);

    /// To be called before init().
    /// @param retryMethod  must not be null
    void setRetryMethod(std::unique_ptr<IRetryMethod> retryMethod);

    /// The whole answer; null while there was none.
    nlohmann::json imdsData() const override;

    /// @throws std::runtime_error  before init()
    bool isAzure() const override;

    /// Asks, and blocks as long as that takes. A later call asks again; without an answer that is JSON it changes no
    /// more than isAzure().
    /// @return  isAzure()
    /// @throws whatever the cancel check throws, std::bad_function_call if it is empty; of a request only what is no
    ///         std::exception
    bool init() override;

    /// Empty while not known.
    std::string resourceId() const override;
    std::string subscriptionId() const override;

    /// The two steps of init(), once Azure is likely: gets imdsData(), and takes the two texts out of it.
    /// @return  whether that was possible
    bool sendImdsRequest();
    bool parseImdsRequest();

private:
    IRetryMethod::RetriableFuncStatus attempt(std::string& response);
    IRetryMethod::RetriableFuncStatus judge(long statusCode, const std::string& response);

    const IHTTPRequester& m_requester;
    nlohmann::json m_data;
    bool m_isInitialized = false;
    bool m_isAzure = false;
    info::Logger& m_logger;
    std::string m_subscriptionId;
    const info::ISystemInfoProvider& m_systemInfo;
    std::string m_resourceId;
    CircuitBreaker m_circuitBreaker;
    std::unique_ptr<IRetryMethod> m_retryMethod;
    std::string m_url;
    std::function<bool()> m_isCanceled;
};

} // namespace agent
