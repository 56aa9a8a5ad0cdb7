// The pieces of createTestReservationFile (declared in <pellorin/Reservation.h>): the time stamp
// and endpoint texts, the description of the local file, the call against a given endpoint, and
// the handling of the service's answer.
//
// Threads: createTestReservationFile and describeFileForReservation run on the caller's thread,
// which createTestReservationFile blocks; handleReservationAnswer runs on the shared HTTP
// session's callback thread. The text functions are pure, any thread.
#pragma once

#include <pellorin/Reservation.h>
#include <pellorin/Url.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace pellorin {

// The stamp of the package name and of the call's identifier: year (four digits), month (two),
// day of the year (at least two: 05, 32, 123), hour (00-23), minute, second. 1 February 2024 at
// 10:20:30 gives "20240232102030". Reads tm_year, tm_mon, tm_yday, tm_hour, tm_min and tm_sec.
std::string reservationTimestamp(const std::tm& time);
// "http-transport-test" + the stamp + ".qeldp".
std::string reservationPackageName(const std::string& timestamp);

// The path of the service's JSON-RPC endpoint, on every instance.
inline constexpr std::string_view kReservationServicePath =
    "/Servlane/KvLabelService.svl/json/KvTarnProducerService";

// The JSON-RPC endpoint of service instance `qeld`, its number written in decimal into the host
// name: "https://kvtarn<qeld>-reserve.pellorin.net/Servlane/KvLabelService.svl/json/
// KvTarnProducerService".
std::string reservationEndpointText(uint8_t qeld);

// The file as the service is told of it: last path component, size from its attributes, SHA-256
// of its bytes read through a shared file and a part stream in reads of up to 8192 bytes,
// "SHA-256", "application/octet-stream", "public.data". Fatal stop when the attributes cannot be
// read or the file cannot be opened; throws PellorinError (kind error) when a read fails.
FileDescription describeFileForReservation(const std::string& filePath);

// createTestReservationFile against `endpoint` instead of a service instance's fixed address
// (tests and tools point it at a local receiver). Same behaviour otherwise, the blocking for ever
// on an answer without body included.
void createTestReservationFile(const std::string& reservationFile, const std::string& filePath,
                               const std::string& username, const std::string& password,
                               const std::optional<std::string>& provider, const Url& endpoint);

// Handles the service's answer body. Without a body, does nothing at all and returns false: the
// caller must then never be released. Otherwise decodes the answer, pairs every operation of every
// reservation with `filePath`, writes the pairs (or null) to `reservationFile` replacing its
// content, and returns true; when decoding, encoding or writing fails it prints the error and the
// body as two lines to standard output instead (a body that is not valid UTF-8 is a fatal stop),
// leaves the file alone, and returns true.
bool handleReservationAnswer(const std::optional<std::vector<uint8_t>>& body,
                             const std::string& reservationFile, const std::string& filePath);

}  // namespace pellorin
