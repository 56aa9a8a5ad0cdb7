// JSON encoding of the event records: exact key sets, null versus empty details, nesting.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include <pellorin/Messages.h>

using namespace pellorin;
using nlohmann::json;

namespace {

std::vector<std::string> keysOf(const json& object) {
    std::vector<std::string> keys;
    for (const auto& item : object.items()) {
        keys.push_back(item.key());
    }
    std::sort(keys.begin(), keys.end());
    return keys;
}

std::vector<std::string> sorted(std::vector<std::string> keys) {
    std::sort(keys.begin(), keys.end());
    return keys;
}

}  // namespace

TEST(MessagesJson, EveryRecordWritesExactlyItsFieldNames) {
    auto error = std::make_shared<const ErrorMessage>("D", -7, "m", std::nullopt);
    auto url = *Url::parse("http://127.0.0.1:8080/up?part=1");
    const std::vector<std::pair<std::string, std::vector<std::string>>> cases = {
        {LoggingMessage("notice", "hi").jsonString(), {"level", "message"}},
        {error->jsonString(), {"domain", "code", "message", "userInfo"}},
        {FileProgressMessage("/a", 10, 4).jsonString(), {"path", "fileSize", "bytesSent"}},
        {PartStartedMessage("/a", 3, 0).jsonString(), {"path", "partNumber", "retryCount"}},
        {PartProgressMessage("/a", 3, 100, 5, 50).jsonString(),
         {"path", "partNumber", "partSize", "bytesSent", "totalBytesSent"}},
        {PartRetryMessage("/a", 3, 40, 2, 1.5, error).jsonString(),
         {"path", "partNumber", "lostBytes", "retryCount", "waitSecs", "error"}},
        {PartCompleteMessage("/a", 3, "\"abc\"").jsonString(), {"path", "partNumber", "eTag"}},
        {PartFailureMessage("/a", 3, url, {error}).jsonString(),
         {"path", "partNumber", "url", "errors"}},
        {MetricsMessage(2, 100, 10, 1, 1, 1, 0.5, 200.0, "Bytes/sec", std::nullopt).jsonString(),
         {"totalPartsRequested", "bytesSent", "bytesLost", "partsSent", "retryCount",
          "failureCount", "elapsedTimeSecs", "throughput", "throughputUOM"}},
    };
    for (const auto& [text, keys] : cases) {
        EXPECT_EQ(text.find_first_of(" \n"), std::string::npos) << text;  // compact
        EXPECT_EQ(keysOf(json::parse(text)), sorted(keys)) << text;
    }
}

TEST(MessagesJson, ValuesKeepTheirTypesAndNesting) {
    auto error = std::make_shared<const ErrorMessage>("URLErrorDomain", -1001, "timed out",
                                                      std::map<std::string, std::string>{});
    auto retry = json::parse(PartRetryMessage("/d/a.bin", 3, 40, 2, 1.5, error).jsonString());
    EXPECT_EQ(retry["path"], "/d/a.bin");
    EXPECT_EQ(retry["partNumber"], 3u);
    EXPECT_EQ(retry["waitSecs"], 1.5);
    EXPECT_EQ(retry["error"]["code"], -1001);
    EXPECT_TRUE(retry["error"]["userInfo"].is_object());  // empty map: {}
    EXPECT_TRUE(retry["error"]["userInfo"].empty());

    auto bare = json::parse(ErrorMessage("D", 1, "m", std::nullopt).jsonString());
    ASSERT_TRUE(bare.contains("userInfo"));
    EXPECT_TRUE(bare["userInfo"].is_null());
    auto detailed = json::parse(ErrorMessage("D", 1, "m", {{{"k", "v"}}}).jsonString());
    EXPECT_EQ(detailed["userInfo"], json({{"k", "v"}}));

    auto progress =
        json::parse(PartProgressMessage("/a", 1, UINT64_MAX, -1, INT64_MIN).jsonString());
    EXPECT_EQ(progress["partSize"].get<uint64_t>(), UINT64_MAX);
    EXPECT_EQ(progress["totalBytesSent"].get<int64_t>(), INT64_MIN);
}

TEST(MessagesJson, FailureWritesUrlAsAbsoluteStringAndErrorsAsArray) {
    auto url = *Url::parse("http://h");
    auto none = json::parse(PartFailureMessage("/a", 1, url, {}).jsonString());
    EXPECT_EQ(none["url"], url.absoluteString());
    EXPECT_EQ(none["errors"], json::array());

    auto first = std::make_shared<const ErrorMessage>("A", 1, "one", std::nullopt);
    auto second = std::make_shared<const ErrorMessage>("B", 2, "two", std::nullopt);
    auto two = json::parse(PartFailureMessage("/a", 1, url, {first, second}).jsonString());
    ASSERT_EQ(two["errors"].size(), 2u);
    EXPECT_EQ(two["errors"][1]["domain"], "B");
}

TEST(MessagesJson, MetricsNeverWriteOtherInfo) {
    MetricsMessage metrics(1, 2, 3, 4, 5, 6, 7.25, 8.5, "KB/sec", {{{"extra", "figure"}}});
    ASSERT_TRUE(metrics.otherInfo().has_value());
    EXPECT_EQ(metrics.otherInfo()->at("extra"), "figure");
    auto encoded = json::parse(metrics.jsonString());
    EXPECT_FALSE(encoded.contains("otherInfo"));
    EXPECT_EQ(encoded["elapsedTimeSecs"], 7.25);
    EXPECT_EQ(encoded["throughputUOM"], "KB/sec");
}

TEST(MessagesJson, TextThatIsNotUtf8IsReplacedNotThrown) {
    std::string path = "/data/\xff\xfe.bin";
    auto encoded = json::parse(PartStartedMessage(path, 1, 0).jsonString());
    EXPECT_EQ(encoded["path"], "/data/\xEF\xBF\xBD\xEF\xBF\xBD.bin");
}

TEST(MessagesJsonDeathTest, NullErrorsAreRefused) {
    auto url = *Url::parse("http://h");
    EXPECT_DEATH(PartRetryMessage("/a", 1, 0, 1, 0.0, nullptr), "without an error");
    EXPECT_DEATH(PartFailureMessage("/a", 1, url, {nullptr}), "null error");
}

static_assert(!std::is_default_constructible_v<LoggingMessage>);
static_assert(!std::is_default_constructible_v<ErrorMessage>);
static_assert(!std::is_default_constructible_v<FileProgressMessage>);
static_assert(!std::is_default_constructible_v<PartStartedMessage>);
static_assert(!std::is_default_constructible_v<PartProgressMessage>);
static_assert(!std::is_default_constructible_v<PartRetryMessage>);
static_assert(!std::is_default_constructible_v<PartCompleteMessage>);
static_assert(!std::is_default_constructible_v<PartFailureMessage>);
static_assert(!std::is_default_constructible_v<MetricsMessage>);
