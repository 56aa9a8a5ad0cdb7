// ReadWriteLock: many readers or one writer, over the operating system's reader-writer lock.
// Used for process-wide configuration (the logging system). Any thread.
#pragma once

#include <pthread.h>

namespace pellorin {

class ReadWriteLock {
  public:
    ReadWriteLock();  // a failure to initialise the lock is a fatal stop
    ~ReadWriteLock();
    ReadWriteLock(const ReadWriteLock&) = delete;
    ReadWriteLock& operator=(const ReadWriteLock&) = delete;

    void lockRead();
    void lockWrite();
    void unlock();

    // RAII holders: the lock is released when they go out of scope.
    struct ReadGuard {
        explicit ReadGuard(ReadWriteLock& lock) : lock_(lock) { lock_.lockRead(); }
        ~ReadGuard() { lock_.unlock(); }
        ReadWriteLock& lock_;
    };
    struct WriteGuard {
        explicit WriteGuard(ReadWriteLock& lock) : lock_(lock) { lock_.lockWrite(); }
        ~WriteGuard() { lock_.unlock(); }
        ReadWriteLock& lock_;
    };

  private:
    pthread_rwlock_t rwlock_;
};

}  // namespace pellorin
