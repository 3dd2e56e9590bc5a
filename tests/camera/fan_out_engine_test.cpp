/*
 * The frame fan-out against the recording fake engine: the exact arguments
 * of each conversion, and the fence path (ownership, merge names, the one
 * bounded wait), which the software engine never takes.
 */
#include <android/sync.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <nax/nax.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "camera/frame_fan_out.h"
#include "camera_test_util.h"
#include "fake_engine_client.h"
#include "fake_v4l2.h"
#include "fence_recorder.h"
#include "marlo/base/unique_fd.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/virtual_camera.h"
#include "support/fd_count.h"
#include "support/fence_timeline.h"
#include "support/log_capture.h"

using namespace camera_test;
using tessaro::marlo::HalCamera;
using tessaro::marlo::UniqueFd;
using tessaro::marlo::VirtualCamera;
using tessaro::marlo::detail::FrameFanOut;

namespace {

/* Whether the merge joined a copy of \a fence rather than the buffer's own descriptor. */
bool CopyOf(const FenceRecorder::Merge& merge, int fence) {
    return merge.fd2 != fence &&
           std::find(merge.fd2Twins.begin(), merge.fd2Twins.end(), fence) != merge.fd2Twins.end();
}

constexpr int kWidth = 64;
constexpr int kHeight = 48;

class FanOutEngineTest : public HalCameraFixture {
  protected:
    void SetUp() override {
        ASSERT_TRUE(engine_.loaded());
        auto dup = reinterpret_cast<fake_nax_set_release_fence_dup_t>(
            dlsym(engine_.library(), "fake_nax_set_release_fence_dup"));
        ASSERT_NE(dup, nullptr);
        setFenceDup_ = dup;
        engine_.reset();
        HalCameraFixture::SetUp();
        FrameFanOut::UseFences(*camera_, fences_);
    }
    void TearDown() override {
        HalCameraFixture::TearDown();
        if (engine_.loaded())
            engine_.reset();
    }

    /* Every operation hands back its own duplicate of \a fence. */
    void HandOutFences(int fence) {
        engine_.setReleaseFence(fence);
        setFenceDup_(1);
    }

    void Produce(int64_t sequence) {
        ASSERT_TRUE(node_->WaitQueued(3, kWait));
        ASSERT_GE(node_->ProduceFrame(marlo_fake::Frame(sequence, {1, 0}, 0x10)), 0);
    }

    size_t Count(const marlo_test::LogCapture& log, int priority, const std::string& text) {
        return HalCameraFixture::Count(log, priority, "operator()", text);
    }

    /* Outlives the camera (reset in TearDown), whose fan-out merges and waits through it. */
    FenceRecorder fences_;
    marlo_test::FakeEngine engine_;
    fake_nax_set_release_fence_dup_t setFenceDup_ = nullptr;
};

}  // namespace

