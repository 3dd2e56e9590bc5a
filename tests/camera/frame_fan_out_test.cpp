/*
 * The frame fan-out end to end: the fake capture node produces frames with
 * known pixels and stamps, the IO thread runs the handler, and the software
 * engine converts each frame into the clients' memory-file buffers.
 */
#include <fcntl.h>
#include <linux/videodev2.h>
#include <nax/nax.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "camera/frame_fan_out.h"
#include "camera_test_util.h"
#include "fake_v4l2.h"
#include "fence_recorder.h"
#include "marlo/base/unique_fd.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/virtual_camera.h"
#include "support/fd_count.h"
#include "support/gate.h"
#include "support/log_capture.h"

using namespace camera_test;
using tessaro::marlo::FrameBufferRect;
using tessaro::marlo::HalCamera;
using tessaro::marlo::VirtualCamera;

namespace {

constexpr int kWidth = 64;
constexpr int kHeight = 48;

uint8_t Pixel(int x, int y) {
    return static_cast<uint8_t>((x * 3 + y * 5) & 0xff);
}

/* A frame of the pattern above, with the given stamps. */
marlo_fake::FrameContent PatternFrame(int64_t sequence, timeval stamp) {
    marlo_fake::FrameContent content = marlo_fake::Frame(sequence, stamp, 0);
    content.writer = [](uint32_t, uint8_t* data, size_t size) {
        for (int y = 0; y < kHeight; ++y)
            for (int x = 0; x < kWidth; ++x)
                if (static_cast<size_t>(y * kWidth + x) < size)
                    data[y * kWidth + x] = Pixel(x, y);
    };
    return content;
}

uint64_t Nanoseconds(timeval stamp) {
    return static_cast<uint64_t>(stamp.tv_sec) * 1000000000ull +
           static_cast<uint64_t>(stamp.tv_usec) * 1000ull;
}

/* A client buffer whose plane-0 descriptor reads as 0. */
class ZeroFdFrame : public tessaro::marlo::FrameBuffer {
  public:
    explicit ZeroFdFrame(const tessaro::marlo::FrameBufferInfo& info) : FrameBuffer(info) {
        planes()[0].fd.reset(0);
    }
    /* Standard input is not this buffer's to close. */
    ~ZeroFdFrame() override { planes()[0].fd.release(); }
    void* Map() override { return nullptr; }
    int UnMap() override { return 0; }
};

class FrameFanOutTest : public HalCameraFixture {
  protected:
    /* Produces one frame once all three buffers are back with the driver. */
    void Produce(int64_t sequence, timeval stamp = {1, 0}) {
        ASSERT_TRUE(node_->WaitQueued(3, kWait));
        ASSERT_GE(node_->ProduceFrame(PatternFrame(sequence, stamp)), 0);
    }

    /* Waits until the frame is back with the driver (all three buffers queued). */
    void ExpectReturned() { EXPECT_TRUE(node_->WaitQueued(3, kWait)); }

    size_t Count(const marlo_test::LogCapture& log, int priority, const std::string& text) {
        return HalCameraFixture::Count(log, priority, "operator()", text);
    }

    /* Outlives the camera (reset in TearDown), whose fan-out a test may have merge and wait
     * through it. */
    FenceRecorder fences_;
};

}  // namespace

