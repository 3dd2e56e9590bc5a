/*
 * Failure injection for the scheduling calls that cannot be made to fail on
 * demand otherwise. The test executable defines these C functions, so the
 * library's calls reach them first; each forwards to the real call unless
 * its switch is on.
 */
#pragma once

#include <atomic>

namespace marlo_test {

struct SystemCallFaults {
    std::atomic<bool> pthreadGetschedparam{false};
    std::atomic<bool> pthreadSetschedparam{false};
    std::atomic<bool> schedGetaffinity{false};
    std::atomic<bool> epollCreate1{false};

    /* Counts every epoll_wait call and records its maxevents argument. */
    std::atomic<int> epollWaitCalls{0};
    std::atomic<int> epollWaitMaxEvents{-1};
};

SystemCallFaults& Faults();

/* Turns one switch on for a scope. */
class ScopedFault {
  public:
    explicit ScopedFault(std::atomic<bool>& flag) : flag_(flag) { flag_ = true; }
    ~ScopedFault() { flag_ = false; }
    ScopedFault(const ScopedFault&) = delete;
    ScopedFault& operator=(const ScopedFault&) = delete;

  private:
    std::atomic<bool>& flag_;
};

}  // namespace marlo_test
