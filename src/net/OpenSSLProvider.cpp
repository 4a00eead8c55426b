#include "agent/ssl/OpenSSLProvider.h"

#include "agent/ScopeExit.h"
#include "agent/ssl/ErrorQueue.h"

#include <openssl/core_names.h>
#include <openssl/params.h>
#include <openssl/provider.h>

#include <stdexcept>
#include <utility>

namespace agent::ssl {

using info::Logger;

namespace {

const char* orEmpty(const char* text)
{
    return text == nullptr ? "" : text;
}

/// What a provider tells about itself, for the log.
std::string describe(const OSSL_PROVIDER* provider)
{
    char* name = nullptr;
    char* version = nullptr;
    char* buildInfo = nullptr;
    int status = 0;
    OSSL_PARAM params[] = {
        ::OSSL_PARAM_construct_utf8_ptr(OSSL_PROV_PARAM_NAME, &name, 0),
        ::OSSL_PARAM_construct_utf8_ptr(OSSL_PROV_PARAM_VERSION, &version, 0),
        ::OSSL_PARAM_construct_utf8_ptr(OSSL_PROV_PARAM_BUILDINFO, &buildInfo, 0),
        ::OSSL_PARAM_construct_int(OSSL_PROV_PARAM_STATUS, &status),
        ::OSSL_PARAM_construct_end(),
    };
    if (::OSSL_PROVIDER_get_params(provider, params) == 0) return "(no info)";
    return std::string(orEmpty(name)) + ", Version: " + orEmpty(version) + ", Build info: " + orEmpty(buildInfo) +
           ", Status: " + (status == 1 ? "running" : "error");
}

} // namespace

IOpenSSLProvider::~IOpenSSLProvider() = default;

OpenSSLProvider::OpenSSLProvider(Logger& logger, std::string name, OSSL_LIB_CTX* ctx)
    : m_logger(logger)
    , m_name(std::move(name))
    , m_ctx(ctx)
{
}

OpenSSLProvider::~OpenSSLProvider()
{
    if (m_provider != nullptr) try_ignore([this] { OpenSSLProvider::unload(); }, m_logger);
}

bool OpenSSLProvider::isLoaded() const
{
    return m_provider != nullptr;
}

void OpenSSLProvider::load()
{
    if (m_provider != nullptr) throw std::runtime_error("OpenSSL provider is already loaded: " + m_name);
    m_provider = ::OSSL_PROVIDER_load(m_ctx, m_name.c_str());
    if (m_provider == nullptr)
        throw std::runtime_error(
            "Failed to load OpenSSL provider \"" + m_name + "\":\n" + pumpOpenSSLErrorQueueToString());
    Logger::Entry(m_logger, Logger::INFO)
        << "Successfully loaded \"" << m_name << "\" OpenSSL provider: " << describe(m_provider);
}

void OpenSSLProvider::unload()
{
    if (m_provider == nullptr) throw std::runtime_error("OpenSSL provider is not loaded: " + m_name);
    if (::OSSL_PROVIDER_unload(m_provider) == 0)
        throw std::runtime_error(
            "Failed to unload OpenSSL provider \"" + m_name + "\":\n" + pumpOpenSSLErrorQueueToString());
    m_provider = nullptr;
    Logger::Entry(m_logger, Logger::INFO) << "Successfully unloaded OpenSSL provider: " << m_name;
}

void OpenSSLProvider::selfTest() const
{
    Logger::Entry(m_logger, Logger::INFO) << "OpenSSL provider self-test started: " << m_name;
    if (!isLoaded()) throw std::runtime_error("OpenSSL provider is not loaded: " + m_name);
    if (::OSSL_PROVIDER_self_test(m_provider) == 0)
        throw std::runtime_error(
            "OpenSSL provider \"" + m_name + "\" self-test failed:\n" + pumpOpenSSLErrorQueueToString());
    Logger::Entry(m_logger, Logger::INFO) << "OpenSSL provider self-test passed: " << m_name;
}

OSSL_PROVIDER* OpenSSLProvider::getProvider() const
{
    return m_provider;
}

const std::string& OpenSSLProvider::getName() const
{
    return m_name;
}

} // namespace agent::ssl
