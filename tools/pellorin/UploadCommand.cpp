#include "UploadCommand.h"

#include <unistd.h>

#include <cstdio>

#include "EmbeddedTarget.h"
#include "EventLog.h"
#include "FileTools.h"
#include "HostError.h"
#include "Journal.h"
#include "Redaction.h"
#include "ReservationReader.h"
#include "SignalWatcher.h"
#include "TransferRounds.h"
#include "Units.h"
#include "UrlTemplate.h"

namespace pellorin::host {

namespace {

constexpr const char* kUnitsHelp =
    "k = 1000, Ki = 1024, likewise M, Mi, G, Gi, T, Ti; B is optional; bits are divided by 8";

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
                        name, "not a size: \"" + text + "\" (write e.g. 4096, 500k, 8MiB, 1GB)");
                }
                target = *size;
            },
            description)
        ->type_name("SIZE");
}

// The rate limit in the library's unit (KB/s, rounded to the nearest, at least 1): a bare number
// is KB/s already, anything with a unit is converted.
std::optional<uint64_t> rateLimitOf(const std::string& text) {
    const bool bare = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    const auto bytes = parseByteRate(text);
    if (!bytes || *bytes == 0) {
        return std::nullopt;
    }
    if (bare) {
        return *bytes <= UINT64_MAX / 1000 ? bytes : std::nullopt;
    }
    return std::max<uint64_t>(1, (*bytes + 500) / 1000);
}

// Where the embedded default assembles the copy: --dir, else beside the journal (so that the
// same command resumes into the same copy), else a temporary folder.
std::optional<std::filesystem::path> copyDirectory(const UploadOptions& options) {
    if (!options.directory.empty()) {
        return std::filesystem::path(options.directory);
    }
    if (options.journal.empty()) {
        return std::nullopt;
    }
    std::filesystem::path folder = options.journal + ".received";
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        throw InputError("cannot make " + folder.string() +
                         " for the received copy: " + error.message());
    }
    return folder;
}

std::vector<Url> urlsOf(const std::vector<PlannedPart>& parts) {
    std::vector<Url> urls;
    for (const auto& part : parts) {
        urls.push_back(part.url);
    }
    return urls;
}

TransferSettings settingsFor(const UploadOptions& options, const std::vector<PlannedPart>& parts,
                             const NetworkOptions& network) {
    TransferSettings settings;
    settings.rateLimit = options.rateLimit;
    settings.maxConnections = options.maxConnections;
    settings.maxRetries = options.maxRetries;
    settings.retryRounds = options.retryRounds;
    settings.configuration =
        resolveSessionConfiguration(network, urlsOf(parts), processEnvironment());
    settings.reporterLines = options.reporterLines;
    settings.journalName = options.journal;
    return settings;
}

}  // namespace

CLI::App* addUploadCommand(CLI::App& app, UploadOptions& options) {
    CLI::App* command = app.add_subcommand(
        "upload",
        "Upload FILE to a server (--to URL), the parts of a reservation file, or FILE (a "
        "generated file when none is given) to a local receiver run inside pellorin, checking "
        "the copy");
    command->group("Options");
    auto* fileOption =
        command->add_option("FILE", options.file, "File to upload")->type_name("FILE");
    auto* reservationOption =
        command
            ->add_option("-r,--reservation", options.reservation,
                         "Reservation file (a JSON array of {filePath, operation}; see the README) "
                         "whose parts to upload")
            ->type_name("FILE");
    auto* toOption =
        command
            ->add_option("--to", options.to,
                         "Upload FILE to this URL, one request per part; {part}, {offset}, "
                         "{length} and {name} are replaced, e.g. "
                         "'https://host/up/{name}?part={part}'")
            ->type_name("URL");
    auto* methodOption =
        command->add_option("--method", options.method, "With --to: the HTTP method")
            ->type_name("METHOD")
            ->capture_default_str();
    auto* headerOption =
        command->add_option("-H,--header", options.headers, "With --to: 'Name: value' (repeatable)")
            ->type_name("HEADER")
            ->take_all();
    command->add_option("-c,--max-connections", options.maxConnections, "Parts in flight at once")
        ->type_name("N")
        ->check(CLI::Range(1u, 255u))
        ->capture_default_str();
    command->add_option("--max-retries", options.maxRetries, "Retries per part within a round")
        ->type_name("N")
        ->check(CLI::Range(0u, 255u))
        ->capture_default_str();
    command
        ->add_option("--retry-rounds", options.retryRounds,
                     "Rounds of parts that failed for a passing reason (network errors, "
                     "408/429/5xx), each after a wait")
        ->type_name("N")
        ->check(CLI::Range(0u, 100u))
        ->capture_default_str();
    command
        ->add_option_function<std::string>(
            "--rate-limit",
            [&options](const std::string& text) {
                const auto limit = rateLimitOf(text);
                if (!limit) {
                    throw CLI::ValidationError("--rate-limit",
                                               "not a rate: \"" + text +
                                                   "\" (write e.g. 500k, 10M, 1.5MB/s, 80Mbit; a "
                                                   "bare number is KB/s)");
                }
                options.rateLimit = limit;
            },
            std::string("Bandwidth cap, e.g. 500k, 10M, 1.5MB/s, 80Mbit (") + kUnitsHelp +
                "; a bare number is KB/s); none by default")
        ->type_name("RATE");
    command
        ->add_option("--journal", options.journal,
                     "Record completed parts in this file and skip them when run again")
        ->type_name("FILE");
    command
        ->add_option("--events", options.events,
                     "Write every event as a line of JSON (JSON Lines) to this file ('-': "
                     "standard output)")
        ->type_name("FILE");
    auto* partSizeOption = addSizeOption(*command, "--part-size", options.partSize,
                                         std::string("Bytes per part [8MiB] (") + kUnitsHelp + ")");
    auto* demoSizeOption = addSizeOption(*command, "--demo-size", options.demoSize,
                                         "Without FILE: size of the generated file [256MiB]");
    auto* dirOption = command
                          ->add_option("--dir", options.directory,
                                       "Embedded receiver: assemble the copy in this directory "
                                       "(default: beside --journal, else a temporary one)")
                          ->type_name("DIR");
    auto& network = options.network;
    command->add_option("--ca-file", network.caFile, "Trust the CAs in this PEM file")
        ->type_name("FILE");
    command->add_option("--ca-dir", network.caDir, "Trust the CAs in this hashed directory")
        ->type_name("DIR");
    command
        ->add_option("--proxy", network.proxy,
                     "Proxy URL (http://host:port); '' for none whatever the environment says")
        ->type_name("URL");
    command
        ->add_option("--noproxy", network.noProxy,
                     "Hosts to reach directly, comma-separated ('*' for all)")
        ->type_name("HOSTS");
    command->add_flag("--http2", network.http2, "Use HTTP/2 where the server offers it");
    command
        ->add_option("--connect-timeout", network.connectTimeout,
                     "Give up an attempt when nothing has moved for this many seconds, "
                     "connecting included [60]")
        ->type_name("SECS")
        ->check(CLI::PositiveNumber);
    reservationOption->excludes(fileOption)
        ->excludes(partSizeOption)
        ->excludes(demoSizeOption)
        ->excludes(dirOption)
        ->excludes(toOption);
    demoSizeOption->excludes(fileOption)->excludes(toOption);
    toOption->excludes(dirOption);
    methodOption->needs(toOption);
    headerOption->needs(toOption);

    command->footer(
        "Examples:\n"
        "  pellorin upload --demo-size 1GiB\n"
        "  pellorin upload big.iso --journal big.journal --rate-limit 50M\n"
        "  pellorin upload big.iso --to 'https://host/up/{name}?part={part}' -H 'X-Token: t'\n"
        "  pellorin upload -r reservation.json --max-connections 8 --events events.jsonl\n"
        "\nCtrl-C cancels cleanly; with --journal, running the same command again resumes.\n"
        "Environment: CURL_CA_BUNDLE, SSL_CERT_FILE, SSL_CERT_DIR; http_proxy, https_proxy,\n"
        "all_proxy, no_proxy (as curl reads them). Progress and the summary go to standard\n"
        "error; standard output holds only --events -.\n"
        "Exit status: 0 when every part was uploaded (and the copy agrees), 1 when a part failed,\n"
        "2 for bad input, 130 when cancelled by a signal.\n");
    return command;
}