TEST_F(FrameFanOutTest, AClientReceivesTheFrameConvertedAndStamped) {
    auto vc = Client(1);
    MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight, {0, 0, kWidth, kHeight}, 0,
                 77);
    ASSERT_TRUE(out.valid());
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);

    Produce(12, {3, 250});
    ASSERT_TRUE(sink.waitFor(1));
    FrameSet got = sink.at(0);
    ASSERT_EQ(got, set);
    EXPECT_EQ(out.buffer()->sequence(), 12u);
    EXPECT_EQ(out.buffer()->timestamp(), Nanoseconds({3, 250}));
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(out.data()[y * kWidth + x], Pixel(x, y)) << x << "," << y;
    ExpectReturned();
    /* The software engine finishes on the spot: no fence to hand over. */
    EXPECT_LT(out.buffer()->fence(), 0);
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, ClientsGetTheirOwnSizesFormatsCropsAndTransforms) {
    auto topLeft = Client(1);
    auto mirrored = Client(2);
    auto nv12 = Client(3);
    MemFrame a(32, 24, V4L2_PIX_FMT_GREY, 32 * 24, {0, 0, 32, 24}, 0, 1);
    MemFrame b(32, 24, V4L2_PIX_FMT_GREY, 32 * 24, {32, 24, 32, 24}, NAX_TRANSFORM_FLIP_H, 2);
    MemFrame c(kWidth, kHeight, V4L2_PIX_FMT_NV12, kWidth * kHeight * 3 / 2,
               {0, 0, kWidth, kHeight}, 0, 3);
    ASSERT_TRUE(a.valid() && b.valid() && c.valid());
    FrameSet setA{a.buffer()}, setB{b.buffer()}, setC{c.buffer()};
    topLeft->setFrameInfo(setA);
    mirrored->setFrameInfo(setB);
    nv12->setFrameInfo(setC);
    FrameSink sinkA, sinkB, sinkC;
    ASSERT_EQ(topLeft->startVideoStream(sinkA.callback()), 0);
    ASSERT_EQ(mirrored->startVideoStream(sinkB.callback()), 0);
    ASSERT_EQ(nv12->startVideoStream(sinkC.callback()), 0);

    Produce(5, {9, 9});
    ASSERT_TRUE(sinkA.waitFor(1));
    ASSERT_TRUE(sinkB.waitFor(1));
    ASSERT_TRUE(sinkC.waitFor(1));
    for (int y = 0; y < 24; ++y) {
        for (int x = 0; x < 32; ++x) {
            ASSERT_EQ(a.data()[y * 32 + x], Pixel(x, y)) << x << "," << y;
            ASSERT_EQ(b.data()[y * 32 + x], Pixel(32 + 31 - x, 24 + y)) << x << "," << y;
        }
    }
    for (int y = 0; y < kHeight; ++y)
        for (int x = 0; x < kWidth; ++x)
            ASSERT_EQ(c.data()[y * kWidth + x], Pixel(x, y)) << x << "," << y;
    for (size_t i = kWidth * kHeight; i < kWidth * kHeight * 3 / 2; ++i)
        ASSERT_EQ(c.data()[i], 128) << i;
    for (const auto& frame : {a.buffer(), b.buffer(), c.buffer()}) {
        EXPECT_EQ(frame->sequence(), 5u);
        EXPECT_EQ(frame->timestamp(), Nanoseconds({9, 9}));
    }
    ExpectReturned();
    topLeft->stopVideoStream();
    mirrored->stopVideoStream();
    nv12->stopVideoStream();
    EXPECT_EQ(camera_->captureState(), 0);
}

