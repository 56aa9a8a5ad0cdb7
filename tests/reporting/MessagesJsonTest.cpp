// JSON encoding of the event records, text for text: keys, their order, compactness, number
// types, null versus empty details, nesting, and text that is not UTF-8.
#include <gtest/gtest.h>

#include <pellorin/Messages.h>

using namespace pellorin;

TEST(MessagesJson, EveryRecordWritesExactlyItsFieldsInOrder) {
    using Details = std::map<std::string, std::string>;
    auto bare = std::make_shared<const ErrorMessage>("D", -7, "m", std::nullopt);
    auto detailed = std::make_shared<const ErrorMessage>("URLErrorDomain", -1001, "timed out",
                                                         Details{{"k", "v"}});
    const auto url = *Url::parse("http://127.0.0.1:8080/up?part=1");
    const std::pair<std::string, std::string> cases[] = {
        {LoggingMessage("notice", "hi").jsonString(), R"({"level":"notice","message":"hi"})"},
        {bare->jsonString(), R"({"domain":"D","code":-7,"message":"m","userInfo":null})"},
        {ErrorMessage("D", 1, "m", Details{}).jsonString(),
         R"({"domain":"D","code":1,"message":"m","userInfo":{}})"},
        {FileProgressMessage("/a", 10, 4).jsonString(),
         R"({"path":"/a","fileSize":10,"bytesSent":4})"},
        {PartStartedMessage("/data/\xff.bin", 3, 0).jsonString(),
         "{\"path\":\"/data/\xEF\xBF\xBD.bin\",\"partNumber\":3,\"retryCount\":0}"},
        {PartProgressMessage("/a", 3, UINT64_MAX, -1, INT64_MIN).jsonString(),
         R"({"path":"/a","partNumber":3,"partSize":18446744073709551615,"bytesSent":-1,)"
         R"("totalBytesSent":-9223372036854775808})"},
        {PartRetryMessage("/a", 3, 40, 2, 1.5, detailed).jsonString(),
         R"({"path":"/a","partNumber":3,"lostBytes":40,"retryCount":2,"waitSecs":1.5,"error":)"
         R"({"domain":"URLErrorDomain","code":-1001,"message":"timed out","userInfo":{"k":"v"}}})"},
        {PartCompleteMessage("/a", 3, "\"abc\"").jsonString(),
         R"({"path":"/a","partNumber":3,"eTag":"\"abc\""})"},
        {PartFailureMessage("/a", 3, url, {}).jsonString(),
         R"({"path":"/a","partNumber":3,"url":"http://127.0.0.1:8080/up?part=1","errors":[]})"},
        // The URL as the host gave it: no slash added, no case changed.
        {PartFailureMessage("/a", 3, *Url::parse("HTTP://H"), {bare, bare}).jsonString(),
         R"({"path":"/a","partNumber":3,"url":"HTTP://H","errors":[)"
         R"({"domain":"D","code":-7,"message":"m","userInfo":null},)"
         R"({"domain":"D","code":-7,"message":"m","userInfo":null}]})"},
        // otherInfo stays out of the JSON.
        {MetricsMessage(2, 100, 10, 1, 1, 1, 0.5, 200.0, "Bytes/sec", Details{{"extra", "x"}})
             .jsonString(),
         R"({"totalPartsRequested":2,"bytesSent":100,"bytesLost":10,"partsSent":1,)"
         R"("retryCount":1,"failureCount":1,"elapsedTimeSecs":0.5,"throughput":200.0,)"
         R"("throughputUOM":"Bytes/sec"})"},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(text, expected);
    }
}
