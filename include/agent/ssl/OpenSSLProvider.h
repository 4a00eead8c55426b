#pragma once

#include "agent/Export.h"
#include "agent/info/Logger.h"

#include <openssl/types.h>

#include <string>

namespace agent::ssl {

/// A set of OpenSSL's algorithms, which can be loaded into a library context.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IOpenSSLProvider {
public:
    virtual ~IOpenSSLProvider();

    virtual bool isLoaded() const = 0;
    virtual void load() = 0;
    virtual void unload() = 0;

    /// Lets the provider test its algorithms. @throws std::runtime_error if it is not loaded, or fails
    virtual void selfTest() const = 0;

    /// Null while it is not loaded. The handle stays this object's.
    virtual OSSL_PROVIDER* getProvider() const = 0;
    virtual const std::string& getName() const = 0;
};

/// Loads one provider, and unloads it at the latest when destroyed; a failure is then logged and ignored.
///
///     OpenSSLProvider fips(logger, "fips", nullptr);
///     fips.load();
///     fips.selfTest();
///
/// Failures are std::runtime_error. The text of those that OpenSSL reports ends with its error queue, emptied by that.
/// Threads: none but the caller's, one at a time, and none that uses the context's algorithms meanwhile.
class AGENTKIT_API OpenSSLProvider : public IOpenSSLProvider {
public:
    /// Loads nothing.
    /// @param logger  borrowed, as is `ctx`: both must outlive this object
    /// @param name    as OpenSSL knows it: "fips", "base", "default", ...
    /// @param ctx     null is the default library context, the process-wide one
    OpenSSLProvider(info::Logger& logger, std::string name, OSSL_LIB_CTX* ctx);
    OpenSSLProvider(const OpenSSLProvider&) = delete;
    OpenSSLProvider& operator=(const OpenSSLProvider&) = delete;
    ~OpenSSLProvider() override;

    bool isLoaded() const override;

    /// Logs what the provider tells about itself. An explicit load into a context that has fetched no algorithm yet
    /// keeps OpenSSL from adding the default provider to it.
    /// @throws std::runtime_error  if it is loaded already, or cannot be
    void load() override;

    /// @throws std::runtime_error  if it is not loaded, or OpenSSL refuses; it stays loaded then
    void unload() override;

    void selfTest() const override;
    OSSL_PROVIDER* getProvider() const override;
    const std::string& getName() const override;

private:
    info::Logger& m_logger;
    std::string m_name;
    OSSL_LIB_CTX* m_ctx;                 // null: the default one
    OSSL_PROVIDER* m_provider = nullptr; // null: not loaded
};

} // namespace agent::ssl
