// Test reservations against a chosen endpoint: the reservation service's address, and
// createTestReservationFile (<pellorin/Reservation.h>) aimed at another endpoint, such as a local
// receiver standing in for the service. For tools and tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <pellorin/Export.h>
#include <pellorin/Url.h>

namespace pellorin {

// The path of the service's JSON-RPC endpoint, on every instance (and on the local receiver).
inline constexpr std::string_view kReservationServicePath =
    "/Servlane/KvLabelService.svl/json/KvTarnProducerService";

// The JSON-RPC endpoint of service instance `qeld`, its number written in decimal into the host
// name: "https://kvtarn<qeld>-reserve.pellorin.net/Servlane/KvLabelService.svl/json/
// KvTarnProducerService". Pure; any thread.
PELLORIN_EXPORT std::string reservationEndpointText(uint8_t qeld);

// createTestReservationFile against `endpoint` instead of a service instance's fixed address
// (tests and tools point it at a local receiver). Same behaviour otherwise, the blocking for ever
// on an answer without body included.
PELLORIN_EXPORT void createTestReservationFile(
    const std::string& reservationFile, const std::string& filePath, const std::string& username,
    const std::string& password, const std::optional<std::string>& provider, const Url& endpoint);

}  // namespace pellorin
