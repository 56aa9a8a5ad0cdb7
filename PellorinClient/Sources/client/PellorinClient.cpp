// The client's lifecycle: construction, the delegate registry and its fan-out, the finishing
// handshake of waitUntilFinished, cancellation and teardown.
#include <pellorin/PellorinClient.h>

#include <pellorin/Version.h>

#include <algorithm>
#include <thread>

#include "Platform/Fatal.h"
#include "Platform/HttpSession.h"
#include "client/ClientState.h"
#include "client/FilePartRequestDelegate.h"
#include "datapath/RateLimiter.h"
#include "datapath/SharedFile.h"

namespace pellorin {

namespace {
// The label of the logger every standard client logs through.
constexpr const char* kLoggerLabel = "org.pellorin.transport.upload";
}  // namespace

PellorinClient::State::State(std::shared_ptr<RateLimiter> limiter, uint8_t connections,
                             uint8_t retries, Logger log)
    : logger(std::move(log)),
      rateLimiter(std::move(limiter)),
      maxConnections(connections),
      maxRetries(retries),
      aggregateThroughput(std::make_shared<ThroughputMonitor>()),
      completionSemaphore(std::make_unique<Semaphore>(0)),
      delegateQueue(SerialQueue::make("Delegate Queue")),
      maxConnectionsSemaphore(std::make_unique<Semaphore>(connections)),
      waitQueueProcessingQueue(SerialQueue::make("Retry Processing Queue")) {}

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
    return make(std::move(limiter), maxConnections, maxRetries, Logger(kLoggerLabel));
}

std::shared_ptr<PellorinClient> PellorinClient::make(std::shared_ptr<RateLimiter> rateLimiter,
                                                     uint8_t maxConnections, uint8_t maxRetries,
                                                     Logger logger) {
    auto client = std::make_shared<PellorinClient>(ConstructionKey{}, std::move(rateLimiter),
                                                   maxConnections, maxRetries, std::move(logger));
    // The aggregate monitor is the first delegate, so it sees every event the host's do.
    client->addDelegate(client->state_->aggregateThroughput, nullptr);
    return client;
}

PellorinClient::PellorinClient(ConstructionKey, std::shared_ptr<RateLimiter> rateLimiter,
                               uint8_t maxConnections, uint8_t maxRetries, Logger logger)
    : state_(std::make_unique<State>(std::move(rateLimiter), maxConnections, maxRetries,
                                     std::move(logger))) {}

PellorinClient::~PellorinClient() {
    state_->completionSemaphore.reset();
    state_->maxConnectionsSemaphore.reset();
}

std::string PellorinClient::bundle() {
    return build::kBundleIdentifier;
}

std::optional<std::string> PellorinClient::versionString() {
    const std::string version = build::kVersionString;
    return version.empty() ? std::nullopt : std::optional<std::string>(version);
}

PellorinClient::SessionConfigurationSupplier PellorinClient::sessionConfigurationSupplier() const {
    return state_->sessionConfigurationSupplier;
}

void PellorinClient::setSessionConfigurationSupplier(SessionConfigurationSupplier supplier) {
    state_->sessionConfigurationSupplier = std::move(supplier);
}

void PellorinClient::addDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate,
                                 std::shared_ptr<SerialQueue> queue) {
    auto entry = std::make_shared<WeakPellorinDelegate>();
    entry->delegate = delegate;
    entry->queue = std::move(queue);
    state_->delegates.push_back(std::move(entry));
}

void PellorinClient::removeDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate) {
    std::erase_if(state_->delegates, [&](const std::shared_ptr<WeakPellorinDelegate>& entry) {
        const auto live = entry->delegate.lock();
        return live && live == delegate;
    });
}

const Logger& PellorinClient::logger() const {
    return state_->logger;
}
uint8_t PellorinClient::maxConnections() const {
    return state_->maxConnections;
}
uint8_t PellorinClient::maxRetries() const {
    return state_->maxRetries;
}
std::shared_ptr<RateLimiter> PellorinClient::rateLimiter() const {
    return state_->rateLimiter;
}

void client::notifyDelegates(
    PellorinClient& client,
    const std::function<void(PellorinClientDelegate&, PellorinClient&)>& event, Delivery delivery) {
    auto& state = ClientAccess::state(client);
    // Released delegates are dropped here and only here.
    std::erase_if(state.delegates, [](const std::shared_ptr<WeakPellorinDelegate>& entry) {
        return entry->delegate.expired();
    });
    const auto entries = state.delegates;
    for (const auto& entry : entries) {
        std::shared_ptr<PellorinClientDelegate> delegate = entry->delegate.lock();
        if (!delegate) {
            continue;
        }
        if (!entry->queue) {
            event(*delegate, client);
        } else if (delivery == Delivery::synchronous) {
            entry->queue->sync([&] { event(*delegate, client); });
        } else {
            // The work item keeps the delegate, the event and the client alive until it runs.
            std::shared_ptr<PellorinClient> self = client.shared_from_this();
            entry->queue->async([delegate, self, event] { event(*delegate, *self); });
        }
    }
}

