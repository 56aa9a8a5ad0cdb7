// Keys, key order, optionality and round trips of the reservation records.
#include <pellorin/Reservation.h>

#include <gtest/gtest.h>

#include <regex>

#include "reservation/ReservationJson.h"

namespace pellorin {
namespace {

JSONRPCRequest<CreateReservationRequest> sampleCall(std::optional<std::string> provider) {
    CreateReservationRequest request("ann", "s3cret", std::move(provider), "pkg.qeldp");
    request.add(FileDescription("a.bin", 18446744073709551615u, "ab12", "SHA-256",
                                "application/octet-stream", "public.data"));
    request.add(FileDescription("b.bin", 0, "", "SHA-256", "text/plain", "public.text"));
    return {"2.0", "createTestReservation", "20240232102030", std::move(request)};
}

Operation sampleOperation(int64_t partNumber) {
    return {.method = "PUT",
            .uri = *Url::parse("https://up.example.test:8443/p?part=" + std::to_string(partNumber)),
            .headers = std::map<std::string, std::string>{{"Content-Type", "x/y"}, {"X-A", "1"}},
            .partNumber = partNumber,
            .offset = -5,
            .length = 9223372036854775807,
            .expires = "2024-02-01T10:20:30Z",
            .entityTag = "\"e1\""};
}

TEST(CreateReservationRequestTest, DefaultsOrderAndExactKeys) {
    const std::string_view os = CreateReservationRequest::defaultOSIdentifier;
    EXPECT_EQ(os.size(), 53u);
    EXPECT_TRUE(
        std::regex_match(std::string(os), std::regex(R"([A-Za-z ]+ 10\.14\.6 \(x86_64\); )"
                                                     R"(\w+=11\.0\.2\+9; \w+=11\.0\.2\+9)")));

    const auto call = sampleCall("prov");
    ASSERT_EQ(call.params.fileDescriptions().size(), 2u);
    EXPECT_EQ(call.params.fileDescriptions()[1].fileName(), "b.bin");
    EXPECT_EQ(encodeJSONRPCRequest(call, false),
              R"({"jsonrpc":"2.0","method":"createTestReservation","id":"20240232102030",)"
              R"("params":{"Username":"ann","Password":"s3cret","LumoProviderName":"prov",)"
              R"("NewPackageName":"pkg.qeldp","Application":"Vantrel","Version":"2.0.0",)"
              R"("BaseVersion":"2.0.0","OSIdentifier":")" +
                  std::string(os) +
                  R"(","fileDescriptions":[{"fileName":"a.bin","fileSize":18446744073709551615,)"
                  R"("checksum":"ab12","checksumAlgorithm":"SHA-256",)"
                  R"("contentType":"application/octet-stream","uti":"public.data"},)"
                  R"({"fileName":"b.bin","fileSize":0,"checksum":"","checksumAlgorithm":"SHA-256",)"
                  R"("contentType":"text/plain","uti":"public.text"}]}})");
}

TEST(CreateReservationRequestTest, NoProviderWritesNoKeyAndRoundTrips) {
    auto call = sampleCall(std::nullopt);
    call.params.setVersion("9.9");
    const std::string compact = encodeJSONRPCRequest(call, false);
    EXPECT_EQ(compact.find("LumoProviderName"), std::string::npos);
    EXPECT_EQ(decodeCreateReservationRequest(compact), call);

    const auto withProvider = sampleCall("prov");
    const std::string pretty = encodeJSONRPCRequest(withProvider, true);
    EXPECT_EQ(pretty.substr(0, 22), "{\n  \"jsonrpc\": \"2.0\",\n");
    EXPECT_NE(pretty.find("\n    \"Username\": \"ann\",\n"), std::string::npos);
    EXPECT_EQ(decodeCreateReservationRequest(pretty), withProvider);
}

TEST(CreateReservationResultTest, DecodesReservationsAndOptionalMembers) {
    const auto decoded = decodeCreateReservationResult(R"({"jsonrpc":"2.0","id":"7","result":{
        "Success":true,"Extra":1,"Reservations":[
          {"id":"r1","file":"a.bin","operations":[
            {"method":"PUT","uri":"http://h:1/a","headers":{"K":"v"},"partNumber":1,
             "offset":0,"length":10,"expires":"never","entityTag":"t"},
            {"method":"POST","uri":"http://h:1/b","partNumber":2,"offset":10,"length":3,
             "expires":"soon","headers":null}]},
          {"id":"r2","file":"b.bin","operations":[]}]}})");
    EXPECT_EQ(decoded.id, "7");
    EXPECT_FALSE(decoded.result.errors);
    ASSERT_EQ(decoded.result.reservations.value().size(), 2u);
    const auto& operations = (*decoded.result.reservations)[0].operations;
    ASSERT_EQ(operations.size(), 2u);
    EXPECT_EQ(operations[0].headers, (std::map<std::string, std::string>{{"K", "v"}}));
    EXPECT_EQ(operations[0].entityTag, "t");
    EXPECT_EQ(operations[1].offset, 10);
    EXPECT_FALSE(operations[1].headers || operations[1].entityTag);

