/*
 * What a frame callback may do: it runs on the camera's IO thread with no
 * library lock held, so it may stop, close or open streams, its own
 * included, and a stop from another thread still returns only after a frame
 * being delivered to that client has ended.
 */
#include <linux/videodev2.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "marlo/camera/hal_camera.h"
#include "stream_events_util.h"
#include "support/fd_count.h"
#include "support/gate.h"
#include "support/log_capture.h"

using namespace camera_test;
using namespace stream_test;
using tessaro::marlo::V4l2Stream;
using Registry = tessaro::marlo::detail::StreamRegistryAccess;

namespace {

using namespace std::chrono_literals;
using CallbackTest = StreamEventsTest;

/* A client whose callback does what the test asks, once, then hands sets back. */
class ActingClient {
  public:
    using Action = std::function<void(V4l2Stream& stream)>;

    explicit ActingClient(int id) : id_(id) {}

    /*
     * Opens, lends one set and starts with a callback that runs \a action on
     * the first frame; that frame's set is handed back after it only when
     * \a returnAfterAction (an action that stops or closes its own stream
     * leaves it).
     */
    int Start(Action action, bool returnAfterAction = false) {
        action_ = std::move(action);
        return_after_action_ = returnAfterAction;
        int ret = stream_.OpenCamera(id_, kNode0, 64, 48, V4L2_PIX_FMT_NV12);
        if (ret != 0)
            return ret;
        frame_ = std::make_shared<MemFrame>(64, 48, V4L2_PIX_FMT_NV12, 64 * 48 * 3 / 2);
        FrameSet set{frame_->buffer()};
        if ((ret = stream_.ClientSetBufferInfo(set)) != 0)
            return ret;
        return stream_.ClientStartStream([this](FrameSet frames) {
            ++frames_;
            bool acting = !acted_.exchange(true) && action_;
            if (acting)
                action_(stream_);
            if (!acting || return_after_action_)
                stream_.ClientReturnFrame(frames);
            done_ = true;
        });
    }

    bool WaitFrames(int count) {
        return WaitUntil([&] { return frames_.load() >= count; });
    }
    bool WaitActed() {
        return WaitUntil([&] { return done_.load(); });
    }
    int frames() const { return frames_.load(); }
    V4l2Stream& stream() { return stream_; }

  private:
    int id_;
    Action action_;
    bool return_after_action_ = false;
    std::atomic<bool> acted_{false};
    std::atomic<bool> done_{false};
    std::atomic<int> frames_{0};
    std::shared_ptr<MemFrame> frame_;
    /* Last: it goes first, before what its callback uses. */
    V4l2Stream stream_;
};

void ProduceOne(marlo_fake::FakeVideoNode& node, int64_t sequence) {
    ASSERT_TRUE(node.WaitQueued(1, kWait));
    ASSERT_GE(node.ProduceFrame(marlo_fake::Frame(sequence, {1, 0}, 0x40)), 0);
}

}  // namespace

TEST_F(CallbackTest, ACallbackMayStopItsOwnStreamAndItStartsAgainLater) {
    ActingClient a(1);
    ASSERT_EQ(a.Start([](V4l2Stream& stream) { stream.ClientStopStream(); }), 0);
    ProduceOne(*node_, 0);
    ASSERT_TRUE(a.WaitActed());
    EXPECT_EQ(a.stream().state(), 0u);
    /* The last stream stopped: capture stopped too, its loop ended after the frame. */
    EXPECT_TRUE(WaitUntil([&] { return !node_->Streaming(); }));
    EXPECT_EQ(Registry::Find(kNode0)->captureState(), 0);

    /* Started again from the client's thread, frames flow. */
    auto frame = Nv12(2);
    FrameSet set{frame->buffer()};
    ASSERT_EQ(a.stream().ClientSetBufferInfo(set), 0);
    Client again(&a.stream());
    ASSERT_EQ(a.stream().ClientStartStream(again.callback()), 0);
    ProduceOne(*node_, 1);
    EXPECT_TRUE(again.waitFor(1));
    a.stream().CloseCamera();
}

