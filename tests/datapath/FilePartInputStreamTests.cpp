#include "datapath/FilePartInputStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "Platform/Encoding.h"
#include "TempFiles.h"

namespace pellorin {
namespace {

using testing::patternBytes;
using testing::TempFiles;

std::vector<uint8_t> md5Of(std::span<const uint8_t> bytes) {
    auto digest = newDigest(DigestAlgorithm::md5);
    digest->update(bytes);
    return digest->finalize();
}

std::shared_ptr<FilePartInputStream> md5Stream(std::shared_ptr<SharedFile> file, uint64_t offset,
                                               uint64_t length,
                                               std::shared_ptr<RateLimiter> limiter = nullptr) {
    return filePart(DigestAlgorithm::md5, std::move(file), 7, offset, length, std::move(limiter));
}

struct RecordingDelegate : StreamDelegate {
    std::vector<StreamEvent> events;  // touched only on the queue the stream posts to
    void streamHandleEvent(InputStream&, StreamEvent event) override { events.push_back(event); }
};

TEST(FilePartInputStream, EveryReadSizeServesExactlyTheRangeAndItsDigest) {
    TempFiles temp;
    const std::vector<uint8_t> content = patternBytes(300);
    auto file = std::make_shared<SharedFile>(temp.write("f", content));
    auto emptyFile = std::make_shared<SharedFile>(temp.write("empty", {}));

    struct Range {
        std::shared_ptr<SharedFile> file;
        uint64_t offset, length;
    };
    for (const Range& range :
         {Range{emptyFile, 0, 0}, Range{file, 0, 0}, Range{file, 0, 1}, Range{file, 0, 37},
          Range{file, 120, 57}, Range{file, 299, 1}, Range{file, 259, 41}, Range{file, 0, 300}}) {
        const std::span<const uint8_t> expected =
            std::span(content).subspan(range.offset, range.length);
        for (int64_t size = 1; size <= static_cast<int64_t>(range.length) + 2; ++size) {
            SCOPED_TRACE(::testing::Message() << "range " << range.offset << "+" << range.length
                                              << ", read size " << size);
            auto stream = md5Stream(range.file, range.offset, range.length);
            stream->open();
            std::vector<uint8_t> served(range.length + 2);
            uint64_t total = 0;
            for (int64_t n; (n = stream->read(served.data() + total, size)) != 0;) {
                ASSERT_GT(n, 0);
                ASSERT_LE(n, size);
                total += static_cast<uint64_t>(n);
                ASSERT_LE(total, range.length);
            }
            EXPECT_EQ(total, range.length);
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), served.begin()));
            EXPECT_EQ(stream->streamStatus(), StreamStatus::atEnd);
            EXPECT_FALSE(stream->hasBytesAvailable());
            EXPECT_EQ(stream->bytesRead(), range.length);
            EXPECT_EQ(stream->digestData(), md5Of(expected));
            stream->close();
        }
    }
}

TEST(FilePartInputStream, LastByteSetsAtEndAndDataReadsMatch) {
    TempFiles temp;
    const std::vector<uint8_t> content = patternBytes(100);
    auto file = std::make_shared<SharedFile>(temp.write("f", content));

    auto stream = md5Stream(file, 10, 20);
    EXPECT_FALSE(stream->hasBytesAvailable());  // not open yet
    stream->open();
    EXPECT_TRUE(stream->hasBytesAvailable());
    uint8_t buffer[64];
    EXPECT_EQ(stream->read(buffer, 64), 20);  // at most what remains, and at its end at once
    EXPECT_EQ(stream->streamStatus(), StreamStatus::atEnd);

    auto dataStream = md5Stream(file, 10, 20);
    std::vector<uint8_t> served;
    while (auto bytes = dataStream->read(int64_t{7})) {
        served.insert(served.end(), bytes->begin(), bytes->end());
    }
    EXPECT_EQ(served, std::vector<uint8_t>(content.begin() + 10, content.begin() + 30));
    EXPECT_EQ(dataStream->digestData(), stream->digestData());

    const std::string local = hexString(stream->digestData());
    std::string upper = local;
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_EQ(stream->verifyRemoteChecksum(upper), ChecksumStatus::matched());
    EXPECT_EQ(stream->verifyRemoteChecksum("abc"), ChecksumStatus::failed(local, "abc"));
}

TEST(FilePartInputStream, RangePastTheEndOfTheFileFailsTheStreamWay) {
    TempFiles temp;
    auto file = std::make_shared<SharedFile>(temp.write("f", patternBytes(100)));
    auto queue = SerialQueue::make("events");
    RecordingDelegate delegate;
    uint8_t buffer[64];
    std::vector<std::shared_ptr<FilePartInputStream>> streams;  // events reach live streams only

    for (const auto& [offset, length] : {std::pair{90, 20}, std::pair{100, 5}, std::pair{500, 1}}) {
        auto stream = streams.emplace_back(md5Stream(file, offset, length));
        stream->setDelegate(&delegate);
        stream->schedule(queue, "default");
        stream->open();
        EXPECT_EQ(stream->read(buffer, 64), -1) << offset;
        EXPECT_EQ(stream->streamStatus(), StreamStatus::error);
        stream->close();
    }
    EXPECT_EQ(file->refCount(), 0u);
    queue->sync([] {});
    std::vector<StreamEvent> expected;
    for (int i = 0; i < 3; ++i) {
        expected.insert(expected.end(), {StreamEvent::openCompleted, StreamEvent::errorOccurred});
    }
    EXPECT_EQ(delegate.events, expected);
}

