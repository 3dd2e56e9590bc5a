/*
 * SafeList: a list with its own mutex. Every reader and writer goes through
 * the lock; remove() erases by predicate with the lock held, so a walk and
 * its removals are one step for other threads.
 */
#pragma once

#include <stddef.h>

#include <functional>
#include <list>

#include <marlo/base/mutex.h>

namespace tessaro::marlo {

template <typename T>
class SafeList {
  public:
    SafeList() = default;
    SafeList(const SafeList&) = delete;
    SafeList& operator=(const SafeList&) = delete;

    /*
     * Walks the list front to back and erases (and destroys) every element
     * for which \a predicate answers true. The predicate runs under the lock
     * and must not touch this list.
     */
    void remove(const std::function<bool(const T&)>& predicate) {
        MutexLocker lock(mutex_);
        for (auto it = list_.begin(); it != list_.end();) {
            if (predicate(*it))
                it = list_.erase(it);
            else
                ++it;
        }
    }

    void push_back(T value) {
        MutexLocker lock(mutex_);
        list_.push_back(std::move(value));
    }

    size_t size() const {
        MutexLocker lock(mutex_);
        return list_.size();
    }

    /* Calls \a visit for every element, front to back, with the lock held throughout. */
    void forEach(const std::function<void(const T&)>& visit) const {
        MutexLocker lock(mutex_);
        for (const T& element : list_)
            visit(element);
    }

    /*
     * Takes and drops the lock: returns once a walk running now (forEach or
     * remove on another thread) has finished.
     */
    void barrier() const { MutexLocker lock(mutex_); }

  private:
    mutable Mutex mutex_;
    std::list<T> list_ MARLO_GUARDED_BY(mutex_);
};

}  // namespace tessaro::marlo
