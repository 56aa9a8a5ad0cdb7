// `pellorin reserve`: asks a reservation service (or a local receiver standing in for it) for a
// test reservation of one file and writes its operations to a reservation file, ready for
// `pellorin upload --reservation`.
#pragma once

#include <string>

#include <CLI/CLI.hpp>

namespace pellorin::host {

struct ReserveOptions {
    std::string file;
    std::string output = "reservation.json";
    std::string user;
    std::string passwordEnvironment = "PELLORIN_PASSWORD";
    std::string passwordFile;
    std::string provider;
    unsigned qeld = 0;
    std::string endpoint;
};

// Declares the sub-command and its options, filling `options` when parsed.
CLI::App* addReserveCommand(CLI::App& app, ReserveOptions& options);

// Runs the reservation on the host thread; returns 0 when the reservation file was written.
// Throws InputError for bad input.
int runReserve(const ReserveOptions& options);

}  // namespace pellorin::host
