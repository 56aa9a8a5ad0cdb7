// Errors of the HTTP session service: kURLErrorDomain errors with readable descriptions, and the
// one table that turns a libcurl result code into such an error. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <pellorin/PlatformError.h>

namespace pellorin {

namespace URLError {
// A failure the other codes do not describe (out of memory, a libcurl misuse).
inline constexpr int64_t unknown = -1;
}  // namespace URLError

// The user-info key holding the URL of the request that failed, when known.
inline constexpr std::string_view kFailingURLKey = "failingURL";
// The user-info key holding libcurl's numeric result code, when the error came from libcurl.
inline constexpr std::string_view kCurlCodeKey = "curlCode";

// A kURLErrorDomain error with the standard description of `code` and, when not empty, the
// underlying library's text under kUnderlyingErrorTextKey.
PlatformError urlError(int64_t code, const std::string& underlyingText = {});

// The URL error for a libcurl result code (a CURLcode), or no value for success. The text is
// libcurl's own message for the failure; it goes into the user info, and tells a reply that is
// not HTTP at all apart from an unsupported scheme (libcurl reports both with one code).
std::optional<PlatformError> platformErrorFromCurlCode(int curlCode,
                                                       const std::string& curlErrorText);

}  // namespace pellorin
