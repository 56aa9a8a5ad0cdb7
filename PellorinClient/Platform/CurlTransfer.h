// CurlTransfer: one HTTP exchange of an upload task, driven by libcurl on the calling thread
// with that transfer thread's handles (so an open connection to the same server is reused).
//
// The task's transfer thread makes it, calls perform() once and destroys it; cancel() may come
// from any thread meanwhile and ends a running perform() within milliseconds (the transfer
// waits in curl_multi_poll, which cancel() wakes). The body is pulled from the stream by
// libcurl's read callback on the transfer thread, so a read that sleeps (rate limiting) holds up
// this transfer only. Observer callbacks also run on the transfer thread. Internal to the HTTP
// session service: it does not know about sessions, delegates or queues.
//
// What the outcome promises: no error means libcurl parsed a final answer (status 200-999) and
// every byte of a body of known length went out before it. An answer that came earlier is an
// error (URLError::networkConnectionLost, its description naming the status and the bytes sent),
// since the server cannot have stored what it never received. The idle time-out is the session's;
// once the body has gone out or the answer has begun, the whole answer must arrive within one
// more idle time-out, or the transfer ends as timed out.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/PlatformError.h>
#include <pellorin/SessionConfiguration.h>

#include "Platform/HttpMessage.h"
#include "Platform/InputStream.h"
#include "Platform/TaskMetrics.h"
#include "Platform/TransferThreads.h"

namespace pellorin {

struct TransferOutcome {
    std::optional<PlatformError> error;  // none on success (any HTTP status)
    // The final response as libcurl parsed it; set exactly when there is no error.
    std::shared_ptr<const HttpResponse> response;
    TransactionMetrics metrics;
    std::vector<uint8_t> responseBody;  // kept only when asked for
};

struct TransferObserver {
    // Request body bytes went out: since the last call, and in total. The calls are coalesced;
    // their sum is the body bytes sent.
    std::function<void(int64_t bytesSent, int64_t totalBytesSent)> bodyBytesSent;
};

class CurlTransfer {
  public:
    // `handles` are the calling transfer thread's, used by this transfer until it is destroyed.
    // `body` must be open; `bodyLength` is requestBodyLength(request) (-1 for unknown). The
    // response body is discarded unless `keepResponseBody` is set.
    CurlTransfer(const CurlHandles& handles, const SessionConfiguration& configuration,
                 const HttpRequest& request, std::shared_ptr<InputStream> body, int64_t bodyLength,
                 bool keepResponseBody, TransferObserver observer);
    ~CurlTransfer();
    CurlTransfer(const CurlTransfer&) = delete;
    CurlTransfer& operator=(const CurlTransfer&) = delete;

    // Runs the exchange to its end. Transfer thread, once.
    TransferOutcome perform();
    // Ends a running perform() with URLError::cancelled as soon as possible. Any thread.
    void cancel();

  private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace pellorin
