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

// A size option ("8MiB"), checked when the command line is parsed.
CLI::Option* addSizeOption(CLI::App& command, const std::string& name, uint64_t& target,
                           const std::string& description) {
    return command
        .add_option_function<std::string>(
            name,
            [&target, name](const std::string& text) {
                const auto size = parseByteSize(text);
                if (!size) {
                    throw CLI::ValidationError(
                        name, "not a size: \"" + text + "\" (write e.g. 4096, 512KiB, 8MiB, 1GiB)");
                }
                target = *size;
            },
            description)
        ->type_name("SIZE");
}

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

CLI::App* addUploadCommand(CLI::App& app, UploadOptions& options) {
    CLI::App* command = app.add_subcommand(
        "upload",
        "Upload the parts of a reservation file, or upload FILE (a generated file when none is "
        "given) to a local receiver run inside pellorin and check the copy");
    auto* fileOption =
        command->add_option("FILE", options.file, "File to upload to the embedded receiver")
            ->type_name("FILE");
    auto* reservationOption =
        command
            ->add_option(
                "-r,--reservation", options.reservation,
                "Reservation file (JSON array of {filePath, operation}) whose parts to upload")
            ->type_name("FILE");
    command->add_option("-c,--max-connections", options.maxConnections, "Parts in flight at once")
        ->type_name("N")
        ->check(CLI::Range(1u, 255u))
        ->capture_default_str();
    command->add_option("--max-retries", options.maxRetries, "Retries per part")
        ->type_name("N")
        ->check(CLI::Range(0u, 255u))
        ->capture_default_str();
    command
        ->add_option_function<uint64_t>(
            "--rate-limit", [&](uint64_t value) { options.rateLimit = value; },
            "Bandwidth cap in KB/s (1000 bytes per second); none by default")
        ->check(CLI::Range(uint64_t{1}, UINT64_MAX / 1000))
        ->type_name("KBPS");
    command
        ->add_option("--journal", options.journal,
                     "Record completed parts in this file and skip them when run again")
        ->type_name("FILE");
    command
        ->add_option("--events", options.events,
                     "Write every event as a line of JSON to this file ('-': standard "
                     "output)")
        ->type_name("FILE");
    auto* partSizeOption = addSizeOption(*command, "--part-size", options.partSize,
                                         "Embedded default: bytes per part [8MiB]");
    auto* demoSizeOption = addSizeOption(*command, "--demo-size", options.demoSize,
                                         "Embedded default without FILE: size of the generated "
                                         "file [256MiB]");
    auto* dirOption = command
                          ->add_option("--dir", options.directory,
                                       "Embedded default: assemble the copy in this directory "
                                       "(kept) instead of a temporary one")
                          ->type_name("DIR");
    reservationOption->excludes(fileOption)
        ->excludes(partSizeOption)
        ->excludes(demoSizeOption)
        ->excludes(dirOption);
    demoSizeOption->excludes(fileOption);

    command->footer(
        "Examples:\n"
        "  pellorin upload --demo-size 1GiB\n"
        "  pellorin upload big.iso --journal big.journal --rate-limit 50000\n"
        "  pellorin upload -r reservation.json --max-connections 8 --events events.log\n"
        "\nCtrl-C cancels cleanly; with --journal, running the same command again resumes.\n"
        "Exit status: 0 when every part was uploaded (and the copy agrees), 1 when a part failed,\n"
        "2 for bad input.\n");
    return command;
}

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
        const std::string kept =
            options.directory.empty() ? "" : " " + target.copyOf(source).string();
        std::printf("Checksums agree: SHA-256 %s of %s and of the received copy%s\n",
                    sourceHash.c_str(), source.c_str(), kept.c_str());
        return 0;
    } catch (const Interrupted&) {
        line->print("pellorin: interrupted");
        return kExitInterrupted;
    }
}

}  // namespace pellorin::host
