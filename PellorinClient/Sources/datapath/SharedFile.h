// SharedFile: one read-only file descriptor shared by every part of a file that is in flight.
//
// Ownership: held as std::shared_ptr<SharedFile> by the client's table of open files and by each
// body stream over the file; the descriptor is closed when the last holder lets go (never by
// close(), which only gives back a stream's reference). Any thread: reads are positioned reads
// at an explicit offset, so parts never disturb each other's position and run side by side;
// reference-count changes are serialised, and refCount() sees every earlier open()/close().
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace pellorin {

// Thrown by SharedFile. A plain value: the client's error model wraps it for the host.
struct SharedFileError {
    enum class Kind {
        IO,                         // open or pread failed: errnoValue
        SeekPastEnd,                // a read starts at or past the end: offset, fileSize
        ReadPastEnd,                // a read would end past the end: offset, length, fileSize
        CouldNotDetermineFileSize,  // seeking to the end failed when the file was opened
        NotRegularFile,  // the path names a directory, FIFO, device or socket: filePath, detail
        // The file is no longer the one first opened (rewritten, truncated, appended to,
        // replaced or removed): filePath, detail. Permanent: reading it again cannot help.
        SourceChanged,
    };
    Kind kind;
    int errnoValue = 0;
    uint64_t offset = 0;
    int64_t length = 0;
    uint64_t fileSize = 0;
    std::string filePath{};  // NotRegularFile and SourceChanged only
    std::string detail{};    // NotRegularFile and SourceChanged only

    // "IO(errno: 2, No such file or directory)", "SeekPastEnd(offset: 10, fileSize: 10)",
    // "ReadPastEnd(offset: 9, length: 2, fileSize: 10)", "CouldNotDetermineFileSize",
    // "NotRegularFile(/in/pipe is a FIFO, not a regular file)",
    // "SourceChanged(/in/f changed while it was being uploaded: size 300 -> 301)".
    std::string description() const;
};

// What tells one version of a file from another: its device and inode (a path now naming
// another file), its size and its modification and change times in nanoseconds (a rewrite in
// place, a truncation, an append).
struct FileIdentity {
    dev_t device = 0;
    ino_t inode = 0;
    uint64_t size = 0;
    int64_t modifiedNanos = 0;
    int64_t changedNanos = 0;

    static FileIdentity of(const struct stat& info);
    bool operator==(const FileIdentity&) const = default;
};

class SharedFile {
  public:
    // Opens `filePath` read-only and takes its size and identity once. Only a regular file is
    // accepted: anything else (directory, FIFO, device, socket) throws NotRegularFile without
    // blocking, since the path is looked at first and then opened non-blocking, so that a FIFO
    // without a writer cannot hold the caller. Throws IO when the file cannot be opened,
    // CouldNotDetermineFileSize when its end cannot be found. A failed open leaks no descriptor.
    explicit SharedFile(std::string filePath);
    ~SharedFile();  // closes the descriptor
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;

    // Takes / gives back one stream's reference. Counting past the largest value or below zero
    // is a fatal stop. The descriptor is neither opened nor closed.
    void open();
    void close();
    uint64_t refCount() const;

    // Reads up to maxLength bytes at `offset` into `buffer` with one pread; returns the count
    // read, which may be smaller than asked. Throws SeekPastEnd when offset >= fileSize (a read
    // that starts exactly at the end is an error, not an empty read), ReadPastEnd when
    // offset + maxLength > fileSize, IO when pread fails. A negative maxLength is a fatal stop.
    int64_t read(uint8_t* buffer, uint64_t offset, int64_t maxLength);
    // As above into a new buffer holding exactly the bytes read; no value when none were read.
    std::optional<std::vector<uint8_t>> read(uint64_t offset, int64_t length);

    // Throws SourceChanged unless both the open descriptor and the path still show the identity
    // taken at creation: the same device, inode, size, modification and change times. Any
    // thread; two system calls, no lock.
    void checkUnchanged() const;

    int fd() const { return fd_; }
    const std::string& filePath() const { return filePath_; }
    uint64_t fileSize() const { return fileSize_; }

  private:
    // Throws SeekPastEnd / ReadPastEnd for a range outside the file.
    void checkRange(uint64_t offset, int64_t length) const;
    // One pread (repeated only when interrupted by a signal).
    int64_t preadOnce(uint8_t* buffer, uint64_t offset, int64_t length);

    int fd_ = -1;
    const std::string filePath_;
    uint64_t fileSize_ = 0;
    FileIdentity identity_;

    mutable std::mutex countMutex_;
    uint64_t refCounter_ = 0;  // guarded by countMutex_
};

}  // namespace pellorin
