// The command-line host: `pellorin upload`, `pellorin serve` and `pellorin reserve`. Parses the
// command line, sets up logging and the terminal, and maps every outcome to an exit status: the
// client's 0 or 1, 2 for a usage or input error (one line on standard error saying what is
// wrong), 130 when interrupted outside a transfer.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include <pellorin/Logging.h>
#include <pellorin/PellorinClient.h>

#include "HostError.h"
#include "ReserveCommand.h"
#include "ServeCommand.h"
#include "SignalWatcher.h"
#include "StatusLine.h"
#include "Units.h"
#include "UploadCommand.h"

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

// Log lines of the library go to standard error, above the progress line, from `level` up.
void setUpLogging(const std::string& levelName, const std::shared_ptr<StatusLine>& line) {
    const Logger::Level level = parseLevel(levelName).value_or(Logger::Level::warning);
    LoggingSystem::bootstrap(
        [level, line](const std::string& label) -> std::unique_ptr<LogHandler> {
            auto inner = std::make_unique<StreamLogHandler>(StreamLogHandler::standardError(label));
            inner->setLogLevel(level);
            return std::make_unique<StatusLineLogHandler>(std::move(inner), line);
        });
}

int run(int argc, char** argv) {
    CLI::App app(
        "Uploads large files in parts over HTTP: at most N parts at a time, each checked "
        "against the server's MD5, failed parts retried.",
        "pellorin");
    app.require_subcommand(1);
    app.fallthrough();
    app.set_version_flag("--version", PellorinClient::versionString().value_or("unknown"));
    std::string logLevel = "warning";
    app.add_option("--log-level", logLevel, "Level of the library's log lines on standard error")
        ->check(CLI::IsMember({"trace", "debug", "info", "notice", "warning", "error", "critical"}))
        ->capture_default_str();
    app.footer(
        "Examples:\n"
        "  pellorin upload --demo-size 256MiB    upload a generated file to a receiver run inside\n"
        "                                        pellorin and check the copy's SHA-256\n"
        "  pellorin upload big.iso --journal big.journal\n"
        "  pellorin serve --port 8080 --dir /tmp/received\n"
        "  pellorin upload --reservation reservation.json --max-connections 8\n"
        "\nRun 'pellorin <command> --help' for the options of a command.");

    UploadOptions upload;
    CLI::App* uploadCommand = app.add_subcommand(
        "upload",
        "Upload the parts of a reservation file, or upload FILE (a generated file when none is "
        "given) to a local receiver run inside pellorin and check the copy");
    auto* fileOption =
        uploadCommand->add_option("FILE", upload.file, "File to upload to the embedded receiver");
    auto* reservationOption = uploadCommand->add_option(
        "-r,--reservation", upload.reservation,
        "Reservation file (JSON array of {filePath, operation}) whose parts to upload");
    uploadCommand
        ->add_option("-c,--max-connections", upload.maxConnections, "Parts in flight at once")
        ->check(CLI::Range(1u, 255u))
        ->capture_default_str();
    uploadCommand->add_option("--max-retries", upload.maxRetries, "Retries per part")
        ->check(CLI::Range(0u, 255u))
        ->capture_default_str();
    uploadCommand
        ->add_option_function<uint64_t>(
            "--rate-limit", [&](uint64_t value) { upload.rateLimit = value; },
            "Bandwidth cap in KB/s (1000 bytes per second); none by default")
        ->check(CLI::Range(uint64_t{1}, UINT64_MAX / 1000))
        ->type_name("KBPS");
    uploadCommand->add_option("--journal", upload.journal,
                              "Record completed parts in this file and skip them when run again");
    uploadCommand->add_option("--events", upload.events,
                              "Write every event as a line of JSON to this file ('-': standard "
                              "output)");
    auto* partSizeOption = addSizeOption(*uploadCommand, "--part-size", upload.partSize,
                                         "Embedded default: bytes per part [8MiB]");
    auto* demoSizeOption = addSizeOption(*uploadCommand, "--demo-size", upload.demoSize,
                                         "Embedded default without FILE: size of the generated "
                                         "file [256MiB]");
    auto* dirOption = uploadCommand->add_option(
        "--dir", upload.directory,
        "Embedded default: assemble the copy in this directory (kept) instead of a temporary one");
    reservationOption->excludes(fileOption)
        ->excludes(partSizeOption)
        ->excludes(demoSizeOption)
        ->excludes(dirOption);
    demoSizeOption->excludes(fileOption);

    ServeOptions serve;
    CLI::App* serveCommand = app.add_subcommand(
        "serve", "Run the local receiver on 127.0.0.1 until Ctrl-C, printing one line per request");
    serveCommand->add_option("-p,--port", serve.port, "Port to listen on (0: any free port)")
        ->capture_default_str();
    serveCommand->add_option("--dir", serve.directory,
                             "Assemble uploaded files in this directory (default: only hash them)");
    serveCommand
        ->add_option("--checksum", serve.checksumMode,
                     "Header that carries the body's MD5: content-md5 (base64) or etag (hex)")
        ->transform(CLI::CheckedTransformer(
            std::map<std::string, receiver::ChecksumMode>{
                {"content-md5", receiver::ChecksumMode::contentMD5},
                {"etag", receiver::ChecksumMode::eTag}},
            CLI::ignore_case))
        ->default_str("content-md5");

    ReserveOptions reserve;
    CLI::App* reserveCommand = addReserveCommand(app, reserve);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& success) {
        return app.exit(success);  // --help or --version: printed on standard output
    } catch (const CLI::ParseError& error) {
        std::string command = "pellorin";
        for (const auto* sub : app.get_subcommands()) {
            command += " " + sub->get_name();
        }
        std::fprintf(stderr, "pellorin: %s (see '%s --help')\n", error.what(), command.c_str());
        return kExitUsage;
    }

    const bool eventsOnTerminal = upload.events == "-" && ::isatty(STDOUT_FILENO);
    auto line = std::make_shared<StatusLine>(
        stderr, uploadCommand->parsed() && ::isatty(STDERR_FILENO) && !eventsOnTerminal);
    setUpLogging(logLevel, line);
    if (uploadCommand->parsed()) {
        return runUpload(upload, line);
    }
    if (serveCommand->parsed()) {
        return runServe(serve);
    }
    if (reserveCommand->parsed()) {
        return runReserve(reserve);
    }
    return kExitUsage;
}

}  // namespace
}  // namespace pellorin::host

int main(int argc, char** argv) {
    using namespace pellorin::host;
    // Before any other thread exists, so that every thread inherits the mask (SignalWatcher.h).
    blockTerminationSignals();
    try {
        return run(argc, argv);
    } catch (const InputError& error) {
        std::fprintf(stderr, "pellorin: %s\n", error.what());
        return kExitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "pellorin: %s\n", error.what());
        return 1;
    }
}
