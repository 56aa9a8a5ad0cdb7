#include "UploadCommand.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <vector>

#include <pellorin/PellorinClient.h>

#include "EmbeddedTarget.h"
#include "EventLog.h"
#include "FileTools.h"
#include "HostError.h"
#include "Journal.h"
#include "ProgressLine.h"
#include "ReservationReader.h"
#include "SignalWatcher.h"
#include "TransferObserver.h"
#include "Units.h"

namespace pellorin::host {

namespace {

// What the signal watcher cancels: nothing until the client exists, then the client.
class Cancellation {
  public:
    void signal() {
        std::shared_ptr<PellorinClient> client;
        std::shared_ptr<TransferObserver> observer;
        {
            std::lock_guard lock(mutex_);
            requested_ = true;
            client = client_;
            observer = observer_;
        }
        if (observer) {
            observer->noteCancelled();
        }
        if (client) {
            client->invalidateAndCancel();
        }
    }
    // Hands over the running transfer; cancels it at once when a signal came first.
    void attach(std::shared_ptr<PellorinClient> client,
                std::shared_ptr<TransferObserver> observer) {
        {
            std::lock_guard lock(mutex_);
            client_ = std::move(client);
            observer_ = std::move(observer);
            if (!requested_) {
                return;
            }
        }
        signal();
    }
    const std::atomic<bool>& requested() const { return requested_; }

  private:
    std::mutex mutex_;
    std::atomic<bool> requested_{false};
    std::shared_ptr<PellorinClient> client_;      // guarded by mutex_
    std::shared_ptr<TransferObserver> observer_;  // guarded by mutex_
};

// The parts of this run: what the journal already holds is left out and counted as done.
struct Split {
    std::vector<PlannedPart> toSend;
    uint64_t skippedParts = 0;
    uint64_t skippedBytes = 0;
};

Split splitByJournal(std::vector<PlannedPart> parts, const Journal* journal) {
    Split split;
    for (auto& part : parts) {
        if (journal != nullptr && journal->contains(part.key)) {
            ++split.skippedParts;
            split.skippedBytes += part.key.length;
        } else {
            split.toSend.push_back(std::move(part));
        }
    }
    return split;
}

// Runs the client over `parts`; returns its exit status.
int transfer(const UploadOptions& options, const std::vector<PlannedPart>& parts, Journal* journal,
             EventLog* events, const std::shared_ptr<StatusLine>& line,
             Cancellation& cancellation) {
    Split split = splitByJournal(parts, journal);
    ProgressCounters counters(totalLength(parts), parts.size());
    counters.doneBytes = split.skippedBytes;
    counters.partsDone = split.skippedParts;
    if (split.skippedParts > 0) {
        line->print("pellorin: " + std::to_string(split.skippedParts) + " of " +
                    countOf(parts.size(), "part") + " already done according to " +
                    options.journal);
    }

    auto client = PellorinClient::standardClient(options.rateLimit,
                                                 static_cast<uint8_t>(options.maxConnections),
                                                 static_cast<uint8_t>(options.maxRetries));
    auto observer = std::make_shared<TransferObserver>(split.toSend, counters, line, journal);
    client->addDelegate(observer, nullptr);
    if (events) {
        events->attach(*client);
    }
    for (const auto& part : split.toSend) {
        client->uploadPartRequest(part.makeRequest());
    }
    int status = 0;
    {
        ProgressDisplay display(counters, line);
        cancellation.attach(client, observer);
        status = client->waitUntilFinished();
        cancellation.attach(nullptr, nullptr);
        display.stop();
    }
    if (events) {
        events->drain();
    }
    if (observer->cancelled()) {
        line->print("pellorin: cancelled with " + std::to_string(counters.partsDone.load()) +
                    " of " + std::to_string(parts.size()) + " parts done" +
                    (journal != nullptr ? " (recorded in " + options.journal + ")" : ""));
    }
    if (const auto metrics = observer->metrics()) {
        std::printf("%s\n", transferSummary(*metrics, split.skippedParts).c_str());
    } else if (!parts.empty()) {
        std::printf("Nothing to send: all %zu parts were already done\n", parts.size());
    }
    std::fflush(stdout);
    return status;
}

}  // namespace

int runUpload(const UploadOptions& options, const std::shared_ptr<StatusLine>& line) {
    if (options.maxConnections < 1 || options.maxConnections > 255) {
        throw InputError("--max-connections must be between 1 and 255");
    }
    if (options.maxRetries > 255) {
        throw InputError("--max-retries must be between 0 and 255");
    }
    if (options.rateLimit && (*options.rateLimit == 0 || *options.rateLimit > UINT64_MAX / 1000)) {
        throw InputError("--rate-limit must be between 1 and " + std::to_string(UINT64_MAX / 1000) +
                         " KB/s");
    }
    Cancellation cancellation;
    SignalWatcher watcher([&](int) {
        line->print("pellorin: cancelling; press Ctrl-C again to stop at once");
        cancellation.signal();
    });
    std::unique_ptr<Journal> journal;
    if (!options.journal.empty()) {
        journal = Journal::open(options.journal);
    }
    std::unique_ptr<EventLog> events;
    if (!options.events.empty()) {
        events = std::make_unique<EventLog>(options.events);
    }
    try {
        if (!options.reservation.empty()) {
            return transfer(options, readReservationFile(options.reservation), journal.get(),
                            events.get(), line, cancellation);
        }
        std::unique_ptr<TemporaryDirectory> demoDirectory;
        std::string source = options.file;
        if (source.empty()) {
            demoDirectory = std::make_unique<TemporaryDirectory>();
            source = (demoDirectory->path() / "demo.bin").string();
            line->print("pellorin: generating " + formatBytes(options.demoSize) + " in " + source);
            writeGeneratedFile(source, options.demoSize, cancellation.requested());
        }
        EmbeddedTarget target(options.directory.empty()
                                  ? std::nullopt
                                  : std::optional<std::filesystem::path>(options.directory));
        const auto parts = target.plan(source, options.partSize);
        line->print("pellorin: uploading " + source + " (" + formatBytes(totalLength(parts)) +
                    ", " + countOf(parts.size(), "part") + ") to " + target.baseUrl());
        const int status =
            transfer(options, parts, journal.get(), events.get(), line, cancellation);
        if (status != 0 || cancellation.requested()) {
            return status;
        }
        const std::string sourceHash = sha256HexOfFile(source, cancellation.requested());
        const std::string copyHash =
            sha256HexOfFile(target.copyOf(source), cancellation.requested());
        if (sourceHash != copyHash) {
            std::printf("Checksum mismatch: SHA-256 %s of %s, %s of the received copy\n",
                        sourceHash.c_str(), source.c_str(), copyHash.c_str());
            return 1;
        }
        std::printf("Checksums agree: SHA-256 %s of %s and of the received copy %s\n",
                    sourceHash.c_str(), source.c_str(), target.copyOf(source).c_str());
        return 0;
    } catch (const Interrupted&) {
        line->print("pellorin: interrupted");
        return kExitInterrupted;
    }
}

}  // namespace pellorin::host