TEST_F(CallbackTest, ACallbackMayStopAndCloseItsOwnStream) {
    marlo_test::FdLeakCheck fds;
    {
        ActingClient a(1);
        ASSERT_EQ(a.Start([](V4l2Stream& stream) {
            stream.ClientStopStream();
            stream.CloseCamera();
        }),
                  0);
        ProduceOne(*node_, 0);
        ASSERT_TRUE(a.WaitActed());
        EXPECT_EQ(a.stream().clientId(), -1);
        /* The camera goes once the callback has returned, on the event thread. */
        EXPECT_TRUE(WaitUntil([] { return Registry::Size() == 0; }));
        EXPECT_TRUE(WaitUntil([&] { return node_->OpenDescriptors() == 0; }));
        /* And the device opens again for a new client. */
        V4l2Stream next;
        ASSERT_EQ(Open(next, 2), 0);
        auto frame = Nv12(2);
        Client client(&next);
        ASSERT_EQ(LendAndStart(next, client, frame), 0);
        ProduceOne(*node_, 1);
        EXPECT_TRUE(client.waitFor(1));
        next.CloseCamera();
    }
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(CallbackTest, ACallbackMayCloseItsStreamWithoutStoppingIt) {
    ActingClient a(1);
    ASSERT_EQ(a.Start([](V4l2Stream& stream) { stream.CloseCamera(); }), 0);
    ProduceOne(*node_, 0);
    ASSERT_TRUE(a.WaitActed());
    EXPECT_TRUE(WaitUntil([] { return Registry::Size() == 0; }));
    EXPECT_EQ(a.stream().state(), 0u);
}

TEST_F(CallbackTest, ACallbackMayOpenAndStartAnotherClient) {
    Client second;
    V4l2Stream other;
    auto otherFrame = Nv12(7);
    std::atomic<int> started{1};
    ActingClient a(1);
    ASSERT_EQ(a.Start([&](V4l2Stream&) {
        if (Open(other, 2) == 0)
            started = LendAndStart(other, second, otherFrame);
    }),
              0);
    ProduceOne(*node_, 0);
    ASSERT_TRUE(a.WaitActed());
    EXPECT_EQ(started.load(), 0);
    EXPECT_EQ(Registry::Find(kNode0)->clientCount(), 2u);
    ProduceOne(*node_, 1);
    EXPECT_TRUE(second.waitFor(1));
    other.CloseCamera();
    a.stream().CloseCamera();
}

TEST_F(CallbackTest, ACallbackOfOneClientMayStopAnother) {
    V4l2Stream other;
    Client stopped(&other);
    auto otherFrame = Nv12(7);
    ASSERT_EQ(Open(other, 2), 0);
    ASSERT_EQ(LendAndStart(other, stopped, otherFrame), 0);
    ActingClient a(1);
    ASSERT_EQ(a.Start([&](V4l2Stream&) { other.ClientStopStream(); }, true), 0);
    ProduceOne(*node_, 0);
    ASSERT_TRUE(a.WaitActed());
    size_t before = stopped.count();
    EXPECT_LE(before, 1u);
    EXPECT_EQ(other.state(), 0u);
    /* The stopped client gets nothing more; the other one goes on. */
    for (int64_t sequence = 1; sequence < 4; ++sequence)
        ProduceOne(*node_, sequence);
    EXPECT_TRUE(a.WaitFrames(4));
    EXPECT_EQ(stopped.count(), before);
    other.CloseCamera();
    a.stream().CloseCamera();
}

TEST_F(CallbackTest, TheDeviceAClosingCallbackLeftCannotBeOpenedWithinIt) {
    V4l2Stream other;
    std::atomic<int> reopened{0};
    marlo_test::LogCapture log;
    ActingClient a(1);
    ASSERT_EQ(a.Start([&](V4l2Stream& stream) {
        stream.CloseCamera();
        reopened = Open(other, 2);
    }),
              0);
    ProduceOne(*node_, 0);
    ASSERT_TRUE(a.WaitActed());
    EXPECT_EQ(reopened.load(), -2);
    EXPECT_TRUE(log.containsText(std::string(kNode0) +
                                 " was closed in this frame callback: open it after the callback"))
        << log.dump();
    /* After the callback it opens as usual. */
    EXPECT_TRUE(WaitUntil([] { return Registry::Size() == 0; }));
    ASSERT_EQ(Open(other, 2), 0);
    other.CloseCamera();
}

TEST_F(CallbackTest, AStopFromAnotherThreadWaitsForTheFrameBeingDelivered) {
    marlo_test::Gate inCallback;
    marlo_test::Gate release;
    std::atomic<bool> callbackEnded{false};
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    auto frame = Nv12(1);
    FrameSet set{frame->buffer()};
    ASSERT_EQ(stream.ClientSetBufferInfo(set), 0);
    ASSERT_EQ(stream.ClientStartStream([&](FrameSet) {
        inCallback.open();
        release.wait();
        callbackEnded = true;
    }),
              0);
    ProduceOne(*node_, 0);
    inCallback.wait();
    std::atomic<bool> stopReturned{false};
    std::thread stopper([&] {
        stream.ClientStopStream();
        stopReturned = true;
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_FALSE(stopReturned.load());
    release.open();
    stopper.join();
    EXPECT_TRUE(callbackEnded.load());
    stream.CloseCamera();
}

TEST_F(CallbackTest, AStartFromACallbackRacingTheLastStopKeepsCaptureForIt) {
    marlo_test::Gate inCallback;
    marlo_test::Gate release;
    V4l2Stream other;
    Client second(&other);
    auto otherFrame = Nv12(7);
    ASSERT_EQ(Open(other, 2), 0);
    FrameSet otherSet{otherFrame->buffer()};
    ASSERT_EQ(other.ClientSetBufferInfo(otherSet), 0);

    std::atomic<int> started{1};
    ActingClient a(1);
    ASSERT_EQ(a.Start([&](V4l2Stream&) {
        inCallback.open();
        release.wait();
        /* Meanwhile the test's thread stops this last streaming client. */
        started = other.ClientStartStream(second.callback());
    }),
              0);
    ProduceOne(*node_, 0);
    inCallback.wait();
    std::thread stopper([&] { a.stream().ClientStopStream(); });
    std::this_thread::sleep_for(30ms);
    release.open();
    stopper.join();
    EXPECT_EQ(started.load(), 0);
    /* However the two met, the client started from the callback gets frames. */
    ProduceOne(*node_, 1);
    EXPECT_TRUE(second.waitFor(1));
    other.CloseCamera();
    a.stream().CloseCamera();
}
