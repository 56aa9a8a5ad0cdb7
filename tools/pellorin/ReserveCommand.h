// `pellorin reserve`: asks the reservation service (or a local receiver standing in for it, with
// --endpoint) for a test reservation of one file and writes its operations to a reservation file,
// ready for `pellorin upload --reservation`.
#pragma once

#include <optional>
#include <string>

#include <CLI/CLI.hpp>

namespace pellorin::host {

struct ReserveOptions {
    std::string file;
    std::string output = "reservation.json";
    std::string user;
    // The password comes from a file or an environment variable, never from the command line
    // (which other users of the machine can read).
    std::string passwordEnvironment = "PELLORIN_PASSWORD";
    std::string passwordFile;
    std::optional<std::string> provider;
    unsigned qeld = 0;
    std::string endpoint;  // empty: the service instance numbered qeld
};

// Declares the sub-command and its options, filling `options` when parsed.
CLI::App* addReserveCommand(CLI::App& app, ReserveOptions& options);

// Runs the reservation on the host thread: 0 when the reservation file was written with at least
// one operation, 1 when the service could not be reached, did not answer in time, answered
// something unusable or reserved nothing. Throws InputError for bad input, before anything is
// sent.
int runReserve(const ReserveOptions& options);

}  // namespace pellorin::host
