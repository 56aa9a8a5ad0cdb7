#include "Platform/WorkerThreads.h"

#include <openssl/crypto.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace pellorin::workerThreads {

namespace {

thread_local bool currentThreadDetached = false;

struct DetachedThreads {
    std::mutex mutex;
    std::condition_variable finished;
    long running = 0;  // guarded by mutex

    // At process exit, give detached workers a moment to finish before the process goes away.
    ~DetachedThreads() {
        std::unique_lock lock(mutex);
        finished.wait_for(lock, std::chrono::seconds(2), [&] { return running == 0; });
    }
};

DetachedThreads& detachedThreads() {
    static DetachedThreads instance;
    return instance;
}

}  // namespace

void markCurrentThreadDetached() {
    auto& threads = detachedThreads();
    std::lock_guard lock(threads.mutex);
    ++threads.running;
    currentThreadDetached = true;
}

void workerThreadFinishing() {
    // The crypto library keeps per-thread state (its error queue) that it frees only when the
    // thread ends; free it now, while the thread is still accounted for.
    OPENSSL_thread_stop();
    if (!currentThreadDetached) {
        return;
    }
    auto& threads = detachedThreads();
    std::lock_guard lock(threads.mutex);
    --threads.running;
    threads.finished.notify_all();
}

}  // namespace pellorin::workerThreads
