#include "support/ProcessResources.h"

#include <dirent.h>

#include <thread>

namespace pellorin::testing {

namespace {

size_t entriesIn(const char* directory) {
    size_t count = 0;
    if (DIR* d = opendir(directory)) {
        while (readdir(d))
            ++count;
        closedir(d);
    }
    return count;
}

}  // namespace

ProcessResources ProcessResources::now() {
    // The descriptor count includes the one opendir holds while reading /proc/self/fd.
    return ProcessResources{entriesIn("/proc/self/task"), entriesIn("/proc/self/fd")};
}

ProcessResources settledResources(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    ProcessResources current = ProcessResources::now();
    auto stableSince = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() < deadline &&
           std::chrono::steady_clock::now() - stableSince < std::chrono::milliseconds(300)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        const ProcessResources next = ProcessResources::now();
        if (next != current) {
            current = next;
            stableSince = std::chrono::steady_clock::now();
        }
    }
    return current;
}

ProcessResources waitForResources(const ProcessResources& baseline,
                                  std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    ProcessResources current = ProcessResources::now();
    while (current != baseline && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        current = ProcessResources::now();
    }
    return current;
}

}  // namespace pellorin::testing
