// The reservation records' JSON: keys, key order, optionality and round trips, and bad JSON,
// every fault thrown as ReservationDecodeError naming where it lies.
#include <pellorin/Reservation.h>

#include <gtest/gtest.h>

#include <functional>

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
    EXPECT_EQ(encodeJSONRPCRequest(sampleCall("prov"), false),
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
    // Writing it back and reading it again is replayed from the fuzz corpus.
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

// A reservation file of two pairs whose second operation has `member` appended (a repeated key
// replaces the earlier value) or, when `member` is "-key", that key left out.
std::string pairsWith(const std::string& member) {
    std::string operation = "{";
    for (const char* present : {R"("method":"PUT")", R"("uri":"http://h/x")", R"("partNumber":2)",
                                R"("offset":0)", R"("length":1)", R"("expires":"e")"}) {
        if (!member.starts_with("-") ||
            !std::string_view(present).starts_with("\"" + member.substr(1) + "\"")) {
            operation += std::string(present) + ",";
        }
    }
    operation += member.starts_with("-") ? R"("x":0})" : member + "}";
    return R"([{"filePath":"a","operation":{"method":"GET","uri":"http://h/","partNumber":1,)"
           R"("offset":0,"length":1,"expires":"e"}},{"filePath":"a","operation":)" +
           operation + "}]";
}

std::string messageOf(const std::function<void()>& decode) {
    try {
        decode();
    } catch (const ReservationDecodeError& error) {
        return error.what();
    }
    return "(no error)";
}

TEST(ReservationDecodeErrorTest, OperationFaultsNameTheirPath) {
    const std::pair<std::string, std::string> cases[] = {
        {"-expires", "[1].operation.expires: required key is missing"},
        {R"("offset":"12")", "[1].operation.offset: expected an integer, found string"},
        {R"("length":1e3)", "[1].operation.length: expected an integer, found 1000.0"},
        {R"("partNumber":-99999999999999999999)", "[1].operation.partNumber: integer out of range"},
        {R"("uri":"not a url")", "[1].operation.uri: not an absolute URL"},
        {R"("headers":{"X-A":"1","X-B":2})",
         "[1].operation.headers.X-B: expected a string, found number"},
        {R"("expires":null)", "[1].operation.expires: expected a string, found null"},
        {R"("Method":"PUT","method":7)", "[1].operation.method: expected a string, found number"},
    };
    for (const auto& [member, expected] : cases) {
        EXPECT_EQ(messageOf([&] { decodeOperationPairs(pairsWith(member)); }), expected) << member;
    }
    EXPECT_EQ(decodeOperationPairs(pairsWith(R"("offset":-1)"))->at(1).operation.offset, -1);
}

TEST(ReservationDecodeErrorTest, DocumentAndEnvelopeFaults) {
    const std::pair<std::string, std::string> pairFiles[] = {
        {R"({"filePath":"a"})", "expected an array, found object"},
        {R"([{"filePath":"a","operation":{}}, 3])",
         "[0].operation.method: required key is missing"},
        {R"([null])", "[0]: expected an object, found null"},
        {"[1e400]", "invalid JSON: number overflow parsing '1e400'"},
    };
    for (const auto& [text, expected] : pairFiles) {
        EXPECT_EQ(messageOf([&] { decodeOperationPairs(text); }), expected) << text;
    }
    const std::pair<std::string, std::string> results[] = {
        {R"({"id":"x","result":{"Success":true}})", "jsonrpc: required key is missing"},
        {R"({"jsonrpc":"2.0","id":1,"result":{"Success":true}})",
         "id: expected a string, found number"},
        {R"({"jsonrpc":"2.0","id":"x"})", "result: required key is missing"},
        {R"({"jsonrpc":"2.0","id":"x","result":{"Success":"yes"}})",
         "result.Success: expected a boolean, found string"},
        {R"({"jsonrpc":"2.0","id":"x","result":{"Success":true,"Errors":["a",null]}})",
         "result.Errors[1]: expected a string, found null"},
        {R"({"jsonrpc":"2.0","id":"x","result":{"Success":true,"Reservations":[{"id":"r",)"
         R"("file":"f","operations":[{"method":"PUT","uri":"::","partNumber":1,"offset":0,)"
         R"("length":1,"expires":"e"}]}]}})",
         "result.Reservations[0].operations[0].uri: not an absolute URL"},
    };
    for (const auto& [text, expected] : results) {
        EXPECT_EQ(messageOf([&] { decodeCreateReservationResult(text); }), expected) << text;
    }
}

TEST(ReservationDecodeErrorTest, UnsignedFileSizeAndUnparsableText) {
    const std::string prefix = R"({"jsonrpc":"2.0","method":"m","id":"i","params":{"Username":"u",)"
                               R"("Password":"p","NewPackageName":"n","Application":"a",)"
                               R"("Version":"v","BaseVersion":"b","OSIdentifier":"o",)"
                               R"("fileDescriptions":[{"fileName":"f","checksum":"c",)"
                               R"("checksumAlgorithm":"SHA-256","contentType":"t","uti":"u",)";
    const auto fileSizeFault = [&](const std::string& size) {
        return messageOf(
            [&] { decodeCreateReservationRequest(prefix + "\"fileSize\":" + size + "}]}}"); });
    };
    EXPECT_EQ(fileSizeFault("-1"),
              "params.fileDescriptions[0].fileSize: expected a non-negative integer, found -1");
    EXPECT_EQ(fileSizeFault("18446744073709551616"),
              "params.fileDescriptions[0].fileSize: integer out of range");
    EXPECT_EQ(decodeCreateReservationRequest(prefix + R"("fileSize":18446744073709551615}]}})")
                  .params.fileDescriptions()[0]
                  .fileSize(),
              18446744073709551615u);

    const std::string truncated = R"([{"filePath":"a",)";
    EXPECT_EQ(
        messageOf([&] { decodeOperationPairs(truncated); }).rfind("invalid JSON at byte 18: ", 0),
        0u);
    EXPECT_EQ(
        messageOf([&] { decodeOperationPairs("[\"\xff\"]"); }).rfind("invalid JSON at byte 3: ", 0),
        0u);

    // Text that cannot be written as JSON is refused rather than altered.
    std::vector<OperationPair> pairs = decodeOperationPairs(pairsWith(R"("offset":3)")).value();
    pairs[0].filePath = "bad\xff";
    EXPECT_THROW(encodeOperationPairs(pairs), ReservationEncodeError);
}

}  // namespace
}  // namespace pellorin
