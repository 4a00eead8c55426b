#include "Support.h"
#include "agent/Config.h"
#include "agent/JSONConfigDataProvider.h"
#include "agent/TelemetryStore.h"

#include <cmath>

namespace {

/// The calls that a rewrite depends on, counted; the one of a number can kill the process or fail.
struct Torture {
    int calls = 0;
    int killAt = 0;
    int failAt = 0;
    std::vector<long> made{}; // the system's numbers, in order; of equal ones in a row only the first
} g_torture;

bool fails(long number)
{
    if (g_torture.made.empty() || g_torture.made.back() != number) g_torture.made.push_back(number);
    ++g_torture.calls;
    if (g_torture.calls == g_torture.killAt) ::_exit(0);
    return g_torture.calls == g_torture.failAt;
}

template <typename... Arguments>
int call(long number, Arguments... arguments)
{
    if (!fails(number)) return static_cast<int>(::syscall(number, arguments...));
    if (number == SYS_close) (void)::syscall(number, arguments...); // whatever it says, the descriptor is gone
    errno = ENOSPC;
    return -1;
}

} // namespace

// The library's calls come here first.
extern "C" {
AGENTKIT_API ssize_t write(int fd, const void* data, size_t size)
{
    return call(SYS_write, fd, data, g_torture.failAt != 0 || g_torture.killAt != 0 ? (size + 1) / 2 : size);
}
AGENTKIT_API int open(const char* path, int flags, ...) // nobody creates files with it here
{
    return call(SYS_open, path, flags);
}
AGENTKIT_API int close(int fd)
{
    return call(SYS_close, fd);
}
AGENTKIT_API int fsync(int fd)
{
    return call(SYS_fsync, fd);
}
AGENTKIT_API int rename(const char* from, const char* to) noexcept
{
    return call(SYS_rename, from, to);
}
}

using nlohmann::json;

struct StoreTest : FileFixture {
    ~StoreTest() override { g_torture = {}; }

    json stored() const { return json::parse(contentOf(m_path)); }
    void put(const std::string& text) const { (void)m_dir.file("store.json", text); }

    std::string m_path = m_dir / "store.json";
};

TEST_F(StoreTest, FindsAndSetsDottedKeys)
{
    put(R"({"a.b": 1, "a": {"b": 2, "c.d": 3, "c": {"d": 4, "e": 5}}, "n": null, "s": "x"})");
    JSONConfigDataProvider store(m_path, true);
    for (const auto& [key, value] : std::vector<std::pair<std::string, json>>{
             {"a.b", 1}, {"a.c.d", 3}, {"a.c.e", 5}, {"s.x", nullptr}, {"a.", nullptr}, {"", nullptr}})
        EXPECT_EQ(store.get(key), value) << key;

    store.set("a.c.e", 6);
    store.set("new.member.of", json::array({1}));
    EXPECT_EQ(stored(), json::parse(R"({"a.b": 1, "a": {"b": 2, "c.d": 3, "c": {"d": 4, "e": 6}}, "n": null, "s": "x",
        "new": {"member": {"of": [1]}}})"));
    const std::string before = contentOf(m_path);
    EXPECT_EQ(thrownBy([&] { store.set("s.x", 1); }),
        "runtime: \"" + m_path + "\" cannot hold \"s.x\": a part of it names string, no object");
    json deep = 1;
    for (int i = 0; i < 513; ++i) deep = json::array({std::move(deep)});
    for (const json& value : {json("\xFF"), json(NAN), json::binary({1}), json::parse("{", nullptr, false), deep})
        EXPECT_THAT(thrownBy([&] { store.set("s", value); }), AllOf(StartsWith("runtime: "), HasSubstr(m_path)));
    EXPECT_EQ(contentOf(m_path), before);
    EXPECT_EQ(JSONConfigDataProvider(m_path, true).document(), store.document());
}

