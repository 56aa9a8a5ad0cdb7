// libFuzzer target for the reservation decoders: the service's answer, the reservation file and the
// reservation call. Any input must either decode or throw ReservationDecodeError; whatever decodes
// must survive a write and a second read unchanged. Built and run by bench/fuzz.
//
// Library sources: PellorinClient/Platform/Url.cpp PellorinClient/Sources/reservation/*.cpp
#include <pellorin/Reservation.h>

#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "reservation/ReservationJson.h"

namespace {

using namespace pellorin;

// Stops the run (a crash for libFuzzer) when a decode, write, decode cycle changes the value.
template <typename T, typename Encode, typename Decode>
void checkRoundTrip(const T& value, Encode encode, Decode decode) {
    if (!(decode(encode(value)) == value)) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const auto answer = decodeCreateReservationResult(text);
        checkRoundTrip(
            answer.result,
            [](const CreateReservationResult& result) {
                return dumpJson(JsonCodec<CreateReservationResult>::encode(result), false);
            },
            [](const std::string& encoded) {
                return decodeJson<CreateReservationResult>(encoded);
            });
    } catch (const ReservationDecodeError&) {
    }
    try {
        checkRoundTrip(decodeOperationPairs(text), encodeOperationPairs, decodeOperationPairs);
    } catch (const ReservationDecodeError&) {
    }
    try {
        checkRoundTrip(
            decodeCreateReservationRequest(text),
            [](const auto& call) { return encodeJSONRPCRequest(call, true); },
            decodeCreateReservationRequest);
    } catch (const ReservationDecodeError&) {
    }
    return 0;
}
