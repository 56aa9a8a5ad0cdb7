// FileProgressTracker: progress of one file as the reporter would track it to throttle its
// progress lines. Plain record; touched only by the reporter that holds it.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace pellorin {

struct FileProgressTracker {
    FileProgressTracker(std::string path, uint64_t size) : path(std::move(path)), size(size) {}

    const std::string path;
    const uint64_t size;
    uint64_t sent = 0;
    uint64_t lost = 0;
    bool forceUpdate = false;                            // the next progress event must be logged
    std::chrono::system_clock::time_point nextUpdate{};  // earliest time of the next progress line
    bool logged100Pct = false;                           // the completion line has been logged
};

}  // namespace pellorin
