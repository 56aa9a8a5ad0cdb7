// `pellorin upload`: uploads the parts of a reservation file, a file to any server (--to URL), or,
// with neither, a file (a generated one when none is given) to the local receiver run inside the
// host, checking the received copy against the source afterwards.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "NetworkOptions.h"
#include "StatusLine.h"

namespace pellorin::host {

struct UploadOptions {
    std::string reservation;  // the reservation file; empty for none
    std::string file;         // the file to upload; empty for a generated one
    std::string to;           // --to: URL template; empty for none
    std::string method = "PUT";
    std::vector<std::string> headers;         // -H "Name: value"
    uint64_t demoSize = uint64_t{256} << 20;  // size of the generated file
    uint64_t partSize = uint64_t{8} << 20;    // bytes per part (embedded default and --to)
    std::string directory;                    // embedded default: where the copy is assembled
    unsigned maxConnections = 4;
    unsigned maxRetries = 3;
    unsigned retryRounds = 3;
    std::optional<uint64_t> rateLimit;  // KB/s
    std::string events;                 // --events: a file, "-" or empty for none
    std::string journal;                // empty for none
    bool reporterLines = false;         // the reporter's lines on standard error (--log-level)
    NetworkOptions network;
};

// Declares the sub-command and its options, filling `options` when parsed.
CLI::App* addUploadCommand(CLI::App& app, UploadOptions& options);

// Runs the upload on the host thread and returns the exit status: 0 when every part is done (and
// the embedded default's copy agrees), 1 when a part failed (or the copy differs), 130 when a
// signal cancelled it. Throws InputError for bad input, before anything is sent.
int runUpload(const UploadOptions& options, const std::shared_ptr<StatusLine>& line);

}  // namespace pellorin::host
