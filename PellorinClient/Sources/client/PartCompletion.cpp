// What the end of an attempt means: success when the server's checksum matches the digest of
// the bytes sent, a retry for transient endings, a failure for everything else. Also the body
// progress and metrics callbacks of the attempt, and the part failure shared with cancellation
// and retries. Everything here runs on the client's delegate queue.
#include <cctype>

#include "Platform/Encoding.h"
#include "Platform/Fatal.h"
#include "client/ClientState.h"
#include "client/ErrorConversion.h"
#include "client/FilePartRequestDelegate.h"
#include "client/Formatting.h"
#include "datapath/FilePartInputStream.h"

namespace pellorin {

namespace {

bool equalIgnoringCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

}  // namespace

const TransferState::Executing& FilePartRequestDelegate::requireExecuting() const {
    const TransferState::Executing* executing = status_.executing();
    if (!executing) {
        fatalError("TransferStatus is invalid it should be executing, instead it is: " +
                   status_.description() + "; " + debugDescription());
    }
    return *executing;
}

void FilePartRequestDelegate::urlSessionTaskDidCompleteWithError(
    HttpSession& session, UploadTask& task, const std::optional<PlatformError>& error) {
    logger_.trace([&] { return "didCompleteWithError taskIdentifier: " + task.description(); });
    throughput_->endTime = std::chrono::system_clock::now();
    // An attempt given up before its body started was reported when it was given up.
    if (!abandoned_) {
        if (error) {
            completeWithError(*error);
        } else {
            completeWithResponse(session, task);
        }
    }
    session.finishTasksAndInvalidate();
}

void FilePartRequestDelegate::completeWithResponse(HttpSession& /*session*/, UploadTask& task) {
    const TransferState::Executing& executing = requireExecuting();
    const std::shared_ptr<const HttpResponse> response = task.response();
    if (!response) {
        fatalError("a task of " + debugDescription() + " completed without an HTTP response");
    }
    PellorinClient& client = *client_;
    const int code = response->statusCode();
    if (code == 200 || code == 201) {
        verifyChecksum(executing, *response);
    } else if (code == 408 || code == 429 || (code >= 500 && code <= 599)) {
        if (ClientAccess::state(client).cancelled.load()) {
            client::failPart(client, partRequest_, PellorinError::cancelledByUser());
        } else {
            client::requeuePartRequest(client, partRequest_, throughput_->bytesSentCounter,
                                       *response);
        }
    } else {
        client::failPart(client, partRequest_, PellorinError::unknownServerResponseCode(code));
    }
}

void FilePartRequestDelegate::verifyChecksum(const TransferState::Executing& executing,
                                             const HttpResponse& response) {
    PellorinClient& client = *client_;
    auto& state = ClientAccess::state(client);
    std::optional<std::string> remote;
    if (const auto contentMD5 = response.valueForHTTPHeaderField("Content-MD5")) {
        if (const auto decoded = base64DecodeStrict(*contentMD5)) {
            remote = hexString(*decoded);
        }
    }
    if (!remote) {
        remote = response.valueForHTTPHeaderField("ETag");
    }
    if (!remote) {
        client::failPart(client, partRequest_, PellorinError::noRemoteChecksum());
        return;
    }
    const std::string local = hexString(executing.stream->digestData());

    if (equalIgnoringCase(local, *remote)) {
        state.completedRequests.push_back({TransferState::Successful{partRequest_, *remote}});
        auto message = std::make_shared<const PartCompleteMessage>(
            partRequest_->filePath(), partRequest_->partNumber(), *remote);
        client::notifyDelegates(
            client,
            [message](PellorinClientDelegate& delegate, PellorinClient& c) {
                delegate.pellorinClientPartDidComplete(c, message);
            },
            Delivery::synchronous);
        logger_.debug([&] {
            return "part #: " + std::to_string(partRequest_->partNumber()) +
                   " retryCount: " + std::to_string(partRequest_->retryCount()) + " throughput: " +
                   toString(Throughput::KBitsSec, throughput_->bytesSentCounter,
                            throughput_->elapsedTime());
        });
        return;
    }
    const PellorinError mismatch = PellorinError::checksumFailed(local, *remote);
    partRequest_->appendError(mismatch);
    if (!state.cancelled.load()) {
        client::requeuePartRequest(client, partRequest_, throughput_->bytesSentCounter,
                                   std::nullopt, mismatch);
    } else {
        client::failPart(client, partRequest_, PellorinError::cancelledByUser());
    }
}

void FilePartRequestDelegate::completeWithError(const PlatformError& error) {
    PellorinClient& client = *client_;
    auto& state = ClientAccess::state(client);
    const uint64_t lost = throughput_->bytesSentCounter;
    const PellorinError wrapped = PellorinError::nsError(error);
    const auto backoffWait = [&] {
        const size_t next =
            checkedAdd<size_t>(partRequest_->retryCount(), 1, "retryCount overflow");
        return state.backoff.delayTimeForRetryCount(next);
    };

    if (error.domain != kURLErrorDomain) {
        partRequest_->appendError(wrapped);
        client::requeuePartRequest(client, partRequest_, lost, backoffWait(), wrapped);
        return;
    }
    if (error.code == URLError::cancelled) {
        client::failPart(client, partRequest_, PellorinError::cancelledByUser());
        return;
    }
    partRequest_->appendError(wrapped);
    if (error.code == URLError::timedOut) {
        logger_.debug([&] {
            const double elapsed = throughput_->elapsedTime();
            return "request timeout after: " + doubleDescription(elapsed) +
                   " seconds, throughput: " +
                   toString(Throughput::KBytesSec, throughput_->bytesSentCounter, elapsed);
        });
    }
    std::optional<double> wait;
    if (error.code != URLError::cannotConnectToHost &&
        error.code != URLError::cannotParseResponse) {
        wait = backoffWait();
    }
    client::requeuePartRequest(client, partRequest_, lost, wait, wrapped);
}

void FilePartRequestDelegate::urlSessionTaskDidSendBodyData(HttpSession& /*session*/,
                                                            UploadTask& /*task*/, int64_t bytesSent,
                                                            int64_t totalBytesSent,
                                                            int64_t totalBytesExpectedToSend) {
    logger_.trace([&] {
        return "didSendBodyData: bytesSent: " + std::to_string(bytesSent) +
               ", totalBytesSent: " + std::to_string(totalBytesSent) +
               ", totalBytesExpectedToSend: " + std::to_string(totalBytesExpectedToSend);
    });
    requireExecuting();
    if (bytesSent < 0) {
        fatalError("negative byte count " + std::to_string(bytesSent) + " for " +
                   debugDescription());
    }
    throughput_->bytesSentCounter = checkedAdd<uint64_t>(
        throughput_->bytesSentCounter, static_cast<uint64_t>(bytesSent), "bytes sent overflow");
    auto message = std::make_shared<const PartProgressMessage>(
        partRequest_->filePath(), partRequest_->partNumber(), partRequest_->length(), bytesSent,
        totalBytesSent);
    client::notifyDelegates(
        *client_,
        [message](PellorinClientDelegate& delegate, PellorinClient& c) {
            delegate.pellorinClientDidReceivePartProgress(c, message);
        },
        Delivery::asynchronous);
}

void FilePartRequestDelegate::urlSessionTaskDidFinishCollectingMetrics(HttpSession& /*session*/,
                                                                       UploadTask& /*task*/,
                                                                       const TaskMetrics& metrics) {
    logger_.debug([&] { return "didFinishCollecting metrics: " + metrics.description(); });
    if (metrics.transactionMetrics.empty()) {
        return;
    }
    const int64_t sent = metrics.transactionMetrics.front().countOfRequestBodyBytesSent;
    if (sent < 0) {
        fatalError("negative request body byte count for " + debugDescription());
    }
    // The transport's own count replaces the sum of the progress callbacks.
    throughput_->bytesSentCounter = static_cast<uint64_t>(sent);
}

void client::failPart(PellorinClient& client, const std::shared_ptr<FilePartRequest>& partRequest,
                      const PellorinError& error) {
    auto& state = ClientAccess::state(client);
    partRequest->appendError(error);
    state.completedRequests.push_back({TransferState::Failed{partRequest}});
    std::vector<std::shared_ptr<const ErrorMessage>> errors;
    for (const PellorinError& each : partRequest->errors()) {
        errors.push_back(toErrorMessage(each));
    }
    auto message = std::make_shared<const PartFailureMessage>(
        partRequest->filePath(), partRequest->partNumber(), partRequest->url(), std::move(errors));
    const Delivery delivery = error.kind() == PellorinError::Kind::cancelledByUser
                                  ? Delivery::synchronous
                                  : Delivery::asynchronous;
    notifyDelegates(
        client,
        [message](PellorinClientDelegate& delegate, PellorinClient& c) {
            delegate.pellorinClientPartDidFail(c, message);
        },
        delivery);
}

}  // namespace pellorin
