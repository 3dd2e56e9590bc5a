/*
 * Thread: one operating-system thread with a scheduling priority and a CPU
 * affinity that the new thread applies to itself before running its
 * function, and a "stopped" state that it sets when the function returns.
 * stop() only waits for that state (with a long deadline); telling the
 * function to end is the function's own business.
 */
#pragma once

#include <sched.h>

#include <chrono>
#include <functional>
#include <memory>
#include <system_error>
#include <thread>
#include <utility>

#include <marlo/base/mutex.h>

namespace tessaro::marlo {

class Thread {
  public:
    /* Scheduler priority within the thread's current policy. */
    enum Priority : int {
        LOW = 0,    /* the policy's minimum */
        NORMAL = 1, /* halfway between minimum and maximum */
        HIGH = 2,   /* the policy's maximum */
    };

    /* Priority NORMAL, affinity of the calling process, stopped. */
    Thread();
    /* Terminates the process when called on the thread itself; joins it otherwise. */
    ~Thread();

    /* The handle, priority, affinity and stopped state change owners. */
    Thread(Thread&& other) noexcept;
    Thread& operator=(Thread&& other) noexcept;
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    /*
     * Runs \a function on a new thread. A thread still held is detached
     * first (and may go on running). Throws std::system_error ("thread
     * constructor failed") when no thread can be created.
     */
    template <typename F>
    void start(F function);

    /* Waits until the function has returned, at most one hour. */
    void stop();
    bool stopped();

    /* Joins the thread; logs "Thread not joinable" when there is none to join. */
    void join();
    /* A thread is held and it is not the calling one. */
    bool joinable() const;

    /* Stores \a priority and applies it to the calling thread. */
    void setPriority(Priority priority);
    Priority getPriority() const { return priority_; }

    /*
     * Stores \a mask and applies it to the calling thread. Bit i of the mask
     * stands for every CPU whose number is congruent to i modulo 32.
     */
    void setAffinity(int mask);
    /* The calling process's affinity folded to 32 bits. */
    int getAffinity();

  private:
    /* What the running thread shares with its owner, so that a move is safe. */
    struct State {
        Mutex mutex;
        ConditionVariable cond;
        bool stopped MARLO_GUARDED_BY(mutex) = true;
    };

    static void ApplyPriority(Priority priority);
    static void ApplyAffinity(int mask);
    static void Finish(State& state);
    void detachRunning();
    void launch(std::function<void()> body);

    std::thread thread_;
    Priority priority_ = NORMAL;
    int affinity_ = 0;
    std::shared_ptr<State> state_;
};

template <typename F>
void Thread::start(F function) {
    detachRunning();
    {
        MutexLocker lock(state_->mutex);
        state_->stopped = false;
    }
    launch(std::function<void()>(std::move(function)));
}

namespace detail {

/* The 1024-CPU set selected by a 32-bit folded mask. */
cpu_set_t CpuSetFromMask(int mask);
/* Folds a 1024-CPU set to 32 bits: CPU c sets bit (c mod 32). */
int MaskFromCpuSet(const cpu_set_t& set);

/*
 * The deadline of Thread::stop() is one hour. Tests shorten it to exercise
 * the timeout without waiting that long; nothing else may call this.
 * Returns the previous value.
 */
std::chrono::milliseconds SetThreadStopTimeoutForTesting(std::chrono::milliseconds timeout);

}  // namespace detail

}  // namespace tessaro::marlo
