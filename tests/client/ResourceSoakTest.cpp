// Ten thousand tiny parts through one process, several clients in turn: afterwards the process
// has as many descriptors and threads as before (and, under AddressSanitizer, LeakSanitizer
// checks the heap at exit). PELLORIN_RESOURCE_PARTS changes the total.
#include <gtest/gtest.h>

#include "TestSize.h"
#include "TransferFixture.h"
#include "support/ProcessResources.h"

namespace pellorin::testing {
namespace {

TEST(ResourceSoak, TenThousandPartsLeaveNoDescriptorOrThreadBehind) {
    constexpr uint64_t kPart = 64;
    constexpr int kClients = 5;
    const uint64_t total = sizeFromEnvironment("PELLORIN_RESOURCE_PARTS", 10'000);
    {
        Transfer warmUp(kPart);
        warmUp.submitParts(kPart);
        warmUp.run();
    }  // one-time globals: libcurl, OpenSSL, the logging system
    const ProcessResources before = settledResources();

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

    const ProcessResources after = waitForResources(before);
    EXPECT_EQ(after.threads, before.threads);
    EXPECT_EQ(after.descriptors, before.descriptors);
}

}  // namespace
}  // namespace pellorin::testing
