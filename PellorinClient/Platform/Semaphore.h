// Semaphore: a counting semaphore with timed waits whose signal reports whether it woke a waiter.
// Any thread may wait or signal.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace pellorin {

class Semaphore {
  public:
    explicit Semaphore(long value) : value_(value) {}
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    // Adds one to the count. Returns non-zero when a waiting thread was woken, 0 otherwise.
    long signal();
    // Waits without a time limit until the count is positive, then takes one.
    void wait();
    // Waits until the count is positive (then takes one and returns true) or until the
    // wall-clock deadline has passed (returns false, nothing taken).
    bool waitUntil(std::chrono::system_clock::time_point deadline);
    bool waitFor(std::chrono::nanoseconds timeout) {
        return waitUntil(std::chrono::system_clock::now() + timeout);
    }

  private:
    std::mutex mutex_;
    std::condition_variable available_;
    long value_;        // guarded by mutex_
    long waiters_ = 0;  // guarded by mutex_
};

}  // namespace pellorin
