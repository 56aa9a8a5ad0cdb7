// The reservation service's records: the JSON-RPC envelope, the reservation request the client
// sends, the reservations and upload operations the service answers with, and the operation pairs
// of a reservation file. All are plain values, safe to copy and to use from any thread; the coding
// functions are pure and may run on any thread. Last, the test-reservation call that asks the
// service for operations and writes a reservation file.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <pellorin/Export.h>
#include <pellorin/Url.h>

namespace pellorin {

// A JSON-RPC call: encoded as {"jsonrpc", "method", "id", "params"}, params as a nested object.
template <typename Params>
struct JSONRPCRequest {
    std::string jsonrpc;  // "2.0" in every call this library makes
    std::string method;
    std::string id;  // chosen by the caller
    Params params;

    bool operator==(const JSONRPCRequest& other) const {
        return jsonrpc == other.jsonrpc && method == other.method && id == other.id &&
               params == other.params;
    }
};

// A JSON-RPC answer: {"jsonrpc", "id", "result"}, all three required. Service errors arrive
// inside the result record; the envelope has no error member.
template <typename Result>
struct JSONRPCResult {
    std::string jsonrpc;
    std::string id;
    Result result;

    bool operator==(const JSONRPCResult& other) const {
        return jsonrpc == other.jsonrpc && id == other.id && result == other.result;
    }
};

// One file offered for upload. Immutable.
class PELLORIN_EXPORT FileDescription {
  public:
    FileDescription(std::string fileName, uint64_t fileSize, std::string checksum,
                    std::string checksumAlgorithm, std::string contentType, std::string uti);

    const std::string& fileName() const { return fileName_; }
    uint64_t fileSize() const { return fileSize_; }
    const std::string& checksum() const { return checksum_; }  // hexadecimal digest
    const std::string& checksumAlgorithm() const { return checksumAlgorithm_; }  // "SHA-256"
    const std::string& contentType() const { return contentType_; }              // a media type
    const std::string& uti() const { return uti_; }  // a uniform type identifier

    bool operator==(const FileDescription& other) const {
        return fileName_ == other.fileName_ && fileSize_ == other.fileSize_ &&
               checksum_ == other.checksum_ && checksumAlgorithm_ == other.checksumAlgorithm_ &&
               contentType_ == other.contentType_ && uti_ == other.uti_;
    }

  private:
    std::string fileName_;
    uint64_t fileSize_;
    std::string checksum_;
    std::string checksumAlgorithm_;
    std::string contentType_;
    std::string uti_;
};

// The params of a reservation call. Its JSON keys are capitalised ("Username", "Password",
// "LumoProviderName", "NewPackageName", "Application", "Version", "BaseVersion", "OSIdentifier"),
// except "fileDescriptions", and are written in that order. The first four values are fixed at
// construction; the file list only grows; the four descriptive values start at their defaults.
class PELLORIN_EXPORT CreateReservationRequest {
  public:
    static constexpr std::string_view defaultApplication = "Vantrel";
    static constexpr std::string_view defaultVersion = "2.0.0";
    static constexpr std::string_view defaultBaseVersion = "2.0.0";
    // A fixed description of the host platform, never read from the running machine.
    static constexpr std::string_view defaultOSIdentifier =
        "Orvex OS 10.14.6 (x86_64); rvm=11.0.2+9; rte=11.0.2+9";

    // provider is sent as "LumoProviderName"; no provider writes no such key at all.
    CreateReservationRequest(std::string username, std::string password,
                             std::optional<std::string> provider, std::string newPackageName);

    // Appends one file, keeping insertion order.
    void add(FileDescription fileDescription);

    const std::string& username() const { return username_; }
    const std::string& password() const { return password_; }
    const std::optional<std::string>& lumoProviderName() const { return lumoProviderName_; }
    const std::string& newPackageName() const { return newPackageName_; }
    const std::vector<FileDescription>& fileDescriptions() const { return fileDescriptions_; }
    const std::string& application() const { return application_; }
    const std::string& version() const { return version_; }
    const std::string& baseVersion() const { return baseVersion_; }
    const std::string& osIdentifier() const { return osIdentifier_; }

    void setApplication(std::string application) { application_ = std::move(application); }
    void setVersion(std::string version) { version_ = std::move(version); }
    void setBaseVersion(std::string baseVersion) { baseVersion_ = std::move(baseVersion); }
    void setOSIdentifier(std::string osIdentifier) { osIdentifier_ = std::move(osIdentifier); }

    bool operator==(const CreateReservationRequest& other) const {
        return username_ == other.username_ && password_ == other.password_ &&
               lumoProviderName_ == other.lumoProviderName_ &&
               newPackageName_ == other.newPackageName_ &&
               fileDescriptions_ == other.fileDescriptions_ && application_ == other.application_ &&
               version_ == other.version_ && baseVersion_ == other.baseVersion_ &&
               osIdentifier_ == other.osIdentifier_;
    }

