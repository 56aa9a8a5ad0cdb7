// RateLimiter: a bucket of permits (one per byte) shared by every body stream of a client,
// refilled at a fixed short interval so that the permitted rate is spread over each second.
//
// Ownership: held as std::shared_ptr<RateLimiter> by the client and by each of its streams. The
// refill timer is owned by the limiter and holds it weakly; destroying the limiter stops it.
// Threads: acquire() runs on the streams' transfer threads, refresh() on the timer's thread;
// both run under the limiter's lock, so concurrent takers never overdraw the bucket. The
// limiter never blocks a caller waiting for a refill: a taker that gets nothing sleeps itself.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>

#include "Platform/RepeatingTimer.h"

namespace pellorin {

class RateLimiter : public std::enable_shared_from_this<RateLimiter> {
    // Only the factories below can make one: its constructor is private and user-provided, so
    // `{}` does not make one outside this class either.
    class Token {
        Token() {}
        friend class RateLimiter;
    };

  public:
    // Below 100 permits per second one permit is granted per 1/permitsPerSecond seconds (a rate
    // of 0 never refills). From 100 on, permitsPerSecond / 100 permits (integer division: 250/s
    // acts as 200/s) are granted every 10 ms. The bucket starts full and the refill timer runs
    // from now until the limiter goes away.
    static std::shared_ptr<RateLimiter> make(uint64_t permitsPerSecond);
    // The same limiter without its refill timer: the bucket refills only when refresh() is
    // called. For callers that drive the refills themselves.
    static std::shared_ptr<RateLimiter> makeManual(uint64_t permitsPerSecond);

    RateLimiter(Token, uint64_t permitsPerSecond);
    ~RateLimiter();
    RateLimiter(const RateLimiter&) = delete;
    RateLimiter& operator=(const RateLimiter&) = delete;

    struct Grant {
        uint64_t granted;
        // The bucket held no more than was asked for (an exact fit counts): it is now empty and
        // the taker should pause a little before asking again.
        bool exhausted;
    };
    // Takes up to `upTo` permits (a negative count is a fatal stop). Any thread.
    Grant acquire(int64_t upTo);
    // Refills the bucket to exactly permitsPerAllocation: permits left unused are lost, so the
    // bucket never holds more than one allocation. Any thread; the timer calls it.
    void refresh();

    uint64_t permitsPerSecond() const { return permitsPerSecond_; }
    uint64_t permitsPerAllocation() const { return permitsPerAllocation_; }
    uint64_t availablePermits() const;
    // Seconds between refills (infinite for a rate of 0).
    double delayConstant() const { return delayConstant_; }
    // When the next refill is due (the far future for a rate of 0).
    std::chrono::system_clock::time_point nextRefresh() const;

  private:
    void startTimer();

    const uint64_t permitsPerSecond_;
    const uint64_t permitsPerAllocation_;
    const double delayConstant_;

    mutable std::mutex mutex_;
    uint64_t availablePermits_;                          // guarded by mutex_
    std::chrono::system_clock::time_point nextRefresh_;  // guarded by mutex_

    std::unique_ptr<RepeatingTimer> refreshTimer_;  // set once by the factory, then constant
};

}  // namespace pellorin
