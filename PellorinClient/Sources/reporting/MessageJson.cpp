#include "reporting/MessageJson.h"

namespace pellorin {

using nlohmann::ordered_json;

nlohmann::ordered_json toJson(const LoggingMessage& message) {
    return ordered_json{{"level", message.level()}, {"message", message.message()}};
}

nlohmann::ordered_json toJson(const ErrorMessage& message) {
    ordered_json json{
        {"domain", message.domain()}, {"code", message.code()}, {"message", message.message()}};
    // Absent details are written as null: the key is always there.
    json["userInfo"] = message.userInfo() ? ordered_json(*message.userInfo()) : ordered_json();
    return json;
}

nlohmann::ordered_json toJson(const FileProgressMessage& message) {
    return ordered_json{{"path", message.path()},
                        {"fileSize", message.fileSize()},
                        {"bytesSent", message.bytesSent()}};
}

nlohmann::ordered_json toJson(const PartStartedMessage& message) {
    return ordered_json{{"path", message.path()},
                        {"partNumber", message.partNumber()},
                        {"retryCount", message.retryCount()}};
}

nlohmann::ordered_json toJson(const PartProgressMessage& message) {
    return ordered_json{{"path", message.path()},
                        {"partNumber", message.partNumber()},
                        {"partSize", message.partSize()},
                        {"bytesSent", message.bytesSent()},
                        {"totalBytesSent", message.totalBytesSent()}};
}

nlohmann::ordered_json toJson(const PartRetryMessage& message) {
    return ordered_json{{"path", message.path()},           {"partNumber", message.partNumber()},
                        {"lostBytes", message.lostBytes()}, {"retryCount", message.retryCount()},
                        {"waitSecs", message.waitSecs()},   {"error", toJson(*message.error())}};
}

nlohmann::ordered_json toJson(const PartCompleteMessage& message) {
    return ordered_json{
        {"path", message.path()}, {"partNumber", message.partNumber()}, {"eTag", message.eTag()}};
}

nlohmann::ordered_json toJson(const PartFailureMessage& message) {
    ordered_json errors = ordered_json::array();
    for (const auto& error : message.errors()) {
        errors.push_back(toJson(*error));
    }
    return ordered_json{{"path", message.path()},
                        {"partNumber", message.partNumber()},
                        {"url", message.url().absoluteString()},
                        {"errors", std::move(errors)}};
}

nlohmann::ordered_json toJson(const MetricsMessage& message) {
    // otherInfo is deliberately left out: hosts read it from the object, never from the JSON.
    return ordered_json{{"totalPartsRequested", message.totalPartsRequested()},
                        {"bytesSent", message.bytesSent()},
                        {"bytesLost", message.bytesLost()},
                        {"partsSent", message.partsSent()},
                        {"retryCount", message.retryCount()},
                        {"failureCount", message.failureCount()},
                        {"elapsedTimeSecs", message.elapsedTimeSecs()},
                        {"throughput", message.throughput()},
                        {"throughputUOM", message.throughputUOM()}};
}

std::string compactJson(const nlohmann::ordered_json& json) {
    return json.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

}  // namespace pellorin