  private:
    std::string username_;
    std::string password_;
    std::optional<std::string> lumoProviderName_;
    std::string newPackageName_;
    std::vector<FileDescription> fileDescriptions_;
    std::string application_{defaultApplication};
    std::string version_{defaultVersion};
    std::string baseVersion_{defaultBaseVersion};
    std::string osIdentifier_{defaultOSIdentifier};
};

// One upload step, in practice one part of a file. Keys: "method", "uri", "headers",
// "partNumber", "offset", "length", "expires", "entityTag". The integers are decoded as signed
// 64-bit values exactly as the service sent them; checking them against the file is the
// transfer's business.
struct Operation {
    std::string method;  // HTTP method name, e.g. "PUT"
    Url uri;             // absolute; written as its absolute string
    std::optional<std::map<std::string, std::string>> headers;  // extra request headers
    int64_t partNumber = 0;
    int64_t offset = 0;   // first byte of the part in the file
    int64_t length = 0;   // byte count of the part
    std::string expires;  // the service's text, never parsed
    std::optional<std::string> entityTag;

    bool operator==(const Operation& other) const {
        return method == other.method && uri == other.uri && headers == other.headers &&
               partNumber == other.partNumber && offset == other.offset && length == other.length &&
               expires == other.expires && entityTag == other.entityTag;
    }
};

// What the service reserved for one file: keys "id", "file", "operations".
struct Reservation {
    std::string id;
    std::string file;  // the file name the reservation is for
    std::vector<Operation> operations;

    bool operator==(const Reservation& other) const {
        return id == other.id && file == other.file && operations == other.operations;
    }
};

// The result of a reservation call: keys "Reservations", "Errors", "Success" (required).
struct CreateReservationResult {
    std::optional<std::vector<Reservation>> reservations;  // absent when nothing was reserved
    std::optional<std::vector<std::string>> errors;        // the service's error texts
    bool success = false;

    bool operator==(const CreateReservationResult& other) const {
        return reservations == other.reservations && errors == other.errors &&
               success == other.success;
    }
};

// One entry of a reservation file: a local file path and one operation on it.
struct OperationPair {
    std::string filePath;
    Operation operation;

    bool operator==(const OperationPair& other) const {
        return filePath == other.filePath && operation == other.operation;
    }
};

// JSON text that does not decode into the expected records. The message names the fault's place:
// the JSON path ("[3].operation.offset: expected an integer, found string") or, for text that is
// not JSON at all, the byte position.
class PELLORIN_EXPORT ReservationDecodeError : public std::runtime_error {
  public:
    // path is empty when the fault lies in the text itself or at its top level.
    ReservationDecodeError(const std::string& message, std::string path);
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

// A record that cannot be written as JSON (a text that is not valid UTF-8).
class PELLORIN_EXPORT ReservationEncodeError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The reservation file: a JSON array of {"filePath", "operation"} objects, or null when nothing
// was reserved (no value). Throws ReservationDecodeError.
PELLORIN_EXPORT std::optional<std::vector<OperationPair>> decodeOperationPairs(
    std::string_view jsonText);

// Pretty-printed (two-space indentation, one member per line, no trailing newline); no value is
// written as the four characters null. Throws ReservationEncodeError.
PELLORIN_EXPORT std::string encodeOperationPairs(
    const std::optional<std::vector<OperationPair>>& pairs);

// The service's answer to a reservation call. Throws ReservationDecodeError.
PELLORIN_EXPORT JSONRPCResult<CreateReservationResult> decodeCreateReservationResult(
    std::string_view jsonText);

// A reservation call, pretty-printed like encodeOperationPairs or compact. Throws
// ReservationEncodeError.
PELLORIN_EXPORT std::string encodeJSONRPCRequest(
    const JSONRPCRequest<CreateReservationRequest>& request, bool pretty);

// A reservation call as a service receives it (for stand-in services in tests and tools).
// Throws ReservationDecodeError.
PELLORIN_EXPORT JSONRPCRequest<CreateReservationRequest> decodeCreateReservationRequest(
    std::string_view jsonText);

// Obtains real upload operations for one local file from the reservation service and writes them
// to `reservationFile` (created or replaced) as a JSON array of {"filePath", "operation"} objects,
// every filePath being `filePath` as given, in reservation order then operation order; or the
// four characters null when the service reserved nothing.
//
// Describes the file (its name, size and SHA-256 digest), prints the pretty-printed JSON-RPC call
// "createTestReservation" to standard output (password included, in clear: keep that output
// private), posts it to the service instance numbered `qeld` and blocks the calling thread until
// the answer has been handled on the HTTP session's callback thread. An answer that cannot be
// decoded or written prints two lines to standard output (the error, then the answer's body) and
// leaves the reservation file as it was; the call then returns normally.
//
// !!! AN ANSWER WITHOUT ANY BODY (host unreachable, connection lost, empty answer) MAKES THIS CALL
// !!! BLOCK FOR EVER: nothing is printed, nothing is written and the caller is never released.
// !!! This test tool behaves so on purpose. Call it from a thread that may be lost, or run it in a
// !!! process that a supervisor can stop.
//
// Throws, before anything is sent: PellorinError (kind error, with the file error's description)
// when reading the file for its digest fails; ReservationEncodeError when a text of the call is
// not valid UTF-8. Fatal stops: the file's attributes cannot be read or the file cannot be
// opened; the answer's body is not valid UTF-8 when it has to be printed; the call is made on the
// shared HTTP session's callback thread (it would wait on itself).
PELLORIN_EXPORT void createTestReservationFile(const std::string& reservationFile,
                                               const std::string& filePath, uint8_t qeld,
                                               const std::string& username,
                                               const std::string& password,
                                               const std::optional<std::string>& provider);

}  // namespace pellorin
