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

// The host's view of a client. The library's implementation sits behind this interface; only
// `standardClient` makes one.
class PELLORIN_EXPORT PellorinClient : public std::enable_shared_from_this<PellorinClient> {
  public:
    using SessionConfigurationSupplier = std::function<SessionConfiguration()>;

    // The factory. `rateLimit` in KB/s (times 1000 permits, i.e. bytes, per second); absent for
    // no limit. Host thread.
    static std::shared_ptr<PellorinClient> standardClient(std::optional<uint64_t> rateLimit,
                                                          uint8_t maxConnections,
                                                          uint8_t maxRetries);
    PellorinClient(const PellorinClient&) = delete;
    PellorinClient& operator=(const PellorinClient&) = delete;
    virtual ~PellorinClient();

    // The library's bundle identifier and its short version string.
    static std::string bundle();
    static std::optional<std::string> versionString();

    // When set, each part's HTTP session is built from the supplier's result (called once per
    // attempt) instead of the default configuration. Set before the transfer starts.
    virtual SessionConfigurationSupplier sessionConfigurationSupplier() const = 0;
    virtual void setSessionConfigurationSupplier(SessionConfigurationSupplier supplier) = 0;

    // Registers a listener, held weakly; `queue` may be null. No duplicate check: a delegate
    // added twice is called twice. Fill the registry before the transfer starts (no lock).
    virtual void addDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate,
                             std::shared_ptr<SerialQueue> queue) = 0;
    // Removes every entry for `delegate` (identity); entries of released delegates stay.
    virtual void removeDelegate(const std::shared_ptr<PellorinClientDelegate>& delegate) = 0;

    // Queues one part. Nothing starts before `waitUntilFinished`. After `invalidateAndCancel`
    // the part fails with `cancelledByUser`, like the parts that were waiting. Any thread.
    virtual void uploadPartRequest(std::shared_ptr<FilePartRequest> partRequest) = 0;

    // Runs the transfer and blocks until every part has completed or failed; returns the exit
    // status (0: no part failed, 1 otherwise). Returns 0 at once when no part was queued.
    virtual int32_t waitUntilFinished() = 0;

    // Cancels: sessions in flight end as cancelled, waiting parts fail with `cancelledByUser`.
    // One-way; a second call only logs. Any thread.
    virtual void invalidateAndCancel() = 0;

    virtual const Logger& logger() const = 0;
    virtual uint8_t maxConnections() const = 0;
    virtual uint8_t maxRetries() const = 0;

  protected:
    PellorinClient() = default;
};

}  // namespace pellorin
