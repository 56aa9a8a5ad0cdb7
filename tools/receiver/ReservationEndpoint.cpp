#include "receiver/ReservationEndpoint.h"

#include <pellorin/Reservation.h>

#include <algorithm>
#include <limits>
#include <optional>
#include <utility>
#include <vector>

#include "reservation/ReservationJson.h"

namespace pellorin::receiver {

namespace {

// Far enough ahead that no test sees an operation expire; clients keep it as text anyway.
constexpr std::string_view kExpires = "2099-12-31T23:59:59Z";

EndpointReply badCall(std::string text) {
    return {400, "text/plain; charset=utf-8", std::move(text) + "\n"};
}

uint64_t operationCount(uint64_t fileSize, uint64_t partSize) {
    return fileSize == 0 ? 1 : fileSize / partSize + (fileSize % partSize != 0 ? 1 : 0);
}

// One PUT per part of `partSize` bytes covering the file; one of length 0 for an empty file.
std::vector<Operation> operationsFor(const FileDescription& file, uint64_t partSize,
                                     std::string_view baseUrl) {
    std::vector<Operation> operations;
    const uint64_t count = operationCount(file.fileSize(), partSize);
    operations.reserve(count);
    for (uint64_t index = 0; index < count; ++index) {
        const uint64_t offset = index * partSize;
        const uint64_t length = std::min(partSize, file.fileSize() - offset);
        operations.push_back(Operation{
            .method = "PUT",
            // Every name byte outside the unreserved set is escaped, so the text always parses.
            .uri = Url::parse(partUrl(baseUrl, file.fileName(), offset)).value(),
            .headers = std::nullopt,
            .partNumber = static_cast<int64_t>(index + 1),
            .offset = static_cast<int64_t>(offset),
            .length = static_cast<int64_t>(length),
            .expires = std::string(kExpires),
            .entityTag = std::nullopt,
        });
    }
    return operations;
}

}  // namespace

std::string partUrl(std::string_view baseUrl, std::string_view name, uint64_t offset) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string url(baseUrl);
    url += "/upload/";
    for (const char c : name) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte >= 'A' && byte <= 'Z') || (byte >= 'a' && byte <= 'z') ||
            (byte >= '0' && byte <= '9') || c == '-' || c == '.' || c == '_' || c == '~') {
            url += c;
        } else {
            url += '%';
            url += kHex[byte >> 4];
            url += kHex[byte & 15];
        }
    }
    return url + "?offset=" + std::to_string(offset);
}

EndpointReply answerReservationCall(std::string_view callBody, const ReceiverOptions& options,
                                    std::string_view baseUrl) {
    std::optional<JSONRPCRequest<CreateReservationRequest>> call;
    try {
        call = decodeCreateReservationRequest(callBody);
    } catch (const ReservationDecodeError& error) {
        return badCall(std::string("not a reservation call: ") + error.what());
    }
    if (options.reservationAnswer == ReservationAnswer::undecodable) {
        return {200, "text/plain; charset=utf-8", "the reservation service is resting\n"};
    }

    CreateReservationResult result;
    if (options.reservationAnswer == ReservationAnswer::noReservations) {
        result.errors = {"no reservation: this receiver was told to reserve nothing"};
    } else {
        const auto& files = call->params.fileDescriptions();
        const uint64_t partSize = std::max<uint64_t>(options.reservationPartSize, 1);
        uint64_t total = 0;
        for (const FileDescription& file : files) {
            if (file.fileSize() > static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
                return badCall("file too large: " + file.fileName());
            }
            total += std::min(operationCount(file.fileSize(), partSize), kMaxReservationOperations);
            if (total > kMaxReservationOperations) {
                return badCall("more than " + std::to_string(kMaxReservationOperations) +
                               " operations asked for");
            }
        }
        result.success = true;
        result.reservations.emplace();
        for (const FileDescription& file : files) {
            result.reservations->push_back(
                Reservation{.id = "reservation-" + std::to_string(result.reservations->size() + 1),
                            .file = file.fileName(),
                            .operations = operationsFor(file, partSize, baseUrl)});
        }
    }

    nlohmann::ordered_json answer = nlohmann::ordered_json::object();
    answer["jsonrpc"] = "2.0";
    answer["id"] = call->id;
    answer["result"] = JsonCodec<CreateReservationResult>::encode(result);
    return {200, "application/json", dumpJson(answer, false)};
}

}  // namespace pellorin::receiver
