// FilePartRequestDelegate: one attempt of one part. It owns the attempt's HTTP session, hands the
// session the part's body stream, and tells the client core what the attempt ended with; the
// core decides what that means.
//
// Lifetime: created by the core's startAttempt (scheduling or delegate queue) and kept in its
// scheduler until the session has become invalid. The session keeps the attempt alive until
// then; the attempt keeps the core alive until then. Every callback runs on the client's delegate
// queue.
#pragma once

#include <memory>
#include <mutex>
#include <optional>

#include <pellorin/FilePartRequest.h>
#include <pellorin/ThroughputMonitor.h>

#include "Platform/HttpSession.h"

namespace pellorin {

class ClientCore;
class FilePartInputStream;

class FilePartRequestDelegate final : public HttpSessionDelegate,
                                      public std::enable_shared_from_this<FilePartRequestDelegate> {
  public:
    FilePartRequestDelegate(std::shared_ptr<FilePartRequest> partRequest,
                            std::shared_ptr<ClientCore> core);

    // The attempt's session, created on first use (startAttempt) from the client's session
    // configuration; absent once the session has become invalid, and never created again.
    std::shared_ptr<HttpSession> httpSession();
    // The session if it exists now, without creating it. Any thread.
    std::shared_ptr<HttpSession> currentSession() const;

    std::string debugDescription() const { return partRequest_->debugDescription(); }

    void urlSessionTaskNeedNewBodyStream(
        HttpSession& session, UploadTask& task,
        std::function<void(std::shared_ptr<InputStream>)> completionHandler) override;
    void urlSessionTaskDidSendBodyData(HttpSession& session, UploadTask& task, int64_t bytesSent,
                                       int64_t totalBytesSent,
                                       int64_t totalBytesExpectedToSend) override;
    void urlSessionTaskDidFinishCollectingMetrics(HttpSession& session, UploadTask& task,
                                                  const TaskMetrics& metrics) override;
    void urlSessionTaskDidCompleteWithError(HttpSession& session, UploadTask& task,
                                            const std::optional<PlatformError>& error) override;
    void urlSessionDidBecomeInvalidWithError(HttpSession& session,
                                             const std::optional<PlatformError>& error) override;

  private:
    FilePartInputStream& requireBody() const;
    ClientCore& core() const;

    const std::shared_ptr<FilePartRequest> partRequest_;
    std::shared_ptr<ClientCore> core_;           // cleared when the session has become invalid
    ThroughputMonitor throughput_;               // this attempt's own counters; delegate queue only
    std::shared_ptr<FilePartInputStream> body_;  // once handed over; delegate queue only

    mutable std::mutex sessionMutex_;       // guards the two fields below (read by the drain)
    std::shared_ptr<HttpSession> session_;  // guarded by sessionMutex_
    bool sessionEnded_ = false;             // guarded by sessionMutex_
    // Set when the attempt was given up before its body started (the file could not be
    // opened): the cancelled task's ending is then not reported a second time.
    bool abandoned_ = false;
};

}  // namespace pellorin