TEST_F(StoreTest, RefusesWhatIsNoObjectAndLeavesItAlone)
{
    const auto nested = [](std::size_t levels) {
        return "{\"a\":" + std::string(levels - 1, '[') + std::string(levels - 1, ']') + "}";
    };
    for (const std::string& text : {std::string(), std::string("[]"), std::string("{} x"), std::string("{}\0", 3),
             std::string("{\"a\":\"\xC3\"}"), std::string("{\"a\":1e999}"), nested(513), nested(1'000'000)}) {
        put(text);
        EXPECT_THAT(
            thrownBy([&] { JSONConfigDataProvider(m_path, false); }), StartsWith("runtime: \"" + m_path + "\" "));
        EXPECT_EQ(contentOf(m_path), text);
    }
    put(nested(512));
    JSONConfigDataProvider(m_path, true).set("b", 1);
    EXPECT_THAT(thrownBy([&] { JSONConfigDataProvider(m_dir / "no", true); }), StartsWith("posix: open("));
    EXPECT_THAT(thrownBy([&] { JSONConfigDataProvider(m_dir.path(), false); }), StartsWith("posix: read("));
}

TEST_F(StoreTest, KeepsModeAndLinkAndCreatesPrivateFiles)
{
    const mode_t mask = ::umask(0);
    JSONConfigDataProvider(m_path, false).set("a", 1);
    ::umask(mask);
    EXPECT_EQ(modeOf(m_path), 0600U);
    ::chmod(m_path.c_str(), 0644);
    const std::string link = m_dir / "link";
    std::filesystem::create_symlink("store.json", link);
    JSONConfigDataProvider(link, true).set("a", 2);
    EXPECT_EQ(modeOf(m_path), 0644U);
    EXPECT_TRUE(std::filesystem::is_symlink(link));
    EXPECT_EQ(stored()["a"], 2);

    std::filesystem::remove(m_path);
    EXPECT_THAT(thrownBy([&] { JSONConfigDataProvider(link, false).set("a", 1); }), StartsWith("posix: realpath("));
}

TEST_F(StoreTest, HoldsTheOldOrTheNewDocumentWhereverARewriteEnds)
{
    const std::string before = R"({"a": "old"})";
    const json after{{"a", "new"}};
    int calls = 0;
    for (std::string failure; failure != "nothing";) { // failed calls first: they leave nothing behind
        put(before);
        JSONConfigDataProvider store(m_path, true);
        g_torture = {.failAt = ++calls};
        failure = thrownBy([&] { store.set("a", "new"); });
        const Torture was = std::exchange(g_torture, {});
        const std::filesystem::directory_iterator all(m_dir.path());
        EXPECT_EQ(std::distance(begin(all), end(all)), 1) << failure;
        if (failure == "nothing") {
            EXPECT_EQ(was.calls, calls) << "only the last one's result does not count";
            // the file was on disk before it took the old one's place, and its name is now
            EXPECT_THAT(
                was.made, ElementsAre(SYS_write, SYS_fsync, SYS_close, SYS_rename, SYS_open, SYS_fsync, SYS_close));
        } else {
            const bool isFolders = stored() == after; // all is done but the folder's fsync
            EXPECT_THAT(
                failure, AllOf(StartsWith("posix: "), HasSubstr(isFolders ? m_dir.path() + "\") failed" : m_path)));
            EXPECT_TRUE(isFolders || contentOf(m_path) == before);
            EXPECT_EQ(store.get("a"), "old");
        }
    }
    for (int n = 1; n < calls; ++n) {
        put(before);
        EXPECT_TRUE(inChild([&] {
            JSONConfigDataProvider store(m_path, true);
            g_torture = {.killAt = n};
            store.set("a", "new");
            return false;
        }));
        EXPECT_TRUE(contentOf(m_path) == before || stored() == after) << n;
    }
}

// How patterns match is compared with std::regex in fuzz/JsonStoreFuzz.cpp, which runs with the tests.
TEST(JSONKeyValidator, RefusesWhatItCannotMatchInLinearTime)
{
    EXPECT_FALSE(JSONKeyValidator(R"(\bvolumes\b\..+\.\bcowFileSizeMiB\b$)", JSONKeyValidator::Type::Bool)
                     .matches("volumes." + std::string(1'000'000, 'x')));
    for (const char* const bad : {"a+", "(a)", "[a]", "a|b", R"(\d)", "\\", ".?", ".+?", "a{2}"})
        EXPECT_THAT(thrownBy([&] { JSONKeyValidator(bad, JSONKeyValidator::Type::Bool); }),
            HasSubstr("\"" + std::string(bad) + "\""));
}

