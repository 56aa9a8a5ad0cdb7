// The client's lifecycle: construction, the delegate registry and its fan-out, the finishing
// handshake of waitUntilFinished, cancellation and teardown.
#include "client/ClientCore.h"

#include <pellorin/Version.h>

#include <algorithm>
#include <cassert>

#include "Platform/Fatal.h"
#include "Platform/HttpSession.h"
#include "datapath/RateLimiter.h"

namespace pellorin {

PellorinClient::~PellorinClient() = default;

std::shared_ptr<PellorinClient> PellorinClient::standardClient(std::optional<uint64_t> rateLimit,
                                                               uint8_t maxConnections,
                                                               uint8_t maxRetries) {
    std::shared_ptr<RateLimiter> limiter;
    if (rateLimit) {
        uint64_t permitsPerSecond = 0;
        if (__builtin_mul_overflow(*rateLimit, uint64_t{1000}, &permitsPerSecond)) {
            fatalError("rate limit " + std::to_string(*rateLimit) + " KB/s overflows 64 bits");
        }
        limiter = RateLimiter::make(permitsPerSecond);
    }
    // Every standard client logs through a logger of this label.
    return ClientCore::make(std::move(limiter), maxConnections, maxRetries,
                            Logger("org.pellorin.transport.upload"));
}

std::string PellorinClient::bundle() {
    return build::kBundleIdentifier;
}

std::optional<std::string> PellorinClient::versionString() {
    const std::string version = build::kVersionString;
    return version.empty() ? std::nullopt : std::optional<std::string>(version);
}

std::shared_ptr<ClientCore> ClientCore::make(std::shared_ptr<RateLimiter> rateLimiter,
                                             uint8_t maxConnections, uint8_t maxRetries,
                                             Logger logger) {
    auto core = std::make_shared<ClientCore>(Passkey{}, std::move(rateLimiter), maxConnections,
                                             maxRetries, std::move(logger));
    // The aggregate monitor is the first delegate, so it sees every event the host's do.
    core->addDelegate(core->aggregateThroughput_, nullptr);
    return core;
}

ClientCore& ClientCore::of(PellorinClient& client) {
    return static_cast<ClientCore&>(client);
}

ClientCore::ClientCore(Passkey, std::shared_ptr<RateLimiter> rateLimiter, uint8_t maxConnections,
                       uint8_t maxRetries, Logger logger)
    : logger_(std::move(logger)),
      rateLimiter_(std::move(rateLimiter)),
      maxConnections_(maxConnections),
      maxRetries_(maxRetries),
      aggregateThroughput_(std::make_shared<ThroughputMonitor>()),
      maxConnectionsSemaphore_(maxConnections),
      delegateQueue_(SerialQueue::make("Delegate Queue")),
      schedulingQueue_(SerialQueue::make("Retry Processing Queue")) {}

void ClientCore::addDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate,
                             std::shared_ptr<SerialQueue> queue) {
    delegates_.push_back({delegate, std::move(queue)});
}

void ClientCore::removeDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate) {
    std::erase_if(delegates_, [&](const RegisteredDelegate& entry) {
        const auto live = entry.delegate.lock();
        return live && live == delegate;
    });
}

void ClientCore::assertOnDelegateQueue() const {
    assert(delegateQueue_->isCurrent() && "delegate queue only");
}

void ClientCore::notifyDelegates(
    const std::function<void(PellorinClientDelegate&, PellorinClient&)>& event, Delivery delivery) {
    assertOnDelegateQueue();
    // Released delegates are dropped here and only here.
    std::erase_if(delegates_,
                  [](const RegisteredDelegate& entry) { return entry.delegate.expired(); });
    const auto entries = delegates_;
    for (const auto& entry : entries) {
        std::shared_ptr<PellorinClientDelegate> delegate = entry.delegate.lock();
        if (!delegate) {
            continue;
        }
        if (!entry.queue) {
            event(*delegate, *this);
        } else if (delivery == Delivery::synchronous) {
            entry.queue->sync([&] { event(*delegate, *this); });
        } else {
            // The work item keeps the delegate, the event and the client alive until it runs.
            std::shared_ptr<PellorinClient> self = shared_from_this();
            entry.queue->async([delegate, self, event] { event(*delegate, *self); });
        }
    }
}

void ClientCore::signalCompletionIfIdle(bool idle) {
    if (!idle) {
        return;
    }
    const long woke = completionSemaphore_.signal();
    logger_.trace([&] {
        return "completionSemaphore value at didCompleteWithError, count: " + std::to_string(woke);
    });
}

int32_t ClientCore::waitUntilFinished() {
    if (partsRequested_.load() == 0) {
        return exitStatus_;
    }
    submitProcessWaitQueue();
    logger_.trace([] { return std::string("waitUntilFinished... 1"); });
    completionSemaphore_.wait();
    logger_.trace([] { return std::string("after waitUntilFinished... 1"); });

    // The final notification runs on the delegate queue, ordered after every session callback.
    delegateQueue_->sync([&] {
        auto& monitor = *aggregateThroughput_;
        const auto now = std::chrono::system_clock::now();
        if (!monitor.startTime) {
            monitor.startTime = now;
        }
        monitor.endTime = now;
        auto metrics = monitor.metrics(partsRequested_.load());
        exitStatus_ = monitor.failureCounter != 0 ? 1 : 0;
        const int32_t status = exitStatus_;
        notifyDelegates(
            [status, metrics](PellorinClientDelegate& delegate, PellorinClient& client) {
                delegate.pellorinClientDidFinishWithStatus(client, status, metrics);
            },
            Delivery::asynchronous);
    });
    logger_.trace([] { return std::string("after waitUntilFinished (cleanup)..."); });
    logger_.debug([&] { return "returning with exit code: " + std::to_string(exitStatus_); });
    return exitStatus_;
}

void ClientCore::invalidateAndCancel() {
    if (cancelRequested_.exchange(true)) {
        logger_.error([] { return std::string("Upload was previously cancelled."); });
        return;
    }
    logger_.error([] { return std::string("Upload cancelled by user."); });
    // Carried out on the delegate queue, in order with the endings of the attempts in flight.
    std::shared_ptr<ClientCore> self = std::static_pointer_cast<ClientCore>(shared_from_this());
    delegateQueue_->async([self] {
        const Scheduler::Cancellation cancellation = self->scheduler_.beginCancel();
        // Attempts registered from now on cancel their own sessions.
        for (const auto& session : cancellation.sessions) {
            session->invalidateAndCancel();
        }
        // Every waiting part fails, in queue order, and never starts.
        for (const auto& part : cancellation.waiting) {
            self->failPart(part, PellorinError::cancelledByUser());
        }
        self->maxConnectionsSemaphore_.signal();
        // With nothing in flight no session will end to wake waitUntilFinished: wake it here.
        self->signalCompletionIfIdle(self->scheduler_.isIdle());
    });
}

}  // namespace pellorin
