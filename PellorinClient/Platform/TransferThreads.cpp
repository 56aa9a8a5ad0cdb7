#include "Platform/TransferThreads.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "Platform/WorkerThreads.h"

namespace pellorin::transferThreads {

namespace {

// libcurl's global state is set up once per process, before the first handle is made.
void ensureCurlGlobalInit() {
    static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
    (void)initialised;
}

// The handles of one thread, made when the thread starts and cleaned up when it ends (which
// closes the connections the multi handle still caches).
class OwnedHandles {
  public:
    OwnedHandles() {
        ensureCurlGlobalInit();
        handles_.easy = curl_easy_init();
        handles_.multi = curl_multi_init();
    }
    ~OwnedHandles() {
        if (handles_.easy != nullptr) {
            curl_easy_cleanup(handles_.easy);
        }
        if (handles_.multi != nullptr) {
            curl_multi_cleanup(handles_.multi);
        }
    }
    OwnedHandles(const OwnedHandles&) = delete;
    OwnedHandles& operator=(const OwnedHandles&) = delete;
    const CurlHandles& get() const { return handles_; }

  private:
    CurlHandles handles_;
};

using Job = std::function<void(const CurlHandles&)>;

struct Worker {
    std::condition_variable wake;  // a job was handed over, or the process is exiting
    Job job;                       // guarded by Pool::mutex
    bool finishing = false;        // guarded by Pool::mutex; its job called jobIsFinishing
};

struct Pool {
    std::mutex mutex;
    std::vector<std::shared_ptr<Worker>> idle;  // guarded by mutex; the last went idle last
    // Jobs kept for the finishing threads, never more than there are of them, so each is
    // taken within moments.
    std::deque<Job> kept;  // guarded by mutex
    size_t finishing = 0;  // guarded by mutex; workers whose job is finishing
    bool exiting = false;  // guarded by mutex
};

// The worker the calling thread serves, if it is a transfer thread.
thread_local Worker* currentWorker = nullptr;

Pool& pool();

// Process exit: idle threads end now; busy ones end when their transfer does.
void endIdleThreads() {
    Pool& p = pool();
    std::lock_guard lock(p.mutex);
    p.exiting = true;
    for (const auto& worker : p.idle) {
        worker->wake.notify_one();
    }
}

// Never destroyed: a transfer thread may still be ending while the process exits.
Pool& pool() {
    static Pool* const instance = [] {
        workerThreads::atExitBeforeWaiting(&endIdleThreads);
        return std::make_unique<Pool>().release();
    }();
    return *instance;
}

void removeIdle(Pool& p, const std::shared_ptr<Worker>& worker) {
    p.idle.erase(std::remove(p.idle.begin(), p.idle.end(), worker), p.idle.end());
}

// Runs on the worker's thread: its first job, then whatever it is handed while idle.
void serve(const std::shared_ptr<Worker>& worker) {
    Pool& p = pool();
    currentWorker = worker.get();
    {
        OwnedHandles handles;
        std::unique_lock lock(p.mutex);
        for (;;) {
            Job job = std::move(worker->job);
            worker->job = nullptr;
            lock.unlock();
            job(handles.get());
            job = nullptr;  // lets go of the task and session it held before going idle
            lock.lock();
            if (worker->finishing) {
                worker->finishing = false;
                --p.finishing;
            }
            // A job kept for a finishing thread runs now, at exit too: it was promised a thread.
            if (!p.kept.empty()) {
                worker->job = std::move(p.kept.front());
                p.kept.pop_front();
                continue;
            }
            if (p.exiting) {
                break;
            }
            p.idle.push_back(worker);
            const bool handed = worker->wake.wait_for(
                lock, kIdleLife, [&] { return worker->job != nullptr || p.exiting; });
            if (!handed || worker->job == nullptr) {
                removeIdle(p, worker);
                break;
            }
            // Whoever handed the job over has taken this worker off the idle list.
        }
    }
    currentWorker = nullptr;
    workerThreads::workerThreadFinishing();
}

}  // namespace

void jobIsFinishing() {
    Worker* const worker = currentWorker;
    if (worker == nullptr) {
        return;
    }
    Pool& p = pool();
    std::lock_guard lock(p.mutex);
    if (!worker->finishing) {
        worker->finishing = true;
        ++p.finishing;
    }
}

bool run(Job job) {
    Pool& p = pool();
    std::shared_ptr<Worker> idle;
    {
        std::lock_guard lock(p.mutex);
        // A finishing thread first: it takes the job without being woken, and it most likely
        // holds a connection to the same server.
        if (p.kept.size() < p.finishing) {
            p.kept.push_back(std::move(job));
            return true;
        }
        if (!p.exiting && !p.idle.empty()) {
            idle = std::move(p.idle.back());
            p.idle.pop_back();
            idle->job = std::move(job);
        }
    }
    if (idle) {
        // Outside the lock, which the woken thread needs at once.
        idle->wake.notify_one();
        return true;
    }
    auto worker = std::make_shared<Worker>();
    worker->job = std::move(job);
    // Counted before it starts: once the job has reported its outcome, the whole transfer may
    // end and the process exit while this thread is still on its way out.
    workerThreads::countWorkerFromStart();
    try {
        std::thread([worker] {
            workerThreads::workerCountedFromStart();
            serve(worker);
        }).detach();
    } catch (const std::system_error&) {
        workerThreads::workerNeverStarted();
        worker->job = nullptr;
        return false;
    }
    return true;
}

}  // namespace pellorin::transferThreads
