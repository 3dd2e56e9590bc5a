/*
 * EventDispatcher: the process-wide thread that calls the clients' stream
 * event listeners. Events come from client threads (starts and stops) and
 * from the cameras' IO threads (drops, losses, recoveries); the camera layer
 * only queues them, so no listener ever runs under a library lock, and a
 * listener may stop, close or open streams, its own included.
 *
 * The same thread finishes what a camera's own IO thread cannot: a client
 * that closes the last stream of a camera from its frame callback leaves the
 * camera to be destroyed here, after the IO thread's handler has returned.
 *
 * The thread runs while at least one listener is registered or a task is
 * queued: it starts with the first and ends, joined, after the last.
 */
#pragma once

#include <stdint.h>

#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <marlo/base/mutex.h>
#include <marlo/camera/stream_event.h>

namespace tessaro::marlo::detail {

/* An event of \a type about \a deviceId, stamped now (CLOCK_MONOTONIC). */
StreamEvent MakeStreamEvent(StreamEventType type, const std::string& deviceId);

/* One client's listener, shared by the client's stream, its camera and queued events. */
class EventListenerSlot {
  public:
    /* Counts the slot in with the dispatcher, whose thread starts if needed. */
    explicit EventListenerSlot(StreamEventListener listener);
    /* Closes the slot if its owner did not. */
    ~EventListenerSlot();

    EventListenerSlot(const EventListenerSlot&) = delete;
    EventListenerSlot& operator=(const EventListenerSlot&) = delete;

    /* Queues \a event for this slot's listener (dropped once the slot is closed). */
    static void Post(const std::shared_ptr<EventListenerSlot>& slot, StreamEvent event);

    /*
     * No call of the listener starts after this returns, and a call running
     * on another thread has returned; called from within the listener
     * itself, it does not wait for that call. Events still queued are dropped.
     */
    void close();

  private:
    friend class EventDispatcher;

    /* Calls the listener on the dispatcher thread, unless the slot is closed. */
    void deliver(const StreamEvent& event);

    Mutex mutex_;
    ConditionVariable idle_;
    StreamEventListener listener_ MARLO_GUARDED_BY(mutex_);
    bool closed_ MARLO_GUARDED_BY(mutex_) = false;
    bool delivering_ MARLO_GUARDED_BY(mutex_) = false;
    std::thread::id deliverer_ MARLO_GUARDED_BY(mutex_);
};

class EventDispatcher {
  public:
    static EventDispatcher& Instance();
    ~EventDispatcher();

    EventDispatcher(const EventDispatcher&) = delete;
    EventDispatcher& operator=(const EventDispatcher&) = delete;

    void post(std::shared_ptr<EventListenerSlot> slot, StreamEvent event);
    /* Runs \a task on the dispatcher thread, after the events queued before it. */
    void runLater(std::function<void()> task);
    /* A slot opened: the thread runs from now on. */
    void retain();
    /* A slot closed: the last one ends the thread (joined unless called on it). */
    void release();

    /* Whether the calling thread is the dispatcher thread. */
    bool onDispatcherThread();

  private:
    EventDispatcher() = default;
    /* The loop of one thread; it ends when the generation moves on. */
    void run(uint64_t generation);
    /* Threads told to end that the caller may join (never itself). */
    std::vector<std::thread> takeFinished() MARLO_REQUIRES(mutex_);

    Mutex mutex_;
    ConditionVariable wake_;
    std::deque<std::function<void()>> queue_ MARLO_GUARDED_BY(mutex_);
    size_t slots_ MARLO_GUARDED_BY(mutex_) = 0;
    bool running_ MARLO_GUARDED_BY(mutex_) = false;
    bool shutdown_ MARLO_GUARDED_BY(mutex_) = false;
    uint64_t generation_ MARLO_GUARDED_BY(mutex_) = 0;
    std::thread thread_ MARLO_GUARDED_BY(mutex_);
    /* Threads released from within a listener, joined by a later call. */
    std::vector<std::thread> finished_ MARLO_GUARDED_BY(mutex_);
};

}  // namespace tessaro::marlo::detail
