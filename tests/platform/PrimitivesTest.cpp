// The small platform primitives: queues, semaphores, timers, UTF-8.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <numeric>
#include <thread>

#include <pellorin/SerialQueue.h>

#include "Platform/Encoding.h"
#include "Platform/RepeatingTimer.h"
#include "Platform/Semaphore.h"

namespace pellorin {
namespace {

using namespace std::chrono_literals;

TEST(SerialQueueTest, RunsBlocksInOrderAndSyncWaitsForThem) {
    auto queue = SerialQueue::make("test.fifo");
    std::vector<int> seen;  // touched only on the queue
    for (int i = 0; i < 100; ++i) {
        queue->async([&seen, i] { seen.push_back(i); });
    }
    bool onQueue = false;
    queue->sync([&] { onQueue = queue->isCurrent(); });
    EXPECT_TRUE(onQueue);
    EXPECT_FALSE(queue->isCurrent());
    std::vector<int> expected(100);
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(seen, expected);
}

TEST(SerialQueueTest, MayBeDestroyedFromItsOwnBlock) {
    auto queue = SerialQueue::make("test.self-destroy");
    std::promise<void> released, ran;
    auto holder = std::make_shared<std::shared_ptr<SerialQueue>>(queue);
    queue->async([holder, &ran, gate = released.get_future().share()] {
        gate.wait_for(5s);
        holder->reset();  // the last reference goes here, on the queue's own thread
        ran.set_value();
    });
    queue.reset();
    released.set_value();
    EXPECT_EQ(ran.get_future().wait_for(5s), std::future_status::ready);
}

TEST(SemaphoreTest, SignalReportsWhetherItWokeAWaiterAndWaitsAreTimed) {
    Semaphore semaphore(0);
    EXPECT_FALSE(semaphore.waitFor(20ms));
    EXPECT_EQ(semaphore.signal(), 0);  // nobody waiting
    EXPECT_TRUE(semaphore.waitFor(0ms));

    // A signal reports a woken waiter only if the waiter was already blocked; give it longer on
    // every try (a waiter that arrives after the signal takes the count without blocking).
    long result = 0;
    for (int attempt = 1; attempt <= 20 && result == 0; ++attempt) {
        Semaphore fresh(0);
        std::atomic<bool> woke{false};
        std::thread waiter([&] { woke = fresh.waitFor(5s); });
        std::this_thread::sleep_for(attempt * 10ms);
        result = fresh.signal();
        waiter.join();
        EXPECT_TRUE(woke);
    }
    EXPECT_NE(result, 0);
}

TEST(RepeatingTimerTest, TicksUntilCancelled) {
    std::atomic<int> ticks{0};
    RepeatingTimer timer(std::chrono::system_clock::now(), 0.01, 0.0, [&] { ++ticks; });
    for (int i = 0; i < 500 && ticks < 3; ++i) {
        std::this_thread::sleep_for(2ms);
    }
    EXPECT_GE(ticks, 3);
    timer.cancel();
    std::this_thread::sleep_for(20ms);  // a tick already running may still finish
    const int stopped = ticks;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(ticks, stopped);
}

// Strict base64 is pinned by its fuzz target's corpus, replayed by CTest.
TEST(EncodingTest, Utf8Check) {
    for (const char* good : {"", "plain", "caf\xc3\xa9", "\xe2\x82\xac", "\xed\x9f\xbf",
                             "\xf0\x9f\x98\x80", "\xf4\x8f\xbf\xbf"}) {
        EXPECT_TRUE(isValidUtf8(good)) << good;
    }
    // Overlong forms, a surrogate, past U+10FFFF, a stray continuation, truncated sequences.
    for (const char* bad :
         {"\xc0\xaf", "\xc1\xbf", "\xe0\x9f\xbf", "\xed\xa0\x80", "\xf0\x8f\xbf\xbf",
          "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "a\x80", "\xe2\x82", "\xf0\x9f\x98", "\xc3"}) {
        EXPECT_FALSE(isValidUtf8(bad)) << bad;
    }
    EXPECT_FALSE(isValidUtf8(std::string_view("\xe2\x82\xac", 2)));
    // Each bad byte becomes one U+FFFD; good sequences around it stay.
    EXPECT_EQ(withInvalidUtf8Replaced("caf\xc3\xa9\xc0\xaf\xe2\x82"),
              "caf\xc3\xa9\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd\xef\xbf\xbd");
}

}  // namespace
}  // namespace pellorin
