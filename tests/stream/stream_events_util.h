/*
 * Pieces of the stream event suites: the event recorder and CPU time of the
 * shared test support, and a fixture with one fake capture node.
 */
#pragma once

#include <linux/videodev2.h>

#include <memory>
#include <string>
#include <thread>

#include "camera/camera_test_util.h"
#include "fake_v4l2.h"
#include "marlo/camera/stream_event.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"
#include "stream_test_util.h"
#include "support/process_stats.h"
#include "support/stream_event_log.h"

namespace stream_test {

using tessaro::marlo::StreamEvent;
using tessaro::marlo::StreamEventType;

using EventLog = marlo_test::StreamEventLog;
using marlo_test::ProcessCpuMs;
using marlo_test::ThreadCpuMs;

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
