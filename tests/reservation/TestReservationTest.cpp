// Test reservations: stamps, calls against the local receiver standing in for the service, the
// reservation file, and answers that cannot be used. The host's test uploads a reserved file
// through the client.
#include <gtest/gtest.h>

#include <pellorin/Reservation.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <future>
#include <iterator>
#include <regex>

#include "receiver/Receiver.h"
#include "reservation/CreateReservation.h"
#include "support/FileDigest.h"
#include "support/TempDir.h"

namespace pellorin {
namespace {

using namespace std::chrono_literals;
using testing::TempDir;

std::string stamp(int year, int month, int day, int hour, int minute, int second) {
    std::tm time{.tm_sec = second,
                 .tm_min = minute,
                 .tm_hour = hour,
                 .tm_mday = day,
                 .tm_mon = month - 1,
                 .tm_year = year - 1900};
    const std::time_t seconds = timegm(&time);  // fills in the day of the year
    gmtime_r(&seconds, &time);
    return reservationTimestamp(time);
}

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(ReservationTextTest, StampsUseTheDayOfTheYear) {
    EXPECT_EQ(stamp(2024, 2, 1, 10, 20, 30), "20240232102030");
    EXPECT_EQ(stamp(2025, 1, 1, 0, 0, 0), "20250101000000");
    EXPECT_EQ(stamp(2024, 4, 9, 7, 8, 9), "202404100070809");  // day 100: one character more
}

// A local receiver standing in for the service.
class TestReservationTest : public ::testing::Test {
  protected:
    static constexpr const char* kPassword = "S3cret-P\xc3\xa4sswort";
    static constexpr uint64_t kPartSize = 64 * 1024;

    void start(receiver::ReservationAnswer answer) {
        receiver_ = std::make_unique<receiver::Receiver>(receiver::ReceiverOptions{
            .reservationPartSize = kPartSize, .reservationAnswer = answer});
        receiver_->start();
    }

    // Reserves `file`; returns what was printed. A call still blocked after 30 s cannot be
    // stopped, so it ends the test binary.
    std::string reserve(const std::filesystem::path& file) {
        const Url endpoint =
            *Url::parse(receiver_->baseUrl() + std::string(kReservationServicePath));
        ::testing::internal::CaptureStdout();
        auto call = std::async(std::launch::async, [&] {
            createTestReservationFile(reservationFile_, file, "ann", kPassword, "prov", endpoint);
        });
        if (call.wait_for(30s) != std::future_status::ready) {
            std::abort();
        }
        call.get();
        return ::testing::internal::GetCapturedStdout();
    }

    TempDir sources_;
    std::unique_ptr<receiver::Receiver> receiver_;
    const std::string reservationFile_ = (sources_.path() / "reservation.json").string();
};

TEST_F(TestReservationTest, PrintsTheCallAndWritesEveryOperationWithTheLocalPath) {
    start(receiver::ReservationAnswer::reservations);
    const auto source = sources_.makeFile("source.bin", 3 * kPartSize + 123, 11);
    const std::string printed = reserve(source);

    // Pretty-printed, one newline after it, the password in clear exactly once.
    ASSERT_TRUE(printed.starts_with("{\n  \"jsonrpc\": \"2.0\",\n") && printed.ends_with("}\n"));
    const size_t password = printed.find(kPassword);
    EXPECT_TRUE(password != std::string::npos && printed.rfind(kPassword) == password);
    const auto call = decodeCreateReservationRequest(printed);
    EXPECT_EQ(call.method, "createTestReservation");
    EXPECT_TRUE(std::regex_match(call.id, std::regex(R"(\d{14,15})"))) << call.id;
    EXPECT_TRUE(std::regex_match(call.params.newPackageName(),
                                 std::regex(R"(http-transport-test\d{14,15}\.qeldp)")));
    EXPECT_EQ(call.params.lumoProviderName(), "prov");
    EXPECT_EQ(call.params.fileDescriptions(),
              std::vector{FileDescription("source.bin", 3 * kPartSize + 123,
                                          testing::sha256HexOfFile(source), "SHA-256",
                                          "application/octet-stream", "public.data")});

    const auto requests = receiver_->requests();
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].method + " " + requests[0].path,
              "POST " + std::string(kReservationServicePath));
    EXPECT_EQ(requests[0].contentLength, printed.size() - 1);
    std::string fields;
    for (const auto& [name, value] : requests[0].headers) {
        fields +=
            name == "Content-Type" || name.starts_with("x-tx-") ? name + ": " + value + "|" : "";
    }
    EXPECT_TRUE(std::regex_match(
        fields, std::regex("Content-Type: application/json\\|x-tx-method: createTestReservation\\|"
                           "x-tx-correlation-key: [0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-"
                           "[89AB][0-9A-F]{3}-[0-9A-F]{12}\\|")))
        << fields;

