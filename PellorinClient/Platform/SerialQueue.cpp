#include <pellorin/SerialQueue.h>

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "Platform/Fatal.h"
#include "Platform/WorkerThreads.h"

namespace pellorin {

// The worker's state is shared with the worker thread, so that the queue object may be
// destroyed from one of its own blocks: the worker then finishes on its own, detached.
struct SerialQueue::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<std::function<void()>> blocks;  // guarded by mutex
    bool stopping = false;                     // guarded by mutex
    std::thread worker;
    std::thread::id workerId;

    void run() {
        for (;;) {
            std::function<void()> block;
            {
                std::unique_lock lock(mutex);
                wake.wait(lock, [&] { return stopping || !blocks.empty(); });
                if (blocks.empty()) {
                    return;  // stopping, and everything submitted has run
                }
                block = std::move(blocks.front());
                blocks.pop_front();
            }
            block();
        }
    }
};

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
    std::shared_ptr<State> state = state_;
    state_->worker = std::thread([state] {
        state->run();
        workerThreads::workerThreadFinishing();
    });
    state_->workerId = state_->worker.get_id();
}

SerialQueue::~SerialQueue() {
    {
        std::lock_guard lock(state_->mutex);
        state_->stopping = true;
    }
    state_->wake.notify_one();
    if (std::this_thread::get_id() == state_->workerId) {
        state_->worker.detach();  // the block that dropped us is still running on the worker
        workerThreads::markCurrentThreadDetached();
    } else {
        state_->worker.join();
    }
}

void SerialQueue::async(std::function<void()> block) {
    {
        std::lock_guard lock(state_->mutex);
        state_->blocks.push_back(std::move(block));
    }
    state_->wake.notify_one();
}

void SerialQueue::sync(const std::function<void()>& block) {
    if (isCurrent()) {
        fatalError("SerialQueue::sync called from its own queue '" + label_ + "'");
    }
    std::mutex doneMutex;
    std::condition_variable doneSignal;
    bool done = false;
    async([&] {
        block();
        std::lock_guard lock(doneMutex);
        done = true;
        doneSignal.notify_one();
    });
    std::unique_lock lock(doneMutex);
    doneSignal.wait(lock, [&] { return done; });
}

bool SerialQueue::isCurrent() const {
    return std::this_thread::get_id() == state_->workerId;
}

}  // namespace pellorin
