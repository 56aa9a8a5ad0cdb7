// The receiver's reservation endpoint: how it cuts files into operations, and what it answers to
// calls it cannot serve (requests refused over HTTP are in the receiver's test).
#include "receiver/ReservationEndpoint.h"

#include <gtest/gtest.h>

#include <pellorin/Reservation.h>

#include <string>
#include <vector>

namespace pellorin::receiver {
namespace {

// A reservation call describing files of the given sizes, named f0, f1, ...
std::string callFor(const std::vector<uint64_t>& sizes) {
    CreateReservationRequest request("ann", "pw", std::nullopt, "pkg");
    for (size_t i = 0; i < sizes.size(); ++i) {
        request.add(FileDescription("f" + std::to_string(i), sizes[i], "00", "SHA-256",
                                    "application/octet-stream", "public.data"));
    }
    return encodeJSONRPCRequest({"2.0", "createTestReservation", "id-7", std::move(request)},
                                false);
}

// (offset, length) of every operation, file after file.
std::vector<std::pair<int64_t, int64_t>> ranges(const EndpointReply& reply) {
    std::vector<std::pair<int64_t, int64_t>> result;
    const auto answer = decodeCreateReservationResult(reply.body);
    for (const Reservation& reservation : answer.result.reservations.value()) {
        for (const Operation& operation : reservation.operations) {
            result.emplace_back(operation.offset, operation.length);
        }
    }
    return result;
}

TEST(ReservationEndpointTest, CutsFilesIntoPartsAndRefusesCallsItCannotServe) {
    using Ranges = std::vector<std::pair<int64_t, int64_t>>;
    ReceiverOptions options{.reservationPartSize = 10};
    const EndpointReply reply = answerReservationCall(callFor({20, 11}), options, "http://h:9");
    EXPECT_EQ(ranges(reply), (Ranges{{0, 10}, {10, 10}, {0, 10}, {10, 1}}));
    const auto answer = decodeCreateReservationResult(reply.body);
    EXPECT_EQ(answer.id, "id-7");
    EXPECT_EQ(answer.result.reservations->back().operations.back().uri.absoluteString(),
              "http://h:9/upload/f1?offset=10");
    options.reservationPartSize = 0;  // taken as 1
    EXPECT_EQ(ranges(answerReservationCall(callFor({2}), options, "http://h")),
              (Ranges{{0, 1}, {1, 1}}));
    EXPECT_EQ(partUrl("http://h", "a b/\xc3\xa9", 5), "http://h/upload/a%20b%2F%C3%A9?offset=5");

    EXPECT_EQ(answerReservationCall("{}", options, "http://h").status, 400);
    EXPECT_EQ(
        answerReservationCall(callFor({kMaxReservationOperations}), options, "http://h").status,
        200);
    EXPECT_EQ(
        answerReservationCall(callFor({kMaxReservationOperations, 1}), options, "http://h").status,
        400);
    EXPECT_EQ(answerReservationCall(callFor({uint64_t{1} << 63}), {}, "http://h").status, 400);
}

}  // namespace
}  // namespace pellorin::receiver
