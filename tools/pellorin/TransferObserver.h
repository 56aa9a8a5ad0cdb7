// TransferObserver: the host's own delegate for one round of a transfer. It keeps the progress
// counters, hands every completed part to the journal writer, keeps every part that failed for good
// with its verdict (FailureVerdict.h) and the final metrics for the summary.
//
// Registered without a queue, so every method runs on the client's delegate queue, one at a time:
// its maps need no lock. The counters, status line and journal must outlive the transfer.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <pellorin/PellorinClientDelegate.h>

#include "FailureVerdict.h"
#include "JournalWriter.h"
#include "PartPlan.h"
#include "ProgressLine.h"
#include "StatusLine.h"

namespace pellorin::host {

class TransferObserver : public PellorinClientDelegate {
  public:
    // `parts`: the parts submitted in this run. `journal` may be null; with one, a completed part
    // is handed to it and counted in partsDone by the writer's owner once it is on disk.
    TransferObserver(const std::vector<PlannedPart>& parts, ProgressCounters& counters,
                     std::shared_ptr<StatusLine> line, JournalWriter* journal);

    // From now on, failures are expected (the user cancelled) and are not printed one by one.
    // Any thread.
    void noteCancelled() { cancelled_ = true; }
    bool cancelled() const { return cancelled_; }

    // The final metrics, once the client has sent them; null before (or when nothing ran).
    // Read after waitUntilFinished has returned.
    std::shared_ptr<const MetricsMessage> metrics() const;

    struct Failure {
        PlannedPart part;
        FailureVerdict verdict;
        std::string description;  // the cause in full, transport text included
    };
    // The parts that failed for good, in the order they failed. Read after waitUntilFinished.
    const std::vector<Failure>& failures() const { return failures_; }

    void pellorinClientLogMessage(PellorinClient& client,
                                  const std::shared_ptr<const LoggingMessage>& message) override;
    void pellorinClientDidStartPart(
        PellorinClient& client, const std::shared_ptr<const PartStartedMessage>& message) override;
    void pellorinClientDidReceivePartProgress(
        PellorinClient& client, const std::shared_ptr<const PartProgressMessage>& message) override;
    void pellorinClientWillRetryPart(
        PellorinClient& client, const std::shared_ptr<const PartRetryMessage>& message) override;
    void pellorinClientPartDidComplete(
        PellorinClient& client, const std::shared_ptr<const PartCompleteMessage>& message) override;
    void pellorinClientPartDidFail(
        PellorinClient& client, const std::shared_ptr<const PartFailureMessage>& message) override;
    void pellorinClientDidReceiveFileProgress(
        PellorinClient& client, const std::shared_ptr<const FileProgressMessage>& message) override;
    void pellorinClientDidFinishWithStatus(
        PellorinClient& client, int32_t status,
        const std::shared_ptr<const MetricsMessage>& metrics) override;

  private:
    using PartId = std::pair<std::string, uint64_t>;  // (path, part number)
    struct PartState {
        PlannedPart part;
        uint64_t attemptBytes = 0;  // sent by the current attempt
        // The errors of the attempts that were retried: a part's final error list may hold only
        // the note that the retries ran out.
        std::vector<std::shared_ptr<const ErrorMessage>> retryErrors;
    };
    // Takes the part's current attempt back out of doneBytes; the part's state, or null.
    PartState* resetAttempt(const std::string& path, uint64_t partNumber);

    ProgressCounters& counters_;
    std::shared_ptr<StatusLine> line_;
    JournalWriter* journal_;
    std::map<PartId, PartState> parts_;  // delegate queue only
    std::vector<Failure> failures_;      // delegate queue, then the host thread after the wait
    std::atomic<bool> cancelled_{false};
    mutable std::mutex metricsMutex_;
    std::shared_ptr<const MetricsMessage> metrics_;  // guarded by metricsMutex_
};

// An error's message, with the transport's own text when it carries one.
std::string describeError(const ErrorMessage& error);

}  // namespace pellorin::host
