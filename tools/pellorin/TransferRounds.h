// The transfer as the host runs it: the parts the journal does not vouch for go to a client; when
// that run ends with parts that failed for a reason worth retrying (FailureVerdict.h), the host
// waits (the largest Retry-After a server asked for, else 1 s doubling per round, at most 60 s)
// and runs just those parts again with a fresh client, up to `retryRounds` more times. One
// progress display and one event stream span every round.
//
// Everything here runs on the host thread, except Cancellation::signal (any thread).
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <pellorin/PellorinClient.h>
#include <pellorin/SessionConfiguration.h>

#include "EventLog.h"
#include "Journal.h"
#include "PartPlan.h"
#include "StatusLine.h"

namespace pellorin::host {

// What a signal cancels: the client running at the time, or the wait between rounds.
class Cancellation {
  public:
    void signal();
    // Hands over the running client (null when none runs); cancels it at once when a signal came
    // first.
    void attach(std::shared_ptr<PellorinClient> client);
    // Waits for `duration` or a signal; false when a signal came.
    bool waitFor(std::chrono::duration<double> duration);
    const std::atomic<bool>& requested() const { return requested_; }

  private:
    std::mutex mutex_;
    std::condition_variable wake_;
    std::atomic<bool> requested_{false};
    std::shared_ptr<PellorinClient> client_;  // guarded by mutex_
};

struct TransferSettings {
    std::optional<uint64_t> rateLimit;  // KB/s
    unsigned maxConnections = 4;
    unsigned maxRetries = 3;
    unsigned retryRounds = 3;
    SessionConfiguration configuration = SessionConfiguration::ephemeral();
    bool reporterLines = false;  // the stock reporter's lines through the logging system
    std::string journalName;     // for messages
};

// The wait before round `round` (2, 3, ...): the server's largest Retry-After when it gave one,
// else 1 s doubled for every round after the second; at most 60 s either way.
double roundWait(unsigned round, double retryAfterSecs);

// Runs the transfer of `parts` and returns the exit status: 0 when every part is done, 1 when
// some part failed (or a source file changed while it was read), 130 when cancelled. `journal`
// and `events` may be null.
int runTransfer(const std::vector<PlannedPart>& parts, const TransferSettings& settings,
                Journal* journal, EventLog* events, const std::shared_ptr<StatusLine>& line,
                Cancellation& cancellation);

}  // namespace pellorin::host
