// FilePartRequest: one part of an upload - which bytes of which local file go to which URL, with
// which HTTP method and which extra request headers - plus the state of its attempts.
//
// Ownership: always held as std::shared_ptr<FilePartRequest>, shared by the host, the client's
// wait queue and the session delegate of the attempt in flight; two requests are the same only
// when they are the same object. The description fields never change after construction and may
// be read from any thread. retryCount and errors are the library's own attempt state: they are
// read and changed only on the client's delegate queue (one thread at a time, no lock).
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <pellorin/Export.h>
#include <pellorin/PellorinError.h>
#include <pellorin/Url.h>

namespace pellorin {

enum class HTTPMethodType { OPTIONS, GET, HEAD, POST, PUT, DELETE, TRACE, CONNECT };

// The method whose name is exactly `raw` (case-sensitive: "put" and "PATCH" give no value).
PELLORIN_EXPORT std::optional<HTTPMethodType> httpMethodTypeFromRawValue(std::string_view raw);
// The method's name as sent on the wire ("PUT").
PELLORIN_EXPORT const char* rawValue(HTTPMethodType method);

class PELLORIN_EXPORT FilePartRequest {
    // Only the factories below can make one: its constructor is private and user-provided, so
    // `{}` does not make one outside this class either.
    class Token {
        Token() {}
        friend class FilePartRequest;
    };

  public:
    using Headers = std::map<std::string, std::string>;
    // One header per element, as the pair {"name": ..., "value": ...}.
    using HeadersArray = std::vector<std::map<std::string, std::string>>;

    // Stores the arguments as given, without validation: a range past the end of the file is
    // refused later, when the part's body is read. A missing `headers` stays absent.
    static std::shared_ptr<FilePartRequest> make(std::string filePath, uint64_t partNumber,
                                                 uint64_t offset, uint64_t length, Url url,
                                                 std::string method,
                                                 std::optional<Headers> headers = std::nullopt);
    // As make(), with the headers converted by headersFromArray(): `headers` is always present.
    static std::shared_ptr<FilePartRequest> makeWithHeadersArray(
        std::string filePath, uint64_t partNumber, uint64_t offset, uint64_t length, Url url,
        std::string method, const std::optional<HeadersArray>& headersArray);

    // Converts a header array into a dictionary: elements lacking "name" or "value" are
    // skipped, other keys are ignored, and a later element replaces an earlier one of the same
    // name. An absent or empty array gives an empty dictionary.
    static Headers headersFromArray(const std::optional<HeadersArray>& headersArray);

    FilePartRequest() = delete;
    FilePartRequest(Token, std::string filePath, uint64_t partNumber, uint64_t offset,
                    uint64_t length, Url url, std::string method, std::optional<Headers> headers);
    FilePartRequest(const FilePartRequest&) = delete;
    FilePartRequest& operator=(const FilePartRequest&) = delete;

    const std::string& filePath() const { return filePath_; }
    uint64_t partNumber() const { return partNumber_; }
    uint64_t offset() const { return offset_; }
    uint64_t length() const { return length_; }
    const Url& url() const { return url_; }
    const std::string& method() const { return method_; }
    const std::optional<Headers>& headers() const { return headers_; }

    // The last "/"-separated piece of filePath: the whole path when it has no "/", empty when
    // it ends in "/". Computed on first use and cached; any thread.
    const std::string& fileName() const;
    // "FilePart (filePath: <fileName>, partNumber: <partNumber>)": the label says filePath, the
    // value is the file name only, which keeps log lines short.
    std::string debugDescription() const;

    // Attempt state. Library-internal: delegate queue only.
    size_t retryCount() const { return retryCount_; }
    void setRetryCount(size_t retryCount) { retryCount_ = retryCount; }
    // Errors of earlier attempts, oldest first.
    const std::vector<PellorinError>& errors() const { return errors_; }
    void appendError(PellorinError error) { errors_.push_back(std::move(error)); }

  private:
    const std::string filePath_;
    const uint64_t partNumber_;
    const uint64_t offset_;
    const uint64_t length_;
    const Url url_;
    const std::string method_;
    const std::optional<Headers> headers_;

    mutable std::once_flag fileNameOnce_;
    mutable std::string fileName_;  // written once under fileNameOnce_

    size_t retryCount_ = 0;              // delegate queue only
    std::vector<PellorinError> errors_;  // delegate queue only
};

}  // namespace pellorin
