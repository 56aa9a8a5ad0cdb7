// RecordingDelegate: a client delegate for tests that keeps every event it receives, with the
// thread it arrived on, and lets a test wait for the final notification. Thread-safe.
#pragma once

#include <pellorin/Messages.h>
#include <pellorin/PellorinClient.h>
#include <pellorin/PellorinClientDelegate.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace pellorin::testing {

class RecordingDelegate : public PellorinClientDelegate {
  public:
    struct Event {
        std::string
            kind;  // "log", "started", "progress", "retry", "complete", "failed", "file", "finish"
        uint64_t partNumber = 0;
        std::thread::id thread;
    };

    // Called for every event, after it was recorded, on the delivering thread.
    std::function<void(const Event&)> onEvent;

    void pellorinClientLogMessage(PellorinClient&,
                                  const std::shared_ptr<const LoggingMessage>&) override {
        record({"log", 0, std::this_thread::get_id()}, [] {});
    }
    void pellorinClientDidStartPart(PellorinClient&,
                                    const std::shared_ptr<const PartStartedMessage>& m) override {
        record({"started", m->partNumber(), std::this_thread::get_id()},
               [&] { started.push_back(m); });
    }
    void pellorinClientDidReceivePartProgress(
        PellorinClient&, const std::shared_ptr<const PartProgressMessage>& m) override {
        record({"progress", m->partNumber(), std::this_thread::get_id()},
               [&] { progress.push_back(m); });
    }
    void pellorinClientWillRetryPart(PellorinClient&,
                                     const std::shared_ptr<const PartRetryMessage>& m) override {
        record({"retry", m->partNumber(), std::this_thread::get_id()},
               [&] { retries.push_back(m); });
    }
    void pellorinClientPartDidComplete(
        PellorinClient&, const std::shared_ptr<const PartCompleteMessage>& m) override {
        record({"complete", m->partNumber(), std::this_thread::get_id()},
               [&] { completed.push_back(m); });
    }
    void pellorinClientPartDidFail(PellorinClient&,
                                   const std::shared_ptr<const PartFailureMessage>& m) override {
        record({"failed", m->partNumber(), std::this_thread::get_id()},
               [&] { failed.push_back(m); });
    }
    void pellorinClientDidReceiveFileProgress(
        PellorinClient&, const std::shared_ptr<const FileProgressMessage>&) override {
        record({"file", 0, std::this_thread::get_id()}, [] {});
    }
    void pellorinClientDidFinishWithStatus(
        PellorinClient&, int32_t status, const std::shared_ptr<const MetricsMessage>& m) override {
        record({"finish", 0, std::this_thread::get_id()}, [&] {
            finishStatus = status;
            metrics = m;
        });
    }

    // Waits (bounded) for the final notification; true when it came.
    bool waitForFinish(std::chrono::seconds limit = std::chrono::seconds(30)) {
        std::unique_lock lock(mutex);
        return changed.wait_for(lock, limit, [&] { return finishStatus.has_value(); });
    }

    // Everything below is guarded by `mutex`; read it after the transfer (or under the lock).
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::vector<Event> events;
    std::vector<std::shared_ptr<const PartStartedMessage>> started;
    std::vector<std::shared_ptr<const PartProgressMessage>> progress;
    std::vector<std::shared_ptr<const PartRetryMessage>> retries;
    std::vector<std::shared_ptr<const PartCompleteMessage>> completed;
    std::vector<std::shared_ptr<const PartFailureMessage>> failed;
    std::optional<int32_t> finishStatus;
    std::shared_ptr<const MetricsMessage> metrics;

  private:
    template <typename F>
    void record(Event event, F&& store) {
        {
            std::lock_guard lock(mutex);
            events.push_back(event);
            store();
        }
        changed.notify_all();
        if (onEvent) {
            onEvent(event);
        }
    }
};

}  // namespace pellorin::testing
