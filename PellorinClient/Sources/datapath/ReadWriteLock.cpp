#include "datapath/ReadWriteLock.h"

#include <cstring>
#include <string>

#include "Platform/Fatal.h"

namespace pellorin {

namespace {
void check(int result, const char* what) {
    if (result != 0) {
        fatalError(std::string(what) + " failed: " + std::strerror(result));
    }
}
}  // namespace

ReadWriteLock::ReadWriteLock() {
    check(pthread_rwlock_init(&rwlock_, nullptr), "pthread_rwlock_init");
}
ReadWriteLock::~ReadWriteLock() {
    pthread_rwlock_destroy(&rwlock_);
}
void ReadWriteLock::lockRead() {
    check(pthread_rwlock_rdlock(&rwlock_), "pthread_rwlock_rdlock");
}
void ReadWriteLock::lockWrite() {
    check(pthread_rwlock_wrlock(&rwlock_), "pthread_rwlock_wrlock");
}
void ReadWriteLock::unlock() {
    check(pthread_rwlock_unlock(&rwlock_), "pthread_rwlock_unlock");
}

}  // namespace pellorin
