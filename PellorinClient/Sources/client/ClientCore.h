// ClientCore: the client itself, behind the host's PellorinClient interface. It owns the
// scheduling state (one Scheduler), the delegate registry, the files being read, and carries out
// what decideAttempt says each attempt's end means.
//
// Threads and who touches what:
// - host thread: construction, the delegate registry and the session supplier (before the
//   transfer), uploadPartRequest, waitUntilFinished; invalidateAndCancel from any thread;
// - "Retry Processing Queue" (scheduling queue): processWaitQueue and the attempts it starts;
//   an attempt whose session ends starts the next waiting part from the delegate queue;
// - "Delegate Queue": every session callback (through FilePartRequestDelegate), every delegate
//   notification and filesByPath_ (no lock: the queue runs one block at a time). Functions marked
//   "delegate queue only" check it in debug builds.
// Everything shared by more than one of these lives in scheduler_ (one lock) or is atomic.
//
// Ownership: the host holds the core through shared_ptr<PellorinClient>; each attempt holds it
// until its session has ended.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <pellorin/PellorinClient.h>
#include <pellorin/ThroughputMonitor.h>

#include "Platform/Semaphore.h"
#include "client/AttemptDecision.h"
#include "client/Scheduler.h"

namespace pellorin {

class FilePartRequestDelegate;
class RateLimiter;
class SharedFile;

class ClientCore final : public PellorinClient {
    struct Passkey {
        explicit Passkey() = default;
    };

  public:
    // The designated factory, for the library, the host tool and the tests. `rateLimiter` may
    // be null. Host thread.
    static std::shared_ptr<ClientCore> make(std::shared_ptr<RateLimiter> rateLimiter,
                                            uint8_t maxConnections, uint8_t maxRetries,
                                            Logger logger);
    static ClientCore& of(PellorinClient& client);  // every PellorinClient is one

    ClientCore(Passkey, std::shared_ptr<RateLimiter> rateLimiter, uint8_t maxConnections,
               uint8_t maxRetries, Logger logger);

    SessionConfigurationSupplier sessionConfigurationSupplier() const override {
        return sessionConfigurationSupplier_;
    }
    void setSessionConfigurationSupplier(SessionConfigurationSupplier supplier) override {
        sessionConfigurationSupplier_ = std::move(supplier);
    }
    void addDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate,
                     std::shared_ptr<SerialQueue> queue) override;
    void removeDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate) override;
    void uploadPartRequest(std::shared_ptr<FilePartRequest> partRequest) override;
    int32_t waitUntilFinished() override;
    void invalidateAndCancel() override;
    const Logger& logger() const override { return logger_; }
    uint8_t maxConnections() const override { return maxConnections_; }
    uint8_t maxRetries() const override { return maxRetries_; }

    // Shared by every part's body stream; may be null.
    const std::shared_ptr<RateLimiter>& rateLimiter() const { return rateLimiter_; }
    const std::shared_ptr<SerialQueue>& delegateQueue() const { return delegateQueue_; }

    // --- for the attempts (FilePartRequestDelegate) ---

    // The configuration of an attempt's session. Scheduling or delegate queue (startAttempt).
    SessionConfiguration sessionConfiguration() const;
    // The body of an attempt: a stream over the part's range of its shared file, opened on the
    // file's first part (which streams unthrottled; later parts share the limiter). No stream
    // when the file cannot be opened: the part has then failed. Delegate queue only.
    std::shared_ptr<FilePartInputStream> openBody(const std::shared_ptr<FilePartRequest>& part);
    enum class Delivery { asynchronous, synchronous };
    // Sends `message` to every live delegate through `event`. Delegate queue only.
    template <typename Message>
    void notify(void (PellorinClientDelegate::*event)(PellorinClient&,
                                                      const std::shared_ptr<const Message>&),
                std::shared_ptr<const Message> message, Delivery delivery) {
        notifyDelegates(
            [event, message](PellorinClientDelegate& delegate, PellorinClient& client) {
                (delegate.*event)(client, message);
            },
            delivery);
    }
    // Decides what the end of an attempt means and carries it out. Delegate queue only.
    void attemptDidEnd(const std::shared_ptr<FilePartRequest>& part, AttemptEnding ending,
                       const ThroughputMonitor& throughput);
    // The attempt's session has ended: frees its connection slot and wakes waitUntilFinished
    // when nothing is left. Delegate queue only.
    void attemptDidBecomeInvalid(const FilePartRequestDelegate& attempt);
    // Fails a part for good: records the error, reports the whole history. Delegate queue only.
    void failPart(const std::shared_ptr<FilePartRequest>& part, const PellorinError& error);

  private:
    struct RegisteredDelegate {
        std::weak_ptr<PellorinClientDelegate> delegate;
        std::shared_ptr<SerialQueue> queue;  // may be null: called on the delegate queue
    };

    // Sends one event to every live delegate, pruning released ones first. Delegate queue only.
    void notifyDelegates(const std::function<void(PellorinClientDelegate&, PellorinClient&)>& event,
                         Delivery delivery);
    // Submits processWaitQueue to the scheduling queue. Any thread.
    void submitProcessWaitQueue();
    // The scheduling loop: takes a connection slot (50 ms waits), then the next part. Scheduling
    // queue only.
    void processWaitQueue();
    // Starts one attempt of a part, in a connection slot already taken. Scheduling queue, or
    // the delegate queue handing on the slot of an attempt that ended.
    void startAttempt(const std::shared_ptr<FilePartRequest>& part);
    // Carrying out a decision. Delegate queue only.
    void completePart(const std::shared_ptr<FilePartRequest>& part, const std::string& eTag,
                      const ThroughputMonitor& throughput);
    void retryPart(const std::shared_ptr<FilePartRequest>& part,
                   const AttemptDecision::Retry& retry, uint64_t lostByteCount);
    // Wakes waitUntilFinished when nothing is waiting, starting or in flight. Any thread.
    void signalCompletionIfIdle(bool idle);
    void assertOnDelegateQueue() const;

    const Logger logger_;
    const std::shared_ptr<RateLimiter> rateLimiter_;
    const uint8_t maxConnections_;
    const uint8_t maxRetries_;
    SessionConfigurationSupplier sessionConfigurationSupplier_;  // host thread, before transfer
    std::vector<RegisteredDelegate> delegates_;  // filled before transfer; pruned on delegate queue
    const std::shared_ptr<ThroughputMonitor> aggregateThroughput_;  // also the first delegate

    Scheduler scheduler_;
    std::atomic<int64_t> partsRequested_{0};
    std::atomic<bool> cancelRequested_{false};  // invalidateAndCancel was called
    Semaphore completionSemaphore_{0};
    Semaphore maxConnectionsSemaphore_;
    const std::shared_ptr<SerialQueue> delegateQueue_;
    const std::shared_ptr<SerialQueue> schedulingQueue_;

    std::map<std::string, std::shared_ptr<SharedFile>> filesByPath_;  // delegate queue only
    int32_t exitStatus_ = 0;  // written by the final notification only
};

}  // namespace pellorin
