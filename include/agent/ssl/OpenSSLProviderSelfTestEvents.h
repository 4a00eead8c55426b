#pragma once

#include "agent/Export.h"

#include <openssl/core.h>
#include <openssl/types.h>

#include <functional>
#include <list>
#include <string>

namespace agent::ssl {

/// How far one test of a self-test has come.
enum class OpenSSLProviderSelfTestPhase : int {
    None = 0, ///< a phase that this library does not know
    Start = 1,
    Corrupt = 2, ///< between start and result: who refuses here makes the test fail
    Pass = 3,
    Fail = 4,
};

/// The enumerator's name; "None" for any other value.
AGENTKIT_API std::string to_string(OpenSSLProviderSelfTestPhase phase);

/// Tells of the self-tests that providers run.
///
/// The order of its virtual functions is part of the binary interface.
class AGENTKIT_API IOpenSSLProviderSelfTestEvents {
public:
    /// @param type         the kind of test, such as "KAT_Cipher"
    /// @param description  which one of the kind, such as "AES_GCM"
    /// @return             false to refuse; OpenSSL heeds it only in the corrupt phase
    using Callback = std::function<bool(
        OpenSSLProviderSelfTestPhase phase, const std::string& type, const std::string& description)>;

    virtual ~IOpenSSLProviderSelfTestEvents();

    /// The callback is kept as long as this object.
    virtual void addCallback(Callback callback) = 0;
};

/// Takes the place of a library context's self-test callback while it exists.
///
///     OpenSSLProviderSelfTestEvents events(nullptr);
///     events.addCallback([&](auto phase, auto& type, auto& description) { ...; return true; });
///     provider.selfTest();
///
/// An event goes to every callback, in the order of registration and also after one has refused. If none did, the
/// callback that was installed before has its say. A callback that throws, or an empty one, counts as refusing.
/// An event that tells no phase is refused and shown to nobody.
///
/// Lifetime: objects of the same context must go in the reverse order of their making; each puts back what it found.
/// Threads: callbacks run on the thread that loads or tests a provider; do neither on two threads at once.
class AGENTKIT_API OpenSSLProviderSelfTestEvents : public IOpenSSLProviderSelfTestEvents {
public:
    /// @param ctx  borrowed, must outlive this object; null is the default library context, the process-wide one
    explicit OpenSSLProviderSelfTestEvents(OSSL_LIB_CTX* ctx);
    OpenSSLProviderSelfTestEvents(const OpenSSLProviderSelfTestEvents&) = delete;
    OpenSSLProviderSelfTestEvents& operator=(const OpenSSLProviderSelfTestEvents&) = delete;
    ~OpenSSLProviderSelfTestEvents() override;

    void addCallback(Callback callback) override;

private:
    static int onEvent(const OSSL_PARAM params[], void* self) noexcept;
    int handle(const OSSL_PARAM params[]) const;

    OSSL_LIB_CTX* m_ctx;
    OSSL_CALLBACK* m_previous = nullptr; // null: there was none
    void* m_previousArgument = nullptr;
    std::list<Callback> m_callbacks; // a list, so that a callback may add another
};

} // namespace agent::ssl
