// The receiver's stand-in for the reservation service: the JSON-RPC call "createTestReservation"
// answered with operations that upload each described file to the receiver itself. Pure functions,
// any thread (the connection thread calls them).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "receiver/Receiver.h"
#include "reservation/CreateReservation.h"

namespace pellorin::receiver {

// The endpoint's path: the reservation service's own.
inline constexpr std::string_view kReservationPath = kReservationServicePath;
// The value of "x-tx-method" the endpoint serves.
inline constexpr std::string_view kReservationMethod = "createTestReservation";
// The longest call body read; a longer one is answered 413 without being read.
inline constexpr uint64_t kMaxReservationCallSize = uint64_t{1} << 20;
// The most operations one call may reserve, all files together; more are answered 400.
inline constexpr uint64_t kMaxReservationOperations = 10000;

// baseUrl + "/upload/<name>?offset=<offset>", with every byte of the name outside the unreserved
// set (letters, digits, "-", ".", "_", "~") percent-encoded.
std::string partUrl(std::string_view baseUrl, std::string_view name, uint64_t offset);

struct EndpointReply {
    int status = 200;
    std::string contentType;  // of a non-empty body
    std::string body;
};

// The answer to the body of a reservation call: 200 with a compact JSON-RPC answer shaped by
// options.reservationAnswer, or 400 with a short text for a body that is not a reservation call,
// a file larger than 2^63 - 1 bytes or more than kMaxReservationOperations operations.
EndpointReply answerReservationCall(std::string_view callBody, const ReceiverOptions& options,
                                    std::string_view baseUrl);

}  // namespace pellorin::receiver
