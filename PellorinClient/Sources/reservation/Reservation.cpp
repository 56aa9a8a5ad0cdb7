#include <pellorin/Reservation.h>

#include "reservation/ReservationJson.h"

namespace pellorin {

FileDescription::FileDescription(std::string fileName, uint64_t fileSize, std::string checksum,
                                 std::string checksumAlgorithm, std::string contentType,
                                 std::string uti)
    : fileName_(std::move(fileName)),
      fileSize_(fileSize),
      checksum_(std::move(checksum)),
      checksumAlgorithm_(std::move(checksumAlgorithm)),
      contentType_(std::move(contentType)),
      uti_(std::move(uti)) {}

CreateReservationRequest::CreateReservationRequest(std::string username, std::string password,
                                                   std::optional<std::string> provider,
                                                   std::string newPackageName)
    : username_(std::move(username)),
      password_(std::move(password)),
      lumoProviderName_(std::move(provider)),
      newPackageName_(std::move(newPackageName)) {}

void CreateReservationRequest::add(FileDescription fileDescription) {
    fileDescriptions_.push_back(std::move(fileDescription));
}

ReservationDecodeError::ReservationDecodeError(const std::string& message, std::string path)
    : std::runtime_error(message), path_(std::move(path)) {}

std::optional<std::vector<OperationPair>> decodeOperationPairs(std::string_view jsonText) {
    const nlohmann::json document = JsonField::parse(jsonText);
    const JsonField top(document);
    if (top.isNull()) {
        return std::nullopt;
    }
    return decodeArray<OperationPair>(top);
}

std::string encodeOperationPairs(const std::optional<std::vector<OperationPair>>& pairs) {
    if (!pairs) {
        return "null";
    }
    return dumpJson(encodeArray(*pairs), true);
}

JSONRPCResult<CreateReservationResult> decodeCreateReservationResult(std::string_view jsonText) {
    return decodeJson<JSONRPCResult<CreateReservationResult>>(jsonText);
}

std::string encodeJSONRPCRequest(const JSONRPCRequest<CreateReservationRequest>& request,
                                 bool pretty) {
    return dumpJson(JsonCodec<JSONRPCRequest<CreateReservationRequest>>::encode(request), pretty);
}

JSONRPCRequest<CreateReservationRequest> decodeCreateReservationRequest(std::string_view jsonText) {
    return decodeJson<JSONRPCRequest<CreateReservationRequest>>(jsonText);
}

}  // namespace pellorin
