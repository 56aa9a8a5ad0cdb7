#include "datapath/SharedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Platform/Fatal.h"

namespace pellorin {

namespace {

int64_t nanos(const struct timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}

const char* kindOfFile(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "a directory";
    }
    if (S_ISFIFO(mode)) {
        return "a FIFO";
    }
    if (S_ISCHR(mode)) {
        return "a character device";
    }
    if (S_ISBLK(mode)) {
        return "a block device";
    }
    if (S_ISSOCK(mode)) {
        return "a socket";
    }
    return "of an unknown type";
}

SharedFileError notRegularFile(const std::string& path, mode_t mode) {
    return SharedFileError{
        .kind = SharedFileError::Kind::NotRegularFile,
        .errnoValue = S_ISDIR(mode) ? EISDIR : 0,
        .filePath = path,
        .detail = std::string("is ") + kindOfFile(mode) + ", not a regular file"};
}

SharedFileError sourceChanged(const std::string& path, const std::string& how) {
    return SharedFileError{.kind = SharedFileError::Kind::SourceChanged,
                           .filePath = path,
                           .detail = "changed while it was being uploaded: " + how};
}

// What differs between two identities of the same descriptor, for the error text.
std::string difference(const FileIdentity& before, const FileIdentity& now) {
    if (before.size != now.size) {
        return "size " + std::to_string(before.size) + " -> " + std::to_string(now.size);
    }
    if (before.modifiedNanos != now.modifiedNanos) {
        return "it was written to";
    }
    return "its status changed";
}

}  // namespace

FileIdentity FileIdentity::of(const struct stat& info) {
    return FileIdentity{.device = info.st_dev,
                        .inode = info.st_ino,
                        .size = static_cast<uint64_t>(info.st_size),
                        .modifiedNanos = nanos(info.st_mtim),
                        .changedNanos = nanos(info.st_ctim)};
}

std::string SharedFileError::description() const {
    switch (kind) {
        case Kind::IO:
            return "IO(errno: " + std::to_string(errnoValue) + ", " + std::strerror(errnoValue) +
                   ")";
        case Kind::SeekPastEnd:
            return "SeekPastEnd(offset: " + std::to_string(offset) +
                   ", fileSize: " + std::to_string(fileSize) + ")";
        case Kind::ReadPastEnd:
            return "ReadPastEnd(offset: " + std::to_string(offset) +
                   ", length: " + std::to_string(length) +
                   ", fileSize: " + std::to_string(fileSize) + ")";
        case Kind::CouldNotDetermineFileSize:
            return "CouldNotDetermineFileSize";
        case Kind::NotRegularFile:
            return "NotRegularFile(" + filePath + " " + detail + ")";
        case Kind::SourceChanged:
            return "SourceChanged(" + filePath + " " + detail + ")";
    }
    return "SharedFileError";
}

