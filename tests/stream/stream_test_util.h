/*
 * Pieces of the stream suites: exact matching of the stream log lines, a
 * client that counts and keeps the sets its callback receives, and a fixture
 * with one fake capture node. The camera suites' helpers (system root,
 * memory-file client buffers, bounded waits) are shared.
 */
#pragma once

#include <android/log.h>
#include <linux/videodev2.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera/camera_test_util.h"
#include "fake_v4l2.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"
#include "support/fake_node_test.h"

namespace stream_test {

using camera_test::FrameSet;

/* "V4LSTRM(<device>-<client>)", the head of every stream line. */
inline std::string Strm(const std::string& device, int client) {
    return "V4LSTRM(" + device + "-" + std::to_string(client) + ")";
}

/* Stream lines with this priority, device, client, member and text. */
inline size_t Count(const marlo_test::LogCapture& log, int priority, const std::string& device,
                    int client, const std::string& func, const std::string& text) {
    return camera_test::CountLines(log, priority, Strm(device, client), func, text);
}

/*
 * A client callback: records each set and, when asked, hands it straight
 * back through the stream the way a client does.
 */
class Client : public camera_test::FrameSink {
  public:
    explicit Client(tessaro::marlo::V4l2Stream* returnTo = nullptr) : return_to_(returnTo) {}

    tessaro::marlo::V4l2Stream::FrameCallback callback() {
        return [this](FrameSet frames) {
            record(frames);
            if (return_to_)
                return_to_->ClientReturnFrame(frames);
        };
    }

  private:
    tessaro::marlo::V4l2Stream* return_to_;
};

/* Whether the first \a size bytes of \a frame all hold \a value. */
inline bool AllBytes(const camera_test::MemFrame& frame, size_t size, uint8_t value) {
    for (size_t i = 0; i < size; ++i) {
        if (frame.data()[i] != value)
            return false;
    }
    return true;
}

/*
 * A fake capture node at camera_test::kNode0 and 64x48 NV12 clients over
 * it; every stream is closed and every thread joined at the end.
 */
class StreamTest : public marlo_test::FakeVideoNodeTest {
  protected:
    static constexpr int kWidth = 64;
    static constexpr int kHeight = 48;
    static constexpr size_t kNv12Size = kWidth * kHeight * 3 / 2;

    void SetUp() override {
        /* A sanitizer's own helper thread starts with the first thread: have it before counting. */
        std::thread([] {}).join();
        threads_ = camera_test::ThreadCount();
        AddNode(camera_test::kNode0, config());
    }
    void TearDown() override {
        if (node_)
            node_->StopFrames();
        FakeVideoNodeTest::TearDown();
        EXPECT_EQ(tessaro::marlo::detail::StreamRegistryAccess::Size(), 0u);
        /* IO threads and the event thread are joined once their last user is gone. */
        EXPECT_TRUE(camera_test::WaitUntil([this] {
            return camera_test::ThreadCount() <= threads_;
        })) << camera_test::ThreadCount()
            << " threads, " << threads_ << " before";
    }

    /* The fake node's configuration; a test may override it. */
    virtual marlo_fake::VideoNodeConfig config() { return {}; }

    /* Opens \a stream as \a client on the fake node at 64x48. */
    static int Open(tessaro::marlo::V4l2Stream& stream, int client,
                    uint32_t fourcc = V4L2_PIX_FMT_NV12) {
        return stream.OpenCamera(client, camera_test::kNode0, kWidth, kHeight,
                                 static_cast<int>(fourcc));
    }

    /* A whole-frame NV12 client buffer; \a crop picks the part of the frame it gets. */
    static std::shared_ptr<camera_test::MemFrame> Nv12(uint64_t cookies,
                                                       tessaro::marlo::FrameBufferRect crop = {}) {
        return std::make_shared<camera_test::MemFrame>(kWidth, kHeight, V4L2_PIX_FMT_NV12,
                                                       kNv12Size, crop, 0, cookies);
    }

    /* Produces \a content once \a queued buffers are back with the driver. */
    void Produce(const marlo_fake::FrameContent& content, size_t queued = 1) {
        ASSERT_TRUE(node_->WaitQueued(queued, camera_test::kWait));
        ASSERT_GE(node_->ProduceFrame(content), 0);
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
};

}  // namespace stream_test