    const std::string reEncoded =
        dumpJson(JsonCodec<CreateReservationResult>::encode(decoded.result), false);
    EXPECT_EQ(reEncoded.rfind(R"({"Reservations":[{"id":"r1","file":"a.bin","operations":)", 0),
              0u);
    EXPECT_EQ(
        JsonCodec<CreateReservationResult>::decode(JsonField(nlohmann::json::parse(reEncoded))),
        decoded.result);
}

TEST(CreateReservationResultTest, FailureAndKeyCaseYieldNoReservations) {
    const auto failure = decodeCreateReservationResult(
        R"({"jsonrpc":"2.0","id":"x","result":{"Success":false,"Errors":["no quota"]}})");
    EXPECT_FALSE(failure.result.success);
    EXPECT_EQ(failure.result.errors, std::vector<std::string>{"no quota"});
    EXPECT_FALSE(failure.result.reservations);

    for (const char* text :
         {R"({"jsonrpc":"2.0","id":"x","result":{"Success":true,"Reservations":null}})",
          R"({"jsonrpc":"2.0","id":"x","result":{"Success":true,"reservations":[{}]}})"}) {
        EXPECT_FALSE(decodeCreateReservationResult(text).result.reservations) << text;
    }
    // "success" in lower case is not "Success": the required key is missing.
    EXPECT_THROW(
        decodeCreateReservationResult(R"({"jsonrpc":"2.0","id":"x","result":{"success":true}})"),
        ReservationDecodeError);
}

TEST(OperationPairsTest, RoundTripExactKeysAndNull) {
    const std::vector<OperationPair> pairs{{"/data/a b.bin", sampleOperation(1)},
                                           {"/data/ä.bin", sampleOperation(2)}};
    const std::string text = encodeOperationPairs(pairs);
    EXPECT_EQ(decodeOperationPairs(text), pairs);
    EXPECT_EQ(text.substr(0, 58),
              "[\n  {\n    \"filePath\": \"/data/a b.bin\",\n    \"operation\": {\n");
    EXPECT_EQ(
        dumpJson(JsonCodec<Operation>::encode(sampleOperation(3)), false),
        R"({"method":"PUT","uri":"https://up.example.test:8443/p?part=3",)"
        R"("headers":{"Content-Type":"x/y","X-A":"1"},"partNumber":3,"offset":-5,)"
        R"("length":9223372036854775807,"expires":"2024-02-01T10:20:30Z","entityTag":"\"e1\""})");

    Operation bare = sampleOperation(4);
    bare.headers.reset();
    bare.entityTag.reset();
    const std::string bareText = encodeOperationPairs(std::vector<OperationPair>{{"f", bare}});
    EXPECT_EQ(bareText.find("headers"), std::string::npos);
    EXPECT_EQ(bareText.find("entityTag"), std::string::npos);
    EXPECT_EQ(decodeOperationPairs(bareText)->at(0).operation, bare);

    EXPECT_EQ(encodeOperationPairs(std::nullopt), "null");
    EXPECT_EQ(decodeOperationPairs(" null\n"), std::nullopt);
    EXPECT_EQ(decodeOperationPairs("[]"), std::vector<OperationPair>{});
}

}  // namespace
}  // namespace pellorin
