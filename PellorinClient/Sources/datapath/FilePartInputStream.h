// FilePartInputStream: the body of one part's upload. Serves the part's byte range of a shared
// file, hashing exactly the bytes it serves and, with a rate limiter, taking one permit per byte
// (sleeping when none are left) before each read.
//
// Ownership: held as std::shared_ptr (event blocks hold it weakly). Holds its SharedFile and
// RateLimiter strongly, owns its digest; the delegate is unretained. One stream serves one
// attempt: a retry gets a new stream and a new digest; within one attempt rewind() restarts it
// when the request has to be sent again.
//
// The file must not change under the upload: open(), the read that takes the last byte and
// rewind() check that the shared file is still the version first opened (SharedFile::
// checkUnchanged). A change fails the stream, for good; sourceChanged() then tells the client
// that retrying the part cannot help, and verifyRemoteChecksum() never reports a match.
// MD5 parts of a megabyte or more without a rate limiter hash with the other parts in flight when
// LaneHasher::enabled() at construction: from its first read to its last byte the stream is joined
// to the process's lane hasher, which hashes each chunk it reads together with the chunks the other
// parts read meanwhile (LaneHasher.h), in the caller's buffer, before read() returns it. Alone, it
// hashes by itself. The digest is of exactly the bytes served either way.
//
// Threads: open/read/close run on the HTTP task's transfer thread, one reader at a time, and a
// read may sleep there. Events go only to the SerialQueue the stream is scheduled on, as async
// blocks, never from the reading thread. streamStatus(), bytesRead(), schedule(), remove(),
// failed(), sourceChanged(), error() and the delegate may be used from any thread. digestData()
// and verifyRemoteChecksum() are called once reading is over.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <vector>

#include "Platform/InputStream.h"
#include "Platform/Semaphore.h"
#include "datapath/LaneHasher.h"
#include "datapath/Md5Lanes.h"
#include "datapath/MessageDigest.h"
#include "datapath/RateLimiter.h"
#include "datapath/SharedFile.h"

namespace pellorin {

enum class ChecksumStatusKind { failed, matched };

// The outcome of comparing the local digest with the server's checksum; `local` (lower-case
// hexadecimal) and `remote` (as the server sent it) are set when it failed.
struct ChecksumStatus {
    ChecksumStatusKind kind;
    std::string local;
    std::string remote;

    static ChecksumStatus matched() { return {ChecksumStatusKind::matched, {}, {}}; }
    static ChecksumStatus failed(std::string local, std::string remote) {
        return {ChecksumStatusKind::failed, std::move(local), std::move(remote)};
    }
    bool operator==(const ChecksumStatus&) const = default;
};

class FilePartInputStream : public InputStream {
  public:
    // `rateLimiter` may be null (no limit). offset + length past 2^64 is a fatal stop; a range
    // past the end of the file is not checked here: reading it fails.
    FilePartInputStream(std::shared_ptr<SharedFile> file, uint64_t partNumber, uint64_t offset,
                        uint64_t length, std::unique_ptr<MessageDigest> hasher,
                        std::shared_ptr<RateLimiter> rateLimiter);
    // Gives back the file reference if the stream was opened and never closed.
    ~FilePartInputStream() override;

    // Takes a reference on the shared file (once) and becomes open (event openCompleted); when
    // the file has changed since it was first opened, fails instead (status error, event
    // errorOccurred).
    void open() override;
    // Gives back the file reference (if held) and becomes closed (no event). Accepted in every
    // status; the descriptor stays open, it belongs to the shared file.
    void close() override;
    // Sleeps first if the previous read emptied the limiter, takes permits for up to maxLength
    // bytes, then preads at most the permitted and remaining bytes straight into `buffer` and
    // hashes them. Returns the count; 0 once the range is consumed (status atEnd, event
    // endEncountered, also set by the read that takes the last byte); -1 when the file read
    // fails or the read that takes the last byte finds the file changed (status error, event
    // errorOccurred; permits taken are not given back). Once failed, every read returns -1.
    // A negative maxLength is a fatal stop. With a limiter a request of 0 is never granted: do
    // not make one.
    int64_t read(uint8_t* buffer, int64_t maxLength) override;
    // Back to the part's offset with a fresh digest of the same algorithm, the status open (no
    // event); the file is checked again first. False when the stream is not open, has failed,
    // or finds the file changed (it then fails as a read would).
    bool rewind() override;
    bool getBuffer(uint8_t** buffer, int64_t* length) override;
    // True when open or reading and bytes remain.
    bool hasBytesAvailable() const override;
    StreamStatus streamStatus() const override { return status_.load(); }

