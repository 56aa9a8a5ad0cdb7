// The start and the end of one attempt's HTTP session: its creation, the hand-over of the body
// stream, and the release of the connection slot when the session has become invalid.
#include "client/FilePartRequestDelegate.h"

#include <algorithm>

#include "Platform/Fatal.h"
#include "client/ClientState.h"
#include "datapath/FilePartInputStream.h"
#include "datapath/MessageDigest.h"
#include "datapath/SharedFile.h"

namespace pellorin {

FilePartRequestDelegate::FilePartRequestDelegate(std::shared_ptr<FilePartRequest> partRequest,
                                                 std::shared_ptr<PellorinClient> client,
                                                 Logger logger,
                                                 std::unique_ptr<ThroughputMonitor> throughput)
    : partRequest_(std::move(partRequest)),
      client_(std::move(client)),
      logger_(std::move(logger)),
      throughput_(std::move(throughput)),
      status_(TransferState::waiting(partRequest_)) {}

std::shared_ptr<HttpSession> FilePartRequestDelegate::currentSession() const {
    std::lock_guard lock(sessionMutex_);
    return session_;
}

std::shared_ptr<HttpSession> FilePartRequestDelegate::httpSession() {
    std::lock_guard lock(sessionMutex_);
    if (session_ || sessionEnded_) {
        return session_;
    }
    if (!client_) {
        fatalError("the session of " + debugDescription() + " was asked for without a client");
    }
    auto& state = ClientAccess::state(*client_);
    SessionConfiguration configuration;
    if (!state.sessionConfigurationSupplier) {
        configuration = SessionConfiguration::ephemeral();
        // The idle time-out grows with the number of parallel connections on purpose: more
        // connections share the same bandwidth, so each one may go quiet for longer.
        configuration.timeoutIntervalForRequest = state.maxConnections * 120.0;
    } else {
        configuration = state.sessionConfigurationSupplier();
    }
    // Never below TLS 1.2, whatever the supplier asked for.
    if (static_cast<unsigned>(configuration.minimumTLSVersion) <
        static_cast<unsigned>(TLSVersion::v1_2)) {
        configuration.minimumTLSVersion = TLSVersion::v1_2;
    }
    session_ = HttpSession::make(configuration, shared_from_this(), state.delegateQueue);
    session_->setSessionDescription("filePath: " + partRequest_->filePath() +
                                    ", partNumber: " + std::to_string(partRequest_->partNumber()));
    return session_;
}

void FilePartRequestDelegate::urlSessionTaskNeedNewBodyStream(
    HttpSession& /*session*/, UploadTask& task,
    std::function<void(std::shared_ptr<InputStream>)> completionHandler) {
    logger_.trace([&] { return "needNewBodyStream task id: " + debugDescription(); });
    if (!status_.isWaiting()) {
        fatalError(
            "Illegal State Exception, part is not waiting to start, the current status is: " +
            status_.description());
    }
    logger_.debug([&] { return "needNewBodyStream: " + debugDescription(); });
    if (!client_) {
        fatalError("the body of " + debugDescription() + " was asked for without a client");
    }
    PellorinClient& client = *client_;
    auto& state = ClientAccess::state(client);

    std::shared_ptr<SharedFile> file;
    std::shared_ptr<RateLimiter> limiter;
    if (auto found = state.filesByPath.find(partRequest_->filePath());
        found != state.filesByPath.end()) {
        file = found->second;
        limiter = state.rateLimiter;
    } else {
        // The first part of a file to start streams unthrottled; later parts share the limiter.
        try {
            file = std::make_shared<SharedFile>(partRequest_->filePath());
        } catch (const SharedFileError& error) {
            abandoned_ = true;
            client::failPart(client, partRequest_, PellorinError::error(error.description()));
            logger_.error([&] {
                return "Could not process file part: " + debugDescription() +
                       ".  Cancelling the file transfer.";
            });
            logger_.error([&] { return error.description(); });
            completionHandler(nullptr);
            task.cancel();
            return;
        }
        state.filesByPath.emplace(partRequest_->filePath(), file);
    }

    auto stream = filePart(DigestAlgorithm::md5, file, partRequest_->partNumber(),
                           partRequest_->offset(), partRequest_->length(), limiter);
    status_.value = TransferState::Executing{partRequest_, stream};
    completionHandler(stream);

    auto message = std::make_shared<const PartStartedMessage>(
        partRequest_->filePath(), partRequest_->partNumber(), partRequest_->retryCount());
    client::notifyDelegates(
        client,
        [message](PellorinClientDelegate& delegate, PellorinClient& c) {
            delegate.pellorinClientDidStartPart(c, message);
        },
        Delivery::asynchronous);
}

void FilePartRequestDelegate::urlSessionDidBecomeInvalidWithError(
    HttpSession& session, const std::optional<PlatformError>& error) {
    logger_.trace([&] {
        return "session:didBecomeInvalidWithError: " +
               (error ? error->description() : std::string("nil")) + " (" +
               session.sessionDescription().value_or("no session description") + ")";
    });
    if (!client_) {
        fatalError("the session of " + debugDescription() + " ended twice");
    }
    // Keep the client alive to the end of this function even if this was its last holder.
    const std::shared_ptr<PellorinClient> client = std::move(client_);
    auto& state = ClientAccess::state(*client);
    state.filePartDelegates.removeIf(
        [this](const std::shared_ptr<FilePartRequestDelegate>& d) { return d.get() == this; });
    client::signalCompletionIfIdle(*client);
    if (state.maxConnectionsSemaphore) {
        state.maxConnectionsSemaphore->signal();
    }
    std::lock_guard lock(sessionMutex_);
    session_.reset();
    sessionEnded_ = true;
}

}  // namespace pellorin
