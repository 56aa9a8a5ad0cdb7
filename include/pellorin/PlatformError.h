// PlatformError: an error of the platform layer (URL loading, operating-system status), with a
// domain, a code, a readable description and string details. Cheap value type.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include <pellorin/Export.h>

namespace pellorin {

// The domain of every error of the HTTP session service.
inline constexpr std::string_view kURLErrorDomain = "URLErrorDomain";
// The domain of errors carrying an operating-system status (secure random source).
inline constexpr std::string_view kOSStatusErrorDomain = "OSStatusErrorDomain";
// The domain of errors carrying an errno value.
inline constexpr std::string_view kPOSIXErrorDomain = "POSIXErrorDomain";

// Codes of kURLErrorDomain.
namespace URLError {
inline constexpr int64_t cancelled = -999;
inline constexpr int64_t badURL = -1000;
inline constexpr int64_t timedOut = -1001;
inline constexpr int64_t unsupportedURL = -1002;
inline constexpr int64_t cannotFindHost = -1003;
inline constexpr int64_t cannotConnectToHost = -1004;
inline constexpr int64_t networkConnectionLost = -1005;
inline constexpr int64_t dnsLookupFailed = -1006;
inline constexpr int64_t badServerResponse = -1011;
inline constexpr int64_t cannotParseResponse = -1017;
inline constexpr int64_t requestBodyStreamExhausted = -1021;
inline constexpr int64_t secureConnectionFailed = -1200;
inline constexpr int64_t serverCertificateUntrusted = -1202;
}  // namespace URLError

// The user-info key under which the underlying library's own error text is kept.
inline constexpr std::string_view kUnderlyingErrorTextKey = "underlyingErrorText";

struct PELLORIN_EXPORT PlatformError {
    std::string domain;
    int64_t code = 0;
    std::string localizedDescription;
    std::map<std::string, std::string> userInfo;

    // "Error Domain=<domain> Code=<code> \"<localizedDescription>\"".
    std::string description() const;
};

}  // namespace pellorin