    const auto pairs = decodeOperationPairs(readText(reservationFile_));
    ASSERT_TRUE(pairs && pairs->size() == 4u);
    for (size_t i = 0; i < 4; ++i) {
        const Operation& operation = (*pairs)[i].operation;
        EXPECT_EQ((*pairs)[i].filePath, source.string());
        EXPECT_EQ(operation.partNumber, static_cast<int64_t>(i + 1));
        EXPECT_EQ(operation.length, static_cast<int64_t>(i < 3 ? kPartSize : 123));
        EXPECT_EQ(operation.uri.absoluteString(), receiver_->partUrl("source.bin", i * kPartSize));
    }
}

TEST_F(TestReservationTest, NoReservationsWritesNullAndAnUndecodableAnswerIsPrinted) {
    start(receiver::ReservationAnswer::noReservations);
    std::ofstream(reservationFile_) << "earlier";
    const auto source = sources_.makeFile("a.bin", 10, 1);
    EXPECT_NO_THROW(decodeCreateReservationRequest(reserve(source)));  // the call alone
    EXPECT_EQ(readText(reservationFile_), "null");

    start(receiver::ReservationAnswer::undecodable);
    std::ofstream(reservationFile_) << "earlier";
    const std::string printed = reserve(source);
    EXPECT_EQ(readText(reservationFile_), "earlier");
    const std::string after = printed.substr(printed.find("\n}\n") + 3);
    EXPECT_TRUE(std::regex_match(
        after, std::regex("invalid JSON at byte [^\n]*\nthe reservation service is resting\n\n")))
        << after;
}

TEST(ReservationAnswerTest, PairsFollowReservationThenOperationOrderWithTheLocalPath) {
    TempDir dir;
    const std::string file = (dir.path() / "out.json").string();
    auto operation = [](const char* path) {
        return R"({"method":"PUT","uri":"http://h/)" + std::string(path) +
               R"(","partNumber":1,"offset":0,"length":1,"expires":"e"})";
    };
    auto reservation = [&](const char* first, const char* second) {
        return R"({"id":"x","file":"remote","operations":[)" + operation(first) + "," +
               operation(second) + "]}";
    };
    const std::string answer =
        R"({"jsonrpc":"2.0","id":"1","result":{"Success":true,"Reservations":[)" +
        reservation("r1/1", "r1/2") + "," + reservation("r2/1", "r2/2") + "]}}";
    EXPECT_TRUE(handleReservationAnswer(std::vector<uint8_t>(answer.begin(), answer.end()), file,
                                        "/local.bin"));
    std::string seen;
    const auto pairs = decodeOperationPairs(readText(file)).value();
    for (const OperationPair& pair : pairs) {
        seen += pair.filePath + pair.operation.uri.pathAndQuery() + " ";
    }
    EXPECT_EQ(seen, "/local.bin/r1/1 /local.bin/r1/2 /local.bin/r2/1 /local.bin/r2/2 ");

    // No body: nothing printed, nothing written, the caller is not to be released.
    ::testing::internal::CaptureStdout();
    EXPECT_FALSE(handleReservationAnswer(std::nullopt, file + "2", "/local.bin"));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(std::filesystem::exists(file + "2"));

    const std::string unwritable = (dir.path() / "missing" / "out.json").string();
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(handleReservationAnswer(std::vector<uint8_t>(answer.begin(), answer.end()),
                                        unwritable, "/local.bin"));
    EXPECT_EQ(::testing::internal::GetCapturedStdout(),
              "cannot write the reservation file " + unwritable + ": No such file or directory\n" +
                  answer + "\n");
}

TEST(ReservationDeathTest, MissingFilesStopTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    TempDir dir;
    EXPECT_DEATH(describeFileForReservation((dir.path() / "gone").string()),
                 "Fatal error: cannot read the attributes of .*gone");
    EXPECT_DEATH(describeFileForReservation(dir.path().string()), "Fatal error: cannot open ");
}

// A server's answer that is not UTF-8 is printed with U+FFFD for the bad bytes; the process
// goes on.
TEST(ReservationAnswer, NonUtf8AnswerIsPrintedNotFatal) {
    ::testing::internal::CaptureStdout();
    EXPECT_TRUE(handleReservationAnswer(std::vector<uint8_t>{'c', 'a', 'f', 0xe9}, "x", "x"));
    const std::string printed = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(printed.find("\ncaf\xEF\xBF\xBD\n"), std::string::npos) << printed;
}

}  // namespace
}  // namespace pellorin
