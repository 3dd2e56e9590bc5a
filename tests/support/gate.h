/*
 * Gate: a one-shot barrier. Functions under test block on it until the test
 * opens it, so a test controls exactly when a worker may go on.
 */
#pragma once

#include <condition_variable>
#include <mutex>

namespace marlo_test {

class Gate {
  public:
    void open() {
        std::lock_guard<std::mutex> lock(mutex_);
        open_ = true;
        cond_.notify_all();
    }

    void wait() {
        std::unique_lock<std::mutex> lock(mutex_);
        cond_.wait(lock, [this] { return open_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable cond_;
    bool open_ = false;
};

}  // namespace marlo_test
