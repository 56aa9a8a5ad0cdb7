// HTTP request and response values of the HTTP session service.
//
// HttpRequest is a plain value built by the caller and copied into the task that sends it.
// HttpResponse is immutable once made by the transfer thread from libcurl's parse and shared
// read-only (std::shared_ptr<const HttpResponse>); any thread may read it.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <pellorin/Url.h>

namespace pellorin {

// Header fields in the order they were added or received; a name may occur more than once.
using HttpHeaderFields = std::vector<std::pair<std::string, std::string>>;

// True when two field names are equal ignoring ASCII case.
bool headerNamesEqual(std::string_view a, std::string_view b);

// The first value of the field `name` (compared ignoring ASCII case), or no value.
std::optional<std::string> firstHeaderValue(const HttpHeaderFields& fields, std::string_view name);

// No response cache exists in this service, so both policies send the request as it stands;
// the policy is kept for the record.
enum class CachePolicy { useProtocolCachePolicy, reloadIgnoringLocalAndRemoteCacheData };

struct HttpRequest {
    explicit HttpRequest(Url url) : url(std::move(url)) {}

    Url url;
    std::string httpMethod = "GET";
    CachePolicy cachePolicy = CachePolicy::useProtocolCachePolicy;
    // Kept for the record: the session's idle time-out governs the task (see
    // SessionConfiguration::timeoutIntervalForRequest), whether this is smaller or larger.
    double timeoutInterval = 60.0;
    // Sent in this order. "Content-Length" gives the body length of a streamed upload and is
    // sent once, whatever the list holds.
    HttpHeaderFields headerFields;

    // Appends a field; adding a name twice sends both values.
    void addValue(const std::string& value, const std::string& forHTTPHeaderField);
    // The first value of a field, the name compared ignoring case.
    std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const;
};

// The request's body length from its "Content-Length" fields: -1 when there is none (the body
// is then sent in chunks), no value when the fields are not one decimal number.
std::optional<int64_t> requestBodyLength(const HttpRequest& request);

class HttpResponse {
  public:
    HttpResponse(int statusCode, HttpHeaderFields headerFields, Url url)
        : statusCode_(statusCode), headerFields_(std::move(headerFields)), url_(std::move(url)) {}

    int statusCode() const { return statusCode_; }
    // The first value of a field, the name compared ignoring case.
    std::optional<std::string> valueForHTTPHeaderField(std::string_view name) const {
        return firstHeaderValue(headerFields_, name);
    }
    // Every field of the final response, in the order received, duplicates kept.
    const HttpHeaderFields& allHeaderFields() const { return headerFields_; }
    const Url& url() const { return url_; }

  private:
    int statusCode_;
    HttpHeaderFields headerFields_;
    Url url_;
};

}  // namespace pellorin
