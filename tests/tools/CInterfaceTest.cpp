// The C interface's thread rules, in process (so that the sanitizer builds, which cannot load the
// library into Python, see them too): calls made from callbacks and from other threads while the
// transfer runs, and log callbacks replaced while library threads log.
#include <gtest/gtest.h>
#include <pellorin/pellorin.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "receiver/Receiver.h"
#include "support/TempDir.h"

#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace {

using pellorin::receiver::Fault;
using pellorin::receiver::Receiver;
using pellorin::receiver::RequestInfo;

// What the didStartPart callback saw when it called back into the client.
struct CallbackProbe {
    PLNFilePartRequest* extra = nullptr;
    std::atomic<bool> started{false};
    std::vector<int32_t> results;  // delegate queue only, read after the wait
};

void onStart(void* context, PLNPellorinClient* client, const char*) {
    auto& probe = *static_cast<CallbackProbe*>(context);
    if (probe.started.load()) {
        return;
    }
    PLNClientDelegate other = {};
    probe.results = {PLNPellorinClient_uploadPartRequest(client, probe.extra),
                     PLNPellorinClient_waitUntilFinished(client), PLNPellorinClient_release(client),
                     PLNPellorinClient_addDelegate(client, &other),
                     PLNPellorinClient_removeDelegate(client, &other)};
    probe.started.store(true);
}

void countEvent(void* context, PLNPellorinClient*, const char*) {
    static_cast<std::atomic<int>*>(context)->fetch_add(1);
}

class CInterfaceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        receiver_.start();
        // Every answer waits a little, so the transfer is still running when the calls land.
        receiver_.setFaultScript(
            [](const RequestInfo&) { return std::optional(Fault{.delayBeforeAnswerSecs = 0.2}); });
    }

    PLNFilePartRequest* part(const std::string& name, uint64_t number) {
        const std::string path = dir_.makeFile(name, 4096, number).string();
        return PLNFilePartRequest_make(path.c_str(), number, 0, 4096,
                                       receiver_.partUrl(name, 0).c_str(), "PUT", nullptr, 0);
    }

    // Queues parts 1..count of distinct files.
    void submit(PLNPellorinClient* client, int count) {
        for (int i = 1; i <= count; ++i) {
            PLNFilePartRequest* request = part("f" + std::to_string(i) + ".bin", i);
            ASSERT_EQ(PLNPellorinClient_uploadPartRequest(client, request), PLN_OK);
            PLNFilePartRequest_release(request);
        }
    }

    pellorin::testing::TempDir dir_;
    Receiver receiver_;
};

TEST_F(CInterfaceTest, CallsDuringTheWaitAreRefusedOrSafeFromAnyThread) {
    PLNPellorinClient* client = PLNPellorinClient_standardClient(nullptr, 1, 0);
    ASSERT_NE(client, nullptr);
    CallbackProbe probe;
    probe.extra = part("extra.bin", 9);
    PLNClientDelegate prober = {};
    prober.context = &probe;
    prober.didStartPart = onStart;
    ASSERT_EQ(PLNPellorinClient_addDelegate(client, &prober), PLN_OK);
    submit(client, 3);

    // Another thread hands in a part, changes a setting and churns a delegate table while callbacks
    // run.
    std::atomic<int> churned{0};
    std::vector<int32_t> fromThread;
    std::thread other([&] {
        while (!probe.started.load()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        fromThread = {PLNPellorinClient_uploadPartRequest(client, probe.extra),
                      PLNPellorinClient_waitUntilFinished(client),
                      PLNPellorinClient_setIdleTimeout(client, 5)};
        PLNClientDelegate counter = {};
        counter.context = &churned;
        counter.didReceivePartProgress = countEvent;
        counter.partDidComplete = countEvent;
        for (int i = 0; i < 200; ++i) {
            PLNPellorinClient_addDelegate(client, &counter);
            PLNPellorinClient_removeDelegate(client, &counter);
        }
    });
    EXPECT_EQ(PLNPellorinClient_waitUntilFinished(client), PLN_OK);
    other.join();

    EXPECT_EQ(probe.results, std::vector<int32_t>(5, PLN_ERROR_STATE));
    EXPECT_EQ(fromThread, std::vector<int32_t>(3, PLN_ERROR_STATE));
    EXPECT_EQ(PLNPellorinClient_uploadPartRequest(client, probe.extra), PLN_ERROR_STATE);
    EXPECT_STREQ(PLNLastError(), "transfer already finished; a client runs one transfer");
    EXPECT_EQ(PLNPellorinClient_release(client), PLN_OK);
    PLNFilePartRequest_release(probe.extra);
    EXPECT_EQ(receiver_.requests().size(), 3u);  // the refused part was never sent
}

TEST_F(CInterfaceTest, ReplacedLogCallbackIsNeverCalledAfterTheSwap) {
    std::atomic<int> first{0}, second{0};
    auto count = [](void* context, int32_t, const char*) {
        static_cast<std::atomic<int>*>(context)->fetch_add(1);
    };
    ASSERT_EQ(PLNLogging_setLevel(PLN_LOG_TRACE), PLN_OK);  // the client logs from its threads
    ASSERT_EQ(PLNLogging_setCallback(count, &first), PLN_OK);
    PLNPellorinClient* client = PLNPellorinClient_standardClient(nullptr, 2, 0);
    submit(client, 4);
    std::thread waiter([&] { EXPECT_EQ(PLNPellorinClient_waitUntilFinished(client), PLN_OK); });
    for (int i = 0; i < 100; ++i) {
        PLNLogging_setCallback(count, i % 2 == 0 ? &second : &first);
    }
    PLNLogging_setCallback(count, &second);
    const int settled = first.load();
    waiter.join();
    PLNPellorinClient_invalidateAndCancel(client);  // logs at error level
    EXPECT_EQ(first.load(), settled);
    EXPECT_GT(second.load(), 0);

    ASSERT_EQ(PLNLogging_setCallback(nullptr, nullptr), PLN_OK);
    const int silenced = second.load();
    PLNPellorinClient* quiet = PLNPellorinClient_standardClient(nullptr, 1, 0);
    PLNPellorinClient_invalidateAndCancel(quiet);
    EXPECT_EQ(second.load(), silenced);
    PLNPellorinClient_release(quiet);
    PLNPellorinClient_release(client);
    // Back to the default for whatever runs next in this process.
    PLNLogging_setLevel(PLN_LOG_INFO);
    PLNLogging_setDestination(PLN_LOG_TO_STANDARD_OUTPUT);
}

}  // namespace
