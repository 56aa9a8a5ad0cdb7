#include "datapath/FilePartInputStream.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdint>
#include <random>
#include <string>

#include "Platform/Encoding.h"
#include "Platform/Fatal.h"

namespace pellorin {

namespace {

// After a taker empties the limiter it pauses for a random time below this, so that streams
// sharing one limiter do not all wake at the same instant.
constexpr int64_t kMaxExhaustedPauseMicros = 4499;
constexpr auto kRetryPause = std::chrono::milliseconds(1);
// Shorter parts hash by themselves: they are over in a read or two, and a wait for other parts'
// chunks would cost them more time than the lanes save.
constexpr uint64_t kSmallestLanePart = 1024 * 1024;

// Rate-limited parts hash by themselves too: the limiter, not the CPU, sets their pace, and a
// wait between taking permits and sending would put the bytes on the wire later than metered.
bool usesLanes(const MessageDigest& hasher, uint64_t length, const RateLimiter* limiter) {
    return hasher.algorithm() == DigestAlgorithm::md5 && length >= kSmallestLanePart &&
           limiter == nullptr && LaneHasher::enabled();
}

// A seed for each stream's pause generator. Opening the system's random device for every stream
// cost about 3% of the client's CPU with small parts, so the device is read once per process
// and a counter spreads that draw over the streams (splitmix64's finaliser mixes the bits).
uint32_t streamSeed() {
    static const uint64_t base = std::random_device{}();
    static std::atomic<uint64_t> streams{0};
    uint64_t z = base + 0x9e3779b97f4a7c15ULL * (streams.fetch_add(1) + 1);
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ULL;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebULL;
    return static_cast<uint32_t>(z ^ (z >> 31));
}

}  // namespace

FilePartInputStream::FilePartInputStream(std::shared_ptr<SharedFile> file, uint64_t partNumber,
                                         uint64_t offset, uint64_t length,
                                         std::unique_ptr<MessageDigest> hasher,
                                         std::shared_ptr<RateLimiter> rateLimiter)
    : partNumber_(partNumber),
      offset_(offset),
      length_(length),
      rcFile_(std::move(file)),
      maxOffset_(checkedAdd(offset, length, "FilePartInputStream: offset + length overflows")),
      currentOffset_(offset),
      hasher_(std::move(hasher)),
      rateLimiter_(std::move(rateLimiter)),
      random_(streamSeed()),
      laneHasher_(usesLanes(*hasher_, length, rateLimiter_.get()) ? LaneHasher::shared()
                                                                  : nullptr) {}

FilePartInputStream::~FilePartInputStream() {
    leaveLanes();
    if (holdsFileReference_) {
        rcFile_->close();
    }
}

std::shared_ptr<FilePartInputStream> filePart(DigestAlgorithm algorithm,
                                              std::shared_ptr<SharedFile> file, uint64_t partNumber,
                                              uint64_t offset, uint64_t length,
                                              std::shared_ptr<RateLimiter> rateLimiter) {
    return std::make_shared<FilePartInputStream>(std::move(file), partNumber, offset, length,
                                                 newDigest(algorithm), std::move(rateLimiter));
}

void FilePartInputStream::setStatus(StreamStatus status) {
    status_.store(status);
    StreamEvent event;
    switch (status) {
        case StreamStatus::open:
            event = StreamEvent::openCompleted;
            break;
        case StreamStatus::atEnd:
            event = StreamEvent::endEncountered;
            break;
        case StreamStatus::error:
            event = StreamEvent::errorOccurred;
            break;
        default:
            return;
    }
    std::shared_ptr<SerialQueue> runLoop;
    {
        std::lock_guard lock(scheduleMutex_);
        runLoop = delegateRunLoop_;
    }
    postEvent(runLoop, event);  // does nothing without a queue
}

void FilePartInputStream::recordFailure(const SharedFileError& error) {
    leaveLanes();  // a failed stream reads no more
    if (failed_.load(std::memory_order_relaxed)) {
        return;
    }
    error_ = error;
    if (error.kind != SharedFileError::Kind::SourceChanged) {
        // A read that fails on a file cut short is the change, not an I/O fault.
        try {
            rcFile_->checkUnchanged();
        } catch (const SharedFileError& changed) {
            error_ = changed;
        }
    }
    failed_.store(true, std::memory_order_release);
}

void FilePartInputStream::fail(const SharedFileError& error) {
    recordFailure(error);
    setStatus(StreamStatus::error);  // the stream way: -1 and the error status
}

void FilePartInputStream::open() {
    if (!holdsFileReference_) {
        rcFile_->open();
        holdsFileReference_ = true;
    }
    try {
        rcFile_->checkUnchanged();
    } catch (const SharedFileError& error) {
        fail(error);
        return;
    }
    setStatus(StreamStatus::open);
}

void FilePartInputStream::joinLanes() {
    if (laneHasher_) {
        laneHasher_->join(laneMember_);
    }
}

void FilePartInputStream::leaveLanes() {
    if (laneHasher_) {
        laneHasher_->leave(laneMember_);
    }
}

bool FilePartInputStream::rewind() {
    if (!holdsFileReference_ || failed()) {
        return false;
    }
    try {
        rcFile_->checkUnchanged();
    } catch (const SharedFileError& error) {
        fail(error);
        return false;
    }
    hasher_ = newDigest(hasher_->algorithm());
    digest_.reset();
    md5_.reset();
    currentOffset_.store(offset_, std::memory_order_relaxed);
    status_.store(StreamStatus::open);
    return true;
}

void FilePartInputStream::close() {
    leaveLanes();
    if (holdsFileReference_) {
        rcFile_->close();
        holdsFileReference_ = false;
    }
    setStatus(StreamStatus::closed);
}

int64_t FilePartInputStream::takePermits(int64_t request) {
    if (waitUntil_) {
        waitSemaphore_.waitUntil(*waitUntil_);
        waitUntil_.reset();
    }
    if (!rateLimiter_) {
        return request;
    }
    for (;;) {
        RateLimiter::Grant grant{0, false};
        std::optional<std::chrono::system_clock::time_point> deadline;
        if (request != 0) {
            grant = rateLimiter_->acquire(request);
            if (grant.exhausted) {
                std::uniform_int_distribution<int64_t> pause(0, kMaxExhaustedPauseMicros);
                deadline =
                    std::chrono::system_clock::now() + std::chrono::microseconds(pause(random_));
            }
        }
        if (grant.granted > 0) {
            // The pause, if any, is taken at the start of the next read: these bytes go now.
            waitUntil_ = deadline;
            return static_cast<int64_t>(grant.granted);
        }
        waitSemaphore_.waitUntil(deadline ? *deadline
                                          : std::chrono::system_clock::now() + kRetryPause);
    }
}

int64_t FilePartInputStream::countToRead(int64_t granted) const {
    const uint64_t current = currentOffset_.load(std::memory_order_relaxed);
    return static_cast<int64_t>(std::min(static_cast<uint64_t>(granted), maxOffset_ - current));
}

void FilePartInputStream::advance(int64_t count) {
    const uint64_t next =
        currentOffset_.load(std::memory_order_relaxed) + static_cast<uint64_t>(count);
    currentOffset_.store(next, std::memory_order_relaxed);
}

int64_t FilePartInputStream::read(uint8_t* buffer, int64_t maxLength) {
    if (maxLength < 0) {
        fatalError("FilePartInputStream::read: negative length " + std::to_string(maxLength));
    }
    if (failed()) {
        return -1;  // the error status and its event were set by the failing call
    }
    if (currentOffset_.load(std::memory_order_relaxed) >= maxOffset_) {
        setStatus(StreamStatus::atEnd);
        return 0;
    }
    setStatus(StreamStatus::reading);
    const int64_t count = countToRead(takePermits(maxLength));
    int64_t bytesRead;
    try {
        bytesRead = serve(buffer, count);
    } catch (const SharedFileError& error) {
        fail(error);
        return -1;
    }
    if (currentOffset_.load(std::memory_order_relaxed) >= maxOffset_) {
        setStatus(StreamStatus::atEnd);
    }
    return bytesRead;
}

int64_t FilePartInputStream::serve(uint8_t* buffer, int64_t count) {
    const uint64_t at = currentOffset_.load(std::memory_order_relaxed);
    const int64_t served = rcFile_->read(buffer, at, count);
    if (served == 0 && count > 0) {
        // The file ends before the range does: it was cut short since it was opened.
        rcFile_->checkUnchanged();
        throw SharedFileError{.kind = SharedFileError::Kind::ReadPastEnd,
                              .offset = at,
                              .length = count,
                              .fileSize = rcFile_->fileSize()};
    }
    hash({buffer, static_cast<size_t>(served)});
    if (served > 0) {
        advance(served);
        if (currentOffset_.load(std::memory_order_relaxed) >= maxOffset_) {
            // No more chunks from this part: the others' rounds must not wait for it.
            leaveLanes();
            // Every byte served came from the file first opened only if it is still that file
            // now that the last one has been read.
            rcFile_->checkUnchanged();
        }
    }
    return served;
}

void FilePartInputStream::hash(std::span<const uint8_t> bytes) {
    if (!laneHasher_) {
        hasher_->update(bytes);
        return;
    }
    if (!bytes.empty()) {
        // Joined from the first read on (not at open: until its connection is up a part reads
        // nothing, and the others would wait for it).
        joinLanes();
        laneHasher_->hash(laneMember_, md5_, bytes);
    }
}

std::optional<std::vector<uint8_t>> FilePartInputStream::read(int64_t length) {
    if (length < 0) {
        fatalError("FilePartInputStream::read: negative length " + std::to_string(length));
    }
    if (currentOffset_.load(std::memory_order_relaxed) >= maxOffset_) {
        return std::nullopt;
    }
    const int64_t count = countToRead(takePermits(length));
    try {
        std::optional<std::vector<uint8_t>> bytes =
            rcFile_->read(currentOffset_.load(std::memory_order_relaxed), count);
        if (bytes) {
            hash(*bytes);
            advance(static_cast<int64_t>(bytes->size()));
            if (currentOffset_.load(std::memory_order_relaxed) >= maxOffset_) {
                leaveLanes();
                rcFile_->checkUnchanged();
            }
        }
        return bytes;
    } catch (const SharedFileError& error) {
        recordFailure(error);
        throw *error_;
    }
}

bool FilePartInputStream::getBuffer(uint8_t** /*buffer*/, int64_t* /*length*/) {
    return false;
}

bool FilePartInputStream::hasBytesAvailable() const {
    const StreamStatus status = status_.load();
    return (status == StreamStatus::open || status == StreamStatus::reading) &&
           currentOffset_.load(std::memory_order_relaxed) < maxOffset_;
}

void FilePartInputStream::schedule(std::shared_ptr<SerialQueue> queue, std::string mode) {
    std::lock_guard lock(scheduleMutex_);
    delegateRunLoop_ = std::move(queue);
    runLoopMode_ = std::move(mode);
}

void FilePartInputStream::remove(const std::shared_ptr<SerialQueue>& /*queue*/,
                                 const std::string& /*mode*/) {
    std::lock_guard lock(scheduleMutex_);
    delegateRunLoop_.reset();
}

const std::vector<uint8_t>& FilePartInputStream::digestData() {
    if (!digest_ && laneHasher_) {
        const std::array<uint8_t, 16> digest = md5_.digest();
        digest_.emplace(digest.begin(), digest.end());
    }
    if (!digest_) {
        digest_ = hasher_->finalize();
    }
    return *digest_;
}

ChecksumStatus FilePartInputStream::verifyRemoteChecksum(const std::string& remote) {
    std::string local = hexString(digestData());
    if (!failed() && bytesRead() == length_ && equalsIgnoringCase(local, remote)) {
        return ChecksumStatus::matched();
    }
    return ChecksumStatus::failed(std::move(local), remote);
}

}  // namespace pellorin
