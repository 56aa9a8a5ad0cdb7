// The HTTP/1.1 text the receiver reads and writes: parsing of a request head, the few header and
// query helpers the server needs, and answer heads. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace pellorin::receiver {

struct RequestHead {
    std::string method;
    std::string target;                                        // as sent: path and query
    std::string version;                                       // "HTTP/1.1", "HTTP/1.0"
    std::vector<std::pair<std::string, std::string>> headers;  // in order, duplicates kept

    // Value of the first header of that name (case-insensitive).
    std::optional<std::string_view> header(std::string_view name) const;
    // True when any header of that name lists `token` among its comma-separated values
    // (case-insensitive), e.g. hasToken("Connection", "close").
    bool hasToken(std::string_view name, std::string_view token) const;
    std::string_view path() const;   // target up to "?"
    std::string_view query() const;  // target after "?", or empty
};

// Parses a request head: the request line and header lines, each ended by CRLF, without the blank
// line that ends the head. No value for anything malformed (obs-fold, a header line without ":",
// white space before the colon, a bad request line).
std::optional<RequestHead> parseRequestHead(std::string_view text);

// A plain decimal number that fits in 64 bits, no sign, no white space.
std::optional<uint64_t> parseDecimal(std::string_view text);

// The percent-decoded value of the first `name=value` pair in `query`; no value when absent or
// when its escapes are malformed.
std::optional<std::string> queryParameter(std::string_view query, std::string_view name);

// Decodes %XX escapes; no value for a truncated or non-hexadecimal escape.
std::optional<std::string> percentDecode(std::string_view text);

// "HTTP/1.1 <status> <reason>\r\n" followed by the headers and the blank line.
std::string responseHead(int status,
                         const std::vector<std::pair<std::string, std::string>>& headers);

}  // namespace pellorin::receiver
