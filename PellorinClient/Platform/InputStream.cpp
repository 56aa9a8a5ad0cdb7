#include "Platform/InputStream.h"

namespace pellorin {

const char* toString(StreamStatus status) {
    switch (status) {
        case StreamStatus::notOpen:
            return "notOpen";
        case StreamStatus::opening:
            return "opening";
        case StreamStatus::open:
            return "open";
        case StreamStatus::reading:
            return "reading";
        case StreamStatus::writing:
            return "writing";
        case StreamStatus::atEnd:
            return "atEnd";
        case StreamStatus::closed:
            return "closed";
        case StreamStatus::error:
            return "error";
    }
    return "unknown";
}

void InputStream::postEvent(const std::shared_ptr<SerialQueue>& queue, StreamEvent event) {
    if (!queue) {
        return;
    }
    std::weak_ptr<InputStream> weakSelf = weak_from_this();
    queue->async([weakSelf, event] {
        if (std::shared_ptr<InputStream> self = weakSelf.lock()) {
            if (StreamDelegate* delegate = self->delegate()) {
                delegate->streamHandleEvent(*self, event);
            }
        }
    });
}

}  // namespace pellorin
