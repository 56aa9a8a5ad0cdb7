// curl::HttpSession: the libcurl implementation of HttpSession (see HttpSession.h for the
// events and their order). Its tasks are curl::UploadTasks, each run on a pooled transfer thread.
//
// Ownership: the session keeps its delegate until it has become invalid, and its unfinished
// tasks; a running task keeps its session.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "Platform/CurlUploadTask.h"
#include "Platform/HttpSession.h"

namespace pellorin::curl {

class HttpSession final : public pellorin::HttpSession,
                          public std::enable_shared_from_this<HttpSession> {
  public:
    std::shared_ptr<pellorin::UploadTask> uploadTaskWithStreamedRequest(
        HttpRequest request) override;
    std::shared_ptr<pellorin::UploadTask> uploadTask(HttpRequest request, std::vector<uint8_t> body,
                                                     CompletionHandler completionHandler) override;
    void finishTasksAndInvalidate() override;
    void invalidateAndCancel() override;
    void setSessionDescription(std::string description) override;
    std::optional<std::string> sessionDescription() const override;
    const SessionConfiguration& configuration() const override { return configuration_; }
    const std::shared_ptr<SerialQueue>& delegateQueue() const override { return delegateQueue_; }

    // Only the factories of HttpSession make sessions.
    class Passkey {
        Passkey() = default;
        friend class pellorin::HttpSession;
    };
    HttpSession(Passkey, SessionConfiguration configuration,
                std::shared_ptr<HttpSessionDelegate> delegate,
                std::shared_ptr<SerialQueue> delegateQueue, bool isShared);

  private:
    friend class UploadTask;

    std::shared_ptr<UploadTask> addTask(HttpRequest request, std::vector<uint8_t> body,
                                        CompletionHandler completionHandler);
    // Queues a delegate callback about `task`; skipped when the delegate is gone. Any thread.
    void notifyDelegate(std::shared_ptr<UploadTask> task,
                        std::function<void(HttpSessionDelegate&, HttpSession&, UploadTask&)> call);
    // The task has queued its last report; may queue the session's invalidation. Any thread.
    void taskDidComplete(uint64_t taskIdentifier);
    // Queues the invalidation if it is due and not queued yet. Caller holds mutex_.
    void invalidateIfDoneLocked();

    const SessionConfiguration configuration_;
    const std::shared_ptr<SerialQueue> delegateQueue_;
    const bool isShared_;
    // Read and released on the delegate queue only (set before any task exists).
    std::shared_ptr<HttpSessionDelegate> delegate_;

    mutable std::mutex mutex_;
    uint64_t nextTaskIdentifier_ = 1;                        // guarded by mutex_
    std::map<uint64_t, std::shared_ptr<UploadTask>> tasks_;  // unfinished; guarded by mutex_
    bool invalidating_ = false;                              // guarded by mutex_
    bool invalidationQueued_ = false;                        // guarded by mutex_
    std::optional<std::string> sessionDescription_;          // guarded by mutex_
};

}  // namespace pellorin::curl
