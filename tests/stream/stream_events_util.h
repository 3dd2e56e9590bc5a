/*
 * Pieces of the stream event suites: a listener that records every event
 * with the thread it arrived on and waits (bounded) for the events a test
 * expects, the process's CPU time, and a fixture with one fake capture node.
 */
#pragma once

#include <dirent.h>
#include <linux/videodev2.h>
#include <stdlib.h>
#include <sys/types.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "camera/camera_test_util.h"
#include "fake_v4l2.h"
#include "marlo/camera/stream_event.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"
#include "stream_test_util.h"

namespace stream_test {

using tessaro::marlo::StreamEvent;
using tessaro::marlo::StreamEventType;

class EventLog {
  public:
    /* The listener; \a also runs after recording, on the event thread. */
    tessaro::marlo::StreamEventListener listener(
        std::function<void(const StreamEvent&)> also = nullptr) {
        return [this, also](const StreamEvent& event) {
            {
                std::lock_guard<std::mutex> lock(mutex_);
                events_.push_back(event);
                threads_.push_back(std::this_thread::get_id());
                cond_.notify_all();
            }
            if (also)
                also(event);
        };
    }

    /* Waits until \a count events of \a type have arrived in all. */
    bool waitFor(StreamEventType type, size_t count = 1) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, camera_test::kWait, [&] { return countLocked(type) >= count; });
    }

    size_t count(StreamEventType type) {
        std::lock_guard<std::mutex> lock(mutex_);
        return countLocked(type);
    }

    /* The first event of \a type (a default one when there is none). */
    StreamEvent first(StreamEventType type) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const StreamEvent& event : events_)
            if (event.type == type)
                return event;
        return StreamEvent();
    }

    std::vector<StreamEventType> types() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<StreamEventType> out;
        for (const StreamEvent& event : events_)
            out.push_back(event.type);
        return out;
    }

    std::vector<StreamEvent> events() {
        std::lock_guard<std::mutex> lock(mutex_);
        return events_;
    }

    std::vector<std::thread::id> threads() {
        std::lock_guard<std::mutex> lock(mutex_);
        return threads_;
    }

    /* "StreamStarted DeviceLost ..." for failure messages. */
    std::string dump() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::ostringstream out;
        for (const StreamEvent& event : events_)
            out << tessaro::marlo::StreamEventTypeName(event.type) << "(" << event.status << ","
                << event.systemError << ") ";
        return out.str();
    }

  private:
    size_t countLocked(StreamEventType type) const {
        return static_cast<size_t>(
            std::count_if(events_.begin(), events_.end(),
                          [type](const StreamEvent& e) { return e.type == type; }));
    }

    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<StreamEvent> events_;
    std::vector<std::thread::id> threads_;
};

/* CPU time of the whole process so far, in milliseconds. */
inline double ProcessCpuMs() {
    timespec now = {};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

/* CPU time so far of every thread of this process named \a name, in milliseconds. */
inline double ThreadCpuMs(const std::string& name) {
    double total = 0;
    DIR* dir = opendir("/proc/self/task");
    if (!dir)
        return total;
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string thread;
        std::getline(comm, thread);
        if (thread != name)
            continue;
        /* The kernel's per-thread CPU clock, as pthread_getcpuclockid builds it. */
        const pid_t tid = static_cast<pid_t>(atoi(entry->d_name));
        const clockid_t clock = static_cast<clockid_t>((~static_cast<unsigned>(tid) << 3) | 6);
        timespec used = {};
        if (clock_gettime(clock, &used) == 0)
            total +=
                static_cast<double>(used.tv_sec) * 1e3 + static_cast<double>(used.tv_nsec) / 1e6;
    }
    closedir(dir);
    return total;
}

}  // namespace stream_test

namespace stream_test {

/*
 * A fake capture node at camera_test::kNode0 and 64x48 NV12 clients over
 * it; every stream is closed and every thread joined at the end.
 */
class StreamEventsTest : public ::testing::Test {
  protected:
    static constexpr int kWidth = 64;
    static constexpr int kHeight = 48;
    static constexpr size_t kNv12Size = kWidth * kHeight * 3 / 2;

    void SetUp() override {
        std::thread([] {}).join();
        threads_ = camera_test::ThreadCount();
        node_ = marlo_fake::AddVideoNode(camera_test::kNode0, config());
    }
    void TearDown() override {
        if (node_)
            node_->StopFrames();
        node_.reset();
        marlo_fake::Reset();
        EXPECT_EQ(tessaro::marlo::detail::StreamRegistryAccess::Size(), 0u);
        /* IO threads and the event thread are joined once their last user is gone. */
        EXPECT_TRUE(camera_test::WaitUntil([this] {
            return camera_test::ThreadCount() <= threads_;
        })) << camera_test::ThreadCount()
            << " threads, " << threads_ << " before";
    }

    /* The fake node's configuration; a test may override it. */
    virtual marlo_fake::VideoNodeConfig config() { return {}; }

    static int Open(tessaro::marlo::V4l2Stream& stream, int client,
                    uint32_t fourcc = V4L2_PIX_FMT_NV12) {
        return stream.OpenCamera(client, camera_test::kNode0, kWidth, kHeight,
                                 static_cast<int>(fourcc));
    }

    static std::shared_ptr<camera_test::MemFrame> Nv12(uint64_t cookies) {
        return std::make_shared<camera_test::MemFrame>(kWidth, kHeight, V4L2_PIX_FMT_NV12,
                                                       kNv12Size, tessaro::marlo::FrameBufferRect{},
                                                       0, cookies);
    }

    /* Lends \a frame as one set and starts \a stream with \a client's callback. */
    static int LendAndStart(tessaro::marlo::V4l2Stream& stream, Client& client,
                            const std::shared_ptr<camera_test::MemFrame>& frame) {
        FrameSet set{frame->buffer()};
        if (stream.ClientSetBufferInfo(set) != 0)
            return -1;
        return stream.ClientStartStream(client.callback());
    }

    size_t threads_ = 0;
    std::shared_ptr<marlo_fake::FakeVideoNode> node_;
};

}  // namespace stream_test
