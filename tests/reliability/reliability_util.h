/*
 * Pieces of the reliability suites: a client of one stream that counts the
 * sets it receives per buffer and hands each straight back, a quiet log for
 * long runs, and what the allocator in use lets a test measure.
 */
#pragma once

#include <linux/videodev2.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include <marlo_host/hooks.h>
#include "camera/camera_test_util.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"

namespace reliability_test {

using camera_test::FrameSet;
using camera_test::kNode0;
using camera_test::MemFrame;
using camera_test::ThreadCount;
using camera_test::WaitUntil;
using tessaro::marlo::V4l2Stream;
using Registry = tessaro::marlo::detail::StreamRegistryAccess;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define MARLO_TEST_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define MARLO_TEST_SANITIZED 1
#endif
#endif

/* Whether heap and RSS figures mean anything (not under a sanitizer's allocator). */
#ifdef MARLO_TEST_SANITIZED
constexpr bool kPlainAllocator = false;
#else
constexpr bool kPlainAllocator = true;
#endif

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr size_t kNv12Size = kWidth * kHeight * 3 / 2;

inline std::shared_ptr<MemFrame> Nv12Frame(uint64_t cookies) {
    return std::make_shared<MemFrame>(kWidth, kHeight, V4L2_PIX_FMT_NV12, kNv12Size,
                                      tessaro::marlo::FrameBufferRect{}, 0, cookies);
}

/* Keeps the library's log off standard error for as long as it lives. */
class QuietLog {
  public:
    QuietLog() { marlo_host_set_log_to_stderr(0); }
    ~QuietLog() { marlo_host_set_log_to_stderr(1); }
    QuietLog(const QuietLog&) = delete;
    QuietLog& operator=(const QuietLog&) = delete;
};

/*
 * A client callback that counts every delivery per first buffer of the set
 * (which names the set) and returns the set through \a stream at once.
 */
class CountingClient {
  public:
    explicit CountingClient(tessaro::marlo::V4l2Stream* stream) : stream_(stream) {}

    tessaro::marlo::V4l2Stream::FrameCallback callback() {
        return [this](FrameSet frames) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                ++total_;
                if (!frames.empty())
                    ++deliveries_[frames[0].get()];
                cond_.notify_all();
            }
            stream_->ClientReturnFrame(frames);
        };
    }

    size_t total() {
        std::lock_guard<std::mutex> lock(mutex_);
        return total_;
    }
    size_t deliveriesOf(const std::shared_ptr<tessaro::marlo::FrameBuffer>& first) {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = deliveries_.find(first.get());
        return it == deliveries_.end() ? 0 : it->second;
    }
    /* Waits until \a count sets have arrived in all, at most \a wait. */
    bool waitForTotal(size_t count, std::chrono::milliseconds wait) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, wait, [&] { return total_ >= count; });
    }

  private:
    tessaro::marlo::V4l2Stream* stream_;
    std::mutex mutex_;
    std::condition_variable cond_;
    size_t total_ = 0;
    std::map<const tessaro::marlo::FrameBuffer*, size_t> deliveries_;
};

}  // namespace reliability_test