void client::signalCompletionIfIdle(PellorinClient& client) {
    auto& state = ClientAccess::state(client);
    // Read in this order: a part leaves waitQueue before it is counted as starting, and is
    // in filePartDelegates before it stops being counted, so no part can slip between reads.
    if (!state.waitQueue.empty() || state.partsStarting.load() != 0 ||
        !state.filePartDelegates.empty()) {
        return;
    }
    if (!state.completionSemaphore) {
        return;  // the client is being torn down
    }
    const long woke = state.completionSemaphore->signal();
    state.logger.trace([&] {
        return "completionSemaphore value at didCompleteWithError, count: " + std::to_string(woke);
    });
}

void client::clearWaitQueue(PellorinClient& client) {
    auto& state = ClientAccess::state(client);
    // Every waiting part fails, in queue order, and never starts. The entries are taken out in
    // one step, so a part is either failed here or started by the scheduling loop, never both.
    std::vector<WaitQueueEntry> waiting;
    state.waitQueue.modifyAll([&](std::vector<WaitQueueEntry>& entries) {
        if (!state.cancelled.load()) {
            fatalError("Called clearWaitQueue without being cancelled.");
        }
        waiting.swap(entries);
    });
    for (const auto& entry : waiting) {
        client::failPart(client, entry.partRequest, PellorinError::cancelledByUser());
    }
}

int32_t PellorinClient::waitUntilFinished() {
    State& state = *state_;
    if (state.partsRequested.load() == 0) {
        return state.exitStatus;
    }
    client::submitProcessWaitQueue(*this);
    state.logger.trace([] { return std::string("waitUntilFinished... 1"); });
    if (!state.completionSemaphore) {
        fatalError("completionSemaphore is gone while waiting for the transfer to finish");
    }
    state.completionSemaphore->wait();
    state.logger.trace([] { return std::string("after waitUntilFinished... 1"); });

    // Drain: wait until no session delegate holds an HTTP session any more.
    for (;;) {
        const auto delegates = state.filePartDelegates.snapshot();
        const bool anySession = std::any_of(delegates.begin(), delegates.end(),
                                            [](const auto& d) { return d->currentSession(); });
        if (!anySession) {
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    state.logger.trace([] { return std::string("waitUntilFinished (cleanup)..."); });

    // The final notification runs on the delegate queue, ordered after every session callback.
    state.delegateQueue->sync([&] {
        auto& monitor = *state.aggregateThroughput;
        const auto now = std::chrono::system_clock::now();
        if (!monitor.startTime) {
            monitor.startTime = now;
        }
        monitor.endTime = now;
        auto metrics = monitor.metrics(state.partsRequested.load());
        state.exitStatus = monitor.failureCounter != 0 ? 1 : 0;
        const int32_t status = state.exitStatus;
        client::notifyDelegates(
            *this,
            [status, metrics](PellorinClientDelegate& delegate, PellorinClient& client) {
                delegate.pellorinClientDidFinishWithStatus(client, status, metrics);
            },
            Delivery::asynchronous);
    });
    state.logger.trace([] { return std::string("after waitUntilFinished (cleanup)..."); });
    state.logger.debug(
        [&] { return "returning with exit code: " + std::to_string(state.exitStatus); });
    return state.exitStatus;
}

void PellorinClient::invalidateAndCancel() {
    State& state = *state_;
    if (state.cancelled.load()) {
        state.logger.error([] { return std::string("Upload was previously cancelled."); });
        return;
    }
    state.logger.error([] { return std::string("Upload cancelled by user."); });
    std::shared_ptr<PellorinClient> self = shared_from_this();
    state.delegateQueue->async([self] {
        State& state = *self->state_;
        state.cancellationBegun.store(true);
        for (const auto& delegate : state.filePartDelegates.snapshot()) {
            if (auto session = delegate->currentSession()) {
                session->invalidateAndCancel();
            }
        }
        state.cancelled.store(true);
        client::clearWaitQueue(*self);
        if (state.maxConnectionsSemaphore) {
            state.maxConnectionsSemaphore->signal();
        }
        // With nothing in flight no session will end to wake waitUntilFinished: wake it here.
        client::signalCompletionIfIdle(*self);
    });
}

}  // namespace pellorin
