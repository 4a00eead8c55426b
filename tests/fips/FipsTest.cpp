#include "Support.h"
#include "agent/ssl/FipsModuleInitializer.h"

#include <dlfcn.h>
#include <openssl/core_dispatch.h>
#include <openssl/err.h>
#include <openssl/params.h>
#include <openssl/provider.h>
#include <openssl/self_test.h>

namespace {

using Installed = std::pair<OSSL_CALLBACK*, void*>;

int g_status = 0; // of the provider below; 0: it tells nothing of itself

Installed installed(OSSL_LIB_CTX* ctx = nullptr)
{
    Installed callback;
    ::OSSL_SELF_TEST_get_callback(ctx, &callback.first, &callback.second);
    return callback;
}

// A provider with two tests, which it runs as a real one does.
int runTests(void* /*ctx*/)
{
    OSSL_SELF_TEST* test = ::OSSL_SELF_TEST_new(installed().first, installed().second);
    int corrupt = 0;
    for (const char* name : {"AES_GCM", "SHA2"}) {
        unsigned char byte = 0;
        ::OSSL_SELF_TEST_onbegin(test, "KAT", name);
        if (::OSSL_SELF_TEST_oncorrupt_byte(test, &byte) != 0) ERR_raise_data(ERR_LIB_PROV, 1, "bad %s", name);
        ::OSSL_SELF_TEST_onend(test, byte == 0 ? 1 : 0);
        corrupt += byte;
    }
    ::OSSL_SELF_TEST_free(test);
    return corrupt == 0 ? 1 : 0;
}

int tellInfo(void* /*ctx*/, OSSL_PARAM wanted[])
{
    ::OSSL_PARAM_set_utf8_ptr(::OSSL_PARAM_locate(wanted, "name"), "Fake");
    ::OSSL_PARAM_set_utf8_ptr(::OSSL_PARAM_locate(wanted, "version"), "1.2");
    ::OSSL_PARAM_set_utf8_ptr(::OSSL_PARAM_locate(wanted, "buildinfo"), g_status == 1 ? "abc" : nullptr);
    ::OSSL_PARAM_set_int(::OSSL_PARAM_locate(wanted, "status"), g_status);
    return g_status;
}

int initProvider(
    const OSSL_CORE_HANDLE* /*core*/, const OSSL_DISPATCH* /*in*/, const OSSL_DISPATCH** functions, void** /*ctx*/)
{
    static const OSSL_DISPATCH own[] = {{OSSL_FUNC_PROVIDER_SELF_TEST, reinterpret_cast<void (*)()>(runTests)},
        {OSSL_FUNC_PROVIDER_GET_PARAMS, reinterpret_cast<void (*)()>(tellInfo)}, {0, nullptr}};
    *functions = own;
    return 1;
}

} // namespace

extern "C" AGENTKIT_API int OSSL_PROVIDER_unload(OSSL_PROVIDER* provider) // found before OpenSSL's own
{
    EXPECT_EQ(installed().first, nullptr) << "the events must go before the providers";
    return reinterpret_cast<int (*)(OSSL_PROVIDER*)>(::dlsym(RTLD_NEXT, "OSSL_PROVIDER_unload"))(provider);
}

namespace agent::ssl {
namespace {

using test::thrownBy;
using testing::MatchesRegex;
using Lines = std::vector<std::string>;

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

    // A provider without a name is not made.
    std::unique_ptr<FipsModule> makeModule(const char* fips = "fips", const char* base = "base", bool events = true)
    {
        const auto makeEvents = [=](auto* ctx) { return events ? m_events(ctx) : nullptr; };
        const auto makeProvider = [=](auto& logger, const std::string& name, auto* ctx) {
            const char* used = name == "fips" ? fips : base;
            return used ? m_providers(logger, used, ctx) : nullptr;
        };
        return std::make_unique<FipsModule>(m_log.logger(), *this, makeEvents, makeProvider, [](auto...) { return 2; });
    }

    bool init(FipsModule& module, bool requested)
    {
        filesystem::FileStreamFactory files;
        auto& unused = reinterpret_cast<core::script::ICommandUtility&>(files);
        return FipsModuleInitializer(m_log.logger(), *this, module, unused, files).init(requested);
    }

