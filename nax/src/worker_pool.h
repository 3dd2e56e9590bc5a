/*
 * A few threads that help the calling thread through the parts of one
 * large job.
 *
 * A job is cut into tasks that write disjoint parts of the destination
 * (bands of rows, planes), each computed exactly as the whole job computes
 * it, so the result does not depend on how many threads ran it. The calling
 * thread works on its own job's tasks too and returns when all are done:
 * the engine's contract that every job is finished on return is unchanged.
 * Jobs of several callers (cameras) share the pool; a caller never waits
 * for a task that nobody runs, since it takes its own tasks itself.
 *
 * Width: the number of threads that work on one job, the caller included.
 * By default the cores this process may run on when the pool starts, at
 * most kMaxWidth; 1 (a single core) runs every task on the calling thread
 * and starts no thread. Threads start at the first job that can use them
 * and are joined when the library is unloaded.
 */
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace nax {

class WorkerPool {
  public:
    static constexpr int kMaxWidth = 4;

    static WorkerPool& Instance();

    /* Threads per job, the caller included. */
    int Width();
    /* Sets the width (clamped to 1..kMaxWidth); 0 restores the default. */
    int SetWidth(int width);

    /*
     * Runs task(0) .. task(count - 1), on the calling thread and up to
     * min(threads, Width()) - 1 others, and returns once all have ended: 0,
     * or the first non-zero result in task order.
     */
    int Run(int count, int threads, const std::function<int(int)>& task);

    /* Joins the threads; later jobs run on their callers alone. */
    void Stop();
    /* fork() handlers: the child has no thread of the parent's. */
    void BeforeFork();
    void AfterForkInParent();
    void AfterForkInChild();

  private:
    struct Batch;

    WorkerPool();
    static int DefaultWidth();
    /* Starts threads up to width - 1; mutex_ held. */
    void GrowLocked(int width);
    void WorkerLoop();
    /* Runs tasks of `batch` until none is left to take; mutex_ held on
     * entry and on return, released around each task. */
    void WorkOn(Batch* batch, std::unique_lock<std::mutex>& lock);

    std::mutex mutex_;
    std::condition_variable wake_;     /* workers: a batch was queued */
    std::condition_variable finished_; /* callers: a task of theirs ended */
    std::deque<Batch*> queue_;         /* batches with tasks left to take */
    std::vector<std::unique_ptr<std::thread>> threads_;
    /* A fork child's copies of the parent's threads: kept, never used. */
    std::vector<std::unique_ptr<std::thread>> forked_;
    int width_ = 0; /* 0 until first asked */
    bool stopped_ = false;
};

}  // namespace nax
