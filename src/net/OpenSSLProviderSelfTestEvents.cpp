#include "agent/ssl/OpenSSLProviderSelfTestEvents.h"

#include <openssl/core_names.h>
#include <openssl/self_test.h>

#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

namespace agent::ssl {

using Phase = OpenSSLProviderSelfTestPhase;

namespace {

/// What OpenSSL tells in one event.
struct Event {
    std::optional<std::string> phase;
    std::string type;
    std::string description;
};

// The size does not count a NUL, and there need not be one.
std::string textOf(const OSSL_PARAM& param)
{
    const auto* text = static_cast<const char*>(param.data);
    return {text, ::strnlen(text, param.data_size)};
}

Event parse(const OSSL_PARAM* params)
{
    Event event;
    if (params == nullptr) return event;
    for (; params->key != nullptr; ++params) {
        if (params->data_type != OSSL_PARAM_UTF8_STRING || params->data == nullptr) continue;
        const std::string_view key = params->key;
        if (key == OSSL_PROV_PARAM_SELF_TEST_PHASE) event.phase = textOf(*params);
        if (key == OSSL_PROV_PARAM_SELF_TEST_DESC) event.description = textOf(*params);
        if (key == OSSL_PROV_PARAM_SELF_TEST_TYPE) event.type = textOf(*params);
    }
    return event;
}

Phase phaseOf(const std::string& text)
{
    for (const Phase phase : {Phase::Start, Phase::Corrupt, Phase::Pass, Phase::Fail}) {
        if (text == to_string(phase)) return phase;
    }
    return Phase::None;
}

template <typename Callback>
bool accepts(const Callback& callback, Phase phase, const Event& event) noexcept
{
    try {
        return callback(phase, event.type, event.description);
    } catch (...) { // OpenSSL's frames, which lie above, cannot be unwound
        return false;
    }
}

} // namespace

std::string to_string(Phase phase)
{
    switch (phase) {
    case Phase::Start:
        return OSSL_SELF_TEST_PHASE_START;
    case Phase::Corrupt:
        return OSSL_SELF_TEST_PHASE_CORRUPT;
    case Phase::Pass:
        return OSSL_SELF_TEST_PHASE_PASS;
    case Phase::Fail:
        return OSSL_SELF_TEST_PHASE_FAIL;
    case Phase::None:
        break;
    }
    return OSSL_SELF_TEST_PHASE_NONE;
}

IOpenSSLProviderSelfTestEvents::~IOpenSSLProviderSelfTestEvents() = default;

OpenSSLProviderSelfTestEvents::OpenSSLProviderSelfTestEvents(OSSL_LIB_CTX* ctx)
    : m_ctx(ctx)
{
    ::OSSL_SELF_TEST_get_callback(m_ctx, &m_previous, &m_previousArgument);
    ::OSSL_SELF_TEST_set_callback(m_ctx, &OpenSSLProviderSelfTestEvents::onEvent, this);
}

OpenSSLProviderSelfTestEvents::~OpenSSLProviderSelfTestEvents()
{
    ::OSSL_SELF_TEST_set_callback(m_ctx, m_previous, m_previousArgument);
}

void OpenSSLProviderSelfTestEvents::addCallback(Callback callback)
{
    m_callbacks.push_back(std::move(callback));
}

int OpenSSLProviderSelfTestEvents::onEvent(const OSSL_PARAM params[], void* self) noexcept
{
    try {
        return static_cast<const OpenSSLProviderSelfTestEvents*>(self)->handle(params);
    } catch (...) { // no memory for the texts
        return 0;
    }
}

int OpenSSLProviderSelfTestEvents::handle(const OSSL_PARAM params[]) const
{
    const Event event = parse(params);
    if (!event.phase) return 0;

    const Phase phase = phaseOf(*event.phase);
    bool accepted = true;
    for (const Callback& callback : m_callbacks) accepted = accepts(callback, phase, event) && accepted;
    if (!accepted) return 0;
    return m_previous == nullptr ? 1 : m_previous(params, m_previousArgument);
}

} // namespace agent::ssl