TEST_F(FrameFanOutTest, EveryBufferOfASetGetsTheSameFrame) {
    auto vc = Client(1);
    MemFrame small(16, 12, V4L2_PIX_FMT_GREY, 16 * 12, {}, 0, 1);
    MemFrame whole(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight, {}, 0, 2);
    ASSERT_TRUE(small.valid() && whole.valid());
    FrameSet set{small.buffer(), whole.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    ASSERT_GE(node_->ProduceFrame(marlo_fake::Frame(3, {1, 1}, 0x5a)), 0);
    ASSERT_TRUE(sink.waitFor(1));
    EXPECT_EQ(sink.at(0), set);
    /* An all-zero crop is the whole frame; scaled down, a flat frame stays flat. */
    for (int i = 0; i < 16 * 12; ++i)
        ASSERT_EQ(small.data()[i], 0x5a) << i;
    for (int i = 0; i < kWidth * kHeight; ++i)
        ASSERT_EQ(whole.data()[i], 0x5a) << i;
    EXPECT_EQ(small.buffer()->sequence(), 3u);
    EXPECT_EQ(whole.buffer()->sequence(), 3u);
    ExpectReturned();
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, AClientHoldingEverySetMissesFramesWhileTheOtherGoesOn) {
    auto holder = Client(1);
    auto returner = Client(2);
    MemFrame held(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame passed(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet heldSet{held.buffer()}, passedSet{passed.buffer()};
    holder->setFrameInfo(heldSet);
    returner->setFrameInfo(passedSet);
    FrameSink holderSink;
    FrameSink returnerSink;
    ASSERT_EQ(holder->startVideoStream(holderSink.callback()), 0);
    auto sinkCallback = returnerSink.callback();
    std::weak_ptr<VirtualCamera> weak = returner;
    ASSERT_EQ(returner->startVideoStream([sinkCallback, weak](FrameSet frames) {
        if (auto vc = weak.lock())
            vc->doneWithFrame(frames);
        sinkCallback(frames);
    }),
              0);

    marlo_test::LogCapture log;
    for (int64_t seq = 0; seq < 4; ++seq) {
        Produce(seq);
        ASSERT_TRUE(returnerSink.waitFor(static_cast<size_t>(seq + 1)));
    }
    ExpectReturned();
    EXPECT_EQ(holderSink.count(), 1u);
    EXPECT_EQ(returnerSink.count(), 4u);
    EXPECT_EQ(passed.buffer()->sequence(), 3u);
    EXPECT_EQ(held.buffer()->sequence(), 0u);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Vcam(1), "getAvailableFrames",
                         "has No available buffer to NAX copy!!!!"),
              3u)
        << log.dump();
    /* The starved client is still forwarded its (empty) set. */
    EXPECT_EQ(CountLines(log, ANDROID_LOG_INFO, Vcam(1), "forwardFrame", "forwardFrame null"), 3u)
        << log.dump();
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Vcam(2), "getAvailableFrames",
                         "has No available buffer to NAX copy!!!!"),
              0u);
    holder->stopVideoStream();
    returner->stopVideoStream();
}

