// The process's own threads and open file descriptors, counted from /proc/self, for tests that
// check a component leaves nothing behind. Any thread.
#pragma once

#include <chrono>
#include <cstddef>

namespace pellorin::testing {

struct ProcessResources {
    size_t threads = 0;
    size_t descriptors = 0;

    static ProcessResources now();
    bool operator==(const ProcessResources&) const = default;
};

// The counts once they have stopped changing (the same for 300 ms, or whatever they are after
// `limit`): a baseline taken while the threads of earlier work are still on their way out would
// be too high.
ProcessResources settledResources(std::chrono::milliseconds limit = std::chrono::seconds(5));

// Threads that were told to stop may take a moment to be gone and to close their sockets: waits
// up to `limit` for the counts to equal `baseline`, and returns the last counts seen.
ProcessResources waitForResources(const ProcessResources& baseline,
                                  std::chrono::milliseconds limit = std::chrono::seconds(5));

}  // namespace pellorin::testing
