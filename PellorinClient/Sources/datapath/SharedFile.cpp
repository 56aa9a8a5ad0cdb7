#include "datapath/SharedFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "Platform/Fatal.h"

namespace pellorin {

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
    }
    return "SharedFileError";
}

SharedFile::SharedFile(std::string filePath) : filePath_(std::move(filePath)) {
    do {
        fd_ = ::open(filePath_.c_str(), O_RDONLY | O_CLOEXEC);
    } while (fd_ == -1 && errno == EINTR);
    if (fd_ == -1) {
        throw SharedFileError{.kind = SharedFileError::Kind::IO, .errnoValue = errno};
    }
    // A directory opens read-only too, and then reports a meaningless size: refuse it here with
    // the error its first read would give.
    struct stat info {};
    if (::fstat(fd_, &info) == 0 && S_ISDIR(info.st_mode)) {
        ::close(fd_);
        throw SharedFileError{.kind = SharedFileError::Kind::IO, .errnoValue = EISDIR};
    }
    const off_t end = ::lseek(fd_, 0, SEEK_END);
    if (end == -1) {
        const int error = errno;
        ::close(fd_);
        throw SharedFileError{.kind = SharedFileError::Kind::CouldNotDetermineFileSize,
                              .errnoValue = error};
    }
    ::lseek(fd_, 0, SEEK_SET);
    fileSize_ = static_cast<uint64_t>(end);
}

SharedFile::~SharedFile() {
    ::close(fd_);
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

int64_t SharedFile::read(uint8_t* buffer, uint64_t offset, int64_t maxLength) {
    std::lock_guard lock(readMutex_);
    checkRange(offset, maxLength);
    return preadLocked(buffer, offset, maxLength);
}

std::optional<std::vector<uint8_t>> SharedFile::read(uint64_t offset, int64_t length) {
    std::lock_guard lock(readMutex_);
    checkRange(offset, length);  // before allocating, so a bad length allocates nothing
    std::vector<uint8_t> bytes(static_cast<size_t>(length));
    const int64_t count = preadLocked(bytes.data(), offset, length);
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

int64_t SharedFile::preadLocked(uint8_t* buffer, uint64_t offset, int64_t length) {
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
