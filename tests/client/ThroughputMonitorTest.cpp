// Rate units and text, and elapsed time. The counters behind the metrics are pinned end to end
// by the fault soak.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include <pellorin/ThroughputMonitor.h>

using namespace pellorin;
using namespace std::chrono_literals;

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
