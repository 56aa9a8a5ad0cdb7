// The part data path over a real file: the shared file's range checks and the part stream's bytes,
// digest, events and permits.
#include "datapath/FilePartInputStream.h"

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>

#include "Platform/Encoding.h"
#include "support/TempDir.h"

namespace pellorin {
namespace {

std::vector<uint8_t> fileBytes(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// The SharedFileError that `action` throws (a failure when it throws none).
template <typename F>
SharedFileError thrownBy(F&& action) {
    try {
        action();
    } catch (const SharedFileError& error) {
        return error;
    }
    ADD_FAILURE() << "no SharedFileError thrown";
    return {};
}

std::vector<uint8_t> md5Of(std::span<const uint8_t> bytes) {
    auto digest = newDigest(DigestAlgorithm::md5);
    digest->update(bytes);
    return digest->finalize();
}

class PartStream : public ::testing::Test, public StreamDelegate {
  protected:
    std::shared_ptr<FilePartInputStream> stream(uint64_t offset, uint64_t length,
                                                std::shared_ptr<RateLimiter> limiter = nullptr) {
        return filePart(DigestAlgorithm::md5, file, 7, offset, length, std::move(limiter));
    }
    // A stream that reports its events to this test through `queue`; kept alive by the test so
    // that the events reach it.
    std::shared_ptr<FilePartInputStream> scheduledStream(uint64_t offset, uint64_t length) {
        auto s = streams.emplace_back(stream(offset, length));
        s->setDelegate(this);
        s->schedule(queue, "default");
        return s;
    }
    std::vector<StreamEvent> deliveredEvents() {
        queue->sync([] {});
        return events;
    }
    void streamHandleEvent(InputStream&, StreamEvent event) override { events.push_back(event); }

    testing::TempDir temp;
    const std::filesystem::path path = temp.makeFile("f", 300, 1);
    const std::vector<uint8_t> content = fileBytes(path);
    std::shared_ptr<SharedFile> file = std::make_shared<SharedFile>(path);
    std::shared_ptr<SerialQueue> queue = SerialQueue::make("events");
    std::vector<std::shared_ptr<FilePartInputStream>> streams;
    std::vector<StreamEvent> events;  // on `queue` only
};

TEST_F(PartStream, SharedFileRangeEdgesAndOpenFailures) {
    SharedFile empty(temp.makeFile("empty", 0, 1));
    uint8_t bytes[2];
    EXPECT_EQ(thrownBy([&] { empty.read(bytes, 0, 0); }).kind, SharedFileError::Kind::SeekPastEnd);
    EXPECT_EQ(file->read(bytes, 299, 1), 1);
    EXPECT_EQ(bytes[0], content[299]);
    EXPECT_EQ(thrownBy([&] { file->read(bytes, 300, 1); }).description(),
              "SeekPastEnd(offset: 300, fileSize: 300)");
    EXPECT_EQ(thrownBy([&] { file->read(bytes, 299, 2); }).description(),
              "ReadPastEnd(offset: 299, length: 2, fileSize: 300)");
    EXPECT_EQ(file->read(3, 4), std::vector<uint8_t>(content.begin() + 3, content.begin() + 7));
    EXPECT_FALSE(file->read(3, 0));  // nothing read: no data

    const SharedFileError missing = thrownBy([&] { SharedFile gone(temp.path() / "missing"); });
    EXPECT_EQ(missing.kind, SharedFileError::Kind::IO);
    EXPECT_EQ(missing.errnoValue, ENOENT);
    EXPECT_EQ(thrownBy([&] { SharedFile directory(temp.path()); }).errnoValue, EISDIR);
}

TEST_F(PartStream, EveryReadSizeServesExactlyTheRangeAndItsDigest) {
    auto emptyFile = std::make_shared<SharedFile>(temp.makeFile("empty", 0, 1));
    struct Range {
        std::shared_ptr<SharedFile> file;
        uint64_t offset, length;
    };
    for (const Range& range :
         {Range{emptyFile, 0, 0}, Range{file, 0, 0}, Range{file, 0, 1}, Range{file, 0, 37},
          Range{file, 120, 57}, Range{file, 299, 1}, Range{file, 259, 41}, Range{file, 0, 300}}) {
        const auto expected = std::span(content).subspan(range.offset, range.length);
        for (int64_t size = 1; size <= static_cast<int64_t>(range.length) + 2; ++size) {
            SCOPED_TRACE(::testing::Message()
                         << range.offset << "+" << range.length << " by " << size);
            auto s = filePart(DigestAlgorithm::md5, range.file, 1, range.offset, range.length, {});
            s->open();
            std::vector<uint8_t> served(range.length + 2);
            uint64_t total = 0;
            for (int64_t n; (n = s->read(served.data() + total, size)) != 0; total += n) {
                ASSERT_TRUE(n > 0 && n <= size && total + n <= range.length) << n;
            }
            EXPECT_EQ(total, range.length);
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), served.begin()));
            EXPECT_EQ(s->streamStatus(), StreamStatus::atEnd);
            EXPECT_FALSE(s->hasBytesAvailable());
            EXPECT_EQ(s->digestData(), md5Of(expected));
        }
    }
}

