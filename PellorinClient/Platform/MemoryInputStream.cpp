#include "Platform/MemoryInputStream.h"

#include <algorithm>
#include <cstring>

namespace pellorin {

void MemoryInputStream::open() {
    {
        std::lock_guard lock(mutex_);
        if (status_ != StreamStatus::notOpen) {
            return;
        }
        status_ = bytes_.empty() ? StreamStatus::atEnd : StreamStatus::open;
    }
    postIfScheduled(StreamEvent::openCompleted);
}

void MemoryInputStream::close() {
    std::lock_guard lock(mutex_);
    status_ = StreamStatus::closed;
}

int64_t MemoryInputStream::read(uint8_t* buffer, int64_t maxLength) {
    size_t count = 0;
    bool ended = false;
    {
        std::lock_guard lock(mutex_);
        if (status_ != StreamStatus::open) {
            return (status_ == StreamStatus::atEnd) ? 0 : -1;
        }
        count = std::min(bytes_.size() - position_,
                         static_cast<size_t>(std::max<int64_t>(0, maxLength)));
        std::memcpy(buffer, bytes_.data() + position_, count);
        position_ += count;
        if (position_ == bytes_.size()) {
            status_ = StreamStatus::atEnd;
            ended = true;
        }
    }
    if (ended) {
        postIfScheduled(StreamEvent::endEncountered);
    }
    return static_cast<int64_t>(count);
}

bool MemoryInputStream::rewind() {
    std::lock_guard lock(mutex_);
    if (status_ != StreamStatus::open && status_ != StreamStatus::atEnd) {
        return false;
    }
    position_ = 0;
    status_ = bytes_.empty() ? StreamStatus::atEnd : StreamStatus::open;
    return true;
}

bool MemoryInputStream::hasBytesAvailable() const {
    std::lock_guard lock(mutex_);
    return status_ == StreamStatus::open && position_ < bytes_.size();
}

StreamStatus MemoryInputStream::streamStatus() const {
    std::lock_guard lock(mutex_);
    return status_;
}

StreamDelegate* MemoryInputStream::delegate() const {
    std::lock_guard lock(mutex_);
    return delegate_;
}

void MemoryInputStream::setDelegate(StreamDelegate* delegate) {
    std::lock_guard lock(mutex_);
    delegate_ = delegate;
}

void MemoryInputStream::schedule(std::shared_ptr<SerialQueue> queue, std::string /*mode*/) {
    std::lock_guard lock(mutex_);
    queue_ = std::move(queue);
}

void MemoryInputStream::remove(const std::shared_ptr<SerialQueue>& queue,
                               const std::string& /*mode*/) {
    std::lock_guard lock(mutex_);
    if (queue_ == queue) {
        queue_.reset();
    }
}

void MemoryInputStream::postIfScheduled(StreamEvent event) {
    std::shared_ptr<SerialQueue> queue;
    {
        std::lock_guard lock(mutex_);
        queue = queue_;
    }
    postEvent(queue, event);
}

}  // namespace pellorin
