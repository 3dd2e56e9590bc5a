#include "camera/event_dispatcher.h"

#include <pthread.h>
#include <time.h>

#include <atomic>
#include <system_error>
#include <vector>

#include <marlo/base/logger.h>
#include <marlo/base/mutex.h>

namespace tessaro::marlo::detail {

namespace {

constexpr char kTag[] = "marlo_stream";

/* Set when the process-wide dispatcher is destroyed at exit: later posts are dropped. */
std::atomic<bool> g_dispatcher_gone{false};

}  // namespace

StreamEvent MakeStreamEvent(StreamEventType type, const std::string& deviceId) {
    StreamEvent event;
    event.type = type;
    event.deviceId = deviceId;
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    event.timestampNs =
        static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
    return event;
}

/* --- EventListenerSlot --- */

EventListenerSlot::EventListenerSlot(StreamEventListener listener)
    : listener_(std::move(listener)) {
    if (!g_dispatcher_gone)
        EventDispatcher::Instance().retain();
    else
        closed_ = true;
}

EventListenerSlot::~EventListenerSlot() {
    close();
}

void EventListenerSlot::Post(const std::shared_ptr<EventListenerSlot>& slot, StreamEvent event) {
    if (!slot || g_dispatcher_gone)
        return;
    EventDispatcher::Instance().post(slot, std::move(event));
}

void EventListenerSlot::deliver(const StreamEvent& event) {
    StreamEventListener listener;
    {
        MutexLocker lock(mutex_);
        if (closed_ || !listener_)
            return;
        delivering_ = true;
        deliverer_ = std::this_thread::get_id();
        listener = listener_;
    }
    listener(event);
    /* The copy may own the client's state: gone before the slot says it is idle. */
    listener = nullptr;
    MutexLocker lock(mutex_);
    delivering_ = false;
    idle_.notify_all();
}

void EventListenerSlot::close() {
    StreamEventListener old;
    {
        MutexLocker lock(mutex_);
        if (closed_)
            return;
        closed_ = true;
        /* A listener closing its own slot cannot wait for itself. */
        if (deliverer_ != std::this_thread::get_id())
            idle_.wait(lock, [this]() MARLO_REQUIRES(mutex_) { return !delivering_; });
        std::swap(old, listener_);
    }
    /* The client's callable is destroyed outside every lock. */
    old = nullptr;
    if (!g_dispatcher_gone)
        EventDispatcher::Instance().release();
}

/* --- EventDispatcher --- */

EventDispatcher& EventDispatcher::Instance() {
    /* Destroyed at exit, which joins the thread; later posts are dropped. */
    static EventDispatcher instance;
    return instance;
}

EventDispatcher::~EventDispatcher() {
    std::vector<std::thread> threads;
    {
        MutexLocker lock(mutex_);
        shutdown_ = true;
        g_dispatcher_gone = true;
        wake_.notify_all();
        if (thread_.joinable())
            threads.push_back(std::move(thread_));
        for (std::thread& finished : finished_)
            threads.push_back(std::move(finished));
        finished_.clear();
        queue_.clear();
    }
    for (std::thread& thread : threads) {
        if (thread.get_id() == std::this_thread::get_id())
            thread.detach();  // exit() called from a listener: nothing left to wait for
        else
            thread.join();
    }
}

void EventDispatcher::post(std::shared_ptr<EventListenerSlot> slot, StreamEvent event) {
    MutexLocker lock(mutex_);
    if (!running_)
        return;
    queue_.emplace_back(
        [slot = std::move(slot), event = std::move(event)] { slot->deliver(event); });
    wake_.notify_one();
}

void EventDispatcher::runLater(std::function<void()> task) {
    /* The thread runs at least until the task is done. */
    retain();
    {
        MutexLocker lock(mutex_);
        if (running_) {
            queue_.emplace_back([this, task = std::move(task)]() mutable {
                task();
                task = nullptr;
                release();
            });
            wake_.notify_one();
            return;
        }
    }
    /* No thread could be started: done here, as the caller would have. */
    marlo_log(MARLO_LOG_ERROR, kTag, "Event thread not running, task run on the caller");
    task();
    release();
}

void EventDispatcher::retain() {
    std::vector<std::thread> ended;
    {
        MutexLocker lock(mutex_);
        ++slots_;
        if (running_ || shutdown_)
            return;
        ended = takeFinished();
        uint64_t generation = ++generation_;
        try {
            thread_ = std::thread([this, generation] {
                pthread_setname_np(pthread_self(), "marlo_events");
                run(generation);
            });
            running_ = true;
        } catch (const std::system_error& error) {
            marlo_log(MARLO_LOG_ERROR, kTag,
                      "Start event thread failed: %s, events are not delivered", error.what());
        }
    }
    /* Told to end earlier, they need the lock once more to leave. */
    for (std::thread& thread : ended)
        thread.join();
}

void EventDispatcher::release() {
    std::thread ending;
    {
        MutexLocker lock(mutex_);
        if (slots_ > 0)
            --slots_;
        if (slots_ != 0 || !running_)
            return;
        /* A new generation tells the running thread to end. */
        ++generation_;
        running_ = false;
        wake_.notify_all();
        if (thread_.get_id() == std::this_thread::get_id()) {
            /* Released from a listener: the thread ends after it and is joined later. */
            finished_.push_back(std::move(thread_));
            return;
        }
        ending = std::move(thread_);
    }
    if (ending.joinable())
        ending.join();
}

bool EventDispatcher::onDispatcherThread() {
    MutexLocker lock(mutex_);
    return running_ && thread_.get_id() == std::this_thread::get_id();
}

std::vector<std::thread> EventDispatcher::takeFinished() {
    std::vector<std::thread> ended;
    for (auto it = finished_.begin(); it != finished_.end();) {
        /* A thread cannot join itself: it stays for a later call. */
        if (it->get_id() == std::this_thread::get_id()) {
            ++it;
            continue;
        }
        ended.push_back(std::move(*it));
        it = finished_.erase(it);
    }
    return ended;
}

void EventDispatcher::run(uint64_t generation) {
    MutexLocker lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&]() MARLO_REQUIRES(mutex_) {
            return !queue_.empty() || generation_ != generation || shutdown_;
        });
        if (generation_ != generation || shutdown_)
            return;
        std::function<void()> task = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        task();
        /* The last reference to a slot may go here, outside the lock. */
        task = nullptr;
        lock.lock();
    }
}

}  // namespace tessaro::marlo::detail