TEST(FilePartInputStream, EventsArePostedOnlyWhileScheduled) {
    TempFiles temp;
    auto file = std::make_shared<SharedFile>(temp.write("f", patternBytes(10)));
    auto queue = SerialQueue::make("events");
    RecordingDelegate delegate;
    uint8_t buffer[16];

    auto unscheduled = md5Stream(file, 0, 10);
    unscheduled->setDelegate(&delegate);
    unscheduled->open();
    unscheduled->read(buffer, 16);

    auto scheduled = md5Stream(file, 0, 10);
    scheduled->setDelegate(&delegate);
    scheduled->schedule(queue, "default");
    scheduled->open();
    scheduled->read(buffer, 4);  // reading: no event
    scheduled->read(buffer, 16);
    scheduled->read(buffer, 16);  // a read at the end reports the end again
    scheduled->close();           // no event
    scheduled->remove(queue, "other");
    scheduled->open();

    queue->sync([] {});
    EXPECT_EQ(delegate.events,
              (std::vector<StreamEvent>{StreamEvent::openCompleted, StreamEvent::endEncountered,
                                        StreamEvent::endEncountered}));
    EXPECT_EQ(file->refCount(), 2u);  // the streams still open hold the file
    unscheduled.reset();
    scheduled.reset();
    EXPECT_EQ(file->refCount(), 0u);
}

TEST(FilePartInputStream, ReadsAreCutToThePermitsTaken) {
    TempFiles temp;
    const std::vector<uint8_t> content = patternBytes(300);
    auto file = std::make_shared<SharedFile>(temp.write("f", content));
    auto limiter = RateLimiter::makeManual(10000);  // 100 permits per refill, refilled by hand
    auto stream = md5Stream(file, 0, 300, limiter);
    stream->open();
    std::vector<uint8_t> served(300);

    EXPECT_EQ(stream->read(served.data(), 40), 40);
    EXPECT_EQ(limiter->availablePermits(), 60u);
    EXPECT_EQ(stream->read(served.data() + 40, 100), 60);  // all that was left
    EXPECT_EQ(limiter->availablePermits(), 0u);
    limiter->refresh();
    EXPECT_EQ(stream->read(served.data() + 100, 100), 100);  // exact fit: bucket empty again
    EXPECT_EQ(limiter->availablePermits(), 0u);
    limiter->refresh();
    EXPECT_EQ(stream->read(served.data() + 200, 150), 100);
    EXPECT_EQ(stream->streamStatus(), StreamStatus::atEnd);
    EXPECT_EQ(served, content);
    EXPECT_EQ(stream->digestData(), md5Of(content));
}

// A 1 GiB file (sparse: random 1 MiB blocks every 64 MiB) read with 1 MiB reads gives the same
// MD5 as the system's md5sum.
TEST(FilePartInputStream, LargeFileMatchesMd5sum) {
    if (std::getenv("PELLORIN_SKIP_LARGE") != nullptr) {
        GTEST_SKIP() << "PELLORIN_SKIP_LARGE is set";
    }
    constexpr uint64_t kMiB = 1 << 20;
    constexpr uint64_t kSize = 1024 * kMiB;
    TempFiles temp;
    const std::string path = temp.path("large");
    {
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ASSERT_NE(fd, -1);
        ASSERT_EQ(::ftruncate(fd, kSize), 0);
        for (uint64_t at = 0; at < kSize; at += 64 * kMiB) {
            const std::vector<uint8_t> block = randomData(kMiB);
            ASSERT_EQ(::pwrite(fd, block.data(), block.size(), static_cast<off_t>(at + 4096)),
                      static_cast<ssize_t>(kMiB));
        }
        ::close(fd);
    }

    auto stream = md5Stream(std::make_shared<SharedFile>(path), 0, kSize);
    stream->open();
    std::vector<uint8_t> buffer(kMiB);
    for (uint64_t reads = 0; stream->read(buffer.data(), kMiB) > 0; ++reads) {
        ASSERT_LT(reads, kSize / kMiB);
    }
    EXPECT_EQ(stream->bytesRead(), kSize);

    std::FILE* pipe = ::popen(("md5sum '" + path + "'").c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    char sum[33] = {};
    ASSERT_EQ(std::fread(sum, 1, 32, pipe), 32u);
    ::pclose(pipe);
    EXPECT_EQ(hexString(stream->digestData()), sum);
}

}  // namespace
}  // namespace pellorin
