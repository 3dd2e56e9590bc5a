/*
 * Epoll keeps descriptors, each with the events to watch and a handler, on
 * one epoll instance and returns the ready ones. IoThread runs an Epoll loop
 * on its own Thread and dispatches the handlers there, one after the other;
 * an eventfd lets another thread wake the loop up to stop it.
 *
 * A descriptor that reports only an error or a hang-up (a capture node whose
 * device went away, a pipe whose writer closed) is never dispatched to its
 * handler. Because epoll reports such a state on every wait, the loop parks
 * the descriptor instead: it stops watching it, keeps its registration, and
 * tells the descriptor's error handler, if it has one. The loop then sleeps
 * until something else happens.
 */
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <thread>
#include <vector>

#include <marlo/base/mutex.h>
#include <marlo/base/thread.h>
#include <marlo/base/unique_fd.h>

namespace tessaro::marlo {

class Epoll {
  public:
    using Handler = std::function<void(int fd, unsigned int events)>;

    /* One registered descriptor. Wait() overwrites events with what the kernel reported. */
    struct Event {
        int fd;
        uint32_t events;
        Handler handler;
        /* Told once when the descriptor reports only an error or hang-up; may be empty. */
        Handler errorHandler;
        /* No longer watched by epoll since it reported only an error or hang-up. */
        bool parked = false;
    };

    Epoll() = default;
    Epoll(const Epoll&) = delete;
    Epoll& operator=(const Epoll&) = delete;

    /* Creates the epoll instance unless it exists. Returns 0 or an error code. */
    int Open();

    /*
     * Watches \a fd for \a events (epoll bits, at least one). Returns 0,
     * ERR_FAILED for an empty mask, ERR_INVALID_ARGUMENT when \a fd already
     * has a handler, or the mapped system error of epoll_ctl.
     */
    int RegisterHandler(int fd, Handler handler, uint32_t events);
    /* The same, with a handler told when \a fd reports only an error or hang-up. */
    int RegisterHandler(int fd, Handler handler, uint32_t events, Handler errorHandler);
    /*
     * Stops watching \a fd. Returns 0, the mapped system error, or ERR_FAILED.
     * A parked descriptor is no longer known to epoll and is only forgotten.
     */
    int UnregisterHandler(int fd);
    /*
     * Stops watching \a fd while keeping its registration (see above).
     * Returns 0, the mapped system error, or ERR_FAILED for an unknown fd.
     */
    int Park(int fd);

    /*
     * Waits at most \a timeout milliseconds (-1: no limit) and returns the
     * ready descriptors in the kernel's order. At most one event per
     * registered handler is taken; with none registered the list is empty.
     */
    std::vector<std::shared_ptr<Event>> Wait(int timeout);

    /* The epoll instance, -1 until opened. */
    int fd() const { return fd_.get(); }

  private:
    // First member: the descriptor's fd-sanitizer owner tag is then the
    // address of this object.
    UniqueFd fd_;
    /* Handlers change on the loop (a handler that stops it) and off it while it waits. */
    Mutex handlers_mutex_;
    std::map<int, std::shared_ptr<Event>> handlers_ MARLO_GUARDED_BY(handlers_mutex_);
};

class IoThread : public Epoll {
  public:
    IoThread();
    /* Stops a loop still running. */
    ~IoThread();

    /* The wait timeout in milliseconds, from the next wait on (-1: no limit). */
    void SetTimeout(int ms);

    /* Registers a handler; failures are logged only. */
    void AddHandler(int fd, Handler handler, uint32_t events);
    /* The same, with an error handler (see Epoll::RegisterHandler). */
    void AddHandler(int fd, Handler handler, uint32_t events, Handler errorHandler);
    int RemoveHandler(int fd);

    /*
     * Creates the wake-up descriptor and starts the loop on the worker
     * thread. A failure is logged and leaves the loop stopped. Called from a
     * handler after a Stop() from a handler, the loop simply goes on.
     */
    void Start();
    /* The loop run on the worker thread. */
    void Run();
    /*
     * Wakes the loop, waits for the handler running now and the worker to
     * finish, and removes the wake-up descriptor. Other handlers stay
     * registered. Called from a handler, it cannot wait for itself: the loop
     * ends after the events of this wait, and the worker is joined by the
     * next Start(), Stop() or JoinStopped() of another thread, or the
     * destructor.
     */
    void Stop();
    /*
     * Joins a loop that was stopped from one of its own handlers, once its
     * last handler has returned; does nothing otherwise, or when called from
     * a handler. Code that changes what the handlers use calls it first.
     */
    void JoinStopped();
    /* Whether the calling thread is the loop's worker (a handler runs on it). */
    bool isCurrentThread() const;

    /* The wake-up eventfd, -1 when the loop is not started. */
    int wakeupFd() const { return wakeup_.get(); }

  private:
    void OnWakeup(int fd, unsigned int events);
    /* Parks a descriptor that reported only an error or hang-up. */
    void OnErrorOnly(const std::shared_ptr<Event>& event);

    Thread thread_;
    std::atomic<bool> stopped_{true};
    std::atomic<int> timeout_{-1};
    UniqueFd wakeup_;
    /* The worker running Run(), a default id when none runs. */
    std::atomic<std::thread::id> worker_{};
    /* Stop() came from a handler: the worker ends by itself and is joined later. */
    std::atomic<bool> stopped_from_handler_{false};
};

}  // namespace tessaro::marlo
