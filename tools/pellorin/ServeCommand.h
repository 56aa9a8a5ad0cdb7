// `pellorin serve`: the local receiver as a process of its own, until SIGINT or SIGTERM. It
// prints where it listens, then one line per request.
#pragma once

#include <cstdint>
#include <string>

#include <CLI/CLI.hpp>

#include "receiver/Receiver.h"

namespace pellorin::host {

struct ServeOptions {
    uint16_t port = 0;      // 0: an ephemeral port
    std::string directory;  // where uploaded files are assembled; empty: bodies are only hashed
    receiver::ChecksumMode checksumMode = receiver::ChecksumMode::contentMD5;
};

// One line for a request: method, target, part number, retry count, body bytes, status, whether
// it was accepted, and how long it took.
std::string requestLine(const receiver::RequestRecord& record);

// Declares the sub-command and its options, filling `options` when parsed.
CLI::App* addServeCommand(CLI::App& app, ServeOptions& options);

// Serves until a signal arrives; returns 0. Throws InputError when the directory does not exist,
// std::runtime_error when the port cannot be bound. Host thread.
int runServe(const ServeOptions& options);

}  // namespace pellorin::host
