// PellorinClient: uploads the parts a host hands it, at most `maxConnections` at a time, each
// streamed from its file as the body of its own HTTP upload, verified against the server's
// checksum, retried up to `maxRetries` times, and reported to the registered delegates.
//
// Use: make a client with `standardClient`, register delegates, hand it every part with
// `uploadPartRequest`, then block in `waitUntilFinished`, which returns 0 when no part failed and
// 1 otherwise. A client is used for one transfer. `invalidateAndCancel` may come from any thread.
//
// Ownership: the host owns the client through std::shared_ptr; a part in flight keeps it alive
// until its session has ended. Delegates are held weakly: the host keeps them alive. A delegate
// registered with a queue is called on it; otherwise it is called on the client's delegate queue
// and must not block it.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <pellorin/Export.h>
#include <pellorin/FilePartRequest.h>
#include <pellorin/Logging.h>
#include <pellorin/PellorinClientDelegate.h>
#include <pellorin/SerialQueue.h>
#include <pellorin/SessionConfiguration.h>

namespace pellorin {

class RateLimiter;

class PELLORIN_EXPORT PellorinClient : public std::enable_shared_from_this<PellorinClient> {
  public:
    using SessionConfigurationSupplier = std::function<SessionConfiguration()>;

    // The factory. `rateLimit` in KB/s (times 1000 permits, i.e. bytes, per second); absent for
    // no limit. Host thread.
    static std::shared_ptr<PellorinClient> standardClient(std::optional<uint64_t> rateLimit,
                                                          uint8_t maxConnections,
                                                          uint8_t maxRetries);
    // The designated constructor, for the library and its tests. `rateLimiter` may be null.
    static std::shared_ptr<PellorinClient> make(std::shared_ptr<RateLimiter> rateLimiter,
                                                uint8_t maxConnections, uint8_t maxRetries,
                                                Logger logger);
    PellorinClient() = delete;
    PellorinClient(const PellorinClient&) = delete;
    PellorinClient& operator=(const PellorinClient&) = delete;
    ~PellorinClient();

    // The library's bundle identifier and its short version string.
    static std::string bundle();
    static std::optional<std::string> versionString();

    // When set, each part's HTTP session is built from the supplier's result (called once per
    // attempt) instead of the default configuration. Set before the transfer starts.
    SessionConfigurationSupplier sessionConfigurationSupplier() const;
    void setSessionConfigurationSupplier(SessionConfigurationSupplier supplier);

    // Registers a listener, held weakly; `queue` may be null. No duplicate check: a delegate
    // added twice is called twice. Fill the registry before the transfer starts (no lock).
    void addDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate,
                     std::shared_ptr<SerialQueue> queue);
    // Removes every entry for `delegate` (identity); entries of released delegates stay.
    void removeDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate);

    // Queues one part. Nothing starts before `waitUntilFinished`. Any thread.
    void uploadPartRequest(std::shared_ptr<FilePartRequest> partRequest);

    // Runs the transfer and blocks until every part has completed or failed; returns the exit
    // status (0: no part failed, 1 otherwise). Returns 0 at once when no part was queued.
    int32_t waitUntilFinished();

    // Cancels: sessions in flight end as cancelled, waiting parts fail with `cancelledByUser`.
    // One-way; a second call only logs. Any thread.
    void invalidateAndCancel();

    const Logger& logger() const;
    uint8_t maxConnections() const;
    uint8_t maxRetries() const;
    std::shared_ptr<RateLimiter> rateLimiter() const;

    // The client's internal state; defined inside the library.
    struct State;

    // Only the library can make one of these, so only `make` can construct a client.
    class ConstructionKey {
        friend class PellorinClient;
        ConstructionKey() = default;
    };
    PellorinClient(ConstructionKey, std::shared_ptr<RateLimiter> rateLimiter,
                   uint8_t maxConnections, uint8_t maxRetries, Logger logger);

  private:
    friend struct ClientAccess;
    std::unique_ptr<State> state_;
};

}  // namespace pellorin
