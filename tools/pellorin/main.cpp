// The command-line host: `pellorin upload`, `pellorin serve` and `pellorin reserve`. Parses the
// command line, sets up logging and the terminal, and maps every outcome to an exit status: the
// client's 0 or 1, 2 for a usage or input error (one line on standard error saying what is
// wrong), 130 when cancelled by a signal.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>

#include <CLI/CLI.hpp>

#include <pellorin/Logging.h>
#include <pellorin/PellorinClient.h>

#include "HostError.h"
#include "Redaction.h"
#include "ReserveCommand.h"
#include "ServeCommand.h"
#include "SignalWatcher.h"
#include "StatusLine.h"
#include "UploadCommand.h"

namespace pellorin::host {
namespace {

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
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"trace", "debug", "info", "notice", "warning", "error", "critical"}))
        ->capture_default_str();

    bool quiet = false;
    bool secrets = false;
    UploadOptions upload;
    CLI::App* uploadCommand = addUploadCommand(app, upload);
    uploadCommand->add_flag("-q,--quiet", quiet,
                            "Print nothing but errors (no progress, no summary)");
    uploadCommand->add_flag("--show-secrets", secrets,
                            "Show URLs whole: query strings and passwords are replaced by *** "
                            "otherwise");
    ServeOptions serve;
    CLI::App* serveCommand = addServeCommand(app, serve);
    ReserveOptions reserve;
    CLI::App* reserveCommand = addReserveCommand(app, reserve);

    app.footer(
        "Examples:\n"
        "  pellorin upload --demo-size 256MiB    upload a generated file to a receiver run inside\n"
        "                                        pellorin and check the copy's SHA-256\n"
        "  pellorin upload big.iso --journal big.journal\n"
        "  pellorin serve --port 8080 --dir /tmp/received\n"
        "  pellorin upload --reservation reservation.json --max-connections 8\n"
        "  pellorin upload big.iso --to 'http://127.0.0.1:8080/upload/{name}?offset={offset}'\n"
        "\nRun 'pellorin <command> --help' for the options of a command.\n");

    // CLI11 reports an unknown command as a missing one; say what is wrong instead.
    const auto commands = app.get_subcommands([](const CLI::App*) { return true; });
    if (argc > 1 && argv[1][0] != '-' &&
        std::none_of(commands.begin(), commands.end(),
                     [&](const CLI::App* command) { return command->check_name(argv[1]); })) {
        std::fprintf(stderr,
                     "pellorin: unknown command \"%s\": expected upload, serve or reserve (see "
                     "'pellorin --help')\n",
                     argv[1]);
        return kExitUsage;
    }
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
    setShowSecrets(secrets);
    auto line = std::make_shared<StatusLine>(
        stderr, uploadCommand->parsed() && ::isatty(STDERR_FILENO) && !eventsOnTerminal, quiet);
    setUpLogging(logLevel, line);
    const auto level = parseLevel(logLevel).value_or(Logger::Level::warning);
    upload.reporterLines = level <= Logger::Level::notice;
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
