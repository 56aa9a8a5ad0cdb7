// One attempt's session: its creation, the hand-over of the body stream, the counting of the
// bytes sent, and what the attempt ended with, passed on to the client core.
#include "client/FilePartRequestDelegate.h"

#include "Platform/Fatal.h"
#include "client/AttemptDecision.h"
#include "client/ClientCore.h"
#include "client/Formatting.h"
#include "datapath/FilePartInputStream.h"

namespace pellorin {

FilePartRequestDelegate::FilePartRequestDelegate(std::shared_ptr<FilePartRequest> partRequest,
                                                 std::shared_ptr<ClientCore> core)
    : partRequest_(std::move(partRequest)), core_(std::move(core)) {
    throughput_.startTime = std::chrono::system_clock::now();
}

ClientCore& FilePartRequestDelegate::core() const {
    if (!core_) {
        fatalError("the session of " + debugDescription() + " called back after it ended");
    }
    return *core_;
}

FilePartInputStream& FilePartRequestDelegate::requireBody() const {
    if (!body_) {
        fatalError("the body of " + debugDescription() + " was never handed over");
    }
    return *body_;
}

std::shared_ptr<HttpSession> FilePartRequestDelegate::currentSession() const {
    std::lock_guard lock(sessionMutex_);
    return session_;
}

std::shared_ptr<HttpSession> FilePartRequestDelegate::httpSession() {
    std::lock_guard lock(sessionMutex_);
    if (session_ || sessionEnded_) {
        return session_;
    }
    session_ = HttpSession::make(core().sessionConfiguration(), shared_from_this(),
                                 core().delegateQueue());
    session_->setSessionDescription("filePath: " + partRequest_->filePath() +
                                    ", partNumber: " + std::to_string(partRequest_->partNumber()));
    return session_;
}

void FilePartRequestDelegate::urlSessionTaskNeedNewBodyStream(
    HttpSession& /*session*/, UploadTask& task,
    std::function<void(std::shared_ptr<InputStream>)> completionHandler) {
    if (body_) {
        fatalError("the body of " + debugDescription() + " was asked for twice");
    }
    core().logger().debug([&] { return "needNewBodyStream: " + debugDescription(); });
    std::shared_ptr<FilePartInputStream> stream = core().openBody(partRequest_);
    if (!stream) {
        abandoned_ = true;
        completionHandler(nullptr);
        task.cancel();
        return;
    }
    body_ = stream;
    completionHandler(std::move(stream));
    core().notify(
        &PellorinClientDelegate::pellorinClientDidStartPart,
        std::make_shared<const PartStartedMessage>(
            partRequest_->filePath(), partRequest_->partNumber(), partRequest_->retryCount()),
        ClientCore::Delivery::asynchronous);
}

void FilePartRequestDelegate::urlSessionTaskDidSendBodyData(HttpSession& /*session*/,
                                                            UploadTask& /*task*/, int64_t bytesSent,
                                                            int64_t totalBytesSent,
                                                            int64_t /*totalBytesExpectedToSend*/) {
    requireBody();
    if (bytesSent < 0) {
        fatalError("negative byte count " + std::to_string(bytesSent) + " for " +
                   debugDescription());
    }
    throughput_.bytesSentCounter = checkedAdd<uint64_t>(
        throughput_.bytesSentCounter, static_cast<uint64_t>(bytesSent), "bytes sent overflow");
    core().notify(&PellorinClientDelegate::pellorinClientDidReceivePartProgress,
                  std::make_shared<const PartProgressMessage>(
                      partRequest_->filePath(), partRequest_->partNumber(), partRequest_->length(),
                      bytesSent, totalBytesSent),
                  ClientCore::Delivery::asynchronous);
}

void FilePartRequestDelegate::urlSessionTaskDidFinishCollectingMetrics(HttpSession& /*session*/,
                                                                       UploadTask& /*task*/,
                                                                       const TaskMetrics& metrics) {
    core().logger().debug([&] { return "didFinishCollecting metrics: " + metrics.description(); });
    if (metrics.transactionMetrics.empty()) {
        return;
    }
    const int64_t sent = metrics.transactionMetrics.front().countOfRequestBodyBytesSent;
    if (sent < 0) {
        fatalError("negative request body byte count for " + debugDescription());
    }
    // The transport's own count replaces the sum of the progress callbacks.
    throughput_.bytesSentCounter = static_cast<uint64_t>(sent);
}

void FilePartRequestDelegate::urlSessionTaskDidCompleteWithError(
    HttpSession& session, UploadTask& task, const std::optional<PlatformError>& error) {
    core().logger().trace(
        [&] { return "didCompleteWithError taskIdentifier: " + task.description(); });
    throughput_.endTime = std::chrono::system_clock::now();
    // An attempt given up before its body started was reported when it was given up.
    if (!abandoned_) {
        AttemptEnding ending;
        if (body_ && body_->sourceChanged()) {
            ending.sourceChanged = body_->error()->description();
        }
        if (error) {
            ending.error = error;
            if (error->domain == kURLErrorDomain && error->code == URLError::timedOut) {
                core().logger().debug([&] {
                    const double elapsed = throughput_.elapsedTime();
                    return "request timeout after: " + doubleDescription(elapsed) +
                           " seconds, throughput: " +
                           toString(Throughput::KBytesSec, throughput_.bytesSentCounter, elapsed);
                });
            }
        } else {
            const std::shared_ptr<const HttpResponse> response = task.response();
            if (!response) {
                fatalError("a task of " + debugDescription() + " completed without a response");
            }
            ending.statusCode = response->statusCode();
            ending.retryAfter = response->valueForHTTPHeaderField("Retry-After");
            ending.remoteChecksum = remoteChecksum(*response);
            if (ending.remoteChecksum) {
                ending.checksum = requireBody().verifyRemoteChecksum(*ending.remoteChecksum);
            }
        }
        core().attemptDidEnd(partRequest_, std::move(ending), throughput_);
    }
    session.finishTasksAndInvalidate();
}

void FilePartRequestDelegate::urlSessionDidBecomeInvalidWithError(
    HttpSession& session, const std::optional<PlatformError>& error) {
    core().logger().trace([&] {
        return "session:didBecomeInvalidWithError: " +
               (error ? error->description() : std::string("nil")) + " (" +
               session.sessionDescription().value_or("no session description") + ")";
    });
    // Keep the core alive to the end of this function even if this was its last holder.
    const std::shared_ptr<ClientCore> core = std::move(core_);
    core->attemptDidBecomeInvalid(*this);
    std::lock_guard lock(sessionMutex_);
    session_.reset();
    sessionEnded_ = true;
}

}  // namespace pellorin
