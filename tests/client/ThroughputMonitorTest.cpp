// Rate units, the unit choice, elapsed time and the counts that stop the process.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <pellorin/ThroughputMonitor.h>

using namespace pellorin;
using namespace std::chrono_literals;

namespace {

// A stopped monitor that counted `bytes` over exactly `duration`.
ThroughputMonitor stoppedAfter(uint64_t bytes, std::chrono::nanoseconds duration) {
    ThroughputMonitor monitor;
    const auto start = ThroughputMonitor::Clock::now();
    monitor.startTime = start;
    monitor.endTime =
        start + std::chrono::duration_cast<ThroughputMonitor::Clock::duration>(duration);
    monitor.bytesSentCounter = bytes;
    return monitor;
}

}  // namespace

TEST(Throughput, RatesUnitsAndText) {
    EXPECT_DOUBLE_EQ(ratePerSecond(Throughput::MBytesSec, 3'000'000, 2.0), 1.5);
    EXPECT_DOUBLE_EQ(ratePerSecond(Throughput::BitsSec, 1, 1.0), 8.0);
    EXPECT_DOUBLE_EQ(ratePerSecond(Throughput::MBitsSec, 1'000'000, 1.0), 8.0);
    // Zero seconds, zero bytes, and results too small to be normal numbers all read as 0.
    EXPECT_EQ(ratePerSecond(Throughput::BytesSec, 100, 0.0), 0.0);
    EXPECT_EQ(ratePerSecond(Throughput::BytesSec, 0, 1.0), 0.0);
    EXPECT_EQ(ratePerSecond(Throughput::GBytesSec, 1, 1e300), 0.0);
    EXPECT_EQ(ratePerSecond(Throughput::BytesSec, 1, std::numeric_limits<double>::denorm_min()),
              0.0);
    EXPECT_EQ(ratePerSecond(Throughput::BytesSec, 1, std::nan("")), 0.0);

    EXPECT_EQ(toString(Throughput::KBytesSec, 1500, 0.5),
              "3.000 KB/sec in 0.500 secs (1500 bytes)");
    EXPECT_EQ(toString(Throughput::BytesSec, UINT64_MAX, 0.0),
              "0.000 Bytes/sec in 0.000 secs (18446744073709551615 bytes)");
}

TEST(ThroughputMonitor, ChoosesTheLargestUnitShowingAtLeastOne) {
    EXPECT_EQ(stoppedAfter(1'500'000, 1s).chooseUnit(false),
              std::make_pair(Throughput::MBytesSec, 1.5));
    EXPECT_EQ(stoppedAfter(999, 1s).chooseUnit(false), std::make_pair(Throughput::BytesSec, 999.0));
    EXPECT_EQ(stoppedAfter(0, 1s).chooseUnit(false), std::make_pair(Throughput::BytesSec, 0.0));
    EXPECT_EQ(stoppedAfter(1'000, 1s).chooseUnit(false),
              std::make_pair(Throughput::KBytesSec, 1.0));
    EXPECT_EQ(stoppedAfter(125'000, 1s).chooseUnit(true),
              std::make_pair(Throughput::MBitsSec, 1.0));
    EXPECT_EQ(stoppedAfter(0, 0s).chooseUnit(true), std::make_pair(Throughput::BitsSec, 0.0));
}

TEST(ThroughputMonitor, ElapsedTimeRunsFromTheFirstStart) {
    ThroughputMonitor monitor;
    const auto first = ThroughputMonitor::Clock::now() - 2s;
    monitor.recordStart(first);
    monitor.recordStart(first + 1s);  // a later part start does not move the start
    EXPECT_TRUE(monitor.isRunning());
    EXPECT_GE(monitor.elapsedTime(), 2.0);  // running: measured up to now
    monitor.endTime = first - 250ms;        // the difference is taken as an absolute value
    EXPECT_TRUE(monitor.isStopped());
    EXPECT_DOUBLE_EQ(monitor.elapsedTime(), 0.25);
}

// The counters behind the metrics are pinned end to end by the fault soak.
TEST(ThroughputMonitorDeathTest, ImpossibleCountsStop) {
    ThroughputMonitor monitor;
    EXPECT_DEATH(monitor.elapsedTime(), "before startTime");
    monitor.recordProgress(10);
    EXPECT_DEATH(monitor.recordRetry(11), "Retry lost 11 bytes but only 10");
    EXPECT_DEATH(monitor.recordProgress(-1), "Negative bytesSent");
    monitor.bytesSentCounter = UINT64_MAX;
    EXPECT_DEATH(monitor.recordProgress(1), "bytesSentCounter overflow");
}
