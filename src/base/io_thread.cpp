#include <marlo/base/error.h>
#include <marlo/base/io_thread.h>
#include <marlo/base/logger.h>

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <system_error>

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_base";
// Events that make a handler run; error or hang-up bits alone do not.
constexpr uint32_t kDispatchEvents = EPOLLIN | EPOLLPRI | EPOLLOUT;

}  // namespace

IoThread::IoThread() {
    // A failure is logged; every later call then reports its own error.
    Open();
}

IoThread::~IoThread() {
    JoinStopped();
    // The loop only ends through the wake-up descriptor; the worker would
    // otherwise be joined forever.
    if (wakeup_.isValid())
        Stop();
}

bool IoThread::isCurrentThread() const {
    return worker_.load() == std::this_thread::get_id();
}

void IoThread::JoinStopped() {
    if (!stopped_from_handler_ || isCurrentThread())
        return;
    // The loop ends once the handler that stopped it and the rest of its batch return.
    thread_.stop();
    thread_.join();
    stopped_from_handler_ = false;
}

void IoThread::SetTimeout(int ms) {
    timeout_ = ms;
}

void IoThread::AddHandler(int fd, Handler handler, uint32_t events) {
    RegisterHandler(fd, std::move(handler), events);
}

void IoThread::AddHandler(int fd, Handler handler, uint32_t events, Handler errorHandler) {
    RegisterHandler(fd, std::move(handler), events, std::move(errorHandler));
}

int IoThread::RemoveHandler(int fd) {
    return UnregisterHandler(fd);
}

void IoThread::Start() {
    if (!stopped_) {
        marlo_log(MARLO_LOG_WARN, kTag, "Starting IO thread which already started!!");
        return;
    }
    if (isCurrentThread()) {
        // Stopped and started again from handlers: the loop this runs on goes on.
        UniqueFd fd(eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC));
        if (!fd.isValid() ||
            RegisterHandler(
                fd.get(), [this](int fd, unsigned int events) { OnWakeup(fd, events); },
                EPOLLIN | EPOLLPRI) != 0) {
            marlo_log(MARLO_LOG_ERROR, kTag, "Restart IO thread from its handler failed: %s",
                      strerror(errno));
            return;
        }
        wakeup_ = std::move(fd);
        marlo_log(MARLO_LOG_WARN, kTag, "Starting IO thread wakeup fd(%d)!!", wakeup_.get());
        stopped_from_handler_ = false;
        stopped_ = false;
        return;
    }
    // A loop stopped from its own handler may still finish its batch: it
    // ends before anything here changes what it uses.
    JoinStopped();

    // The loop ended by itself without Stop(): drop the old descriptor's
    // registration before closing it, or its number would stay taken.
    if (wakeup_.isValid())
        UnregisterHandler(wakeup_.get());

    int fd = eventfd(0, EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC);
    if (fd < 0) {
        // Without it the loop could never be told to stop.
        marlo_log(MARLO_LOG_ERROR, kTag, "Create IO thread wakeup fd failed: %s, not started",
                  strerror(errno));
        wakeup_.reset();
        return;
    }
    wakeup_.reset(fd);
    marlo_log(MARLO_LOG_WARN, kTag, "Starting IO thread wakeup fd(%d)!!", fd);

    if (RegisterHandler(
            fd, [this](int fd, unsigned int events) { OnWakeup(fd, events); },
            EPOLLIN | EPOLLPRI) != 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Register IO thread wakeup fd(%d) failed, not started",
                  fd);
        wakeup_.reset();
        return;
    }

    // A loop that ended by itself leaves its worker to be joined, not
    // detached with a pointer to this object.
    if (thread_.joinable()) {
        thread_.stop();
        thread_.join();
    }

    stopped_ = false;
    try {
        thread_.start([this] {
            // Named, so that top -H and traces tell it apart from the client's threads.
            pthread_setname_np(pthread_self(), "marlo_io");
            worker_ = std::this_thread::get_id();
            Run();
            worker_ = std::thread::id();
        });
    } catch (const std::system_error& error) {
        // Failures are reported, never thrown, from here on up.
        marlo_log(MARLO_LOG_ERROR, kTag, "Start IO thread failed: %s, not started", error.what());
        stopped_ = true;
        UnregisterHandler(wakeup_.get());
        wakeup_.reset();
    }
}

void IoThread::OnWakeup(int fd, unsigned int events) {
    // Error level on purpose: seen with the default log level.
    marlo_log(MARLO_LOG_ERROR, kTag, "Wakeup IO thread fd(%d) ev(%u) !!", fd, events);
    uint64_t value = 0;
    ssize_t ret = TEMP_FAILURE_RETRY(read(fd, &value, sizeof(value)));
    if (ret != static_cast<ssize_t>(sizeof(value)))
        marlo_log(MARLO_LOG_WARN, kTag, "Read wakeup event failed ret %d error: %s!!",
                  static_cast<int>(ret), strerror(errno));
    stopped_ = true;
}

void IoThread::OnErrorOnly(const std::shared_ptr<Event>& event) {
    // epoll reports this state on every wait: watching on would spin the loop.
    marlo_log(MARLO_LOG_WARN, kTag,
              "IO thread fd(%d) reports only error or hang-up (events %x), no longer watched",
              event->fd, event->events);
    if (Park(event->fd) != OK)
        return;
    if (event->errorHandler)
        event->errorHandler(event->fd, event->events);
}

void IoThread::Run() {
    if (stopped_)
        return;
    do {
        // The whole batch is dispatched even when the wake-up came first.
        for (const auto& event : Wait(timeout_)) {
            if (event->events & kDispatchEvents)
                event->handler(event->fd, event->events);
            else if (!event->parked)
                OnErrorOnly(event);
        }
    } while (!stopped_);
}

void IoThread::Stop() {
    if (isCurrentThread()) {
        // A handler cannot wait for its own loop: it ends after this batch.
        marlo_log(MARLO_LOG_WARN, kTag, "Stop IO thread from its own handler, it ends after it");
        stopped_ = true;
        stopped_from_handler_ = true;
        if (wakeup_.isValid()) {
            UnregisterHandler(wakeup_.get());
            wakeup_.reset();
        }
        return;
    }
    if (stopped_from_handler_) {
        JoinStopped();
        return;
    }
    if (wakeup_.isValid()) {
        marlo_log(MARLO_LOG_WARN, kTag, "Try to wakeup IO thread to stop it, fd(%d) !!",
                  wakeup_.get());
        uint64_t value = 1;
        ssize_t ret = TEMP_FAILURE_RETRY(write(wakeup_.get(), &value, sizeof(value)));
        if (ret != static_cast<ssize_t>(sizeof(value)))
            marlo_log(MARLO_LOG_WARN, kTag, "write wakeup event failed ret %d error: %s!!",
                      static_cast<int>(ret), strerror(errno));
    }

    sched_yield();
    marlo_log(MARLO_LOG_WARN, kTag, "Start stop IO thread !!");

    thread_.stop();
    thread_.join();

    UnregisterHandler(wakeup_.get());
    wakeup_.reset();
    stopped_ = true;
}

}  // namespace tessaro::marlo
