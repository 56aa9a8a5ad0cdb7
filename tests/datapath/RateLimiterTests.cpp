#include "datapath/RateLimiter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

namespace pellorin {
namespace {

TEST(RateLimiter, AllocationAndIntervalFromRate) {
    struct Case {
        uint64_t rate, perAllocation;
        double interval;
    };
    for (const Case& c : {Case{1000, 10, 0.01}, Case{50, 1, 0.02}, Case{199, 1, 0.01},
                          Case{250, 2, 0.01}, Case{1, 1, 1.0}}) {
        auto limiter = RateLimiter::makeManual(c.rate);
        EXPECT_EQ(limiter->permitsPerAllocation(), c.perAllocation) << c.rate;
        EXPECT_DOUBLE_EQ(limiter->delayConstant(), c.interval) << c.rate;
        EXPECT_EQ(limiter->availablePermits(), c.perAllocation) << "starts full";
    }
    auto never = RateLimiter::make(0);  // a timer that never fires, and stops cleanly
    EXPECT_EQ(never->permitsPerAllocation(), 1u);
    EXPECT_TRUE(std::isinf(never->delayConstant()));
}

TEST(RateLimiter, GrantsExhaustionAndRefill) {
    auto limiter = RateLimiter::makeManual(1000);  // 10 permits per refill
    auto expectGrant = [&](int64_t wanted, uint64_t granted, bool exhausted) {
        const RateLimiter::Grant grant = limiter->acquire(wanted);
        EXPECT_EQ(grant.granted, granted) << wanted;
        EXPECT_EQ(grant.exhausted, exhausted) << wanted;
    };
    expectGrant(3, 3, false);
    EXPECT_EQ(limiter->availablePermits(), 7u);
    expectGrant(7, 7, true);  // an exact fit empties the bucket
    expectGrant(5, 0, true);
    limiter->refresh();
    limiter->refresh();  // a reset, not an addition
    expectGrant(25, 10, true);
    limiter->refresh();
    expectGrant(0, 0, false);
}

TEST(RateLimiter, TimerRefillsTheBucket) {
    auto limiter = RateLimiter::make(1000);
    EXPECT_EQ(limiter->acquire(100).granted, 10u);
    for (int i = 0; i < 2000 && limiter->availablePermits() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(limiter->availablePermits(), 10u);
}

}  // namespace
}  // namespace pellorin