TEST_F(PartStream, RangePastTheEndOfTheFileFailsTheStreamWay) {
    uint8_t buffer[64];
    for (const auto& [offset, length] : {std::pair{290, 20}, std::pair{300, 5}}) {
        auto s = scheduledStream(offset, length);
        s->open();
        EXPECT_EQ(s->read(buffer, 64), -1) << offset;
        EXPECT_EQ(s->streamStatus(), StreamStatus::error);
        s->close();
    }
    EXPECT_EQ(file->refCount(), 0u);
    EXPECT_EQ(deliveredEvents(),
              (std::vector{StreamEvent::openCompleted, StreamEvent::errorOccurred,
                           StreamEvent::openCompleted, StreamEvent::errorOccurred}));
}

TEST_F(PartStream, EventsArePostedOnlyWhileScheduled) {
    uint8_t buffer[16];
    auto unscheduled = streams.emplace_back(stream(0, 10));
    unscheduled->setDelegate(this);
    unscheduled->open();
    unscheduled->read(buffer, 16);

    auto s = scheduledStream(0, 10);
    EXPECT_FALSE(s->hasBytesAvailable());  // not open yet
    s->open();
    EXPECT_TRUE(s->hasBytesAvailable());
    s->read(buffer, 4);   // reading: no event
    s->read(buffer, 16);  // takes the last byte
    s->read(buffer, 16);  // a read at the end reports the end again
    s->close();           // no event
    s->remove(queue, "other");
    s->open();
    EXPECT_EQ(deliveredEvents(),
              (std::vector{StreamEvent::openCompleted, StreamEvent::endEncountered,
                           StreamEvent::endEncountered}));
    EXPECT_EQ(file->refCount(), 2u);  // both streams are open
    unscheduled.reset();
    s.reset();
    streams.clear();
    EXPECT_EQ(file->refCount(), 0u);  // a stream gone away gives its reference back
}

TEST_F(PartStream, ReadsAreCutToThePermitsTaken) {
    auto limiter = RateLimiter::makeManual(10000);  // 100 permits per refill, refilled by hand
    auto s = stream(0, 300, limiter);
    s->open();
    std::vector<uint8_t> served(300);
    EXPECT_EQ(s->read(served.data(), 40), 40);
    EXPECT_EQ(s->read(served.data() + 40, 100), 60);  // all that was left
    limiter->refresh();
    EXPECT_EQ(s->read(served.data() + 100, 100), 100);  // an exact fit empties the bucket
    EXPECT_EQ(limiter->availablePermits(), 0u);
    limiter->refresh();
    EXPECT_EQ(s->read(served.data() + 200, 150), 100);
    EXPECT_EQ(s->streamStatus(), StreamStatus::atEnd);
    EXPECT_EQ(served, content);
    // A match ignores case, which the client's upper-case ETag case pins.
    EXPECT_EQ(s->verifyRemoteChecksum("abc"),
              ChecksumStatus::failed(hexString(md5Of(content)), "abc"));
}

// A 1 GiB file (sparse: random 1 MiB blocks every 64 MiB) read with 1 MiB reads gives the same
// MD5 as the system's md5sum.
TEST_F(PartStream, LargeFileMatchesMd5sum) {
    if (std::getenv("PELLORIN_SKIP_LARGE") != nullptr) {
        GTEST_SKIP() << "PELLORIN_SKIP_LARGE is set";
    }
    constexpr uint64_t kMiB = 1 << 20, kSize = 1024 * kMiB;
    const std::string large = temp.path() / "large";
    const int fd = ::open(large.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_EQ(::ftruncate(fd, kSize), 0);
    for (uint64_t at = 4096; at < kSize; at += 64 * kMiB) {
        ASSERT_EQ(::pwrite(fd, randomData(kMiB).data(), kMiB, static_cast<off_t>(at)), kMiB);
    }
    ::close(fd);

    file = std::make_shared<SharedFile>(large);
    auto s = stream(0, kSize);
    s->open();
    std::vector<uint8_t> buffer(kMiB);
    for (uint64_t reads = 0; s->read(buffer.data(), kMiB) > 0; ++reads) {
        ASSERT_LT(reads, kSize / kMiB);
    }
    EXPECT_EQ(s->bytesRead(), kSize);

    std::FILE* md5sum = ::popen(("md5sum '" + large + "'").c_str(), "r");
    char sum[33] = {};
    ASSERT_EQ(std::fread(sum, 1, 32, md5sum), 32u);
    ::pclose(md5sum);
    EXPECT_EQ(hexString(s->digestData()), sum);
}

}  // namespace
}  // namespace pellorin
