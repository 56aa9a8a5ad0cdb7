// SessionConfiguration: how an HTTP session connects (time-outs, TLS, proxy, HTTP version).
// Plain value; the host may supply one per part through the client's configuration supplier.
#pragma once

#include <optional>
#include <string>

#include <pellorin/Export.h>

namespace pellorin {

// TLS protocol versions, valued as on the wire.
enum class TLSVersion : unsigned { v1_0 = 0x0301, v1_1 = 0x0302, v1_2 = 0x0303, v1_3 = 0x0304 };

enum class HttpVersion { http1_1, http2 };

struct PELLORIN_EXPORT SessionConfiguration {
    // No persistent cookies, cache or credentials (the only kind this library makes).
    static SessionConfiguration ephemeral() { return SessionConfiguration{}; }

    // Idle time-out in seconds: a task fails as timed out when no byte has moved for this long.
    // It alone governs a task's idle time; a request's own time-out does not shorten it. It also
    // bounds the answer: once the body has gone out or the answer has begun, the whole answer
    // must arrive within one more idle time-out, so an answer that trickles in ends as timed out.
    double timeoutIntervalForRequest = 60.0;
    // Connections below this TLS version are refused. Certificate verification is always on.
    TLSVersion minimumTLSVersion = TLSVersion::v1_2;
    // Trust: a CA bundle file and/or a directory of hashed CA certificates. When neither is set,
    // the system's trust store is used. These are the only settings that change trust.
    std::optional<std::string> caFile;
    std::optional<std::string> caDirectory;
    // Proxy URL ("http://host:port"); absent means no proxy, whatever the environment says.
    std::optional<std::string> proxy;
    HttpVersion httpVersion = HttpVersion::http1_1;
};

}  // namespace pellorin
