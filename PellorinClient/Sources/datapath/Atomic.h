// Atomic<T> and AtomicArray<T>: values and lists shared between the host's thread, the client's
// scheduling queue and its delegate queue.
//
// Every access is one critical section, so a read sees every earlier write, a read-modify-write
// loses nothing and a snapshot is a copy. Writers never wait for a reader's work. Any thread; a
// block passed to modify/sort/forEach must not touch the same container again.
#pragma once

#include <algorithm>
#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace pellorin {

template <typename T>
class Atomic {
  public:
    explicit Atomic(T initial) : inner_(std::move(initial)) {}
    Atomic(const Atomic&) = delete;
    Atomic& operator=(const Atomic&) = delete;

    T load() const {
        std::lock_guard lock(mutex_);
        return inner_;
    }
    void store(T value) {
        std::lock_guard lock(mutex_);
        inner_ = std::move(value);
    }
    // Reads, changes and writes the value in one step; returns what `change` returns.
    template <typename F>
    auto modify(F&& change) {
        std::lock_guard lock(mutex_);
        return change(inner_);
    }

  private:
    mutable std::mutex mutex_;
    T inner_;  // guarded by mutex_
};

template <typename T>
class AtomicArray {
  public:
    AtomicArray() = default;
    explicit AtomicArray(std::vector<T> initial) : array_(std::move(initial)) {}
    AtomicArray(const AtomicArray&) = delete;
    AtomicArray& operator=(const AtomicArray&) = delete;

    // A copy of the whole array; later changes do not reach it.
    std::vector<T> snapshot() const {
        std::lock_guard lock(mutex_);
        return array_;
    }
    size_t count() const {
        std::lock_guard lock(mutex_);
        return array_.size();
    }
    bool empty() const { return count() == 0; }
    void append(T element) {
        std::lock_guard lock(mutex_);
        array_.push_back(std::move(element));
    }
    // Removes every element for which `matches` is true (identity comparison by the caller).
    template <typename Pred>
    void removeIf(Pred&& matches) {
        std::lock_guard lock(mutex_);
        array_.erase(std::remove_if(array_.begin(), array_.end(), matches), array_.end());
    }
    // Removes and returns the first element, if any.
    bool popFirst(T& out) {
        std::lock_guard lock(mutex_);
        if (array_.empty()) {
            return false;
        }
        out = std::move(array_.front());
        array_.erase(array_.begin());
        return true;
    }
    // Stable in-place sort. An array already in order (the usual case for a queue that is
    // sorted before every pop) is only checked: no allocation, no element moved.
    template <typename Less>
    void sort(Less&& less) {
        std::lock_guard lock(mutex_);
        if (!std::is_sorted(array_.begin(), array_.end(), less)) {
            std::stable_sort(array_.begin(), array_.end(), less);
        }
    }
    // Walks the elements in order under the lock.
    template <typename F>
    void forEach(F&& visit) const {
        std::lock_guard lock(mutex_);
        for (const T& element : array_) {
            visit(element);
        }
    }
    // Runs `change` on the whole array under the lock (e.g. to take every element out at once).
    template <typename F>
    void modifyAll(F&& change) {
        std::lock_guard lock(mutex_);
        change(array_);
    }
    void removeAll() {
        std::lock_guard lock(mutex_);
        array_.clear();
    }

  private:
    mutable std::mutex mutex_;
    std::vector<T> array_;  // guarded by mutex_
};

}  // namespace pellorin
