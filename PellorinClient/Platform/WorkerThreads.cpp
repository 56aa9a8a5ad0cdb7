#include "Platform/WorkerThreads.h"

#include <openssl/crypto.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace pellorin::workerThreads {

namespace {

thread_local bool currentThreadCounted = false;  // counted in DetachedThreads::running

struct DetachedThreads {
    std::mutex mutex;
    std::condition_variable finished;
    long running = 0;  // guarded by mutex

    // The crypto library registers its clean-up to run at exit when it is first initialised.
    // Initialising it before this object is complete puts that clean-up after the wait below.
    DetachedThreads() { OPENSSL_init_crypto(0, nullptr); }

    // At process exit, give detached workers and transfers a moment to finish before the
    // process goes away.
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
    if (currentThreadCounted) {
        return;
    }
    countWorkerFromStart();
    currentThreadCounted = true;
}

void countWorkerFromStart() {
    auto& threads = detachedThreads();
    std::lock_guard lock(threads.mutex);
    ++threads.running;
}

void workerCountedFromStart() {
    currentThreadCounted = true;
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
