#include "reservation/ReservationJson.h"

namespace pellorin {

namespace {

std::optional<std::string> optionalString(const JsonField& field, std::string_view key) {
    if (auto member = field.optionalMember(key)) {
        return member->string();
    }
    return std::nullopt;
}

}  // namespace

nlohmann::ordered_json JsonCodec<FileDescription>::encode(const FileDescription& value) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    json["fileName"] = value.fileName();
    json["fileSize"] = value.fileSize();
    json["checksum"] = value.checksum();
    json["checksumAlgorithm"] = value.checksumAlgorithm();
    json["contentType"] = value.contentType();
    json["uti"] = value.uti();
    return json;
}

FileDescription JsonCodec<FileDescription>::decode(const JsonField& field) {
    // Braces: the members are read, and a fault reported, in key order.
    return FileDescription{
        field.member("fileName").string(),    field.member("fileSize").uint64(),
        field.member("checksum").string(),    field.member("checksumAlgorithm").string(),
        field.member("contentType").string(), field.member("uti").string()};
}

nlohmann::ordered_json JsonCodec<CreateReservationRequest>::encode(
    const CreateReservationRequest& value) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    json["Username"] = value.username();
    json["Password"] = value.password();
    if (value.lumoProviderName()) {
        json["LumoProviderName"] = *value.lumoProviderName();
    }
    json["NewPackageName"] = value.newPackageName();
    json["Application"] = value.application();
    json["Version"] = value.version();
    json["BaseVersion"] = value.baseVersion();
    json["OSIdentifier"] = value.osIdentifier();
    json["fileDescriptions"] = encodeArray(value.fileDescriptions());
    return json;
}

CreateReservationRequest JsonCodec<CreateReservationRequest>::decode(const JsonField& field) {
    CreateReservationRequest request{
        field.member("Username").string(), field.member("Password").string(),
        optionalString(field, "LumoProviderName"), field.member("NewPackageName").string()};
    request.setApplication(field.member("Application").string());
    request.setVersion(field.member("Version").string());
    request.setBaseVersion(field.member("BaseVersion").string());
    request.setOSIdentifier(field.member("OSIdentifier").string());
    for (FileDescription& description :
         decodeArray<FileDescription>(field.member("fileDescriptions"))) {
        request.add(std::move(description));
    }
    return request;
}

nlohmann::ordered_json JsonCodec<Operation>::encode(const Operation& value) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    json["method"] = value.method;
    json["uri"] = value.uri.absoluteString();
    if (value.headers) {
        json["headers"] = *value.headers;
    }
    json["partNumber"] = value.partNumber;
    json["offset"] = value.offset;
    json["length"] = value.length;
    json["expires"] = value.expires;
    if (value.entityTag) {
        json["entityTag"] = *value.entityTag;
    }
    return json;
}

Operation JsonCodec<Operation>::decode(const JsonField& field) {
    std::string method = field.member("method").string();
    const JsonField uriField = field.member("uri");
    std::optional<Url> uri = Url::parse(uriField.string());
    if (!uri) {
        uriField.fail("not an absolute URL");
    }
    std::optional<std::map<std::string, std::string>> headers;
    if (auto headersField = field.optionalMember("headers")) {
        headers = headersField->stringMap();
    }
    return {
        .method = std::move(method),
        .uri = std::move(*uri),
        .headers = std::move(headers),
        .partNumber = field.member("partNumber").int64(),
        .offset = field.member("offset").int64(),
        .length = field.member("length").int64(),
        .expires = field.member("expires").string(),
        .entityTag = optionalString(field, "entityTag"),
    };
}

nlohmann::ordered_json JsonCodec<Reservation>::encode(const Reservation& value) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    json["id"] = value.id;
    json["file"] = value.file;
    json["operations"] = encodeArray(value.operations);
    return json;
}

Reservation JsonCodec<Reservation>::decode(const JsonField& field) {
    return {
        .id = field.member("id").string(),
        .file = field.member("file").string(),
        .operations = decodeArray<Operation>(field.member("operations")),
    };
}

nlohmann::ordered_json JsonCodec<CreateReservationResult>::encode(
    const CreateReservationResult& value) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    if (value.reservations) {
        json["Reservations"] = encodeArray(*value.reservations);
    }
    if (value.errors) {
        json["Errors"] = *value.errors;
    }
    json["Success"] = value.success;
    return json;
}

CreateReservationResult JsonCodec<CreateReservationResult>::decode(const JsonField& field) {
    CreateReservationResult result;
    if (auto reservations = field.optionalMember("Reservations")) {
        result.reservations = decodeArray<Reservation>(*reservations);
    }
    if (auto errors = field.optionalMember("Errors")) {
        result.errors = errors->array([](const JsonField& element) { return element.string(); });
    }
    result.success = field.member("Success").boolean();
    return result;
}

nlohmann::ordered_json JsonCodec<OperationPair>::encode(const OperationPair& value) {
    nlohmann::ordered_json json = nlohmann::ordered_json::object();
    json["filePath"] = value.filePath;
    json["operation"] = JsonCodec<Operation>::encode(value.operation);
    return json;
}

OperationPair JsonCodec<OperationPair>::decode(const JsonField& field) {
    return {
        .filePath = field.member("filePath").string(),
        .operation = JsonCodec<Operation>::decode(field.member("operation")),
    };
}

std::string dumpJson(const nlohmann::ordered_json& json, bool pretty) {
    try {
        return json.dump(pretty ? 2 : -1);
    } catch (const nlohmann::ordered_json::type_error& error) {
        // The only failure of dump: a string that is not valid UTF-8.
        throw ReservationEncodeError("cannot write JSON: " + jsonErrorText(error));
    }
}

}  // namespace pellorin
