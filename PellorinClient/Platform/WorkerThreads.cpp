#include "Platform/WorkerThreads.h"

#include <openssl/crypto.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace pellorin::workerThreads {

namespace {

thread_local bool currentThreadDetached = false;

struct DetachedThreads {
    std::mutex mutex;
    std::condition_variable finished;
    long running = 0;  // guarded by mutex
};

// Never destroyed: a detached worker may still be finishing after the process began to exit.
DetachedThreads& detachedThreads() {
    static DetachedThreads* const instance = [] {
        DetachedThreads* threads = std::make_unique<DetachedThreads>().release();
        // Runs before sanitizers' own exit checks, which were registered earlier.
        std::atexit([] {
            DetachedThreads& t = detachedThreads();
            std::unique_lock lock(t.mutex);
            t.finished.wait_for(lock, std::chrono::seconds(5), [&] { return t.running == 0; });
        });
        return threads;
    }();
    return *instance;
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
