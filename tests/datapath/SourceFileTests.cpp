// What a part may be read from and what happens when the file changes under the upload: only
// regular files open (at once, even a FIFO nobody writes to), a changed file fails the part's
// stream for good and is never certified, and a rewound stream serves and hashes its range anew.
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <future>

#include "Platform/Encoding.h"
#include "datapath/FilePartInputStream.h"
#include "support/TempDir.h"

namespace pellorin {
namespace {

namespace fs = std::filesystem;

size_t openDescriptors() {
    return static_cast<size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), {}));
}

std::vector<uint8_t> md5Of(const fs::path& path, uint64_t offset, uint64_t length) {
    SharedFile file(path);
    std::vector<uint8_t> bytes(length);
    if (length > 0) {
        EXPECT_EQ(file.read(bytes.data(), offset, static_cast<int64_t>(length)),
                  static_cast<int64_t>(length));
    }
    auto digest = newDigest(DigestAlgorithm::md5);
    digest->update(bytes);
    return digest->finalize();
}

TEST(SourceFile, OnlyARegularFileOpensAndNothingElseBlocksOrLeaks) {
    testing::TempDir temp;
    const fs::path fifo = temp.path() / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const fs::path socketPath = temp.path() / "socket";
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    socketPath.native().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);

    const size_t descriptorsBefore = openDescriptors();
    for (const auto& [path, what] :
         {std::pair{fifo, "is a FIFO"}, std::pair{socketPath, "is a socket"},
          std::pair{fs::path("/dev/null"), "is a character device"},
          std::pair{temp.path(), "is a directory"}}) {
        SCOPED_TRACE(path);
        auto opening = std::async(std::launch::async, [path] {
            try {
                SharedFile file(path);
            } catch (const SharedFileError& error) {
                return error;
            }
            return SharedFileError{.kind = SharedFileError::Kind::IO};
        });
        if (opening.wait_for(std::chrono::seconds(5)) != std::future_status::ready) {
            ADD_FAILURE() << "the open blocks";
            ::close(::open(fifo.c_str(), O_WRONLY | O_NONBLOCK));  // lets a blocked open go on
        }
        const SharedFileError error = opening.get();
        EXPECT_EQ(error.kind, SharedFileError::Kind::NotRegularFile);
        EXPECT_EQ(error.description(),
                  "NotRegularFile(" + path.string() + " " + what + ", not a regular file)");
    }
    EXPECT_EQ(openDescriptors(), descriptorsBefore);
    ::close(listener);
}

// A 300-byte file made an hour old, so that any write moves its modification time, with a part
// stream over bytes [100, 200) that has read its first 50 bytes.
class ChangingSource : public ::testing::Test, public StreamDelegate {
  protected:
    void SetUp() override {
        const timespec anHourAgo{.tv_sec = ::time(nullptr) - 3600, .tv_nsec = 0};
        const timespec times[2] = {anHourAgo, anHourAgo};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
        file = std::make_shared<SharedFile>(path);
        stream = filePart(DigestAlgorithm::md5, file, 2, 100, 100, nullptr);
        stream->setDelegate(this);
        stream->schedule(queue, "default");
        stream->open();
        ASSERT_EQ(stream->read(buffer, 50), 50);
    }
    // Events still queued would reach this fixture while it is being destroyed.
    void TearDown() override { queue->sync([] {}); }
    void streamHandleEvent(InputStream&, StreamEvent event) override { events.push_back(event); }
    std::vector<StreamEvent> deliveredEvents() {
        queue->sync([] {});
        return events;
    }
    // Rewrites `length` bytes at `offset` in place, the file's size staying as it is unless the
    // write goes past its end.
    void overwrite(off_t offset, size_t length, int flags = 0) const {
        const int fd = ::open(path.c_str(), O_WRONLY | flags);
        const std::vector<uint8_t> bytes(length, 0xa5);
        ASSERT_EQ(::pwrite(fd, bytes.data(), length, offset), static_cast<ssize_t>(length));
        ::close(fd);
    }

    testing::TempDir temp;
    const fs::path path = temp.makeFile("source", 300, 4);
    std::shared_ptr<SharedFile> file;
    std::shared_ptr<FilePartInputStream> stream;
    std::shared_ptr<SerialQueue> queue = SerialQueue::make("events");
    std::vector<StreamEvent> events;  // on `queue` only
    uint8_t buffer[300];
};

