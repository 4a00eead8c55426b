#include "agent/ssl/FipsModule.h"

#include "agent/StringUtils.h"
#include "agent/ssl/ErrorQueue.h"

#include <openssl/crypto.h>
#include <openssl/provider.h>

#include <stdexcept>
#include <utility>

namespace agent::ssl {

using info::Logger;
using Phase = OpenSSLProviderSelfTestPhase;

namespace {

constexpr auto kFips = "fips";
constexpr auto kBase = "base";
constexpr auto kConfigFile = "openssl.cnf"; // in the working directory
constexpr auto kCorruptKey = "fips_self_test_corrupt";
constexpr char kCorruptDelimiter = ';';

std::string describe(Phase phase, const std::string& type, const std::string& description)
{
    return "Self-test: " + description + " (" + type + "): " + to_string(phase);
}

} // namespace

IFipsModule::~IFipsModule() = default;

std::unique_ptr<IOpenSSLProvider> FipsModule::defaultOpenSSLProvider(
    Logger& logger, std::string name, OSSL_LIB_CTX* ctx)
{
    return std::make_unique<OpenSSLProvider>(logger, std::move(name), ctx);
}

std::unique_ptr<IOpenSSLProviderSelfTestEvents> FipsModule::defaultOpenSSLProviderSelfTestEventsFactory(
    OSSL_LIB_CTX* ctx)
{
    return std::make_unique<OpenSSLProviderSelfTestEvents>(ctx);
}

FipsModule::FipsModule(Logger& logger, db::IDbConfigDataProvider& config,
    const SelfTestEventsFactory& selfTestEventsFactory, const ProviderFactory& providerFactory,
    AvailabilityFunction isAvailable)
    : m_logger(logger)
    , m_config(config)
    , m_isAvailable(std::move(isAvailable))
{
    if (!selfTestEventsFactory || !providerFactory)
        throw std::invalid_argument("OpenSSL provider and self-test events factories should not be null");
    if (!m_isAvailable) m_isAvailable = ::OSSL_PROVIDER_available;
    if (!shouldBeLoaded()) return;

    m_fips = providerFactory(m_logger, kFips, nullptr);
    m_base = providerFactory(m_logger, kBase, nullptr);
    if (!m_fips || !m_base) throw std::runtime_error("Failed to create OpenSSL providers");
    m_selfTestEvents = selfTestEventsFactory(nullptr);
    if (!m_selfTestEvents) throw std::runtime_error("Failed to create OpenSSL Self-Test Events");

    m_selfTestEvents->addCallback([this](Phase phase, const std::string& type, const std::string& description) {
        return logSelfTestPhase(phase, type, description);
    });
    m_selfTestEvents->addCallback([this](Phase phase, const std::string& type, const std::string& description) {
        return corruptSelfTestPhase(phase, type, description);
    });
    m_fips->load();
    m_base->load();
    m_fips->selfTest();
}

FipsModule::~FipsModule() = default;

bool FipsModule::isSupported() const
{
    return m_isAvailable(nullptr, kFips) != 0;
}

bool FipsModule::shouldBeLoaded() const
{
    return isSupported(); // NOLINT(clang-analyzer-optin.cplusplus.VirtualCall): the constructor means this very class
}

void FipsModule::selfTest()
{
    if (!m_fips) throw std::runtime_error("FIPS module is not loaded");
    m_fips->selfTest();
}

bool FipsModule::isLoaded() const
{
    return m_fips && m_base && m_fips->isLoaded() && m_base->isLoaded();
}

void FipsModule::loadOpenSSLConfig()
{
    if (::OSSL_LIB_CTX_load_config(nullptr, kConfigFile) == 0)
        throw std::runtime_error("Failed to load OpenSSL FIPS configuration:\n" + pumpOpenSSLErrorQueueToString());
}

void FipsModule::setDefaultSearchPath() {}

bool FipsModule::logSelfTestPhase(Phase phase, const std::string& type, const std::string& description) const
{
    if (phase == Phase::Pass || phase == Phase::Fail)
        Logger::Entry(m_logger, Logger::INFO) << describe(phase, type, description);
    return true;
}

bool FipsModule::corruptSelfTestPhase(Phase phase, const std::string& type, const std::string& description) const
{
    if (phase != Phase::Corrupt) return true;
    if (!StringUtils::hasFlag(m_config.getValue(kCorruptKey, ""), description, kCorruptDelimiter)) return true;
    Logger::Entry(m_logger, Logger::INFO) << describe(phase, type, description);
    return false;
}

} // namespace agent::ssl
