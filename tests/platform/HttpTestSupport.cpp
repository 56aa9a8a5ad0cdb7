#include "HttpTestSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>
#include <tuple>

namespace pellorin::testing {

void RecordingDelegate::record(SessionEvent event) {
    const bool onQueue = queue_->isCurrent();
    std::lock_guard lock(mutex_);
    offQueueCalls_ += onQueue ? 0 : 1;
    events_.push_back(std::move(event));
    changed_.notify_all();
}

bool RecordingDelegate::waitForInvalidation(std::chrono::milliseconds limit) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(
        lock, limit, [&] { return !events_.empty() && events_.back().kind == Kind::invalidated; });
}

std::vector<SessionEvent> RecordingDelegate::events(std::optional<Kind> kind) const {
    std::lock_guard lock(mutex_);
    std::vector<SessionEvent> result;
    std::copy_if(events_.begin(), events_.end(), std::back_inserter(result),
                 [&](const SessionEvent& e) { return !kind || e.kind == *kind; });
    return result;
}

std::optional<SessionEvent> RecordingDelegate::completionOf(uint64_t task) const {
    for (SessionEvent& e : events(Kind::completed)) {
        if (e.task == task) {
            return e;
        }
    }
    return std::nullopt;
}

int RecordingDelegate::offQueueCalls() const {
    std::lock_guard lock(mutex_);
    return offQueueCalls_;
}

SessionHarness::SessionHarness(RecordingDelegate::BodySupplier bodyFor,
                               SessionConfiguration configuration)
    : delegate(std::make_shared<RecordingDelegate>(queue, std::move(bodyFor))),
      session(HttpSession::make(std::move(configuration), delegate, queue)) {}

std::optional<SessionEvent> SessionHarness::runOne(HttpRequest request) {
    std::shared_ptr<UploadTask> task = session->uploadTaskWithStreamedRequest(std::move(request));
    task->resume();
    session->finishTasksAndInvalidate();
    if (!delegate->waitForInvalidation()) {
        return std::nullopt;
    }
    return delegate->completionOf(task->taskIdentifier());
}

int64_t TestStream::read(uint8_t* buffer, int64_t maxLength) {
    if (gate_) {
        gate_->wait_for(std::chrono::seconds(10));
        gate_.reset();
    }
    if (failAfter_ && delivered_ >= *failAfter_) {
        return -1;
    }
    const int64_t got = MemoryInputStream::read(
        buffer, failAfter_ ? std::min(maxLength, *failAfter_ - delivered_) : maxLength);
    delivered_ += std::max<int64_t>(got, 0);
    return got;
}

RecordingDelegate::BodySupplier bodyOf(size_t size) {
    return [size](UploadTask&) { return std::make_shared<MemoryInputStream>(patternBytes(size)); };
}

std::vector<uint8_t> patternBytes(size_t count, uint32_t seed) {
    std::vector<uint8_t> bytes(count);
    uint32_t state = seed * 2654435761u + 1;
    for (uint8_t& b : bytes) {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
    }
    return bytes;
}

HttpRequest uploadRequest(const std::string& url, int64_t length) {
    HttpRequest request(Url::parse(url).value());
    request.httpMethod = "PUT";
    request.addValue(std::to_string(length), "Content-Length");
    return request;
}

namespace {

// A TCP socket bound to an ephemeral port on 127.0.0.1: the descriptor and the port.
std::pair<int, int> boundSocket() {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        throw std::runtime_error("cannot bind a loopback socket");
    }
    return {fd, ntohs(address.sin_port)};
}

}  // namespace

int closedPort() {
    const auto [fd, port] = boundSocket();
    ::close(fd);  // bound but never listening: connections to it are refused
    return port;
}

SilentListener::SilentListener() {
    std::tie(fd_, port_) = boundSocket();
    if (::listen(fd_, 64) != 0) {
        ::close(fd_);
        throw std::runtime_error("cannot listen on a loopback socket");
    }
}

SilentListener::~SilentListener() {
    ::close(fd_);
}

}  // namespace pellorin::testing
