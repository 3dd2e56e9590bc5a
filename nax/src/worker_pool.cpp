/*
 * A few threads that help the calling thread through the parts of one
 * large job.
 */
#include "worker_pool.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>

#include <algorithm>
#include <exception>
#include <new>

#include "log.h"

namespace nax {

/* One job's tasks. Lives on its caller's stack until every task ended and
 * no worker looks at it any more. */
struct WorkerPool::Batch {
    Batch(const std::function<int(int)>& t, int n, int helpers)
        : task(&t), count(n), maxHelpers(helpers), results(static_cast<size_t>(n), 0) {}

    const std::function<int(int)>* task;
    int count;
    int maxHelpers;
    std::vector<int> results;
    int next = 0;    /* the next task to take */
    int running = 0; /* tasks taken and not ended */
    int helpers = 0; /* workers inside WorkOn() for this batch */
};

WorkerPool& WorkerPool::Instance() {
    /* Never destroyed: jobs may still run in other threads at exit. */
    static WorkerPool* pool = [] {
        auto* p = new WorkerPool();
        pthread_atfork([] { Instance().BeforeFork(); }, [] { Instance().AfterForkInParent(); },
                       [] { Instance().AfterForkInChild(); });
        return p;
    }();
    return *pool;
}

WorkerPool::WorkerPool() = default;

int WorkerPool::DefaultWidth() {
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    if (sched_getaffinity(0, sizeof(cpus), &cpus) != 0)
        return 1;
    return std::clamp(CPU_COUNT(&cpus), 1, kMaxWidth);
}

int WorkerPool::Width() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (width_ == 0)
        width_ = DefaultWidth();
    return width_;
}

int WorkerPool::SetWidth(int width) {
    std::lock_guard<std::mutex> lock(mutex_);
    width_ = width <= 0 ? DefaultWidth() : std::min(width, kMaxWidth);
    return width_;
}

void WorkerPool::GrowLocked(int width) {
    while (!stopped_ && static_cast<int>(threads_.size()) < width - 1) {
        try {
            threads_.push_back(std::make_unique<std::thread>(&WorkerPool::WorkerLoop, this));
        } catch (const std::exception& e) {
            /* Fewer helpers only make jobs slower. */
            NAX_LOGW("no worker thread (%s): jobs run with %zu", e.what(), threads_.size() + 1);
            return;
        }
    }
}

int WorkerPool::Run(int count, int threads, const std::function<int(int)>& task) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (width_ == 0)
        width_ = DefaultWidth();
    const int helpers = std::min({width_, threads, count}) - 1;
    if (helpers > 0)
        GrowLocked(width_);
    if (helpers <= 0 || threads_.empty()) {
        lock.unlock();
        int first = 0;
        for (int i = 0; i < count; i++) {
            const int rc = task(i);
            if (first == 0)
                first = rc;
        }
        return first;
    }

    Batch batch(task, count, helpers);
    queue_.push_back(&batch);
    if (helpers == 1)
        wake_.notify_one();
    else
        wake_.notify_all();
    WorkOn(&batch, lock);
    finished_.wait(lock, [&batch] { return batch.running == 0 && batch.helpers == 0; });
    for (int rc : batch.results) {
        if (rc != 0)
            return rc;
    }
    return 0;
}

void WorkerPool::WorkOn(Batch* batch, std::unique_lock<std::mutex>& lock) {
    while (batch->next < batch->count) {
        const int index = batch->next++;
        if (batch->next == batch->count)
            queue_.erase(std::find(queue_.begin(), queue_.end(), batch));
        batch->running++;
        lock.unlock();
        int rc;
        try {
            rc = (*batch->task)(index);
        } catch (const std::bad_alloc&) {
            rc = -ENOMEM;
        }
        lock.lock();
        batch->results[static_cast<size_t>(index)] = rc;
        if (--batch->running == 0 && batch->next == batch->count)
            finished_.notify_all();
    }
}

void WorkerPool::WorkerLoop() {
    pthread_setname_np(pthread_self(), "nax_worker");
    std::unique_lock<std::mutex> lock(mutex_);
    while (true) {
        wake_.wait(lock, [this] {
            if (stopped_)
                return true;
            for (Batch* batch : queue_) {
                if (batch->helpers < batch->maxHelpers)
                    return true;
            }
            return false;
        });
        if (stopped_)
            return;
        Batch* batch = nullptr;
        for (Batch* candidate : queue_) {
            if (candidate->helpers < candidate->maxHelpers) {
                batch = candidate;
                break;
            }
        }
        batch->helpers++;
        WorkOn(batch, lock);
        /* The caller may return (and its batch go) once this is zero. */
        if (--batch->helpers == 0)
            finished_.notify_all();
    }
}

void WorkerPool::Stop() {
    std::vector<std::unique_ptr<std::thread>> threads;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopped_ = true;
        threads.swap(threads_);
    }
    wake_.notify_all();
    for (auto& thread : threads)
        thread->join();
}

void WorkerPool::BeforeFork() {
    mutex_.lock();
}

void WorkerPool::AfterForkInParent() {
    mutex_.unlock();
}

void WorkerPool::AfterForkInChild() {
    /* The parent's threads do not exist here: forget them without joining
     * or destroying them, and start the child's own at its first job. A
     * batch the fork caught half done belongs to a thread the child lacks
     * as well. */
    for (auto& thread : threads_)
        forked_.push_back(std::move(thread));
    threads_.clear();
    queue_.clear();
    new (&wake_) std::condition_variable();
    new (&finished_) std::condition_variable();
    mutex_.unlock();
}

namespace {

/* The workers run this library's code: they must end before it is
 * unmapped. */
struct PoolStop {
    ~PoolStop() { WorkerPool::Instance().Stop(); }
} poolStop;

}  // namespace

}  // namespace nax
