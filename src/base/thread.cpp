#include <marlo/base/logger.h>
#include <marlo/base/thread.h>

#include <errno.h>
#include <pthread.h>
#include <string.h>

#include <atomic>
#include <exception>

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_base";
constexpr int kMaxCpus = 1024;
constexpr int kMaskBits = 32;

// One hour, unless a test shortened it.
std::atomic<int64_t> g_stop_timeout_ms{3600 * 1000};

}  // namespace

namespace detail {

cpu_set_t CpuSetFromMask(int mask) {
    cpu_set_t set;
    CPU_ZERO(&set);
    const uint32_t bits = static_cast<uint32_t>(mask);
    for (int cpu = 0; cpu < kMaxCpus; ++cpu)
        if (bits & (uint32_t{1} << (cpu % kMaskBits)))
            CPU_SET(cpu, &set);
    return set;
}

int MaskFromCpuSet(const cpu_set_t& set) {
    uint32_t bits = 0;
    for (int cpu = 0; cpu < kMaxCpus; ++cpu)
        if (CPU_ISSET(cpu, &set))
            bits |= uint32_t{1} << (cpu % kMaskBits);
    return static_cast<int>(bits);
}

std::chrono::milliseconds SetThreadStopTimeoutForTesting(std::chrono::milliseconds timeout) {
    return std::chrono::milliseconds(g_stop_timeout_ms.exchange(timeout.count()));
}

}  // namespace detail

Thread::Thread() : affinity_(getAffinity()), state_(std::make_shared<State>()) {}

Thread::~Thread() {
    // A thread cannot join itself, and detaching it here would leave it
    // running on a destroyed object.
    if (thread_.joinable() && thread_.get_id() == std::this_thread::get_id())
        std::terminate();
    if (joinable())
        thread_.join();
}

Thread::Thread(Thread&& other) noexcept
    : thread_(std::move(other.thread_)),
      priority_(other.priority_),
      affinity_(other.affinity_),
      state_(std::exchange(other.state_, std::make_shared<State>())) {}

Thread& Thread::operator=(Thread&& other) noexcept {
    // Exchanged, so a thread this object held is joined by the other one.
    std::swap(thread_, other.thread_);
    std::swap(priority_, other.priority_);
    std::swap(affinity_, other.affinity_);
    std::swap(state_, other.state_);
    return *this;
}

void Thread::detachRunning() {
    if (!thread_.joinable())
        return;
    marlo_log(MARLO_LOG_ERROR, kTag, "Thread already started");
    thread_.detach();
}

void Thread::launch(std::function<void()> function) {
    // The new thread works on copies and on the shared state only, so the
    // object may be moved while it runs.
    Priority priority = priority_;
    int affinity = affinity_;
    std::shared_ptr<State> state = state_;
    try {
        thread_ = std::thread([priority, affinity, state, function = std::move(function)]() {
            ApplyPriority(priority);
            ApplyAffinity(affinity);
            function();
            Finish(*state);
        });
    } catch (const std::system_error& error) {
        // Nothing runs, so nothing would ever mark the object stopped.
        Finish(*state);
        throw std::system_error(error.code(), "thread constructor failed");
    }
}

void Thread::Finish(State& state) {
    MutexLocker lock(state.mutex);
    state.stopped = true;
    state.cond.notify_all();
}

void Thread::stop() {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(g_stop_timeout_ms.load());
    MutexLocker lock(state_->mutex);
    if (!state_->cond.wait_until(
            lock, deadline, [this]() MARLO_REQUIRES(state_->mutex) { return state_->stopped; }))
        marlo_log(MARLO_LOG_FATAL, kTag, "wait thread stop timeout!!");
}

bool Thread::stopped() {
    MutexLocker lock(state_->mutex);
    return state_->stopped;
}

void Thread::join() {
    if (!joinable()) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Thread not joinable");
        return;
    }
    thread_.join();
}

bool Thread::joinable() const {
    return thread_.joinable() && thread_.get_id() != std::this_thread::get_id();
}

void Thread::setPriority(Priority priority) {
    priority_ = priority;
    ApplyPriority(priority);
}

void Thread::ApplyPriority(Priority priority) {
    int policy;
    struct sched_param param;
    if (pthread_getschedparam(pthread_self(), &policy, &param) != 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to get thread scheduler parameters");
        return;
    }

    const int min = sched_get_priority_min(policy);
    const int max = sched_get_priority_max(policy);
    switch (priority) {
        case LOW:
            param.sched_priority = min;
            break;
        case NORMAL:
            param.sched_priority = (min + max) / 2;
            break;
        case HIGH:
            param.sched_priority = max;
            break;
        default:
            marlo_log(MARLO_LOG_ERROR, kTag, "Invalid priority");
            break;
    }

    if (pthread_setschedparam(pthread_self(), policy, &param) != 0)
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to set thread priority");
}

void Thread::setAffinity(int mask) {
    affinity_ = mask;
    ApplyAffinity(mask);
}

void Thread::ApplyAffinity(int mask) {
    marlo_log(MARLO_LOG_INFO, kTag, "set cpu affinity %X", static_cast<unsigned>(mask));
    cpu_set_t set = detail::CpuSetFromMask(mask);
    if (sched_setaffinity(0, sizeof(set), &set) != 0)
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to set cpu affinity to cpu %d, %s", mask,
                  strerror(errno));
}

int Thread::getAffinity() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to get cpu affinity");
        CPU_ZERO(&set);
    }
    int mask = detail::MaskFromCpuSet(set);
    marlo_log(MARLO_LOG_INFO, kTag, "get cpu affinity %X", static_cast<unsigned>(mask));
    return mask;
}

}  // namespace tessaro::marlo
