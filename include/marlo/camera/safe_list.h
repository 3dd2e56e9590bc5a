/*
 * SafeList: a list with its own mutex. Every reader and writer goes through
 * the lock; remove() erases by predicate with the lock held, so a walk and
 * its removals are one step for other threads.
 */
#pragma once

#include <stddef.h>

#include <functional>
#include <list>
#include <mutex>

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
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto it = list_.begin(); it != list_.end();) {
            if (predicate(*it))
                it = list_.erase(it);
            else
                ++it;
        }
    }

    void push_back(T value) {
        std::lock_guard<std::mutex> lock(mutex_);
        list_.push_back(std::move(value));
    }

    size_t size() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return list_.size();
    }

    /* Calls \a visit for every element, front to back, with the lock held throughout. */
    void forEach(const std::function<void(const T&)>& visit) const {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const T& element : list_)
            visit(element);
    }

    /*
     * Takes and drops the lock: returns once a walk running now (forEach or
     * remove on another thread) has finished.
     */
    void barrier() const { std::lock_guard<std::mutex> lock(mutex_); }

  private:
    mutable std::mutex mutex_;
    std::list<T> list_;
};

}  // namespace tessaro::marlo