TEST_F(StoreTest, TheConfigurationIsHeldToItsTable)
{
    put(R"({"volumes": {"a.b": {"cowFileSizeMiB": 7, "autoExpand": {"disable": true}},
        "bad": {"cowFileSizeMiB": -1, "autoExpand": {"disable": 1, "reservedSpaceMiB": null}}}})");
    auto options = ConfigOptions::forVolumes();
    options.push_back({{"^name$", JSONKeyValidator::Type::String}, "nobody"});
    Config config(std::make_shared<JSONConfigDataProvider>(m_path, true), ConfigOptions(options));
    const auto valueOf = [&](const std::string& key, auto value) {
        config.getValue(key, value);
        return value;
    };
    EXPECT_EQ(valueOf("volumes.a.b.cowFileSizeMiB", 99UL), 7U);
    EXPECT_EQ(valueOf("volumes.a.b.autoExpand.disable", false), true);
    EXPECT_EQ(valueOf("volumes.bad.autoExpand.reservedSpaceMiB", 99UL), 0U);
    EXPECT_EQ(valueOf("name", std::string()), "nobody");
    for (const auto& [key, how] : std::vector<std::pair<std::string, std::string>>{
             {"volumes.sda1.size", "invalid argument: Unknown configuration key "},
             {"volumes.bad.cowFileSizeMiB", "must be of type unsigned integer, not negative integer"},
             {"name", "is of type string and was asked for as unsigned integer"}})
        EXPECT_THAT(thrownBy([&, &k = key] { valueOf(k, 99UL); }), AllOf(HasSubstr('"' + key + '"'), HasSubstr(how)));

    EXPECT_THAT(thrownBy([&] { config.validate(); }), HasSubstr("\"volumes.bad."));
    const std::string before = contentOf(m_path);
    for (const auto& [document, how] : std::vector<std::pair<json, std::string>>{
             {{{"name", "x"}, {"nam", "y"}}, "key \"nam\""}, {{{"name", 1}}, "string, not unsigned integer"},
             {{{"name", json::object()}}, "string, not object"}, {1, "must be a JSON object"}})
        EXPECT_THAT(thrownBy([&, &d = document] { config.setJSON(d, true); }), HasSubstr(how));
    EXPECT_EQ(contentOf(m_path), before);
    config.setJSON({{"name", "x"}, {"volumes", {{"bad", nullptr}}}}, false);
    EXPECT_EQ(stored(), json::parse(R"({"name": "x", "volumes": {"a.b": {"cowFileSizeMiB": 7, "autoExpand":
        {"disable": true}}}})"));
    config.setJSON({{"name", "y"}}, true);
    EXPECT_EQ(config.getJSON(), R"({"name":"y"})");
    EXPECT_THAT(thrownBy([] { ConfigOptions({{{"a", JSONKeyValidator::Type::Bool}, 1}}); }), HasSubstr("(default)"));
}

TEST_F(StoreTest, TelemetryTellsWhatChanged)
{
    const std::string directory = m_dir / "new/telemetry";
    TelemetryStore store(directory, m_log.logger());
    const json first{{"sshd", {{"pid", 1}}}, {"cron", {{"pid", 2}}}};
    const json second{{"sshd", {{"pid", 7}}}};
    EXPECT_FALSE(store.diffAndUpdateServices(first).existed);
    const auto changed = store.diffAndUpdateServices(second);
    EXPECT_TRUE(changed.existed && changed.patch.size() == 2) << changed.patch;
    EXPECT_EQ(first.patch(changed.patch), second);
    const auto added = store.diffAndUpdateInstalledPrograms(second);
    EXPECT_FALSE(added.existed);
    EXPECT_EQ(added.patch, json::parse(R"([{"op": "replace", "path": "", "value": {"sshd": {"pid": 7}}}])"));
    for (const char* const name : {"/Services.json", "/InstalledPrograms.json"})
        EXPECT_EQ(json::parse(contentOf(directory + name))["data"], second);
    store.resetTelemetryData();
    EXPECT_TRUE(std::filesystem::is_empty(directory) && m_log.lines().empty());

    const std::string blocked = m_dir.file("file", "") + "/below";
    const auto nothing = TelemetryStore(blocked, m_log.logger()).diffAndUpdateServices(first);
    EXPECT_TRUE(nothing.patch.is_null() && !nothing.existed);
    EXPECT_THAT(m_log.lines(), ElementsAre(StartsWith("1 Could not create Telemetry dir: '" + blocked + "'. Error: ")));
}
