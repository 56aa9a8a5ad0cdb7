// The transfer client's internal state and the operations the client's parts share.
//
// Who may touch what:
// - host thread: construction, the delegate registry (before the transfer), uploadPartRequest,
//   waitUntilFinished, invalidateAndCancel;
// - "Retry Processing Queue" (waitQueueProcessingQueue): the scheduling loop and startUpload;
// - "Delegate Queue" (delegateQueue): every HTTP session callback, every delegate notification,
//   completedRequests and filesByPath (no lock: the queue has width 1).
// Values read or written from more than one of these are Atomic / AtomicArray.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/PellorinClient.h>
#include <pellorin/PellorinError.h>
#include <pellorin/ThroughputMonitor.h>

#include "Platform/Semaphore.h"
#include "client/ExponentialBackoff.h"
#include "client/RetryAfter.h"
#include "client/TransferState.h"
#include "datapath/Atomic.h"

namespace pellorin {

class FilePartRequestDelegate;
class HttpResponse;
class SharedFile;

// One registered listener: held weakly, with the queue it wants to be called on (may be null).
struct WeakPellorinDelegate {
    std::weak_ptr<PellorinClientDelegate> delegate;
    std::shared_ptr<SerialQueue> queue;
};

// A part waiting for a connection slot. Retried parts carry a later notBefore, which orders the
// queue but does not hold the part back.
struct WaitQueueEntry {
    std::chrono::system_clock::time_point notBefore;
    std::shared_ptr<FilePartRequest> partRequest;
};

struct PellorinClient::State {
    Logger logger;
    std::shared_ptr<RateLimiter> rateLimiter;  // shared by every part's body stream; may be null
    uint8_t maxConnections;
    uint8_t maxRetries;
    SessionConfigurationSupplier sessionConfigurationSupplier;     // host thread, before transfer
    std::vector<std::shared_ptr<WeakPellorinDelegate>> delegates;  // pruned on delegateQueue
    Atomic<int64_t> partsRequested{0};
    std::shared_ptr<ThroughputMonitor> aggregateThroughput;  // also the first delegate
    ExponentialBackoff backoff{2.0, 0.5};
    std::unique_ptr<Semaphore> completionSemaphore;
    std::shared_ptr<SerialQueue> delegateQueue;
    Atomic<bool> cancelled{false};
    std::vector<TransferState> completedRequests;  // delegateQueue only
    AtomicArray<std::shared_ptr<FilePartRequestDelegate>> filePartDelegates;
    std::map<std::string, std::shared_ptr<SharedFile>> filesByPath;  // delegateQueue only
    std::unique_ptr<Semaphore> maxConnectionsSemaphore;
    std::shared_ptr<SerialQueue> waitQueueProcessingQueue;
    AtomicArray<WaitQueueEntry> waitQueue;
    // Parts taken from waitQueue whose session delegate is not yet in filePartDelegates. Counted
    // so that the "nothing left" check never fires in the gap between the two.
    Atomic<int64_t> partsStarting{0};
    // Set when the cancellation starts on delegateQueue, before it looks for sessions to cancel:
    // a part whose delegate joins filePartDelegates after that look cancels its own session.
    Atomic<bool> cancellationBegun{false};
    int32_t exitStatus = 0;  // written by the final notification only

    State(std::shared_ptr<RateLimiter> limiter, uint8_t connections, uint8_t retries, Logger log);
};

// How a notification reaches a delegate that registered a queue.
enum class Delivery { asynchronous, synchronous };

struct ClientAccess {
    static PellorinClient::State& state(PellorinClient& client) { return *client.state_; }
};

namespace client {

// Sends one event to every live delegate, pruning released ones first. delegateQueue only.
void notifyDelegates(PellorinClient& client,
                     const std::function<void(PellorinClientDelegate&, PellorinClient&)>& event,
                     Delivery delivery);

// Appends a part to the wait queue with the given notBefore. Any thread.
void enqueue(PellorinClient& client, std::chrono::system_clock::time_point notBefore,
             std::shared_ptr<FilePartRequest> partRequest);

// Submits the scheduling loop to waitQueueProcessingQueue. Any thread.
void submitProcessWaitQueue(PellorinClient& client);

// The scheduling loop. waitQueueProcessingQueue only.
void processWaitQueue(PellorinClient& client);

// Starts one attempt of a part. waitQueueProcessingQueue only.
void startUpload(PellorinClient& client, const std::shared_ptr<FilePartRequest>& partRequest);

// Fails a part for good: records the error, reports the whole history. delegateQueue only.
void failPart(PellorinClient& client, const std::shared_ptr<FilePartRequest>& partRequest,
              const PellorinError& error);

// Fails every waiting part with cancelledByUser, in queue order. Requires `cancelled` (a fatal
// stop otherwise). delegateQueue only.
void clearWaitQueue(PellorinClient& client);

// Puts a part back into the wait queue after a retryable ending, or fails it when its retry
// budget is spent. delegateQueue only.
void requeuePartRequest(PellorinClient& client, const std::shared_ptr<FilePartRequest>& request,
                        uint64_t lostByteCount, std::optional<double> afterSecs,
                        const PellorinError& error);
void requeuePartRequest(PellorinClient& client, const std::shared_ptr<FilePartRequest>& request,
                        uint64_t lostByteCount, const HttpResponse& response);

// Signals completionSemaphore when no part is in flight, starting or waiting. delegateQueue only.
void signalCompletionIfIdle(PellorinClient& client);

}  // namespace client
}  // namespace pellorin