TEST_F(FrameFanOutTest, RestartWithoutLendingBuffersStarvesEveryFrame) {
    auto vc = Client(1);
    MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    vc->stopVideoStream();
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);

    marlo_test::LogCapture log;
    for (int64_t seq = 0; seq < 3; ++seq) {
        Produce(seq);
        ExpectReturned();
    }
    EXPECT_TRUE(WaitUntil([&] {
        return CountLines(log, ANDROID_LOG_ERROR, Vcam(1), "getAvailableFrames",
                          "has No available buffer to NAX copy!!!!") == 3;
    })) << log.dump();
    EXPECT_EQ(sink.count(), 0u);
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, UnusableBuffersAreCountedAsDropsAndForwardedUnwritten) {
    auto vc = Client(1);
    tessaro::marlo::FrameBufferInfo info;
    info.fourcc = static_cast<tessaro::marlo::FourccFormat>(V4L2_PIX_FMT_GREY);
    info.width = kWidth;
    info.height = kHeight;
    info.stride = kWidth;
    auto zero = std::make_shared<ZeroFdFrame>(info);
    MemFrame good(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{zero, nullptr, good.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    unsigned int drops = CameraDrops(kNode0);

    marlo_test::LogCapture log;
    Produce(8);
    ASSERT_TRUE(sink.waitFor(1));
    EXPECT_EQ(sink.at(0), set);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "do not have avilable buffer"), 2u) << log.dump();
    EXPECT_EQ(CameraDrops(kNode0), drops + 2);
    EXPECT_EQ(zero->sequence(), 0u);
    EXPECT_EQ(good.buffer()->sequence(), 8u);
    EXPECT_EQ(good.data()[kWidth + 1], Pixel(1, 1));
    ExpectReturned();
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, PerFrameDetailIsLoggedAtVerbose) {
    auto vc = Client(1);
    MemFrame out(32, 24, V4L2_PIX_FMT_NV12, 32 * 24 * 3 / 2);
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    marlo_test::LogCapture log;
    Produce(1);
    ASSERT_TRUE(sink.waitFor(1));
    EXPECT_EQ(Count(log, ANDROID_LOG_VERBOSE, "get virtCam size = 1"), 1u) << log.dump();
    /* The captured buffer's descriptor is the library's; the rest is fixed. */
    const std::regex srcLine(std::string("CAM\\(") + kNode0 +
                             "\\) operator\\(\\):[0-9]+ src : [0-9]+-64-48-64-48-59455247");
    size_t src = 0;
    for (const auto& record : log.records())
        src += record.priority == ANDROID_LOG_VERBOSE && record.tag == kTag &&
               std::regex_match(record.message, srcLine);
    EXPECT_EQ(src, 1u) << log.dump();
    std::string dst = "dst : " + std::to_string(out.fd()) + "-32-24-32-24-3231564e";
    EXPECT_EQ(Count(log, ANDROID_LOG_VERBOSE, dst), 1u) << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_VERBOSE, "fence -1"), 1u) << log.dump();
    ExpectReturned();
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, WithoutAValidFenceNothingIsMergedOrWaitedFor) {
    tessaro::marlo::detail::FrameFanOut::UseFences(*camera_, fences_);
    auto vc = Client(1);
    MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    fences_.start(true);
    marlo_test::LogCapture log;
    Produce(1);
    ASSERT_TRUE(sink.waitFor(1));
    ExpectReturned();
    EXPECT_TRUE(fences_.waits().empty());
    EXPECT_TRUE(fences_.stop().empty());
    EXPECT_FALSE(log.containsText("Timeout waiting fence"));
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, ProcessingTimeIsRecordedForEveryWrittenBuffer) {
    auto vc = Client(1);
    MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    auto before = tessaro::marlo::DebugHelper::getInstance().cameraInfos()[kNode0].sampleCount;
    Produce(1);
    ASSERT_TRUE(sink.waitFor(1));
    ExpectReturned();
    auto after = tessaro::marlo::DebugHelper::getInstance().cameraInfos()[kNode0].sampleCount;
    EXPECT_GT(after, before);
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, EventsWithoutReadableOrPriorityAreIgnored) {
    ASSERT_TRUE(camera_->clientStreamOpening(kWidth, kHeight, V4L2_PIX_FMT_GREY));
    /* Streaming without the IO thread: the test calls the handler itself. */
    ASSERT_EQ(camera_->hwCamera()->StartVideoStream(), 0);
    ASSERT_GE(node_->ProduceFrame(PatternFrame(1, {1, 0})), 0);
    int fd = camera_->hwCamera()->Fd();
    tessaro::marlo::detail::FrameFanOut handler(camera_.get());
    node_->ClearRequests();
    handler(fd, EPOLLERR | EPOLLHUP | EPOLLOUT);
    EXPECT_EQ(node_->CountRequests(VIDIOC_DQBUF), 0u);
    EXPECT_EQ(node_->DoneCount(), 1u);

    handler(fd, EPOLLPRI);
    EXPECT_EQ(node_->CountRequests(VIDIOC_DQBUF), 1u);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 1u);
    EXPECT_EQ(node_->QueuedCount(), 3u);
    camera_->hwCamera()->StopVideoStream();
}

TEST_F(FrameFanOutTest, AnEmptyDequeueReturnsSilently) {
    ASSERT_TRUE(camera_->clientStreamOpening(kWidth, kHeight, V4L2_PIX_FMT_GREY));
    ASSERT_EQ(camera_->hwCamera()->StartVideoStream(), 0);
    int fd = camera_->hwCamera()->Fd();
    tessaro::marlo::detail::FrameFanOut handler(camera_.get());
    node_->ClearRequests();
    node_->InjectError(VIDIOC_DQBUF, EAGAIN);
    marlo_test::LogCapture log;
    handler(fd, EPOLLIN);
    EXPECT_EQ(node_->CountRequests(VIDIOC_DQBUF), 1u);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 0u);
    EXPECT_EQ(Count(log, ANDROID_LOG_VERBOSE, "get virtCam size = 0"), 0u) << log.dump();
    camera_->hwCamera()->StopVideoStream();
}

