#include "datapath/RateLimiter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <thread>

namespace pellorin {
namespace {

TEST(RateLimiter, AllocationAndIntervalFromRate) {
    struct Case {
        uint64_t rate;
        uint64_t perAllocation;
        double interval;
    };
    for (const Case& c : {Case{1000, 10, 0.01}, Case{50, 1, 0.02}, Case{199, 1, 0.01},
                          Case{250, 2, 0.01}, Case{100, 1, 0.01}, Case{1, 1, 1.0}}) {
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

    auto grant = limiter->acquire(3);
    EXPECT_EQ(grant.granted, 3u);
    EXPECT_FALSE(grant.exhausted);
    EXPECT_EQ(limiter->availablePermits(), 7u);

    grant = limiter->acquire(7);  // an exact fit empties the bucket
    EXPECT_EQ(grant.granted, 7u);
    EXPECT_TRUE(grant.exhausted);

    grant = limiter->acquire(5);
    EXPECT_EQ(grant.granted, 0u);
    EXPECT_TRUE(grant.exhausted);

    limiter->refresh();
    limiter->refresh();  // a reset, not an addition
    EXPECT_EQ(limiter->availablePermits(), 10u);
    grant = limiter->acquire(25);
    EXPECT_EQ(grant.granted, 10u);
    EXPECT_TRUE(grant.exhausted);

    limiter->refresh();
    grant = limiter->acquire(0);
    EXPECT_EQ(grant.granted, 0u);
    EXPECT_FALSE(grant.exhausted);
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
