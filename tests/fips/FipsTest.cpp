#include "Support.h"
#include "agent/ssl/FipsModuleInitializer.h"

#include <openssl/core_dispatch.h>
#include <openssl/err.h>
#include <openssl/params.h>
#include <openssl/provider.h>
#include <openssl/self_test.h>
#include <openssl/x509.h>

using namespace agent::ssl;

namespace {

using Installed = std::pair<OSSL_CALLBACK*, void*>;

Installed installed(OSSL_LIB_CTX* ctx = nullptr)
{
    Installed callback;
    ::OSSL_SELF_TEST_get_callback(ctx, &callback.first, &callback.second);
    return callback;
}

// A provider with one test, which it runs as a real one does.
int runTest(void* /*ctx*/)
{
    OSSL_SELF_TEST* test = ::OSSL_SELF_TEST_new(installed().first, installed().second);
    unsigned char byte = 0;
    ::OSSL_SELF_TEST_onbegin(test, "KAT", "SHA2");
    if (::OSSL_SELF_TEST_oncorrupt_byte(test, &byte) != 0) ERR_raise_data(ERR_LIB_PROV, 1, "bad SHA2");
    ::OSSL_SELF_TEST_onend(test, byte == 0 ? 1 : 0);
    ::OSSL_SELF_TEST_free(test);
    return byte == 0 ? 1 : 0;
}

int tellInfo(void* /*ctx*/, OSSL_PARAM wanted[])
{
    ::OSSL_PARAM_set_utf8_ptr(::OSSL_PARAM_locate(wanted, "name"), "Fake");
    ::OSSL_PARAM_set_utf8_ptr(::OSSL_PARAM_locate(wanted, "version"), "1.2");
    ::OSSL_PARAM_set_utf8_ptr(::OSSL_PARAM_locate(wanted, "buildinfo"), "abc");
    ::OSSL_PARAM_set_int(::OSSL_PARAM_locate(wanted, "status"), 1);
    return 1;
}

int initProvider(
    const OSSL_CORE_HANDLE* /*core*/, const OSSL_DISPATCH* /*in*/, const OSSL_DISPATCH** functions, void** /*ctx*/)
{
    static const OSSL_DISPATCH own[] = {{OSSL_FUNC_PROVIDER_SELF_TEST, reinterpret_cast<void (*)()>(runTest)},
        {OSSL_FUNC_PROVIDER_GET_PARAMS, reinterpret_cast<void (*)()>(tellInfo)}, {0, nullptr}};
    *functions = own;
    return 1;
}

const std::string kError = "[0-9A-F]+:error:[^\n]*"; // a line of OpenSSL's error queue

class FipsTest : public testing::Test, public db::IDbConfigDataProvider {
protected:
    static void SetUpTestSuite()
    {
        ::setenv("OPENSSL_CONF", "/dev/null", 1); // not the machine's
        ::OSSL_PROVIDER_add_builtin(nullptr, "fips", initProvider);
    }

    std::string getValue(const std::string& key, const std::string& defaultValue) const override
    {
        return key == "fips_self_test_corrupt" ? m_corrupt : defaultValue;
    }

    std::unique_ptr<FipsModule> make(const auto& events, const auto& providers)
    {
        return std::make_unique<FipsModule>(m_log.logger(), *this, events, providers, nullptr);
    }

