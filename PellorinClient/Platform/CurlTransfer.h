// CurlTransfer: one HTTP exchange of an upload task, driven by libcurl on the calling thread
// with that transfer thread's handles (so an open connection to the same server is reused).
//
// The task's transfer thread makes it, calls perform() once and destroys it; cancel() may come
// from any thread meanwhile and ends a running perform() within milliseconds (the transfer
// waits in curl_multi_poll, which cancel() wakes). The body is pulled from the stream by
// libcurl's read callback on the transfer thread, so a read that sleeps (rate limiting) holds up
// this transfer only. Observer callbacks also run on the transfer thread. Internal to the HTTP
// session service: it does not know about sessions, delegates or queues.
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
    std::optional<PlatformError> error;            // none on success (any HTTP status)
    std::shared_ptr<const HttpResponse> response;  // the final response, when one arrived
    TransactionMetrics metrics;
    std::vector<uint8_t> responseBody;  // kept only when asked for
};

struct TransferObserver {
    // The final response's status line and headers have arrived.
    std::function<void(std::shared_ptr<const HttpResponse>)> responseReceived;
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
