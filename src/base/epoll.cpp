#include <marlo/base/error.h>
#include <marlo/base/io_thread.h>
#include <marlo/base/logger.h>

#include <errno.h>
#include <sys/epoll.h>

namespace tessaro::marlo {

namespace {
constexpr char kTag[] = "marlo_base";
}

int Epoll::Open() {
    if (fd_.isValid())
        return OK;
    int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) {
        int err = errno;
        marlo_log(MARLO_LOG_ERROR, kTag, "epoll_create1 failed");
        return MapSystemError(err);
    }
    fd_.reset(fd);
    return OK;
}

int Epoll::RegisterHandler(int fd, Handler handler, uint32_t events) {
    return RegisterHandler(fd, std::move(handler), events, nullptr);
}

int Epoll::RegisterHandler(int fd, Handler handler, uint32_t events, Handler errorHandler) {
    if (events == 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Must specify events");
        return ERR_FAILED;
    }

    auto event =
        std::make_shared<Event>(Event{fd, events, std::move(handler), std::move(errorHandler)});
    MutexLocker lock(handlers_mutex_);
    if (handlers_.count(fd) != 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Cannot specify two epoll handlers for a given FD %d", fd);
        return ERR_INVALID_ARGUMENT;
    }
    handlers_.emplace(fd, std::move(event));

    struct epoll_event request = {};
    request.events = events;
    request.data.fd = fd;
    if (epoll_ctl(fd_.get(), EPOLL_CTL_ADD, fd, &request) != 0) {
        int err = errno;
        marlo_log(MARLO_LOG_ERROR, kTag, "epoll_ctl failed to add fd\n");
        handlers_.erase(fd);
        return MapSystemError(err);
    }
    return OK;
}

int Epoll::UnregisterHandler(int fd) {
    MutexLocker lock(handlers_mutex_);
    auto it = handlers_.find(fd);
    if (it != handlers_.end() && it->second->parked) {
        handlers_.erase(it);
        return OK;
    }
    // Kernels before 2.6.9 wanted an event even for removal.
    struct epoll_event unused = {};
    if (epoll_ctl(fd_.get(), EPOLL_CTL_DEL, fd, &unused) != 0) {
        int err = errno;
        marlo_log(MARLO_LOG_ERROR, kTag, "epoll_ctl failed to remove fd");
        return MapSystemError(err);
    }
    if (handlers_.erase(fd) == 0) {
        marlo_log(MARLO_LOG_ERROR, kTag,
                  "Attempting to remove epoll handler for FD without an existing handler");
        return ERR_FAILED;
    }
    return OK;
}

int Epoll::Park(int fd) {
    MutexLocker lock(handlers_mutex_);
    auto it = handlers_.find(fd);
    if (it == handlers_.end()) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Cannot park fd(%d) without an existing handler", fd);
        return ERR_FAILED;
    }
    if (it->second->parked)
        return OK;
    struct epoll_event unused = {};
    if (epoll_ctl(fd_.get(), EPOLL_CTL_DEL, fd, &unused) != 0 && errno != ENOENT &&
        errno != EBADF) {
        // ENOENT and EBADF mean epoll has already forgotten it: parked all the same.
        int err = errno;
        marlo_log(MARLO_LOG_ERROR, kTag, "epoll_ctl failed to park fd(%d)", fd);
        return MapSystemError(err);
    }
    it->second->parked = true;
    return OK;
}

std::vector<std::shared_ptr<Epoll::Event>> Epoll::Wait(int timeout) {
    std::vector<std::shared_ptr<Event>> ready;

    // One slot per handler: a handler is reported at most once per wait.
    size_t slots;
    {
        MutexLocker lock(handlers_mutex_);
        slots = handlers_.size();
    }
    std::vector<struct epoll_event> events(slots);
    int count;
    do {
        count = epoll_wait(fd_.get(), events.data(), static_cast<int>(events.size()), timeout);
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "epoll_wait failed");
        return ready;
    }

    ready.reserve(count);
    MutexLocker lock(handlers_mutex_);
    for (int i = 0; i < count; ++i) {
        const int fd = events[i].data.fd;
        auto it = handlers_.find(fd);
        if (it == handlers_.end() || !it->second) {
            // Only a removal racing with the wait gets here.
            marlo_log(MARLO_LOG_ERROR, kTag, "Epoll polled fd(%d) without a handler, dropped", fd);
            continue;
        }
        marlo_log(MARLO_LOG_VERBOSE, kTag, "Epoll polled fd(%d) events(%x)", fd, events[i].events);
        it->second->events = events[i].events;
        ready.push_back(it->second);
    }
    return ready;
}

}  // namespace tessaro::marlo
