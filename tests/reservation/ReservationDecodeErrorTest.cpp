// Bad reservation JSON: every fault is thrown as ReservationDecodeError naming where it lies.
#include <pellorin/Reservation.h>

#include <gtest/gtest.h>

#include <functional>

namespace pellorin {
namespace {

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
