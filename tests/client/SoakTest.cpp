// Long transfers. One against a receiver that fails about a quarter of all attempts at random
// (server errors, "429 Retry-After: 0", dropped connections, stalls past the idle time-out, wrong
// checksums): every part must arrive exactly once, byte for byte, and the client's counts must
// match what was injected. PELLORIN_SOAK_PARTS and PELLORIN_SOAK_SEED change the size and the
// plan (bench/soak runs it large). Another counts what many parts leave behind.
#include <gtest/gtest.h>

#include <dirent.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "Platform/UrlError.h"
#include "RandomFaults.h"
#include "TransferFixture.h"

namespace pellorin::testing {
namespace {

using namespace std::chrono_literals;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

constexpr uint64_t kPart = 4 * 1024;
// Sanitized builds run several times slower: fewer parts, and an idle time-out that a healthy
// exchange never reaches even then.
constexpr uint64_t kDefaultParts = kSanitized ? 800 : 2000;
constexpr double kIdleTimeoutSecs = kSanitized ? 1.5 : 0.5;

TEST(FaultSoak, EveryPartArrivesOnceAndTheCountsMatchTheInjectedFaults) {
    const uint64_t parts = sizeFromEnvironment("PELLORIN_SOAK_PARTS", kDefaultParts);
    const uint64_t seed = sizeFromEnvironment("PELLORIN_SOAK_SEED", 20240611);
    Transfer t(parts * kPart, 16, 20);
    RandomFaults faults(seed, 25, 2 * kIdleTimeoutSecs, kPart);
    t.receiver->setFaultScript(faults.script());
    t.client->setSessionConfigurationSupplier([] {
        auto configuration = SessionConfiguration::ephemeral();
        configuration.timeoutIntervalForRequest = kIdleTimeoutSecs;
        return configuration;
    });
    t.submitParts(kPart);

    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(t.run(std::chrono::seconds(600)), 0);
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ASSERT_TRUE(t.delegate->waitForFinish());

    // The receiver accepted each part exactly once, after one request per injected fault. A
    // request dropped on a kept-alive connection may be sent again at once by the transport, on a
    // new connection with the body rewound: the same attempt (retry count) once more. Each retry
    // answers the last request of the attempt before it.
    std::map<uint64_t, int> accepted, requests;
    std::map<std::pair<uint64_t, uint64_t>, uint32_t> lastRequestOfAttempt;
    std::map<uint64_t, const receiver::RequestRecord*> previous;
    uint64_t resends = 0;
    const std::vector<receiver::RequestRecord> records = t.receiver->requests();
    for (const auto& r : records) {
        const uint64_t part = r.partNumber.value_or(0);
        const uint64_t attempt = r.retryCount.value_or(0);
        const receiver::RequestRecord* before = previous[part];
        const bool resent =
            before && before->status == 0 && before->retryCount == r.retryCount &&
            faults.injected(part, uint32_t(requests[part] - 1)).kind == FaultKind::dropped;
        resends += resent ? 1 : 0;
        EXPECT_EQ(attempt, before ? before->retryCount.value_or(0) + (resent ? 0 : 1) : 0) << part;
        lastRequestOfAttempt[{part, attempt}] = uint32_t(requests[part]++);
        previous[part] = &r;
        accepted[part] += r.accepted ? 1 : 0;
    }
    std::map<uint64_t, int> completed;
    for (const auto& m : t.delegate->completed)
        ++completed[m->partNumber()];
    for (uint64_t part = 1; part <= parts; ++part) {
        EXPECT_EQ(accepted[part], 1) << part;
        EXPECT_EQ(completed[part], 1) << part;
        uint32_t faultsOfPart = 0;
        while (faults.injected(part, faultsOfPart).kind != FaultKind::none)
            ++faultsOfPart;
        EXPECT_EQ(requests[part], int(faultsOfPart + 1)) << part;
    }
    EXPECT_TRUE(t.delegate->failed.empty());
    EXPECT_EQ(md5HexOfFile(t.copy()), md5HexOfFile(t.source));

    // Each retry names the attempt that failed; its lost bytes are what that attempt sent.
    uint64_t lost = 0;
    for (const auto& m : t.delegate->retries) {
        const InjectedFault fault = faults.injected(
            m->partNumber(), lastRequestOfAttempt[{m->partNumber(), m->retryCount() - 1}]);
        lost += m->lostBytes();
        switch (fault.kind) {
            case FaultKind::none:
                ADD_FAILURE() << "retry without a fault: part " << m->partNumber();
                break;
            case FaultKind::dropped:
                EXPECT_GE(m->lostBytes(), fault.dropAfter) << m->partNumber();
                EXPECT_LE(m->lostBytes(), kPart) << m->partNumber();
                break;
            case FaultKind::stalled:
                EXPECT_EQ(m->error()->code(), URLError::timedOut) << m->partNumber();
                EXPECT_LE(m->lostBytes(), kPart) << m->partNumber();
                break;
            default:  // the server read the whole body before answering
                EXPECT_EQ(m->lostBytes(), kPart) << m->partNumber() << " kind " << int(fault.kind);
        }
    }
    const auto& metrics = *t.delegate->metrics;
    EXPECT_EQ(metrics.retryCount(), faults.total() - resends);
    EXPECT_EQ(t.delegate->retries.size(), faults.total() - resends);
    EXPECT_EQ(metrics.bytesSent(), parts * kPart);
    EXPECT_EQ(metrics.bytesLost(), lost);
    EXPECT_EQ(metrics.partsSent(), parts);
    EXPECT_EQ(metrics.failureCount(), 0u);

    EXPECT_EQ(faults.countsByKind().size(), 5u) << "every kind of fault was injected";
    std::printf("[ soak ] %llu parts of %llu bytes, %llu faults, %.2f s, %.0f parts/s\n",
                static_cast<unsigned long long>(parts), static_cast<unsigned long long>(kPart),
                static_cast<unsigned long long>(faults.total()), elapsed, double(parts) / elapsed);
}

// The process's threads and open descriptors, counted from /proc/self (the descriptor count
// includes the one that reads /proc/self/fd).
std::pair<size_t, size_t> threadsAndDescriptors() {
    auto entries = [](const char* directory) {
        size_t count = 0;
        if (DIR* d = opendir(directory)) {
            while (readdir(d))
                ++count;
            closedir(d);
        }
        return count;
    };
    return {entries("/proc/self/task"), entries("/proc/self/fd")};
}

// The counts once they equal `baseline` (threads told to stop take a moment to be gone and to
// close their sockets) or, without one, once they have not changed for 300 ms; at most 5 s.
std::pair<size_t, size_t> settledCounts(std::optional<std::pair<size_t, size_t>> baseline) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    auto current = threadsAndDescriptors();
    auto stableSince = std::chrono::steady_clock::now();
    while (current != baseline && std::chrono::steady_clock::now() < deadline &&
           (baseline || std::chrono::steady_clock::now() - stableSince < 300ms)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        if (const auto next = threadsAndDescriptors(); next != current) {
            current = next;
            stableSince = std::chrono::steady_clock::now();
        }
    }
    return current;
}

// Ten thousand tiny parts through one process, several clients in turn: afterwards the process
// has as many descriptors and threads as before (and, under AddressSanitizer, LeakSanitizer
// checks the heap at exit). PELLORIN_RESOURCE_PARTS changes the total.
TEST(ResourceSoak, TenThousandPartsLeaveNoDescriptorOrThreadBehind) {
    constexpr uint64_t kPart = 64;
    constexpr int kClients = 5;
    const uint64_t total = sizeFromEnvironment("PELLORIN_RESOURCE_PARTS", 10'000);
    {
        Transfer warmUp(kPart);
        warmUp.submitParts(kPart);
        warmUp.run();
    }  // one-time globals: libcurl, OpenSSL, the logging system
    const auto before = settledCounts(std::nullopt);  // counts of earlier work on its way out

    uint64_t completed = 0;
    for (int client = 0; client < kClients; ++client) {
        Transfer t(total / kClients * kPart, 16, 3);
        t.submitParts(kPart);
        ASSERT_EQ(t.run(std::chrono::seconds(120)), 0);
        ASSERT_TRUE(t.delegate->waitForFinish());
        completed += t.delegate->metrics->partsSent();
        EXPECT_EQ(md5HexOfFile(t.copy()), md5HexOfFile(t.source));
    }
    EXPECT_EQ(completed, total / kClients * kClients);

    EXPECT_EQ(settledCounts(before), before) << "threads and descriptors";
}

}  // namespace
}  // namespace pellorin::testing
