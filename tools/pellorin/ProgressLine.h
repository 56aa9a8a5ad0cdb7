// The live progress line: the counters a transfer keeps, the text of the line, and the display
// that redraws it at most ten times a second.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "StatusLine.h"

namespace pellorin::host {

// What a transfer has done so far. Written by the transfer observer on the client's delegate
// queue, read by the display's thread; each counter is atomic on its own.
struct ProgressCounters {
    ProgressCounters(uint64_t totalBytes, uint64_t totalParts)
        : totalBytes(totalBytes), totalParts(totalParts) {}

    const uint64_t totalBytes;  // of every planned part, those already done included
    const uint64_t totalParts;
    // Bytes of completed parts (journal included) plus what the current attempts have sent.
    std::atomic<uint64_t> doneBytes{0};
    // Every body byte sent in this run, resent ones included: what the rate is measured on.
    std::atomic<uint64_t> sentBytes{0};
    std::atomic<uint64_t> partsDone{0};
    std::atomic<uint64_t> partsFailed{0};
    std::atomic<uint64_t> retries{0};
};

// One drawing of the line.
struct ProgressSnapshot {
    uint64_t totalBytes = 0;
    uint64_t doneBytes = 0;
    uint64_t totalParts = 0;
    uint64_t partsDone = 0;
    uint64_t partsFailed = 0;
    uint64_t retries = 0;
    double bytesPerSecond = 0;
    double elapsedSecs = 0;
    bool finished = false;  // the final drawing: elapsed time instead of time left
};

// " 42.3%  108 MiB / 256 MiB  35.2 MiB/s  0:04 left  parts 13/32, 0 failed, 2 retries". The
// percentage is of bytes (of parts when there are no bytes), rounded down so that 100.0% means
// done; time left is the remaining bytes at the current rate.
std::string formatProgressLine(const ProgressSnapshot& snapshot);

// A rate over the last few seconds of (time, byte count) samples.
class RateWindow {
  public:
    using Clock = std::chrono::steady_clock;
    explicit RateWindow(Clock::duration span = std::chrono::seconds(3)) : span_(span) {}

    void add(Clock::time_point now, uint64_t bytes);
    // Bytes per second between the oldest and the newest sample; 0 with fewer than two.
    double rate() const;

  private:
    Clock::duration span_;
    std::deque<std::pair<Clock::time_point, uint64_t>> samples_;
};

// Shows progress from the counters on a thread of its own, from construction until stop(): on a
// live status line it redraws the line every 100 ms; otherwise it prints a plain line every
// `plainEvery` and one at the end. Does nothing when the status line is quiet. Made and stopped
// on the host thread; the counters and the status line must outlive it.
class ProgressDisplay {
  public:
    ProgressDisplay(const ProgressCounters& counters, std::shared_ptr<StatusLine> line,
                    std::chrono::milliseconds plainEvery = std::chrono::seconds(10));

    // Text shown after the numbers until changed ("waiting 4 s before round 2"); "" for none.
    // Any thread.
    void setNote(std::string note);
    ~ProgressDisplay();
    ProgressDisplay(const ProgressDisplay&) = delete;
    ProgressDisplay& operator=(const ProgressDisplay&) = delete;

    // Draws the final line (average rate, elapsed time) and ends it. Idempotent.
    void stop();

  private:
    ProgressSnapshot snapshot(bool finished);
    std::string text(bool finished);
    void run();

    const ProgressCounters& counters_;
    std::shared_ptr<StatusLine> line_;
    const std::chrono::milliseconds plainEvery_;
    const RateWindow::Clock::time_point started_ = RateWindow::Clock::now();
    RateWindow window_;  // display thread only (and stop(), after joining it)
    std::mutex mutex_;
    std::condition_variable wake_;
    bool stopping_ = false;  // guarded by mutex_
    std::string note_;       // guarded by mutex_
    std::thread thread_;
};

}  // namespace pellorin::host
