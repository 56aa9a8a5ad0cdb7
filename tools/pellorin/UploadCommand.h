// `pellorin upload`: uploads the parts of a reservation file, or, with no reservation, a file (a
// generated one when none is given) to the local receiver run inside the host, checking the
// received copy against the source afterwards.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include <CLI/CLI.hpp>

#include "StatusLine.h"

namespace pellorin::host {

struct UploadOptions {
    std::string reservation;  // the reservation file; empty for the embedded default
    std::string file;         // embedded default: the file to upload; empty for a generated one
    uint64_t demoSize = uint64_t{256} << 20;  // size of the generated file
    uint64_t partSize = uint64_t{8} << 20;    // embedded default: bytes per part
    std::string directory;                    // embedded default: where the copy is assembled
    unsigned maxConnections = 4;
    unsigned maxRetries = 3;
    std::optional<uint64_t> rateLimit;  // KB/s
    std::string events;                 // --events: a file, "-" or empty for none
    std::string journal;                // empty for none
};

// Declares the sub-command and its options, filling `options` when parsed.
CLI::App* addUploadCommand(CLI::App& app, UploadOptions& options);

// Runs the upload on the host thread and returns the exit status: the client's 0 or 1 (1 too
// when the embedded default's copy differs from the source), or 130 when interrupted before or
// after the transfer itself. Throws InputError for bad input, before anything is sent.
int runUpload(const UploadOptions& options, const std::shared_ptr<StatusLine>& line);

}  // namespace pellorin::host