TEST_F(FrameFanOutTest, StartStopCloseCyclesLeakNoDescriptorAndNoThread) {
    /*
     * The first cycle runs before the counts are taken: the engine library
     * keeps a thread and its own descriptors from its first job on.
     */
    size_t threads = 0;
    std::unique_ptr<marlo_test::FdLeakCheck> fds;
    for (int cycle = 0; cycle < 4; ++cycle) {
        if (cycle == 1) {
            threads = ThreadCount();
            fds = std::make_unique<marlo_test::FdLeakCheck>();
        }
        auto camera = std::make_shared<HalCamera>(kNode0);
        std::shared_ptr<VirtualCamera> vc = camera->MakeVirtualCamera(1);
        ASSERT_TRUE(vc->openVideoStream(kWidth, kHeight, V4L2_PIX_FMT_GREY));
        {
            MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
            FrameSet set{out.buffer()};
            vc->setFrameInfo(set);
            FrameSink sink;
            ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
            ASSERT_TRUE(node_->WaitQueued(3, kWait));
            ASSERT_GE(node_->ProduceFrame(PatternFrame(cycle, {1, 0})), 0);
            ASSERT_TRUE(sink.waitFor(1));
            ASSERT_TRUE(node_->WaitQueued(3, kWait));
            vc->stopVideoStream();
        }
        camera->DisownVirtualCamera(vc);
        camera->clientStreamclosing();
        vc.reset();
        camera.reset();
        EXPECT_EQ(node_->OpenDescriptors(), 0u);
    }
    EXPECT_TRUE(fds->unchanged()) << fds->before() << " -> " << marlo_test::OpenFdCount();
    EXPECT_TRUE(ThreadCountReaches(threads)) << ThreadCount();
}

