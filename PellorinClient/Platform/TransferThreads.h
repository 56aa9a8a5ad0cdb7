// The threads that upload tasks' transfers run on, each with libcurl handles it keeps from one
// transfer to the next.
//
// A transfer has a thread to itself while it runs: a body read may sleep there (rate limiting)
// without holding up any other transfer. When the transfer ends, its thread waits a moment for
// the next one instead of ending. The next transfer then neither creates a thread nor, when it
// goes to the same server with the same settings, opens a connection: the thread's multi handle
// keeps its connection cache, and libcurl reuses a cached connection only when the server,
// proxy and TLS settings all match. A thread left without work for kIdleLife ends and closes
// its connections; at process exit the idle threads end at once.
//
// A job that has reported its outcome says so (jobIsFinishing): its thread is then as good as
// idle, and a job handed over before it gets there waits for it rather than starting a thread
// (and a connection) of its own. Parts start the moment the previous one has been reported,
// which is before its thread is back: without this a run of small parts kept opening threads
// and connections, twice as many as it had parts in flight.
//
// The pool itself is process-wide and never destroyed (a transfer may still be ending while the
// process exits).
#pragma once

#include <curl/curl.h>

#include <chrono>
#include <functional>

namespace pellorin {

// libcurl handles owned by one transfer thread. The easy handle goes into the multi handle for
// one transfer at a time and is reset after it; either is null if libcurl could not make it.
struct CurlHandles {
    CURL* easy = nullptr;
    CURLM* multi = nullptr;
};

namespace transferThreads {

// How long a thread without work keeps itself (and its connections) for the next transfer.
// Parts follow each other within milliseconds; a retry after a back-off wait reconnects.
inline constexpr std::chrono::milliseconds kIdleLife{200};

// Runs `job` on a finishing transfer thread once it is done, else on an idle one (the one idle
// the shortest time), else on a new one. The
// job must have taken its easy handle out of the multi handle and reset it when it returns, and
// must not keep the handles. Returns false, with the job destroyed unrun, when no thread is idle
// and the system refuses a new one (out of threads or memory). Any thread.
bool run(std::function<void(const CurlHandles&)> job);

// Called by a job on its transfer thread once it has reported its outcome and only lets go of
// what it holds before returning (nothing that blocks): the next job handed over may be kept
// for this thread. At most once per job; no effect on any other thread.
void jobIsFinishing();

}  // namespace transferThreads

}  // namespace pellorin