    static constexpr auto m_events = FipsModule::defaultOpenSSLProviderSelfTestEventsFactory;
    static constexpr auto m_providers = FipsModule::defaultOpenSSLProvider;
    CapturingLogger m_log;
    std::string m_corrupt = "SHA; SHA256";
};

TEST_F(FipsTest, EventsReachEveryCallback)
{
    const auto previous = [](const OSSL_PARAM* /*params*/, void* argument) { return *static_cast<int*>(argument); };
    int seven = 7;
    ::OSSL_SELF_TEST_set_callback(nullptr, previous, &seven);
    auto events = m_events(nullptr);
    std::string seen;
    int refusal = 0;                   // 1: false, 2: an exception
    events->addCallback([&](auto...) { // its place is before the other
        seen.clear();
        return refusal == 2 ? throw std::runtime_error("") : refusal == 0;
    });
    events->addCallback([&](auto phase, auto& type, auto& description) {
        seen = std::to_string(static_cast<int>(phase)) + to_string(phase) + type + description;
        return true;
    });
    char text[] = "StartTypeWhat";
    for (const auto& [params, expected] : std::vector<std::pair<std::vector<OSSL_PARAM>, std::string>>{
             {{{"st-phase", OSSL_PARAM_UTF8_PTR, text, 5, 0}, {}}, ""},
             {{{"st-phase", OSSL_PARAM_UTF8_STRING, text, 4, 0}, {"st-desc", 4, text + 9, 99, 0}, {}}, "0NoneWhat"},
             {{{"st-type", 4, text + 5, 4, 0}, {"st-phase", 4, text, 5, 0}, {}}, "1StartType"}}) {
        for (refusal = 0; refusal <= 2; ++refusal) {
            const bool accepted = !expected.empty() && refusal == 0;
            EXPECT_EQ(installed().first(params.data(), installed().second), accepted ? 7 : 0);
            EXPECT_EQ(seen, expected);
        }
    }
    events.reset();
    EXPECT_EQ(installed().first, +previous);
    ::OSSL_SELF_TEST_set_callback(nullptr, nullptr, nullptr);
}

TEST_F(FipsTest, TheModuleStandsOrFallsWithItsTest)
{
    CapturingLogger other;
    OpenSSLProvider fips(other.logger(), "fips", nullptr);
    const std::string notLoaded = "runtime: OpenSSL provider is not loaded: fips";
    EXPECT_EQ(thrownBy([&] { fips.load(), fips.unload(), fips.unload(); }), notLoaded);
    EXPECT_EQ(thrownBy([&] { fips.selfTest(); }), notLoaded);
    fips.load(); // as the machine's configuration might
    EXPECT_EQ(thrownBy([&] { fips.load(); }), "runtime: OpenSSL provider is already loaded: fips");
    EXPECT_THAT(thrownBy([&] { OpenSSLProvider(other.logger(), "missing", nullptr).load(); }),
        MatchesRegex("runtime: Failed to load OpenSSL provider \"missing\":\n(" + kError + "\n){2,}"));
    auto module = make(m_events, m_providers);
    EXPECT_TRUE(module->isLoaded());
    m_corrupt = "AES; SHA2 ";
    const auto failure = MatchesRegex("runtime: OpenSSL provider \"fips\" self-test failed:\n" + kError + "bad SHA2\n");
    EXPECT_THAT(thrownBy([&] { module->selfTest(); }), failure);
    module.reset();
    const std::string loaded = "3 Successfully loaded \"";
    const std::string started = "3 OpenSSL provider self-test started: fips";
    const std::string test = "3 Self-test: SHA2 (KAT): ";
    const std::string unloaded = "3 Successfully unloaded OpenSSL provider: ";
    EXPECT_THAT(m_log.lines(),
        ElementsAre(loaded + "fips\" OpenSSL provider: Fake, Version: 1.2, Build info: abc, Status: running",
            StartsWith(loaded + "base\" OpenSSL provider: "), started, test + "Pass",
            "3 OpenSSL provider self-test passed: fips", started, test + "Corrupt", test + "Fail", unloaded + "base",
            unloaded + "fips"));
    EXPECT_THAT(thrownBy([&] { make(m_events, m_providers); }), failure);
    EXPECT_EQ(installed().first, nullptr);
    const auto none = [](auto&&...) { return nullptr; };
    EXPECT_EQ(thrownBy([&] { make(m_events, none); }), "runtime: Failed to create OpenSSL providers");
    EXPECT_EQ(thrownBy([&] { make(none, m_providers); }), "runtime: Failed to create OpenSSL Self-Test Events");
}

TEST_F(FipsTest, TheMachinesOwnProviderPasses)
{
    const std::unique_ptr<OSSL_LIB_CTX, decltype(&OSSL_LIB_CTX_free)> own(::OSSL_LIB_CTX_new(), ::OSSL_LIB_CTX_free);
    (void)::OSSL_LIB_CTX_load_config(own.get(), (::X509_get_default_cert_area() + "/openssl.cnf"s).c_str());
    OpenSSLProvider fips(m_log.logger(), "fips", own.get());
    const std::string failure = thrownBy([&] { fips.load(); });
    if (failure != "nothing") GTEST_SKIP() << failure;
    fips.selfTest();
    EXPECT_EQ(m_log.lines().back(), "3 OpenSSL provider self-test passed: fips");
}

TEST_F(FipsTest, TheMachineDecides)
{
    EXPECT_EQ(thrownBy([&] { make(m_events, nullptr); }),
        "invalid argument: OpenSSL provider and self-test events factories should not be null");
    int available = 0;
    FipsModule inert(m_log.logger(), *this, m_events, m_providers, [&](auto...) { return available; });
    EXPECT_EQ(thrownBy([&] { inert.selfTest(); }), "runtime: FIPS module is not loaded");
    filesystem::FileStreamFactory files;
    auto& unused = reinterpret_cast<core::script::ICommandUtility&>(files);
    FipsModuleInitializer initializer(m_log.logger(), *this, inert, unused, files);
    EXPECT_TRUE(initializer.init(false) && m_log.lines().empty());
    EXPECT_FALSE(initializer.init(true));
    available = 2;
    EXPECT_TRUE(initializer.init(true));
    EXPECT_THAT(m_log.lines(), ElementsAre("1 FIPS mode is not supported by this agent."));

    const TempDir directory;
    std::filesystem::current_path(directory.path());
    EXPECT_THAT(thrownBy(FipsModule::loadOpenSSLConfig),
        MatchesRegex("runtime: Failed to load OpenSSL FIPS configuration:\n(" + kError + "\n)+"));
    ::OSSL_PROVIDER_add_builtin(nullptr, "other", initProvider);
    directory.file("openssl.cnf", "openssl_conf = a\n[a]\nproviders = b\n[b]\nother = c\n[c]\nactivate = 1\n");
    FipsModule::loadOpenSSLConfig();
    EXPECT_EQ(::OSSL_PROVIDER_available(nullptr, "other"), 1);
    std::filesystem::current_path("/");
}

} // namespace
