// Bookkeeping for the platform layer's worker threads (queues, timers, transfers) that end up
// detached: a worker that drops the last reference to its own owner cannot be joined, so it
// detaches itself and finishes on its own.
//
// Such a thread releases the crypto library's per-thread state before it ends, and the process
// waits (briefly, at exit) for every one of them to be done, so that nothing is still being torn
// down when the process goes away. Any thread.
#pragma once

namespace pellorin::workerThreads {

// Called on a worker thread that is detaching itself. Nothing more happens for a worker that was
// counted from its start.
void markCurrentThreadDetached();

// For workers that always end on their own (transfers): counts the worker as running from before
// it exists until its workerThreadFinishing(), whether it is later joined or detached. Without
// this, a transfer thread that has reported its outcome but not yet dropped its task could still
// be releasing the crypto library's state while an exiting process tears that library down.
// countWorkerFromStart() runs on the starting thread just before the worker is created; the
// worker calls workerCountedFromStart() first thing.
void countWorkerFromStart();
void workerCountedFromStart();
// Takes back countWorkerFromStart() when the worker's thread could not be created.
void workerNeverStarted();

// Registers `hook` to run at process exit just before the wait for running workers: a pool
// tells its idle workers to end there, so the wait does not last their idle time.
void atExitBeforeWaiting(void (*hook)());

// Called as the last thing every worker thread function does.
void workerThreadFinishing();

}  // namespace pellorin::workerThreads
