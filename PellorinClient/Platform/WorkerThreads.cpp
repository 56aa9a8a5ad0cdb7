#include "Platform/WorkerThreads.h"

#include <openssl/crypto.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <vector>

namespace pellorin::workerThreads {

namespace {

// The crypto library's clean-up at exit deletes its per-thread keys while queue and transfer
// threads may still be alive, which leaves their per-thread state unreachable (a leak report).
// The process releases everything at exit anyway, so that clean-up is switched off here, while
// the library's static objects are initialised, before anything else initialises the library.
const bool cryptoLibraryInitialised = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr) == 1;

thread_local bool currentThreadCounted = false;  // counted in DetachedThreads::running

struct DetachedThreads {
    std::mutex mutex;
    std::condition_variable finished;
    long running = 0;                       // guarded by mutex
    std::vector<void (*)()> beforeWaiting;  // guarded by mutex
};

// Never destroyed: a detached worker may still be finishing after the process began to exit.
DetachedThreads& detachedThreads() {
    static DetachedThreads* const instance = [] {
        DetachedThreads* threads = std::make_unique<DetachedThreads>().release();
        // Runs before sanitizers' own exit checks, which were registered earlier.
        std::atexit([] {
            DetachedThreads& t = detachedThreads();
            std::unique_lock lock(t.mutex);
            const std::vector<void (*)()> hooks = t.beforeWaiting;
            lock.unlock();
            for (void (*hook)() : hooks) {
                hook();
            }
            lock.lock();
            t.finished.wait_for(lock, std::chrono::seconds(5), [&] { return t.running == 0; });
        });
        return threads;
    }();
    return *instance;
}

}  // namespace

void markCurrentThreadDetached() {
    if (currentThreadCounted) {
        return;
    }
    countWorkerFromStart();
    currentThreadCounted = true;
}

void atExitBeforeWaiting(void (*hook)()) {
    auto& threads = detachedThreads();
    std::lock_guard lock(threads.mutex);
    threads.beforeWaiting.push_back(hook);
}

void countWorkerFromStart() {
    auto& threads = detachedThreads();
    std::lock_guard lock(threads.mutex);
    ++threads.running;
}

void workerCountedFromStart() {
    currentThreadCounted = true;
}

void workerNeverStarted() {
    auto& threads = detachedThreads();
    std::lock_guard lock(threads.mutex);
    --threads.running;
    threads.finished.notify_all();
}

void workerThreadFinishing() {
    // The crypto library keeps per-thread state (its error queue) that it frees only when the
    // thread ends; free it now, while the thread is still accounted for.
    OPENSSL_thread_stop();
    if (!currentThreadCounted) {
        return;
    }
    auto& threads = detachedThreads();
    std::lock_guard lock(threads.mutex);
    --threads.running;
    threads.finished.notify_all();
}

}  // namespace pellorin::workerThreads
