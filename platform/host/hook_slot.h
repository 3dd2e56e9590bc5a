/*
 * One test hook of the host platform library: a callback and its context that
 * any thread may call while another thread replaces them.
 *
 * The callback runs outside the slot's lock. A hook therefore takes its own
 * locks (or logs, or traces) without those locks being ordered after ours,
 * which would otherwise link every lock a hook takes to every lock held by
 * anyone who logs. Set() returns only once no call of the hook it replaced is
 * still running, so the caller may free the old context right after.
 */
#pragma once

#include <condition_variable>
#include <mutex>

namespace marlo_host {

template <typename Hook>
class HookSlot {
  public:
    /* Calls the hook, if one is set, with \a args followed by its context. */
    template <typename... Args>
    void Call(Args... args) {
        Hook hook;
        void* ctx;
        unsigned int slot;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (hook_ == nullptr)
                return;
            hook = hook_;
            ctx = ctx_;
            slot = generation_ % 2;
            ++running_[slot];
        }

        hook(args..., ctx);

        std::lock_guard<std::mutex> lock(mutex_);
        if (--running_[slot] == 0)
            drained_.notify_all();
    }

    /*
     * Replaces the hook and waits for the calls of the old one to return.
     * Calls that start after the swap use the new hook and are not waited
     * for. Must not be called from within a hook of the same slot.
     */
    void Set(Hook hook, void* ctx) {
        // One replacement at a time: each drains its generation completely,
        // so two counters are enough.
        std::lock_guard<std::mutex> replacing(set_mutex_);
        std::unique_lock<std::mutex> lock(mutex_);
        const unsigned int old = generation_ % 2;
        hook_ = hook;
        ctx_ = ctx;
        ++generation_;
        drained_.wait(lock, [&] { return running_[old] == 0; });
    }

  private:
    std::mutex set_mutex_;
    std::mutex mutex_;
    std::condition_variable drained_;
    Hook hook_ = nullptr;
    void* ctx_ = nullptr;
    unsigned int generation_ = 0;
    unsigned int running_[2] = {0, 0};
};

}  // namespace marlo_host