TEST_F(ChangingSource, AnyChangeFailsThePartForGoodAndIsNeverCertified) {
    const std::vector<std::pair<const char*, std::function<void()>>> changes = {
        {"same size, other bytes, outside the part", [&] { overwrite(0, 10); }},
        {"same size, other bytes, inside the part", [&] { overwrite(170, 10); }},
        {"cut short inside the part", [&] { ::truncate(path.c_str(), 120); }},
        {"appended to beyond the part", [&] { overwrite(300, 10); }},
        {"replaced by a rename", [&] { fs::rename(temp.makeFile("other", 300, 4), path); }},
        {"removed", [&] { fs::remove(path); }},
    };
    for (const auto& [name, change] : changes) {
        SCOPED_TRACE(name);
        if (name != changes.front().first) {  // a fresh file and stream for every change
            deliveredEvents();
            events.clear();
            temp.makeFile("source", 300, 4);
            SetUp();
        }
        change();
        int64_t n = 0;
        for (int reads = 0; reads < 10 && (n = stream->read(buffer, 64)) > 0; ++reads) {
        }
        EXPECT_EQ(n, -1);
        EXPECT_EQ(stream->streamStatus(), StreamStatus::error);
        EXPECT_EQ(stream->read(buffer, 64), -1);  // stays failed
        EXPECT_TRUE(stream->sourceChanged());
        const std::string text = stream->error()->description();
        EXPECT_NE(text.find(path.string() + " changed while it was being uploaded"),
                  std::string::npos)
            << text;
        EXPECT_FALSE(stream->rewind());
        EXPECT_EQ(deliveredEvents(),
                  (std::vector{StreamEvent::openCompleted, StreamEvent::errorOccurred}));
        // Whatever the server answers, the bytes served are not certified.
        const std::string local = hexString(stream->digestData());
        EXPECT_EQ(stream->verifyRemoteChecksum(local).kind, ChecksumStatusKind::failed);
        stream->close();

        // A retry's stream over the same shared file fails at once.
        auto retry = filePart(DigestAlgorithm::md5, file, 2, 100, 100, nullptr);
        retry->open();
        EXPECT_EQ(retry->streamStatus(), StreamStatus::error);
        EXPECT_TRUE(retry->sourceChanged());
        EXPECT_EQ(retry->read(buffer, 64), -1);
        retry->close();
    }
}

TEST_F(ChangingSource, RewindServesAndHashesTheRangeAnew) {
    const std::vector<uint8_t> expected = md5Of(path, 100, 100);
    // Rewound after 50 bytes by SetUp, then after `before` more bytes read `size` at a time.
    for (const int64_t size : {1, 7, 64, 100, 1000}) {
        for (const int64_t before : {int64_t{0}, int64_t{1}, int64_t{49}, int64_t{50}}) {
            SCOPED_TRACE(::testing::Message() << size << " after " << before);
            if (before > 0) {
                ASSERT_EQ(stream->read(buffer, before), before);
            }
            ASSERT_TRUE(stream->rewind());
            EXPECT_EQ(stream->bytesRead(), 0u);
            EXPECT_TRUE(stream->hasBytesAvailable());
            std::vector<uint8_t> served;
            for (int64_t n; (n = stream->read(buffer, size)) > 0;) {
                served.insert(served.end(), buffer, buffer + n);
            }
            EXPECT_EQ(served.size(), 100u);
            EXPECT_EQ(stream->streamStatus(), StreamStatus::atEnd);
            EXPECT_EQ(stream->digestData(), expected);
            EXPECT_EQ(stream->verifyRemoteChecksum(hexString(expected)), ChecksumStatus::matched());
            ASSERT_TRUE(stream->rewind());  // from the end too, with a digest already taken
        }
    }
    // Not open, closed, or over a changed file: no rewind.
    EXPECT_FALSE(filePart(DigestAlgorithm::md5, file, 3, 0, 10, nullptr)->rewind());
    overwrite(0, 1);
    EXPECT_FALSE(stream->rewind());
    EXPECT_TRUE(stream->sourceChanged());
    stream->close();
    EXPECT_FALSE(stream->rewind());
}

TEST_F(ChangingSource, APartNotReadToItsEndIsNeverCertified) {
    const std::vector<uint8_t> partial = [&] {
        auto digest = newDigest(DigestAlgorithm::md5);
        digest->update({buffer, 50});
        return digest->finalize();
    }();
    EXPECT_EQ(stream->verifyRemoteChecksum(hexString(partial)).kind, ChecksumStatusKind::failed);
    EXPECT_FALSE(stream->failed());
}

}  // namespace
}  // namespace pellorin
