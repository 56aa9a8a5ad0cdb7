#include "TransferRounds.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <system_error>

#include <pellorin/LoggingProgressReporter.h>

#include "HostError.h"
#include "JournalWriter.h"
#include "ProgressLine.h"
#include "TransferObserver.h"
#include "Units.h"

namespace pellorin::host {

void Cancellation::signal() {
    std::shared_ptr<PellorinClient> client;
    {
        std::lock_guard lock(mutex_);
        requested_ = true;
        client = client_;
    }
    wake_.notify_all();
    if (client) {
        client->invalidateAndCancel();
    }
}

void Cancellation::attach(std::shared_ptr<PellorinClient> client) {
    {
        std::lock_guard lock(mutex_);
        client_ = std::move(client);
        if (!requested_ || !client_) {
            return;
        }
    }
    signal();
}

bool Cancellation::waitFor(std::chrono::duration<double> duration) {
    std::unique_lock lock(mutex_);
    return !wake_.wait_for(lock, duration, [this] { return requested_.load(); });
}

double roundWait(unsigned round, double retryAfterSecs) {
    constexpr double kMaxWait = 60;
    if (retryAfterSecs > 0) {
        return std::min(retryAfterSecs, kMaxWait);
    }
    return std::min(std::ldexp(1.0, static_cast<int>(std::min(round, 10u)) - 2), kMaxWait);
}

namespace {

// The parts of this run: those the journal vouches for are left out and counted as done.
struct Split {
    std::vector<PlannedPart> toSend;
    uint64_t skippedParts = 0;
    uint64_t skippedBytes = 0;
    uint64_t sourceChanged = 0;
    uint64_t destinationChanged = 0;
};

Split splitByJournal(const std::vector<PlannedPart>& parts, const Journal* journal) {
    Split split;
    for (const auto& part : parts) {
        switch (journal != nullptr ? journal->check(part) : Journal::Verdict::absent) {
            case Journal::Verdict::done:
                ++split.skippedParts;
                split.skippedBytes += part.key.length;
                continue;
            case Journal::Verdict::sourceChanged:
                ++split.sourceChanged;
                break;
            case Journal::Verdict::destinationChanged:
                ++split.destinationChanged;
                break;
            case Journal::Verdict::absent:
                break;
        }
        split.toSend.push_back(part);
    }
    return split;
}

std::string journalNote(const Split& split, size_t total, const std::string& journalName) {
    std::string text = "pellorin: " + std::to_string(split.skippedParts) + " of " +
                       countOf(total, "part") + " already done according to " + journalName;
    std::vector<std::string> why;
    if (split.sourceChanged > 0) {
        why.push_back(std::to_string(split.sourceChanged) +
                      " recorded from a source file that has changed since");
    }
    if (split.destinationChanged > 0) {
        why.push_back(std::to_string(split.destinationChanged) +
                      " recorded for another destination");
    }
    for (size_t i = 0; i < why.size(); ++i) {
        text += (i == 0 ? "; sent again: " : ", ") + why[i];
    }
    return text;
}

// What every round adds up to, for the summary.
struct Totals {
    uint64_t partsSent = 0;
    uint64_t bytesSent = 0;
    uint64_t bytesLost = 0;
    uint64_t retries = 0;
};

void add(Totals& totals, const MetricsMessage& metrics) {
    totals.partsSent += metrics.partsSent();
    totals.bytesSent += metrics.bytesSent();
    totals.bytesLost += metrics.bytesLost();
    totals.retries += metrics.retryCount();
}

std::string summary(const Totals& totals, size_t planned, uint64_t failed, unsigned rounds,
                    double seconds, uint64_t skipped) {
    char time[32];
    std::snprintf(time, sizeof time, "%.1f s", seconds);
    const double rate = seconds > 0 ? static_cast<double>(totals.bytesSent) / seconds : 0;
    std::string text = "Sent " + std::to_string(totals.partsSent) + " of " +
                       countOf(planned, "part") + " (" + formatBytes(totals.bytesSent) + ") in " +
                       time + " at " + formatRate(rate) + "; " + std::to_string(failed) +
                       " failed, " +
                       (totals.retries == 1 ? std::string("1 retry")
                                            : std::to_string(totals.retries) + " retries");
    if (rounds > 1) {
        text += " over " + std::to_string(rounds) + " rounds";
    }
    if (totals.bytesLost > 0) {
        text += " (" + formatBytes(totals.bytesLost) + " lost to failed attempts)";
    }
    if (skipped > 0) {
        text += "; " + countOf(skipped, "part") + " already done before";
    }
    return text;
}

// The files whose identity is no longer the one their parts were planned with.
std::vector<std::string> changedSources(const std::vector<PlannedPart>& parts) {
    std::map<std::string, SourceIdentity> planned;
    for (const auto& part : parts) {
        planned.emplace(part.key.path, part.source);
    }
    std::vector<std::string> changed;
    for (const auto& [path, identity] : planned) {
        const auto now = identifySource(path);
        if (!now || !(*now == identity)) {
            changed.push_back(path);
        }
    }
    return changed;
}

// One line per file and cause: "part 3 of /a failed: ..." or "parts 1, 4, 9 of /a failed: ...".
void printFailures(const std::vector<TransferObserver::Failure>& failures, StatusLine& line) {
    std::map<std::pair<std::string, std::string>, std::set<uint64_t>> grouped;
    for (const auto& failure : failures) {
        // libcurl's texts carry timings ("... after 2 ms: ..."): parts that failed alike are
        // grouped without them.
        static const std::regex timing(" after [0-9]+ ms");
        grouped[{failure.part.key.path, std::regex_replace(failure.description, timing, "")}]
            .insert(failure.part.key.partNumber);
    }
    for (const auto& [where, numbers] : grouped) {
        std::string list;
        size_t shown = 0;
        for (const uint64_t number : numbers) {
            if (shown == 20) {
                list += " and " + std::to_string(numbers.size() - shown) + " more";
                break;
            }
            list += (shown++ == 0 ? "" : ", ") + std::to_string(number);
        }
        line.print("pellorin: " + std::string(numbers.size() == 1 ? "part " : "parts ") + list +
                   " of " + where.first + " failed: " + where.second);
    }
}

}  // namespace

int runTransfer(const std::vector<PlannedPart>& parts, const TransferSettings& settings,
                Journal* journal, EventLog* events, const std::shared_ptr<StatusLine>& line,
                Cancellation& cancellation) {
    const Split split = splitByJournal(parts, journal);
    if (journal != nullptr &&
        (split.skippedParts > 0 || split.sourceChanged > 0 || split.destinationChanged > 0)) {
        line->note(journalNote(split, parts.size(), settings.journalName));
    }
    ProgressCounters counters(totalLength(parts), parts.size());
    counters.doneBytes = split.skippedBytes;
    counters.partsDone = split.skippedParts;
    // A journaled part counts as done once it is on disk, never before.
    std::optional<JournalWriter> journalWriter;
    if (journal != nullptr) {
        journalWriter.emplace(
            *journal, [&counters](const PlannedPart&) { ++counters.partsDone; },
            [&line, journal](const std::system_error& error) {
                // The upload goes on; only the ability to resume it is lost.
                line->print("pellorin: " + std::string(error.what()) + " " +
                            journal->path().string() + "; later parts are not recorded");
            });
    }
    const auto started = std::chrono::steady_clock::now();
    Totals totals;
    std::vector<TransferObserver::Failure> finalFailures;
    std::vector<PlannedPart> pending = split.toSend;
    unsigned round = 1;
    {
        ProgressDisplay display(counters, line);
        for (; !pending.empty(); ++round) {
            if (events) {
                events->write(
                    "round-started",
                    {{"round", round}, {"parts", pending.size()}, {"bytes", totalLength(pending)}});
            }
            // Each later round halves the parts in flight: what failed may have been too many
            // connections at once (descriptors, a server's limit) as well as an outage.
            const unsigned connections =
                std::max(1u, settings.maxConnections >> std::min(round - 1, 8u));
            auto client = PellorinClient::standardClient(settings.rateLimit,
                                                         static_cast<uint8_t>(connections),
                                                         static_cast<uint8_t>(settings.maxRetries));
            const SessionConfiguration configuration = settings.configuration;
            client->setSessionConfigurationSupplier([configuration] { return configuration; });
            auto observer = std::make_shared<TransferObserver>(
                pending, counters, line, journalWriter ? &*journalWriter : nullptr);
            client->addDelegate(observer, nullptr);
            std::shared_ptr<LoggingProgressReporter> reporter;
            if (settings.reporterLines) {
                reporter = std::make_shared<LoggingProgressReporter>(Logger("pellorin.events"));
                client->addDelegate(reporter, nullptr);
            }
            if (events) {
                events->attach(*client);
            }
            for (const auto& part : pending) {
                client->uploadPartRequest(part.makeRequest());
            }
            cancellation.attach(client);
            client->waitUntilFinished();
            cancellation.attach(nullptr);
            if (journalWriter) {
                journalWriter->flush();
            }
            if (events) {
                events->drain();
            }
            if (const auto metrics = observer->metrics()) {
                add(totals, *metrics);
            }
            if (cancellation.requested()) {
                break;
            }
            std::vector<PlannedPart> retryable;
            double retryAfter = 0;
            std::string reason;
            for (const auto& failure : observer->failures()) {
                if (failure.verdict.retryable && round <= settings.retryRounds) {
                    retryable.push_back(failure.part);
                    retryAfter = std::max(retryAfter, failure.verdict.retryAfterSecs);
                    reason = failure.verdict.reason;
                } else {
                    finalFailures.push_back(failure);
                }
            }
            pending = std::move(retryable);
            if (pending.empty()) {
                break;
            }
            const double wait = roundWait(round + 1, retryAfter);
            char seconds[32];
            std::snprintf(seconds, sizeof seconds, "%.1f s", wait);
            const std::string waiting =
                "waiting " + std::string(seconds) + " before round " + std::to_string(round + 1);
            line->note("pellorin: " + countOf(pending.size(), "part") + " failed (" + reason +
                       "); " + waiting);
            if (events) {
                events->write("round-waiting", {{"round", round + 1},
                                                {"parts", pending.size()},
                                                {"waitSecs", wait},
                                                {"reason", reason}});
            }
            counters.partsFailed -= pending.size();
            display.setNote(waiting);
            if (!cancellation.waitFor(std::chrono::duration<double>(wait))) {
                break;
            }
            display.setNote("");
        }
        display.stop();
    }
    const unsigned rounds = round;
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    int status = finalFailures.empty() ? 0 : 1;
    if (cancellation.requested()) {
        line->print("pellorin: cancelled with " + std::to_string(counters.partsDone.load()) +
                    " of " + std::to_string(parts.size()) + " parts done" +
                    (journal != nullptr ? " (recorded in " + settings.journalName + ")" : ""));
        status = kExitInterrupted;
    } else {
        printFailures(finalFailures, *line);
        for (const auto& path : changedSources(parts)) {
            line->print("pellorin: " + path +
                        " changed while it was being sent; its parts may mix two versions");
            status = 1;
        }
    }
    if (split.toSend.empty() && !parts.empty()) {
        line->note("Nothing to send: all " + std::to_string(parts.size()) +
                   " parts were already done");
    } else {
        line->note(summary(totals, parts.size(), finalFailures.size(), rounds, seconds,
                           split.skippedParts));
    }
    if (events) {
        events->write("transfer-finished", {{"status", status},
                                            {"parts", parts.size()},
                                            {"skippedParts", split.skippedParts},
                                            {"failedParts", finalFailures.size()},
                                            {"rounds", rounds}});
        events->drain();
    }
    return status;
}

}  // namespace pellorin::host
