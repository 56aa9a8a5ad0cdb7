// Reading a reservation file into parts: good files become the parts as written, and every kind
// of bad input is refused before anything is sent, with one line naming its place. (A missing
// reservation file is among the host's end-to-end cases.)
#include "pellorin/ReservationReader.h"

#include <gtest/gtest.h>

#include "pellorin/HostError.h"
#include "support/TempDir.h"

namespace pellorin::host {
namespace {

class ReservationReaderTest : public ::testing::Test {
  protected:
    ReservationReaderTest() { file = dir.makeFile("a.bin", 300, 1).string(); }

    // A pair for a.bin (or `filePath`); `extra` replaces or adds members of its operation.
    std::string pair(int partNumber, int offset, int length, const std::string& extra = "",
                     const std::string& filePath = "") const {
        return R"({"filePath":")" + (filePath.empty() ? file : filePath) +
               R"(","operation":{"method":"PUT","uri":"http://127.0.0.1:9/up?p=)" +
               std::to_string(partNumber) + R"(","partNumber":)" + std::to_string(partNumber) +
               R"(,"offset":)" + std::to_string(offset) + R"(,"length":)" + std::to_string(length) +
               R"(,"expires":"later")" + extra + "}}";
    }

    std::string errorOf(const std::string& text) const {
        try {
            planReservation(text, "r.json", dir.path());
        } catch (const InputError& error) {
            return error.what();
        }
        return "(no error)";
    }

    testing::TempDir dir;
    std::string file;
};

TEST_F(ReservationReaderTest, PairsBecomePartsAsWritten) {
    const auto parts = planReservation(
        "[" + pair(1, 0, 200, R"(,"headers":{"X-Token":"t"})") + "," + pair(2, 200, 100) + "]",
        "r.json", "/elsewhere");
    ASSERT_EQ(parts.size(), 2u);
    EXPECT_EQ(parts[0].key, (PartKey{file, 1, 0, 200}));
    EXPECT_EQ(parts[1].key, (PartKey{file, 2, 200, 100}));
    EXPECT_EQ(parts[0].method, "PUT");
    EXPECT_EQ(parts[0].url.absoluteString(), "http://127.0.0.1:9/up?p=1");
    EXPECT_EQ(parts[0].headers->at("X-Token"), "t");
    EXPECT_FALSE(parts[1].headers.has_value());
    EXPECT_EQ(parts[0].destination, "PUT http://127.0.0.1:9/up?p=1");
    EXPECT_EQ(parts[0].source, identifySource(file));
    // A relative path is the reservation file's folder's, not the working directory's.
    const auto relative =
        planReservation("[" + pair(1, 0, 1, "", "a.bin") + "]", "r.json", dir.path());
    EXPECT_EQ(relative[0].key.path, file);
}

TEST_F(ReservationReaderTest, BadInputNamesItsPlace) {
    const std::string ok = pair(1, 0, 100) + ",";
    const std::pair<std::string, std::string> cases[] = {
        {"null", "r.json: reserves nothing (null): nothing to upload"},
        {"[]", "r.json: reserves nothing ([]): nothing to upload"},
        {"[" + ok, "r.json: invalid JSON at byte"},
        {"[" + ok + pair(2, 0, 1, R"(,"offset":"0")") + "]",
         "r.json: [1].operation.offset: expected an integer, found string"},
        {"[" + ok + pair(2, -5, 1) + "]", "r.json: [1].operation.offset: must not be negative"},
        {"[" + ok + pair(2, 0, -1) + "]", "r.json: [1].operation.length: must not be negative"},
        {"[" + ok + pair(-2, 0, 1) + "]", "r.json: [1].operation.partNumber: must not be negative"},
        {"[" + ok + pair(2, 0, 1, R"(,"method":"")") + "]",
         "r.json: [1].operation.method: not an HTTP method pellorin sends"},
        {"[" + ok + pair(2, 0, 1, R"(,"method":"PATCH")") + "]",
         "r.json: [1].operation.method: not an HTTP method pellorin sends: \"PATCH\""},
        {"[" + ok + pair(2, 0, 1, R"(,"headers":{"content-length":"5"})") + "]",
         "r.json: [1].operation.headers.content-length: Content-Length is set by pellorin"},
        {"[" + ok + pair(2, 0, 1, R"(,"headers":{"X-PLNX-Retry-Count":"0"})") + "]",
         "r.json: [1].operation.headers.X-PLNX-Retry-Count: X-PLNX-Retry-Count is set by"},
        {"[" + ok + pair(2, 0, 1, R"(,"uri":"ftp://h/x")") + "]",
         "r.json: [1].operation.uri: must be an http or https URL, found ftp:"},
        {"[" + ok + pair(2, 0, 1, R"(,"headers":{"X-A":"1\r\nX-B: 2"})") + "]",
         "r.json: [1].operation.headers.X-A: not a header that can be sent"},
        {"[" + ok + pair(2, 200, 101) + "]",
         "r.json: [1].operation: bytes 200 to 301 lie past the end of " + file + " (300 bytes)"},
        {"[" + ok + pair(2, 301, 0) + "]", "r.json: [1].operation: bytes 301 to 301 lie past"},
        {"[" + ok + pair(1, 100, 100) + "]",
         "r.json: [1].operation.partNumber: part 1 of " + file + " is already at [0]"},
        {"[" + ok + pair(2, 0, 1, "", "/nonexistent/b.bin") + "]",
         "r.json: [1].filePath: cannot read /nonexistent/b.bin: No such file or directory"},
        {"[" + ok + pair(2, 0, 1, "", dir.path().string()) + "]",
         "r.json: [1].filePath: cannot read " + dir.path().string() + ": not a regular file"},
    };
    for (const auto& [text, expected] : cases) {
        const std::string message = errorOf(text);
        EXPECT_EQ(message.substr(0, expected.size()), expected) << text;
        EXPECT_EQ(message.find('\n'), std::string::npos) << message;
    }
}

}  // namespace
}  // namespace pellorin::host
