#pragma once

#include "agent/Export.h"
#include "agent/db/IDbConfigDataProvider.h"
#include "agent/info/Logger.h"
#include "agent/ssl/OpenSSLProvider.h"
#include "agent/ssl/OpenSSLProviderSelfTestEvents.h"

#include <openssl/types.h>

#include <functional>
#include <memory>
#include <string>

namespace agent::ssl {

/// The validated cryptography that FIPS mode runs on.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IFipsModule {
public:
    virtual ~IFipsModule();

    /// Whether this machine has it.
    virtual bool isSupported() const = 0;

    /// @throws std::runtime_error  if it is not loaded, or a test fails
    virtual void selfTest() = 0;
    virtual bool isLoaded() const = 0;
};

/// Loads OpenSSL's FIPS provider, with the "base" provider for what is no cryptography, into the default library
/// context, where the machine's configuration makes it available; else it is inert.
///
///     FipsModule::loadOpenSSLConfig();
///     FipsModule fips(logger, config, FipsModule::defaultOpenSSLProviderSelfTestEventsFactory,
///                     FipsModule::defaultOpenSSLProvider, {});
///
/// Results of self-tests are logged. The configuration value "fips_self_test_corrupt" names tests, by their
/// descriptions and separated by ';', that are made to fail: so an operator proves that a failing self-test stops
/// the agent.
/// Threads: make it once at start-up, on one thread, before anything uses TLS.
class AGENTKIT_API FipsModule : public IFipsModule {
public:
    using ProviderFactory =
        std::function<std::unique_ptr<IOpenSSLProvider>(info::Logger& logger, std::string name, OSSL_LIB_CTX* ctx)>;
    using SelfTestEventsFactory = std::function<std::unique_ptr<IOpenSSLProviderSelfTestEvents>(OSSL_LIB_CTX* ctx)>;
    using AvailabilityFunction = std::function<int(OSSL_LIB_CTX* ctx, const char* name)>;

    static std::unique_ptr<IOpenSSLProvider> defaultOpenSSLProvider(
        info::Logger& logger, std::string name, OSSL_LIB_CTX* ctx);
    static std::unique_ptr<IOpenSSLProviderSelfTestEvents> defaultOpenSSLProviderSelfTestEventsFactory(
        OSSL_LIB_CTX* ctx);

    /// Where FIPS is available, loads both providers and runs the self-test.
    /// @param logger       borrowed, as is `config`: both must outlive the module
    /// @param isAvailable  what isSupported() asks; if empty, OSSL_PROVIDER_available
    /// @throws std::invalid_argument  if a factory is empty
    /// @throws std::runtime_error     if a factory returns null, a provider cannot be loaded or the self-test fails
    FipsModule(info::Logger& logger, db::IDbConfigDataProvider& config,
        const SelfTestEventsFactory& selfTestEventsFactory, const ProviderFactory& providerFactory,
        AvailabilityFunction isAvailable);
    FipsModule(const FipsModule&) = delete;
    FipsModule& operator=(const FipsModule&) = delete;
    ~FipsModule() override;

    bool isSupported() const override;
    bool shouldBeLoaded() const;
    void selfTest() override;
    bool isLoaded() const override;

    /// Reads "openssl.cnf" in the working directory into the default library context.
    /// @throws std::runtime_error  with OpenSSL's error queue
    static void loadOpenSSLConfig();

    /// Does nothing: on Linux OpenSSL finds its providers by itself.
    static void setDefaultSearchPath();

    /// Logs the result of a test. @return true
    bool logSelfTestPhase(
        OpenSSLProviderSelfTestPhase phase, const std::string& type, const std::string& description) const;

    /// @return  false, after logging it, in the corrupt phase of a test that is to fail; else true
    bool corruptSelfTestPhase(
        OpenSSLProviderSelfTestPhase phase, const std::string& type, const std::string& description) const;

private:
    info::Logger& m_logger;
    db::IDbConfigDataProvider& m_config;
    AvailabilityFunction m_isAvailable;
    // The order matters: the events refer to this object and go first, then "base", "fips" last.
    std::unique_ptr<IOpenSSLProvider> m_fips; // null, like the others: inert
    std::unique_ptr<IOpenSSLProvider> m_base;
    std::unique_ptr<IOpenSSLProviderSelfTestEvents> m_selfTestEvents;
};

} // namespace agent::ssl
