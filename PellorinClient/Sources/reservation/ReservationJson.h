// JSON coding of the reservation records. JsonCodec<T>::encode writes a record as an ordered JSON
// object whose keys come in the record's documented order (optional members only when present);
// JsonCodec<T>::decode reads one from a JsonField and throws ReservationDecodeError naming the
// path of the first fault. Unknown keys are ignored; an optional member may be missing or null.
// Pure functions, any thread.
#pragma once

#include <pellorin/Reservation.h>

#include <nlohmann/json.hpp>

#include "reservation/JsonField.h"

namespace pellorin {

template <typename T>
struct JsonCodec;

template <>
struct JsonCodec<FileDescription> {
    static nlohmann::ordered_json encode(const FileDescription& value);
    static FileDescription decode(const JsonField& field);
};

template <>
struct JsonCodec<CreateReservationRequest> {
    static nlohmann::ordered_json encode(const CreateReservationRequest& value);
    static CreateReservationRequest decode(const JsonField& field);
};

template <>
struct JsonCodec<Operation> {
    static nlohmann::ordered_json encode(const Operation& value);
    // A uri that does not parse as an absolute URL fails the decode.
    static Operation decode(const JsonField& field);
};

template <>
struct JsonCodec<Reservation> {
    static nlohmann::ordered_json encode(const Reservation& value);
    static Reservation decode(const JsonField& field);
};

template <>
struct JsonCodec<CreateReservationResult> {
    static nlohmann::ordered_json encode(const CreateReservationResult& value);
    static CreateReservationResult decode(const JsonField& field);
};

template <>
struct JsonCodec<OperationPair> {
    static nlohmann::ordered_json encode(const OperationPair& value);
    static OperationPair decode(const JsonField& field);
};

template <typename Params>
struct JsonCodec<JSONRPCRequest<Params>> {
    static nlohmann::ordered_json encode(const JSONRPCRequest<Params>& value) {
        nlohmann::ordered_json json = nlohmann::ordered_json::object();
        json["jsonrpc"] = value.jsonrpc;
        json["method"] = value.method;
        json["id"] = value.id;
        json["params"] = JsonCodec<Params>::encode(value.params);
        return json;
    }
    static JSONRPCRequest<Params> decode(const JsonField& field) {
        return {
            .jsonrpc = field.member("jsonrpc").string(),
            .method = field.member("method").string(),
            .id = field.member("id").string(),
            .params = JsonCodec<Params>::decode(field.member("params")),
        };
    }
};

// Results are only ever decoded.
template <typename Result>
struct JsonCodec<JSONRPCResult<Result>> {
    static JSONRPCResult<Result> decode(const JsonField& field) {
        return {
            .jsonrpc = field.member("jsonrpc").string(),
            .id = field.member("id").string(),
            .result = JsonCodec<Result>::decode(field.member("result")),
        };
    }
};

// Every element of an array through JsonCodec<T>.
template <typename T>
nlohmann::ordered_json encodeArray(const std::vector<T>& values) {
    nlohmann::ordered_json json = nlohmann::ordered_json::array();
    for (const T& value : values) {
        json.push_back(JsonCodec<T>::encode(value));
    }
    return json;
}

template <typename T>
std::vector<T> decodeArray(const JsonField& field) {
    return field.array([](const JsonField& element) { return JsonCodec<T>::decode(element); });
}

// Text of a whole document: two-space indentation when pretty, else compact. Text that is not
// valid UTF-8 throws ReservationEncodeError.
std::string dumpJson(const nlohmann::ordered_json& json, bool pretty);

// Parses jsonText and decodes its top value as a T.
template <typename T>
T decodeJson(std::string_view jsonText) {
    const nlohmann::json document = JsonField::parse(jsonText);
    return JsonCodec<T>::decode(JsonField(document));
}

}  // namespace pellorin
