// Bookkeeping for the platform layer's worker threads (queues, timers, transfers) that end up
// detached: a worker that drops the last reference to its own owner cannot be joined, so it
// detaches itself and finishes on its own.
//
// Such a thread releases the crypto library's per-thread state before it ends, and the process
// waits (briefly, at exit) for every one of them to be done, so that nothing is still being torn
// down when the process goes away. Any thread.
#pragma once

namespace pellorin::workerThreads {

// Called on a worker thread that is detaching itself.
void markCurrentThreadDetached();

// Called as the last thing every worker thread function does.
void workerThreadFinishing();

}  // namespace pellorin::workerThreads