SharedFile::SharedFile(std::string filePath) : filePath_(std::move(filePath)) {
    // Looking first keeps devices from being opened at all (opening some has side effects).
    struct stat info {};
    if (::stat(filePath_.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
        throw notRegularFile(filePath_, info.st_mode);
    }
    // Non-blocking, so that a path turned into a FIFO since the look above cannot wait here
    // for a writer; no controlling terminal either. fstat below decides on what was opened.
    do {
        fd_ = ::open(filePath_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    } while (fd_ == -1 && errno == EINTR);
    if (fd_ == -1) {
        const int error = errno;
        if (::stat(filePath_.c_str(), &info) == 0 && !S_ISREG(info.st_mode)) {
            throw notRegularFile(filePath_, info.st_mode);  // a socket cannot be opened at all
        }
        throw SharedFileError{.kind = SharedFileError::Kind::IO, .errnoValue = error};
    }
    const auto fail = [this](SharedFileError error) {
        ::close(fd_);
        fd_ = -1;
        throw std::move(error);
    };
    if (::fstat(fd_, &info) != 0) {
        fail(SharedFileError{.kind = SharedFileError::Kind::IO, .errnoValue = errno});
    }
    if (!S_ISREG(info.st_mode)) {
        fail(notRegularFile(filePath_, info.st_mode));
    }
    // A regular file never blocks; reads go back to the usual mode.
    const int flags = ::fcntl(fd_, F_GETFL);
    if (flags == -1 || ::fcntl(fd_, F_SETFL, flags & ~O_NONBLOCK) == -1) {
        fail(SharedFileError{.kind = SharedFileError::Kind::IO, .errnoValue = errno});
    }
    const off_t end = ::lseek(fd_, 0, SEEK_END);
    if (end == -1) {
        fail(SharedFileError{.kind = SharedFileError::Kind::CouldNotDetermineFileSize,
                             .errnoValue = errno});
    }
    ::lseek(fd_, 0, SEEK_SET);
    fileSize_ = static_cast<uint64_t>(end);
    identity_ = FileIdentity::of(info);
}

SharedFile::~SharedFile() {
    ::close(fd_);
}

void SharedFile::checkUnchanged() const {
    struct stat info {};
    if (::fstat(fd_, &info) != 0) {
        throw sourceChanged(filePath_, std::string("it cannot be examined any more (") +
                                           std::strerror(errno) + ")");
    }
    if (const FileIdentity now = FileIdentity::of(info); now != identity_) {
        throw sourceChanged(filePath_, difference(identity_, now));
    }
    // The descriptor alone cannot see the path being pointed at another file (a rename over
    // it, or a delete and re-create).
    if (::stat(filePath_.c_str(), &info) != 0) {
        throw sourceChanged(filePath_, std::string("the path names no file any more (") +
                                           std::strerror(errno) + ")");
    }
    if (info.st_dev != identity_.device || info.st_ino != identity_.inode) {
        throw sourceChanged(filePath_, "the path names another file now");
    }
}

void SharedFile::open() {
    std::lock_guard lock(countMutex_);
    refCounter_ = checkedAdd<uint64_t>(refCounter_, 1, "SharedFile reference count overflow");
}

void SharedFile::close() {
    std::lock_guard lock(countMutex_);
    refCounter_ =
        checkedSubtract<uint64_t>(refCounter_, 1, "SharedFile reference count below zero");
}

uint64_t SharedFile::refCount() const {
    std::lock_guard lock(countMutex_);
    return refCounter_;
}

// Reads are positioned and the descriptor lives as long as the object, so reads of different
// parts run side by side: no lock, and a read that stalls (a slow disk) holds up only its part.
int64_t SharedFile::read(uint8_t* buffer, uint64_t offset, int64_t maxLength) {
    checkRange(offset, maxLength);
    return preadOnce(buffer, offset, maxLength);
}

std::optional<std::vector<uint8_t>> SharedFile::read(uint64_t offset, int64_t length) {
    checkRange(offset, length);  // before allocating, so a bad length allocates nothing
    std::vector<uint8_t> bytes(static_cast<size_t>(length));
    const int64_t count = preadOnce(bytes.data(), offset, length);
    if (count == 0) {
        return std::nullopt;
    }
    bytes.resize(static_cast<size_t>(count));
    return bytes;
}

void SharedFile::checkRange(uint64_t offset, int64_t length) const {
    if (fileSize_ <= offset) {
        throw SharedFileError{
            .kind = SharedFileError::Kind::SeekPastEnd, .offset = offset, .fileSize = fileSize_};
    }
    if (length < 0) {
        fatalError("SharedFile::read: negative length " + std::to_string(length));
    }
    // offset < fileSize <= INT64_MAX and length <= INT64_MAX, so the sum cannot wrap.
    if (offset + static_cast<uint64_t>(length) > fileSize_) {
        throw SharedFileError{.kind = SharedFileError::Kind::ReadPastEnd,
                              .offset = offset,
                              .length = length,
                              .fileSize = fileSize_};
    }
}

int64_t SharedFile::preadOnce(uint8_t* buffer, uint64_t offset, int64_t length) {
    ssize_t count;
    do {
        count = ::pread(fd_, buffer, static_cast<size_t>(length), static_cast<off_t>(offset));
    } while (count == -1 && errno == EINTR);
    if (count == -1) {
        throw SharedFileError{.kind = SharedFileError::Kind::IO, .errnoValue = errno};
    }
    return count;
}

}  // namespace pellorin