int runUpload(const UploadOptions& options, const std::shared_ptr<StatusLine>& line) {
    if (!options.to.empty() && options.file.empty()) {
        throw InputError("--to needs the FILE to upload");
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
            const auto parts = readReservationFile(options.reservation);
            return runTransfer(parts, settingsFor(options, parts, options.network), journal.get(),
                               events.get(), line, cancellation);
        }
        if (!options.to.empty()) {
            const auto parts = planTemplateParts(options.file, options.to, options.partSize,
                                                 options.method, options.headers);
            const TransferSettings settings = settingsFor(options, parts, options.network);
            line->note("pellorin: uploading " + options.file + " (" +
                       formatBytes(totalLength(parts)) + ", " + countOf(parts.size(), "part") +
                       ") to " + redactUrls(parts.front().url.absoluteString()) +
                       (parts.size() > 1 ? " ..." : ""));
            return runTransfer(parts, settings, journal.get(), events.get(), line, cancellation);
        }
        std::unique_ptr<TemporaryDirectory> demoDirectory;
        std::string source = options.file;
        if (source.empty()) {
            demoDirectory = std::make_unique<TemporaryDirectory>();
            source = (demoDirectory->path() / "demo.bin").string();
            line->note("pellorin: generating " + formatBytes(options.demoSize) + " in " + source);
            writeGeneratedFile(source, options.demoSize, cancellation.requested());
        }
        EmbeddedTarget target(copyDirectory(options));
        const auto parts = target.plan(source, options.partSize);
        // The receiver inside the host is reached directly, whatever the environment says.
        NetworkOptions direct = options.network;
        direct.proxy = "";
        const TransferSettings settings = settingsFor(options, parts, direct);
        line->note("pellorin: uploading " + source + " (" + formatBytes(totalLength(parts)) + ", " +
                   countOf(parts.size(), "part") + ") to " + target.baseUrl() + ", assembling " +
                   target.copyOf(source).string());
        const int status =
            runTransfer(parts, settings, journal.get(), events.get(), line, cancellation);
        if (status != 0) {
            return status;
        }
        const std::string sourceHash = sha256HexOfFile(source, cancellation.requested());
        const std::string copyHash =
            sha256HexOfFile(target.copyOf(source), cancellation.requested());
        if (sourceHash != copyHash) {
            line->print("Checksum mismatch: SHA-256 " + sourceHash + " of " + source + ", " +
                        copyHash + " of the received copy" +
                        (journal ? " (remove " + options.journal +
                                       " to send every part again if the copy was changed)"
                                 : ""));
            return 1;
        }
        const bool kept = !options.directory.empty() || !options.journal.empty();
        line->note("Checksums agree: SHA-256 " + sourceHash + " of " + source +
                   " and of the received copy" +
                   (kept ? " " + target.copyOf(source).string() : ""));
        return 0;
    } catch (const Interrupted&) {
        line->print("pellorin: interrupted");
        return kExitInterrupted;
    }
}

}  // namespace pellorin::host
