// What the end of one attempt of a part means: the part completed, is retried (after which wait,
// for which error) or failed for good. The one place that decides a part's fate; the client
// only carries the decision out. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include <pellorin/PellorinError.h>

#include "datapath/FilePartInputStream.h"

namespace pellorin {

class HttpResponse;

// What an attempt ended with, and where its part stood.
struct AttemptEnding {
    std::optional<PlatformError> error;     // the transport's error; none when an answer arrived
    int64_t statusCode = 0;                 // the answer's HTTP status
    std::optional<std::string> retryAfter;  // the answer's "Retry-After" header
    std::optional<std::string> remoteChecksum;  // from remoteChecksum(answer)
    std::optional<ChecksumStatus> checksum;     // the body stream's verdict on remoteChecksum
    uint64_t bytesSent = 0;                     // body bytes the transport sent
    uint64_t length = 0;                        // the part's length
    std::optional<std::string> sourceChanged;   // why the body's file is not the one opened
    bool cancelled = false;                     // the client is being cancelled
    size_t retryCount = 0;                      // the part's retries so far
    uint8_t maxRetries = 0;
};

struct AttemptDecision {
    struct Complete {
        std::string eTag;
    };
    struct Retry {
        std::optional<double> wait;  // seconds; none: no wait (the part is queued at once)
        PellorinError error;         // the reason, for the retry report
    };
    struct Fail {
        PellorinError error;
    };
    std::variant<Complete, Retry, Fail> outcome;
    std::optional<PellorinError> recorded;  // joins the part's error history before all else
    size_t retryCount = 0;                  // the part's retry count from now on
    std::optional<std::string> warning;     // a line for the log
};

// The server's checksum of the body: the "Content-MD5" header as lower-case hexadecimal when it
// is strict base64, otherwise the "ETag" header as sent; none when neither is usable.
std::optional<std::string> remoteChecksum(const HttpResponse& response);

AttemptDecision decideAttempt(const AttemptEnding& ending);

}  // namespace pellorin