    StreamDelegate* delegate() const override { return delegate_.load(); }
    void setDelegate(StreamDelegate* delegate) override { delegate_.store(delegate); }
    // Events go to `queue` from now on, replacing an earlier one; the mode is kept for the record.
    void schedule(std::shared_ptr<SerialQueue> queue, std::string mode) override;
    // Stops event delivery whatever queue and mode are given (the mode stays stored).
    void remove(const std::shared_ptr<SerialQueue>& queue, const std::string& mode) override;

    // As read(buffer, maxLength), but into a new buffer; leaves the status alone and lets a
    // failed file read or a changed file throw SharedFileError. Advances the position. No value
    // once the range is consumed (or when the file yields nothing).
    std::optional<std::vector<uint8_t>> read(int64_t length);

    // The digest of the bytes served so far; finalised on first call, the same bytes afterwards.
    const std::vector<uint8_t>& digestData();
    // Compares the local digest's hexadecimal form with `remote`, ignoring letter case. Always
    // `failed` when the stream failed or did not serve its whole range: only a body that was
    // read to its end from an unchanged file can be certified.
    ChecksumStatus verifyRemoteChecksum(const std::string& remote);

    // True once a read, open() or rewind() failed; error() then holds why.
    bool failed() const { return failed_.load(std::memory_order_acquire); }
    // True when the stream failed because the file changed since it was first opened (error()
    // is then a SharedFileError of kind SourceChanged, whose description names the path): the
    // part must fail, a retry would read the same changed file.
    bool sourceChanged() const {
        return failed() && error_->kind == SharedFileError::Kind::SourceChanged;
    }
    // The error the stream failed with; none while it has not failed.
    std::optional<SharedFileError> error() const { return failed() ? error_ : std::nullopt; }

    uint64_t partNumber() const { return partNumber_; }
    uint64_t offset() const { return offset_; }
    uint64_t length() const { return length_; }
    uint64_t bytesRead() const { return currentOffset_.load(std::memory_order_relaxed) - offset_; }
    const std::string& filePath() const { return rcFile_->filePath(); }

  private:
    // Stores the status; when scheduled, posts open/atEnd/error as their events.
    void setStatus(StreamStatus status);
    // The permits for the next read: all of `request` without a limiter, else at least one
    // (sleeping until one is had).
    int64_t takePermits(int64_t request);
    // The bytes to read next: the grant, cut at the end of the range.
    int64_t countToRead(int64_t granted) const;
    void advance(int64_t count);
    // Serves up to `count` bytes at the current offset from the file, hashes and advances past
    // them, and checks the file at the range's end. Throws SharedFileError; returns 0 only for
    // a count of 0.
    int64_t serve(uint8_t* buffer, int64_t count);
    void hash(std::span<const uint8_t> bytes);
    // Joined to laneHasher_ while the part has bytes left to read (reading thread only).
    void joinLanes();
    void leaveLanes();
    // Keeps the first failure (a read error that comes with a changed file is kept as the
    // change) and publishes it through failed_. Reading thread only.
    void recordFailure(const SharedFileError& error);
    // recordFailure, then the error status (event errorOccurred).
    void fail(const SharedFileError& error);

    const uint64_t partNumber_;
    const uint64_t offset_;
    const uint64_t length_;
    const std::shared_ptr<SharedFile> rcFile_;
    const uint64_t maxOffset_;
    // Written only by the reading thread; atomic so that progress can be read from any thread.
    std::atomic<uint64_t> currentOffset_;
    std::unique_ptr<MessageDigest> hasher_;
    const std::shared_ptr<RateLimiter> rateLimiter_;

    // Reading thread only.
    std::optional<std::chrono::system_clock::time_point> waitUntil_;
    Semaphore waitSemaphore_{0};  // never signalled: timed waits are the sleeps
    std::minstd_rand random_;
    std::optional<std::vector<uint8_t>> digest_;
    // MD5 parts that hash with the others; null otherwise (hasher_ then hashes).
    const std::shared_ptr<LaneHasher> laneHasher_;
    LaneHasher::Member laneMember_;
    Md5Stream md5_;  // the digest when laneHasher_ is set; reading thread only
    bool holdsFileReference_ = false;
    // Written once by the reading thread before failed_ is set; read by others after failed_.
    std::optional<SharedFileError> error_;
    std::atomic<bool> failed_{false};

    std::atomic<StreamStatus> status_{StreamStatus::notOpen};
    std::atomic<StreamDelegate*> delegate_{nullptr};
    mutable std::mutex scheduleMutex_;
    std::shared_ptr<SerialQueue> delegateRunLoop_;  // guarded by scheduleMutex_
    std::optional<std::string> runLoopMode_;        // guarded by scheduleMutex_
};

}  // namespace pellorin
