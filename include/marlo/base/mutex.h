/*
 * Lock types that clang's thread-safety analysis understands. libstdc++'s
 * std::mutex carries no annotations, so the library takes its locks through
 * these:
 *
 *   Mutex              a std::mutex that is a capability;
 *   MutexLocker        holds a Mutex for a scope, may unlock and lock again,
 *                      and is what a ConditionVariable waits with;
 *   ConditionVariable  a std::condition_variable waiting on a MutexLocker.
 *
 * Every member a Mutex protects is marked MARLO_GUARDED_BY(that mutex), and
 * every function that expects it held MARLO_REQUIRES(that mutex). Such a
 * function may unlock() the mutex and lock() it again before it returns
 * (to wait for a thread that takes it): the caller's locker still owns it.
 */
#ifndef MARLO_BASE_MUTEX_H
#define MARLO_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>

#include <marlo/base/thread_annotations.h>

namespace tessaro::marlo {

class MARLO_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() MARLO_ACQUIRE() { mutex_.lock(); }
    void unlock() MARLO_RELEASE() { mutex_.unlock(); }
    bool try_lock() MARLO_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  private:
    friend class MutexLocker;

    std::mutex mutex_;
};

class MARLO_SCOPED_CAPABILITY MutexLocker {
  public:
    explicit MutexLocker(Mutex& mutex) MARLO_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
    ~MutexLocker() MARLO_RELEASE() = default;

    MutexLocker(const MutexLocker&) = delete;
    MutexLocker& operator=(const MutexLocker&) = delete;

    void lock() MARLO_ACQUIRE() { lock_.lock(); }
    void unlock() MARLO_RELEASE() { lock_.unlock(); }

  private:
    friend class ConditionVariable;

    std::unique_lock<std::mutex> lock_;
};

/*
 * The predicate of a wait reads guarded state; the analysis checks a lambda
 * as a function of its own, so mark it MARLO_REQUIRES(the mutex).
 */
class ConditionVariable {
  public:
    void notify_one() noexcept { cond_.notify_one(); }
    void notify_all() noexcept { cond_.notify_all(); }

    template <typename Predicate>
    void wait(MutexLocker& locker, Predicate predicate) {
        cond_.wait(locker.lock_, predicate);
    }

    template <typename Rep, typename Period, typename Predicate>
    bool wait_for(MutexLocker& locker, const std::chrono::duration<Rep, Period>& timeout,
                  Predicate predicate) {
        return cond_.wait_for(locker.lock_, timeout, predicate);
    }

    template <typename Clock, typename Duration, typename Predicate>
    bool wait_until(MutexLocker& locker, const std::chrono::time_point<Clock, Duration>& deadline,
                    Predicate predicate) {
        return cond_.wait_until(locker.lock_, deadline, predicate);
    }

  private:
    std::condition_variable cond_;
};

}  // namespace tessaro::marlo

#endif  // MARLO_BASE_MUTEX_H
