// PellorinClientDelegate: the listener interface through which a client reports every event of a
// transfer. All eight methods must be implemented; a delegate with nothing to do for an event
// leaves the body empty.
//
// Ownership: the host holds its delegates as std::shared_ptr; the client holds them weakly and
// skips a delegate that has gone away. Threads: each method runs on the queue the delegate was
// registered with, or on the client's delegate queue when it gave none; a delegate must not block
// the client's delegate queue. Messages are shared and immutable: several delegates may hold the
// same object, on different threads.
#pragma once

#include <cstdint>
#include <memory>

#include <pellorin/Export.h>
#include <pellorin/Messages.h>

namespace pellorin {

class PellorinClient;

class PELLORIN_EXPORT PellorinClientDelegate {
  public:
    virtual ~PellorinClientDelegate() = default;

    // A free-form log line for the host.
    virtual void pellorinClientLogMessage(PellorinClient& client,
                                          const std::shared_ptr<const LoggingMessage>& message) = 0;
    // An attempt at uploading a part has begun.
    virtual void pellorinClientDidStartPart(
        PellorinClient& client, const std::shared_ptr<const PartStartedMessage>& message) = 0;
    // Body bytes of a part went out.
    virtual void pellorinClientDidReceivePartProgress(
        PellorinClient& client, const std::shared_ptr<const PartProgressMessage>& message) = 0;
    // A part failed and will be tried again.
    virtual void pellorinClientWillRetryPart(
        PellorinClient& client, const std::shared_ptr<const PartRetryMessage>& message) = 0;
    // The server accepted a part. Delivered synchronously: the client waits for the delegate.
    virtual void pellorinClientPartDidComplete(
        PellorinClient& client, const std::shared_ptr<const PartCompleteMessage>& message) = 0;
    // A part failed for good.
    virtual void pellorinClientPartDidFail(
        PellorinClient& client, const std::shared_ptr<const PartFailureMessage>& message) = 0;
    // Progress over a whole file.
    virtual void pellorinClientDidReceiveFileProgress(
        PellorinClient& client, const std::shared_ptr<const FileProgressMessage>& message) = 0;
    // The transfer ended: `status` is the exit status (0 when no part failed, 1 otherwise).
    virtual void pellorinClientDidFinishWithStatus(
        PellorinClient& client, int32_t status,
        const std::shared_ptr<const MetricsMessage>& metrics) = 0;

  protected:
    PellorinClientDelegate() = default;
    PellorinClientDelegate(const PellorinClientDelegate&) = default;
    PellorinClientDelegate& operator=(const PellorinClientDelegate&) = default;
};

}  // namespace pellorin
