// A quick check that a server accepts TCP connections, made before a call that would otherwise
// wait for ever on a host that never answers. Host thread; blocks up to the time-out per address
// (plus the name lookup).
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace pellorin::host {

// No value when a TCP connection to host:port opens within `timeout`; otherwise why it did not
// ("Connection refused", "no such host", "timed out").
std::optional<std::string> unreachableReason(const std::string& host, int port,
                                             std::chrono::milliseconds timeout);

}  // namespace pellorin::host
