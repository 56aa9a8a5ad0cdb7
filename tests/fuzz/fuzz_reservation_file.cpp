// libFuzzer target for the host's reservation-file reader: any text either becomes parts to
// upload or is refused with the host's one-line input error naming the place of the fault;
// nothing else may escape and nothing may crash. Built and run by bench/fuzz; its corpus is
// replayed by CTest.
//
// clang-format off
// Library sources: tools/pellorin/ReservationReader.cpp tools/pellorin/FileTools.cpp tools/pellorin/TextFile.cpp tools/pellorin/PartPlan.cpp tools/pellorin/Units.cpp PellorinClient/Sources/reservation/Reservation.cpp PellorinClient/Sources/reservation/ReservationJson.cpp PellorinClient/Sources/reservation/JsonField.cpp PellorinClient/Sources/datapath/FilePartRequest.cpp PellorinClient/Sources/client/PellorinError.cpp PellorinClient/Platform/Url.cpp PellorinClient/Platform/PlatformError.cpp PellorinClient/Platform/Encoding.cpp
// clang-format on
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "pellorin/HostError.h"
#include "pellorin/ReservationReader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    try {
        const auto parts = pellorin::host::planReservation(text, "fuzz.json");
        if (parts.empty()) {
            std::abort();  // an accepted reservation always has something to upload
        }
    } catch (const pellorin::host::InputError& error) {
        const std::string message = error.what();
        if (message.rfind("fuzz.json", 0) != 0 || message.find('\n') != std::string::npos) {
            std::abort();  // the one line names the file first
        }
    }
    return 0;
}