TEST_F(FanOutEngineTest, ProcessGetsTheStoredGeometryAndTheBuffersCropAndTransform) {
    auto first = Client(1);
    /* A later opener's geometry describes the source, though the device keeps the first. */
    auto second = Client(2, 32, 16, V4L2_PIX_FMT_NV12);
    MemFrame out(20, 10, V4L2_PIX_FMT_GREY, 24 * 10, {4, 6, 20, 10}, NAX_TRANSFORM_ROT_90, 9);
    ASSERT_TRUE(out.valid());
    FrameSet set{out.buffer()};
    first->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(first->startVideoStream(sink.callback()), 0);
    Produce(3);
    ASSERT_TRUE(sink.waitFor(1));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    first->stopVideoStream();

    auto calls = engine_.callsOf("nax_process");
    ASSERT_EQ(calls.size(), 1u);
    const fake_nax_call& call = calls[0];
    EXPECT_EQ(call.src.width, 32);
    EXPECT_EQ(call.src.height, 16);
    EXPECT_EQ(call.src.wstride, 32);
    EXPECT_EQ(call.src.hstride, 16);
    EXPECT_EQ(call.src.format, NAX_FORMAT_YCbCr_420_SP);
    EXPECT_EQ(call.dst.width, 20);
    EXPECT_EQ(call.dst.height, 10);
    EXPECT_EQ(call.dst.wstride, 20);
    EXPECT_EQ(call.dst.hstride, 10);
    EXPECT_EQ(call.dst.format, NAX_FORMAT_Y8);
    EXPECT_EQ(call.pat.handle, 0u);
    EXPECT_EQ(call.srect.x, 4);
    EXPECT_EQ(call.srect.y, 6);
    EXPECT_EQ(call.srect.width, 20);
    EXPECT_EQ(call.srect.height, 10);
    for (const nax_rect& r : {call.drect, call.prect}) {
        EXPECT_EQ(r.x, 0);
        EXPECT_EQ(r.y, 0);
        EXPECT_EQ(r.width, 0);
        EXPECT_EQ(r.height, 0);
    }
    /* No acquire fence; the 0 handed to the operator asks for an asynchronous job ... */
    EXPECT_EQ(call.acquireFence, -1);
    /* ... which is the transform plus the engine's asynchronous mode bit. */
    EXPECT_EQ(call.usage, NAX_TRANSFORM_ROT_90 + NAX_USAGE_ASYNC);
    EXPECT_NE(call.releaseFence, nullptr);

    /* The destination was imported by the client's plane-0 descriptor. */
    bool importedDst = false;
    for (const auto& import : engine_.callsOf("nax_import_fd"))
        importedDst |= import.address == static_cast<uint64_t>(out.fd());
    EXPECT_TRUE(importedDst);
    /* The first opening turned the handle cache off: every handle went with its job. */
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(FanOutEngineTest, FencesGoToTheBuffersAndAreMergedUnderRawByteNames) {
    UniqueFd fence(eventfd(1, EFD_CLOEXEC));
    ASSERT_TRUE(fence.isValid());
    HandOutFences(fence.get());
    auto a = Client(1);
    auto b = Client(2);
    MemFrame outA(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame outB1(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame outB2(16, 12, V4L2_PIX_FMT_GREY, 16 * 12);
    FrameSet setA{outA.buffer()}, setB{outB1.buffer(), outB2.buffer()};
    a->setFrameInfo(setA);
    b->setFrameInfo(setB);
    FrameSink sinkA, sinkB;
    ASSERT_EQ(a->startVideoStream(sinkA.callback()), 0);
    ASSERT_EQ(b->startVideoStream(sinkB.callback()), 0);
    ASSERT_TRUE(node_->WaitQueued(3, kWait));

    size_t fdsBefore = marlo_test::OpenFdCount();
    fences_.start(true);
    marlo_test::LogCapture log;
    /* Only the low 8 bits of the sequence enter the names. */
    Produce(0x10a);
    ASSERT_TRUE(sinkA.waitFor(1));
    ASSERT_TRUE(sinkB.waitFor(1));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    std::vector<FenceRecorder::Wait> waits = fences_.waits();
    std::vector<FenceRecorder::Merge> merges = fences_.stop();

    /* Each buffer owns its own fence. */
    int fa = outA.buffer()->fence();
    int fb1 = outB1.buffer()->fence();
    int fb2 = outB2.buffer()->fence();
    ASSERT_GE(fa, 0);
    ASSERT_GE(fb1, 0);
    ASSERT_GE(fb2, 0);
    EXPECT_NE(fa, fb1);
    EXPECT_NE(fb1, fb2);

    ASSERT_EQ(merges.size(), 3u);
    const std::string id = kNode0;
    /* Index 0 is a NUL byte, so the first name ends after the sequence byte. */
    EXPECT_EQ(merges[0].name, id + "\x0a");
    EXPECT_EQ(merges[1].name, id + "\x0a\x01");
    EXPECT_EQ(merges[2].name, id + "\x0a\x02");
    EXPECT_EQ(merges[0].fd1, -1);
    /* The merges join copies of the buffers' fences, so that a buffer returned meanwhile closes
     * none. */
    EXPECT_TRUE(CopyOf(merges[0], fa));
    EXPECT_EQ(merges[1].fd1, merges[0].result);
    EXPECT_TRUE(CopyOf(merges[1], fb1));
    EXPECT_EQ(merges[2].fd1, merges[1].result);
    EXPECT_TRUE(CopyOf(merges[2], fb2));
    /* One bounded wait, on the last merge result. */
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_EQ(waits[0].fd, merges[2].result);
    EXPECT_EQ(waits[0].timeoutMs, 100);
    EXPECT_EQ(Count(log, ANDROID_LOG_VERBOSE, "fence " + std::to_string(fa)), 1u) << log.dump();
    EXPECT_FALSE(log.containsText("Timeout waiting fence")) << log.dump();
    /* The merge results are closed; the three buffer fences remain. */
    EXPECT_EQ(marlo_test::OpenFdCount(), fdsBefore + 3);

    a->stopVideoStream();
    b->stopVideoStream();
}

TEST_F(FanOutEngineTest, AnUnsignalledFenceTimesOutAndTheFrameGoesOn) {
    UniqueFd fence(eventfd(0, EFD_CLOEXEC));
    HandOutFences(fence.get());
    auto vc = Client(1);
    MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    fences_.start(false);
    marlo_test::LogCapture log;
    Produce(1);
    ASSERT_TRUE(sink.waitFor(1));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    EXPECT_TRUE(WaitUntil([&] {
        return Count(log, ANDROID_LOG_ERROR, "Timeout waiting fence") == 1;
    })) << log.dump();
    std::vector<FenceRecorder::Wait> waits = fences_.waits();
    std::vector<FenceRecorder::Merge> merges = fences_.stop();
    ASSERT_EQ(merges.size(), 1u);
    ASSERT_EQ(waits.size(), 1u);
    EXPECT_EQ(waits[0].fd, merges[0].result);
    EXPECT_EQ(waits[0].timeoutMs, 100);
    EXPECT_NE(waits[0].result, 0);
    vc->stopVideoStream();
}

/*
 * The first merge joins -1 with the first fence. The platform's merge (the
 * libsync contract, here over the Linux sync_file request) refuses a
 * negative first descriptor, so the running fence stays -1 and no wait is
 * made: the frame goes on at once even with a fence that never signals.
 */
TEST_F(FanOutEngineTest, ThePlatformMergeRefusesTheFirstJoinSoNoWaitIsMade) {
    UniqueFd fence(eventfd(0, EFD_CLOEXEC));
    ASSERT_TRUE(fence.isValid());
    HandOutFences(fence.get());
    auto vc = Client(1);
    MemFrame a(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame b(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{a.buffer(), b.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    size_t fdsBefore = marlo_test::OpenFdCount();
    fences_.startPassThrough();
    marlo_test::LogCapture log;
    Produce(0x205);
    ASSERT_TRUE(sink.waitFor(1));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    std::vector<FenceRecorder::Wait> waits = fences_.waits();
    std::vector<FenceRecorder::Merge> merges = fences_.stop();

    ASSERT_EQ(merges.size(), 2u);
    const std::string id = kNode0;
    EXPECT_EQ(merges[0].name, id + "\x05");
    EXPECT_EQ(merges[1].name, id + "\x05\x01");
    for (const FenceRecorder::Merge& merge : merges) {
        EXPECT_EQ(merge.fd1, -1);
        EXPECT_EQ(merge.result, -1);
    }
    EXPECT_TRUE(CopyOf(merges[0], a.buffer()->fence()));
    EXPECT_TRUE(CopyOf(merges[1], b.buffer()->fence()));
    EXPECT_TRUE(waits.empty());
    EXPECT_FALSE(log.containsText("Timeout waiting fence")) << log.dump();
    /* Only the two buffer fences are new; the refused merges left nothing open. */
    EXPECT_EQ(marlo_test::OpenFdCount(), fdsBefore + 2);
    vc->stopVideoStream();
}

TEST_F(FanOutEngineTest, ANegativeFenceLeavesTheBuffersEarlierFence) {
    UniqueFd fence(eventfd(1, EFD_CLOEXEC));
    HandOutFences(fence.get());
    auto vc = Client(1);
    MemFrame out(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{out.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream([&](FrameSet frames) {
        vc->doneWithFrame(frames);
        sink.callback()(frames);
    }),
              0);
    fences_.start(true);
    Produce(1);
    ASSERT_TRUE(sink.waitFor(1));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    int held = out.buffer()->fence();
    ASSERT_GE(held, 0);

    /* A new fence replaces (and closes) the old one ... */
    Produce(2);
    ASSERT_TRUE(sink.waitFor(2));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    int replaced = out.buffer()->fence();
    ASSERT_GE(replaced, 0);

    /* ... a negative one leaves it alone, and nothing is merged for it. */
    engine_.setReleaseFence(-1);
    size_t merges = fences_.count();
    Produce(3);
    ASSERT_TRUE(sink.waitFor(3));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    EXPECT_EQ(out.buffer()->fence(), replaced);
    EXPECT_EQ(out.buffer()->sequence(), 3u);
    EXPECT_EQ(fences_.count(), merges);
    fences_.stop();
    vc->stopVideoStream();
}

TEST_F(FanOutEngineTest, RealSyncFilesFromAKernelTimeline) {
    std::string reason;
    std::unique_ptr<marlo_test::FenceTimeline> timeline = marlo_test::FenceTimeline::Open(&reason);
    if (!timeline)
        GTEST_SKIP() << reason;
    SCOPED_TRACE(timeline->Kind());
    UniqueFd fence(timeline->CreateFence(1));
    ASSERT_TRUE(fence.isValid());
    ASSERT_TRUE(timeline->Advance(1));
    HandOutFences(fence.get());
    auto vc = Client(1);
    MemFrame a(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame b(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet set{a.buffer(), b.buffer()};
    vc->setFrameInfo(set);
    FrameSink sink;
    ASSERT_EQ(vc->startVideoStream(sink.callback()), 0);
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    size_t fdsBefore = marlo_test::OpenFdCount();
    fences_.startPassThrough();
    marlo_test::LogCapture log;
    Produce(1);
    ASSERT_TRUE(sink.waitFor(1));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    std::vector<FenceRecorder::Wait> waits = fences_.waits();
    std::vector<FenceRecorder::Merge> merges = fences_.stop();
    /* Real sync_files too: the first join with -1 is refused, so no wait is made. */
    ASSERT_EQ(merges.size(), 2u);
    EXPECT_EQ(merges[0].result, -1);
    EXPECT_EQ(merges[1].fd1, -1);
    EXPECT_EQ(merges[1].result, -1);
    EXPECT_TRUE(waits.empty());
    /* Both buffers hold their own signalled sync_file; every merge result was closed. */
    EXPECT_EQ(sync_wait(a.buffer()->fence(), 0), 0);
    EXPECT_EQ(sync_wait(b.buffer()->fence(), 0), 0);
    EXPECT_EQ(marlo_test::OpenFdCount(), fdsBefore + 2);
    EXPECT_FALSE(log.containsText("Timeout waiting fence")) << log.dump();
    vc->stopVideoStream();
}

TEST_F(FanOutEngineTest, LentBuffersAreHeldUntilTheirSetsAreForgotten) {
    auto client = Client(1);
    MemFrame a(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame b(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    MemFrame c(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    FrameSet first{a.buffer(), b.buffer()};
    FrameSet second{c.buffer()};
    client->setFrameInfo(first);
    /* Imported when lent, before any frame. */
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 2u);
    EXPECT_EQ(engine_.liveHandles(), 2u);
    EXPECT_EQ(client->heldBufferCount(), 2u);
    /* A set lent by returning it is held too; one held already costs no import. */
    client->doneWithFrame(second);
    client->doneWithFrame(first);
    EXPECT_EQ(engine_.callsOf("nax_import_fd").size(), 3u);
    EXPECT_EQ(client->heldBufferCount(), 3u);

    FrameSink sink;
    ASSERT_EQ(client->startVideoStream(sink.callback()), 0);
    Produce(1);
    ASSERT_TRUE(sink.waitFor(1));
    ASSERT_TRUE(node_->WaitQueued(3, kWait));
    /* The job's own import and release stay; the held import outlives them. */
    EXPECT_EQ(engine_.liveHandles(), 3u);

    /* Lending a set anew forgets the others, and their holds go. */
    client->setFrameInfo(second);
    EXPECT_EQ(client->heldBufferCount(), 1u);
    EXPECT_EQ(engine_.liveHandles(), 1u);
    /* A stop forgets every set. */
    client->stopVideoStream();
    EXPECT_EQ(client->heldBufferCount(), 0u);
    EXPECT_EQ(engine_.liveHandles(), 0u);
}

TEST_F(FanOutEngineTest, ABufferWithoutMemoryIsNotHeld) {
    auto client = Client(1);
    FrameSet set{nullptr};
    client->setFrameInfo(set);
    EXPECT_EQ(client->heldBufferCount(), 0u);
    EXPECT_TRUE(engine_.callsOf("nax_import_fd").empty());
}