    static constexpr auto m_events = FipsModule::defaultOpenSSLProviderSelfTestEventsFactory;
    static constexpr auto m_providers = FipsModule::defaultOpenSSLProvider;
    test::CapturingLogger m_log;
    std::string m_corrupt;
    std::unique_ptr<OSSL_LIB_CTX, void (*)(OSSL_LIB_CTX*)> m_own{::OSSL_LIB_CTX_new(), ::OSSL_LIB_CTX_free};
};

TEST_F(FipsTest, AProviderIsLoadedAndUnloaded)
{
    ::OSSL_PROVIDER_add_builtin(m_own.get(), "fips", initProvider);
    OpenSSLProvider fips(m_log.logger(), "fips", m_own.get());
    EXPECT_EQ(thrownBy([&] { fips.selfTest(); }), "runtime: OpenSSL provider is not loaded: fips");
    Lines expected{"3 OpenSSL provider self-test started: fips"};
    for (const std::string info : {"(no info)", "Fake, Version: 1.2, Build info: abc, Status: running",
             "Fake, Version: 1.2, Build info: , Status: error"}) {
        fips.load();
        EXPECT_EQ(::OSSL_PROVIDER_available(m_own.get(), "fips"), 1);
        EXPECT_STREQ(::OSSL_PROVIDER_get0_name(fips.getProvider()), fips.getName().c_str());
        EXPECT_EQ(thrownBy([&] { fips.load(); }), "runtime: OpenSSL provider is already loaded: fips");
        fips.unload();
        EXPECT_EQ(thrownBy([&] { fips.unload(); }), "runtime: OpenSSL provider is not loaded: fips");
        expected.push_back("3 Successfully loaded \"fips\" OpenSSL provider: " + info);
        expected.push_back("3 Successfully unloaded OpenSSL provider: fips");
        ++g_status;
    }
    g_status = 0;
    EXPECT_EQ(m_log.lines(), expected);
    OpenSSLProvider missing(m_log.logger(), "missing", m_own.get());
    EXPECT_THAT(thrownBy([&] { missing.load(); }),
        MatchesRegex("runtime: Failed to load OpenSSL provider \"missing\":\n(" + kError + "\n)+"));
}

TEST_F(FipsTest, EventsReachEveryCallback)
{
    OSSL_LIB_CTX* ctx = m_own.get();
    const OSSL_PARAM* passedOn = nullptr;
    const auto previous = [](const OSSL_PARAM* params, void* to) {
        return *static_cast<decltype(&params)>(to) = params, 7;
    };
    ::OSSL_SELF_TEST_set_callback(ctx, previous, &passedOn);
    const Installed first = installed(ctx);
    auto outer = m_events(ctx);
    const Installed second = installed(ctx);
    auto inner = m_events(ctx);
    Lines seen;
    int refusal = 0;                  // 1: false, 2: an exception
    inner->addCallback([&](auto...) { // its place is before the other
        seen.clear();
        return refusal == 2 ? throw std::runtime_error("") : refusal == 0;
    });
    inner->addCallback([&](auto phase, auto& type, auto& description) {
        seen.push_back(std::to_string(static_cast<int>(phase)) + to_string(phase) + type + description);
        return true;
    });

    static_assert(OSSL_PARAM_UTF8_STRING == 4);
    char text[] = "StartTypeWhat";
    const std::pair<std::vector<OSSL_PARAM>, Lines> cases[] = {
        {{{}}, {}},
        {{{"st-type", 4, text + 5, 4, 0}, {}}, {}},
        {{{"st-phase", OSSL_PARAM_UTF8_PTR, text, 5, 0}, {}}, {}},
        {{{"st-phase", 4, nullptr, 5, 0}, {}}, {}},
        {{{"st-phase", 4, text, 4, 0}, {"st-desc", 4, text + 9, 99, 0}, {}}, {"0NoneWhat"}},
        {{{"st-type", 4, text + 5, 4, 0}, {"st-phase", 4, text, 5, 0}, {"other", 4, text, 5, 0}, {}}, {"1StartType"}},
    };
    for (const auto& [params, expected] : cases) {
        for (refusal = 0; refusal <= 2; ++refusal) {
            passedOn = nullptr;
            const bool accepted = !expected.empty() && refusal == 0;
            EXPECT_EQ(installed(ctx).first(params.data(), installed(ctx).second), accepted ? 7 : 0);
            EXPECT_EQ(passedOn, accepted ? params.data() : nullptr);
            EXPECT_EQ(seen, expected);
        }
    }
    EXPECT_EQ(installed(ctx).first(nullptr, installed(ctx).second), 0);

    inner.reset();
    EXPECT_EQ(installed(ctx), second);
    outer.reset();
    EXPECT_EQ(installed(ctx), first);
}

TEST_F(FipsTest, TheModuleStandsOrFallsWithItsTests)
{
    auto module = makeModule();
    EXPECT_TRUE(module->isLoaded() && init(*module, true));
    m_corrupt = "AES; SHA2 ;AES_GCM";
    const auto failure = MatchesRegex(
        "runtime: OpenSSL provider \"fips\" self-test failed:\n" + kError + "bad AES_GCM\n" + kError + "bad SHA2\n");
    EXPECT_THAT(thrownBy([&] { module->selfTest(); }), failure);
    module.reset();
    const Lines lines = m_log.lines();
    EXPECT_THAT(lines.at(1), testing::StartsWith("3 Successfully loaded \"base\" OpenSSL provider: "));
    const std::string started = "3 OpenSSL provider self-test started: fips";
    const std::string aes = "3 Self-test: AES_GCM (KAT): ";
    const std::string sha = "3 Self-test: SHA2 (KAT): ";
    const std::string unloaded = "3 Successfully unloaded OpenSSL provider: ";
    EXPECT_EQ(Lines(lines.begin() + 2, lines.end()),
        (Lines{started, aes + "Pass", sha + "Pass", "3 OpenSSL provider self-test passed: fips", started,
            aes + "Corrupt", aes + "Fail", sha + "Corrupt", sha + "Fail", unloaded + "base", unloaded + "fips"}));

    EXPECT_THAT(thrownBy([&] { makeModule(); }), failure);
    EXPECT_EQ(installed().first, nullptr);
    EXPECT_THAT(thrownBy([&] { makeModule("fips", "none"); }), testing::HasSubstr("Failed to load"));
    EXPECT_EQ(m_log.lines().back(), unloaded + "fips");
    EXPECT_EQ(thrownBy([&] { makeModule(nullptr); }), "runtime: Failed to create OpenSSL providers");
    EXPECT_EQ(thrownBy([&] { makeModule("fips", nullptr); }), "runtime: Failed to create OpenSSL providers");
    EXPECT_EQ(
        thrownBy([&] { makeModule("fips", "base", false); }), "runtime: Failed to create OpenSSL Self-Test Events");
}

TEST_F(FipsTest, TheMachineDecides)
{
    const auto make = [&](const auto& events, const auto& providers) {
        return std::make_unique<FipsModule>(m_log.logger(), *this, events, providers, nullptr);
    };
    const std::string null = "invalid argument: OpenSSL provider and self-test events factories should not be null";
    EXPECT_EQ(thrownBy([&] { make(nullptr, m_providers); }), null);
    EXPECT_EQ(thrownBy([&] { make(m_events, nullptr); }), null);
    const auto inert = make(m_events, m_providers);
    EXPECT_FALSE(inert->isLoaded());
    EXPECT_EQ(thrownBy([&] { inert->selfTest(); }), "runtime: FIPS module is not loaded");
    EXPECT_TRUE(init(*inert, false));
    EXPECT_EQ(m_log.lines(), Lines());
    EXPECT_FALSE(init(*inert, true));
    EXPECT_EQ(m_log.lines(), Lines{"1 FIPS mode is not supported by this agent."});

    OpenSSLProvider fips(m_log.logger(), "fips", nullptr);
    fips.load(); // as the machine's configuration might
    EXPECT_TRUE(make(m_events, m_providers)->isLoaded());

    ::OSSL_PROVIDER_add_builtin(nullptr, "other", initProvider);
    const test::TempDir directory;
    std::filesystem::current_path(directory.path());
    const auto failure = MatchesRegex("runtime: Failed to load OpenSSL FIPS configuration:\n(" + kError + "\n)+");
    EXPECT_THAT(thrownBy(FipsModule::loadOpenSSLConfig), failure) << "no file";
    directory.file("openssl.cnf", "[broken");
    EXPECT_THAT(thrownBy(FipsModule::loadOpenSSLConfig), failure);
    directory.file("openssl.cnf", "openssl_conf = a\n[a]\nproviders = b\n[b]\nother = c\n[c]\nactivate = 1\n");
    FipsModule::loadOpenSSLConfig();
    EXPECT_EQ(::OSSL_PROVIDER_available(nullptr, "other"), 1);
    std::filesystem::current_path("/");
}

} // namespace
} // namespace agent::ssl