TEST_F(FrameFanOutTest, TraceSectionsNameEachConversion) {
    auto vc = Client(1);
    MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight, {}, 0, 77);
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    std::vector<std::string> names;
    {
        TraceRecorder trace;
        Produce(4);
        ASSERT_TRUE(sink.waitFor(1));
        ExpectReturned();
        names = trace.names();
    }
    std::string fd = std::to_string(out.fd());
    auto has = [&names](const std::string& name) {
        return std::find(names.begin(), names.end(), name) != names.end();
    };
    EXPECT_TRUE(has("NAX processing (sequence 4, cookies 77, fd = " + fd + ")"));
    EXPECT_TRUE(has("forwardFrame (vcam 1, sequence 4, cookies 77, fd = " + fd + ")"));
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, StopWaitsForAFrameBeingDeliveredToTheStoppingClient) {
    auto leaving = Client(1);
    auto staying = Client(2);
    MemFrame outL(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame outS(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet setL{outL.buffer()}, setS{outS.buffer()};
    leaving->setFrameInfo(setL);
    staying->setFrameInfo(setS);
    marlo_test::Gate entered;
    marlo_test::Gate release;
    std::atomic<bool> delivering{false};
    ASSERT_EQ(leaving->startVideoStream([&](FrameSet) {
        delivering = true;
        entered.open();
        release.wait();
        delivering = false;
    }),
              0);
    FrameSink sink;
    ASSERT_EQ(staying->startVideoStream(sink.callback()), 0);

    Produce(1);
    entered.wait();
    /* The other client keeps capture (and the IO thread) running, so only the barrier waits. */
    std::atomic<bool> stopped{false};
    std::atomic<bool> deliveringAtReturn{true};
    std::thread stopper([&] {
        leaving->stopVideoStream();
        deliveringAtReturn = delivering.load();
        stopped = true;
    });
    EXPECT_TRUE(WaitUntil([&] { return leaving->state() != 1; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(stopped);
    release.open();
    stopper.join();
    EXPECT_TRUE(stopped);
    EXPECT_FALSE(deliveringAtReturn);
    EXPECT_EQ(leaving->state(), 0);
    ASSERT_TRUE(sink.waitFor(1));
    ExpectReturned();
    EXPECT_EQ(camera_->captureState(), 1);
    staying->stopVideoStream();
    EXPECT_EQ(camera_->captureState(), 0);
}

TEST_F(FrameFanOutTest, ReplacingTheCallbackWhileFramesFlowLosesNoFrame) {
    auto vc = Client(1);
    MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    std::atomic<int> delivered{0};
    std::weak_ptr<VirtualCamera> weak = vc;
    auto make = [&delivered, weak]() {
        return [&delivered, weak](FrameSet frames) {
            if (auto self = weak.lock())
                self->doneWithFrame(frames);
            ++delivered;
        };
    };
    ASSERT_EQ(vc->startVideoStream(make()), 0);
    std::atomic<bool> done{false};
    std::thread replacer([&] {
        while (!done)
            vc->startVideoStream(make());
    });
    constexpr int kFrames = 20;
    bool flowing = true;
    for (int64_t seq = 0; seq < kFrames && flowing; ++seq) {
        Produce(seq);
        flowing = WaitUntil([&] { return delivered.load() == seq + 1; });
    }
    done = true;
    replacer.join();
    ASSERT_TRUE(flowing) << delivered.load();
    ExpectReturned();
    EXPECT_EQ(delivered.load(), kFrames);
    vc->stopVideoStream();
}

TEST_F(FrameFanOutTest, AClientStartsAndStopsWhileFramesFlowToAnother) {
    auto steady = Client(1);
    auto flaky = Client(2);
    MemFrame a(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame b(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet setA{a.buffer()};
    steady->setFrameInfo(setA);
    FrameSink sinkA;
    auto toSinkA = sinkA.callback();
    std::weak_ptr<VirtualCamera> weak = steady;
    ASSERT_EQ(steady->startVideoStream([toSinkA, weak](FrameSet frames) {
        if (auto vc = weak.lock())
            vc->doneWithFrame(frames);
        toSinkA(frames);
    }),
              0);
    node_->StartFrames(std::chrono::milliseconds(2), PatternFrame(-1, {0, 0}));

    FrameSink sinkB;
    for (int round = 0; round < 20; ++round) {
        FrameSet setB{b.buffer()};
        flaky->setFrameInfo(setB);
        ASSERT_EQ(flaky->startVideoStream(sinkB.callback()), 0);
        size_t seen = sinkA.count();
        ASSERT_TRUE(sinkA.waitFor(seen + 1));
        flaky->stopVideoStream();
        /* The steady client keeps the capture running. */
        ASSERT_EQ(camera_->captureState(), 1);
    }
    size_t seen = sinkA.count();
    EXPECT_TRUE(sinkA.waitFor(seen + 2));
    node_->StopFrames();
    steady->stopVideoStream();
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_FALSE(node_->Streaming());
}

TEST_F(FrameFanOutTest, TwoDevicesFanOutIndependently) {
    marlo_fake::VideoNodeConfig config;
    config.formats = {{V4L2_PIX_FMT_GREY, "Grey"}};
    auto otherNode = marlo_fake::AddVideoNode(kNode1, config);
    auto otherCamera = std::make_shared<HalCamera>(kNode1);
    auto here = Client(1);
    std::shared_ptr<VirtualCamera> there = otherCamera->MakeVirtualCamera(1);
    ASSERT_TRUE(there->openVideoStream(kWidth, kHeight, V4L2_PIX_FMT_GREY));
    MemFrame a(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame b(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet setA{a.buffer()}, setB{b.buffer()};
    here->setFrameInfo(setA);
    there->setFrameInfo(setB);
    FrameSink sinkA, sinkB;
    ASSERT_EQ(here->startVideoStream(sinkA.callback()), 0);
    ASSERT_EQ(there->startVideoStream(sinkB.callback()), 0);
    EXPECT_EQ(CameraState(kNode0), "RUNNING");
    EXPECT_EQ(CameraState(kNode1), "RUNNING");

    ASSERT_TRUE(otherNode->WaitQueued(3, kWait));
    ASSERT_GE(otherNode->ProduceFrame(marlo_fake::Frame(21, {2, 0}, 0x33)), 0);
    Produce(11);
    ASSERT_TRUE(sinkA.waitFor(1));
    ASSERT_TRUE(sinkB.waitFor(1));
    EXPECT_EQ(a.buffer()->sequence(), 11u);
    EXPECT_EQ(b.buffer()->sequence(), 21u);
    EXPECT_EQ(a.data()[kWidth + 2], Pixel(2, 1));
    EXPECT_EQ(b.data()[kWidth + 2], 0x33);
    ExpectReturned();
    EXPECT_TRUE(otherNode->WaitQueued(3, kWait));

    here->stopVideoStream();
    EXPECT_EQ(CameraState(kNode0), "STOPPED");
    EXPECT_EQ(CameraState(kNode1), "RUNNING");
    there->stopVideoStream();
    EXPECT_EQ(CameraState(kNode1), "STOPPED");
    there.reset();
    otherCamera.reset();
}
