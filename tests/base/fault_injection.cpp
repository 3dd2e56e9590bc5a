#include "fault_injection.h"

#include <dlfcn.h>
#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <sys/epoll.h>

namespace marlo_test {

SystemCallFaults& Faults() {
    static SystemCallFaults faults;
    return faults;
}

}  // namespace marlo_test

namespace {

template <typename Fn>
Fn Real(const char* name) {
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int pthread_getschedparam(pthread_t thread, int* policy, struct sched_param* param) noexcept {
    if (marlo_test::Faults().pthreadGetschedparam)
        return EPERM;
    using Fn = int (*)(pthread_t, int*, struct sched_param*);
    static Fn real = Real<Fn>("pthread_getschedparam");
    return real(thread, policy, param);
}

int pthread_setschedparam(pthread_t thread, int policy, const struct sched_param* param) noexcept {
    if (marlo_test::Faults().pthreadSetschedparam)
        return EPERM;
    using Fn = int (*)(pthread_t, int, const struct sched_param*);
    static Fn real = Real<Fn>("pthread_setschedparam");
    return real(thread, policy, param);
}

int sched_getaffinity(pid_t pid, size_t size, cpu_set_t* set) noexcept {
    if (marlo_test::Faults().schedGetaffinity) {
        errno = EPERM;
        return -1;
    }
    using Fn = int (*)(pid_t, size_t, cpu_set_t*);
    static Fn real = Real<Fn>("sched_getaffinity");
    return real(pid, size, set);
}

int epoll_create1(int flags) noexcept {
    if (marlo_test::Faults().epollCreate1) {
        errno = EMFILE;
        return -1;
    }
    using Fn = int (*)(int);
    static Fn real = Real<Fn>("epoll_create1");
    return real(flags);
}

int epoll_wait(int epfd, struct epoll_event* events, int maxevents, int timeout) {
    marlo_test::Faults().epollWaitCalls++;
    marlo_test::Faults().epollWaitMaxEvents = maxevents;
    using Fn = int (*)(int, struct epoll_event*, int, int);
    static Fn real = Real<Fn>("epoll_wait");
    return real(epfd, events, maxevents, timeout);
}

}  // extern "C"
