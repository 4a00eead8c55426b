#include "agent/ImdsClient.h"
#include "FakeClock.h"
#include "FakeConfig.h"
#include "Support.h"

#include <numeric>

using nlohmann::json;

struct Provider : info::SystemInfoProvider {
    bool checkAzureFootprint() const override { return footprint; }
    bool footprint = true;
};

/// Answers by the script, the last line over and over; a status of 0 throws.
struct ScriptedHttp : CurlHelper {
    using Answer = std::pair<long, std::string>;
    using CurlHelper::CurlHelper;
    long getRequest(const std::string& url, std::string& response, info::Logger& /*logger*/,
        const std::vector<std::string>& headers, std::chrono::seconds timeout) const override
    {
        EXPECT_EQ(url, expectedUrl);
        EXPECT_THAT(headers, ElementsAre("Metadata: true"));
        EXPECT_EQ(timeout, 2s);
        const auto& [status, text] = script[std::min(calls++, script.size() - 1)];
        if (status == 0) throw std::runtime_error("unplugged");
        response = text;
        return status;
    }
    std::string expectedUrl = "http://169.254.169.254/metadata/instance?api-version=2020-06-01";
    std::vector<Answer> script;
    mutable std::size_t calls = 0;
};

struct ImdsClientTest : FileFixture {
    FakeClock m_clock;
    Provider m_provider;
    FakeConfig m_config;
    ScriptedHttp m_http{m_config, true, false, "", nullptr};
    bool m_isCanceled = false;
    ImdsClient m_client{m_http, m_log.logger(), m_provider, "", [this] { return m_isCanceled; }};
};

constexpr const char* kIds = R"({"compute": {"resourceId": "r", "subscriptionId": "s"}, "network": 1})";

TEST_F(ImdsClientTest, KeepsTheAnswer)
{
    EXPECT_EQ(thrownBy([&] { m_client.isAzure(); }), "runtime: ImdsClient needs to be initialized first.");
    m_http.script = {{200, kIds}};
    EXPECT_TRUE(m_client.init() && m_client.isAzure());
    EXPECT_EQ(m_client.resourceId() + m_client.subscriptionId(), "rs");
    EXPECT_EQ(m_client.imdsData()["network"], 1);
    m_provider.footprint = false;
    EXPECT_FALSE(m_client.init() || m_client.isAzure());
    EXPECT_EQ(m_client.resourceId(), "r") << "all else stays";
    EXPECT_EQ(m_http.calls, 1U) << "not asked again";
}

TEST_F(ImdsClientTest, JudgesAnswers)
{
    const std::string retrying = "3 ImdsClient retry-aware func retrying due to response code: ";
    // why, answers, calls, lines without those of the retry method, what is known then
    using Case =
        std::tuple<const char*, std::vector<ScriptedHttp::Answer>, std::size_t, std::vector<std::string>, std::string>;
    for (const auto& [why, script, calls, expected, data] : {
             Case{"retried until it works", {{410, ""}, {429, ""}, {500, "x"}, {200, kIds}}, 4,
                 {retrying + "410.", retrying + "429.", retrying + "500."}, json::parse(kIds).dump()},
             Case{"not retried", {{404, ""}}, 1, {"3 ImdsClient retry-aware func failed due to response code: 404."},
                 "null"},
             Case{"empty", {{200, ""}}, 1,
                 {"3 Azure IMDS response body was empty even though it responded with HTTP(OK)."}, "null"},
             Case{"compute that is no object", {{200, R"({"compute":1})"}}, 1, {}, R"({"compute":1})"},
             Case{"half of it", {{200, R"({"compute":{"resourceId":"x"}})"}}, 1, {},
                 R"({"compute":{"resourceId":"x"}})"},
             Case{"no string", {{200, R"({"compute":{"resourceId":"x","subscriptionId":7}})"}}, 1,
                 {"4 Azure IMDS response failed to parse: [json.exception.type_error.302] type must be string, but is "
                  "number"},
                 R"({"compute":{"resourceId":"x","subscriptionId":7}})"},
             Case{"a bomb", {{200, std::string(100'000, '[')}}, 1,
                 {"4 Azure IMDS http request failed to parse: nests deeper than 512 levels"}, "null"},
         }) {
        m_http.script = script;
        m_http.calls = 0;
        m_http.expectedUrl = "http://other/";
        ImdsClient client(m_http, m_log.logger(), m_provider, "http://other/", [] { return false; });
        EXPECT_EQ(client.init(), data == json::parse(kIds).dump()) << why;
        EXPECT_EQ(client.subscriptionId(), client.isAzure() ? "s" : "") << why;
        EXPECT_EQ(m_http.calls, calls) << why;
        EXPECT_EQ(client.imdsData().dump(), data) << why;
        auto lines = m_log.takeLines();
        std::erase_if(
            lines, [](const std::string& line) { return line.find("retry") == 2 || line.find("retry i") == 10; });
        EXPECT_EQ(lines, expected) << why;
    }
}

TEST_F(ImdsClientTest, StopsWhenToldAndGivesUpAfterTenMinutes)
{
    m_isCanceled = true;
    EXPECT_FALSE(m_client.init());
    EXPECT_THAT(m_log.lines(),
        ElementsAre("3 Azure IMDS http request canceled", "3 retry logic received a failure status, giving up."));
    EXPECT_EQ(m_http.calls, 0U);

    m_isCanceled = false;
    m_http.script = {{0, ""}};
    EXPECT_FALSE(m_client.init());
    const auto slept = std::accumulate(m_clock.sleeps.begin(), m_clock.sleeps.end(), nanoseconds(0));
    EXPECT_GT(slept, 580s);
    EXPECT_LE(slept, 600s);
    for (std::size_t i = 0; const nanoseconds least : {500ms, 750ms, 1125ms, 1687ms, 2530ms})
        EXPECT_THAT(m_clock.sleeps[i++] - least, AllOf(testing::Ge(0s), testing::Le(250ms)));
    const std::string open = "3 Azure IMDS http request failed due to open circuit breaker: error: breaker was opened ";
    EXPECT_THAT(m_log.lines(), Contains(StartsWith(open)).Times(1)) << "after the fifth failure, before 3 s are over";
    EXPECT_THAT(m_log.lines(), Contains("3 Azure IMDS http request failed: unplugged").Times(testing::Gt(50)));
    EXPECT_THAT(m_log.lines(), Contains("3 exceeded retry time of 600000 ms, giving up."));

    m_client.setRetryMethod(std::make_unique<RegularIntervalRetry>(m_log.logger(), 1, 5, 0));
    EXPECT_FALSE(m_client.init());
    EXPECT_EQ(m_log.lines().back(), "3 regular interval retry method exceeded retry count of 5");
}
