/* The per-client virtual camera: stream state, callback and the free-set queue. */
#include <linux/videodev2.h>
#include <marlo_host/hooks.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "camera_test_util.h"
#include "fake_v4l2.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/virtual_camera.h"
#include "support/log_capture.h"
#include "support/scoped_property.h"

using namespace camera_test;
using tessaro::marlo::HalCamera;
using tessaro::marlo::VirtualCamera;

namespace {

/* Client 7 of the shared camera, not opened yet. */
class VirtualCameraTest : public HalCameraFixture {
  protected:
    void SetUp() override {
        HalCameraFixture::SetUp();
        vc_ = camera_->MakeVirtualCamera(7);
    }
    void TearDown() override {
        vc_.reset();
        HalCameraFixture::TearDown();
    }

    /* A client \a id whose hardware camera (at kNode1) is gone already. */
    static std::shared_ptr<VirtualCamera> ClientOfAGoneCamera(int id) {
        auto gone = std::make_shared<HalCamera>(kNode1);
        return std::make_shared<VirtualCamera>(id, gone);
    }

    /* Lines of client 7 with this priority, member and text. */
    static size_t Count(const marlo_test::LogCapture& log, int priority, const std::string& func,
                        const std::string& text) {
        return CountLines(log, priority, Vcam(7), func, text);
    }

    std::shared_ptr<VirtualCamera> vc_;
};

std::shared_ptr<MemFrame> Grey(uint64_t cookies) {
    return std::make_shared<MemFrame>(16, 8, V4L2_PIX_FMT_GREY, 16 * 8,
                                      tessaro::marlo::FrameBufferRect{}, 0, cookies);
}

}  // namespace

TEST_F(VirtualCameraTest, ConstructionKeepsAWeakReferenceToItsCamera) {
    VirtualCamera vc(9, camera_);
    EXPECT_EQ(vc.id(), 9);
    EXPECT_EQ(vc.state(), 0);
    EXPECT_EQ(vc.freeSetCount(), 0u);
    auto cameras = vc.getHalCameras();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0]->deviceId(), kNode0);
}

TEST_F(VirtualCameraTest, GetHalCamerasSkipsACameraThatHasGone) {
    vc_.reset();
    auto vc = ClientOfAGoneCamera(1);
    marlo_test::LogCapture log;
    EXPECT_TRUE(vc->getHalCameras().empty());
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(VirtualCameraTest, OpenReportsSuccessEvenWhenTheHardwareFailed) {
    node_->InjectError(marlo_fake::kOpenRequest, ENOENT);
    marlo_test::LogCapture log;
    EXPECT_TRUE(vc_->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "openVideoStream",
                    std::string("Failed to open a virtual camera for ") + kNode0 + "\n"),
              1u)
        << log.dump();
    EXPECT_LT(camera_->hwCamera()->Fd(), 0);
}

TEST_F(VirtualCameraTest, OpenOpensTheHardware) {
    EXPECT_TRUE(vc_->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    EXPECT_GE(camera_->hwCamera()->Fd(), 0);
}

TEST_F(VirtualCameraTest, OpenWithACameraThatHasGoneLogsAndSucceeds) {
    auto vc = ClientOfAGoneCamera(3);
    marlo_test::LogCapture log;
    EXPECT_TRUE(vc->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    EXPECT_EQ(
        CountLines(log, ANDROID_LOG_ERROR, Vcam(3), "openVideoStream", "vcam has no hw camera"), 1u)
        << log.dump();
}

TEST_F(VirtualCameraTest, StartRunsTheCameraAndStopStopsIt) {
    ASSERT_TRUE(vc_->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    marlo_test::LogCapture log;
    EXPECT_EQ(vc_->startVideoStream([](FrameSet) {}), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, "startVideoStream", "Starts a video stream"), 1u)
        << log.dump();
    EXPECT_EQ(vc_->state(), 1);
    EXPECT_EQ(camera_->captureState(), 1);
    EXPECT_EQ(camera_->streamingClients(), 1);
    vc_->stopVideoStream();
    EXPECT_EQ(vc_->state(), 0);
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_EQ(camera_->streamingClients(), 0);
}

TEST_F(VirtualCameraTest, StartWhileRunningOnlyReplacesTheCallback) {
    ASSERT_TRUE(vc_->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    FrameSink first;
    FrameSink second;
    ASSERT_EQ(vc_->startVideoStream(first.callback()), 0);
    node_->ClearRequests();
    marlo_test::LogCapture log;
    EXPECT_EQ(vc_->startVideoStream(second.callback()), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "startVideoStream",
                    "Ignoring startVideoStream when a stream is already in running state 1."),
              1u)
        << log.dump();
    EXPECT_EQ(camera_->streamingClients(), 1);
    EXPECT_TRUE(node_->Requests().empty());

    /* The next frame reaches the second callback. */
    auto frame = Grey(1);
    FrameSet set{frame->buffer()};
    vc_->setFrameInfo(set);
    ASSERT_GE(node_->ProduceFrame(marlo_fake::Frame(4)), 0);
    ASSERT_TRUE(second.waitFor(1));
    EXPECT_EQ(first.count(), 0u);
    vc_->stopVideoStream();
}

TEST_F(VirtualCameraTest, FailedCameraStartIsReportedAndStateReturnsToStopped) {
    ASSERT_TRUE(vc_->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    /* A refused stream-off makes the capture camera refuse the next start. */
    ASSERT_EQ(vc_->startVideoStream(nullptr), 0);
    node_->InjectError(VIDIOC_STREAMOFF, EIO);
    vc_->stopVideoStream();

    marlo_test::LogCapture log;
    EXPECT_EQ(vc_->startVideoStream(nullptr), -2);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_ERROR, "startVideoStream", "Failed to start a client video stream"),
        1u)
        << log.dump();
    EXPECT_EQ(vc_->state(), 0);
    /* The failing camera itself is not ended: it stays recorded as running. */
    EXPECT_EQ(camera_->captureState(), 1);
    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->captureState(), 0);
}

TEST_F(VirtualCameraTest, StartWithACameraThatHasGoneFails) {
    auto vc = ClientOfAGoneCamera(3);
    marlo_test::LogCapture log;
    FrameSink sink;
    /* Trying the gone entry again could only repeat forever: the start fails once instead. */
    EXPECT_EQ(vc->startVideoStream(sink.callback()), -2);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Vcam(3), "startVideoStream",
                         "Failed to start a video stream"),
              1u)
        << log.dump();
    EXPECT_EQ(vc->state(), 0);
    /* The callback was stored before anything else, the failure notwithstanding. */
    auto a = Grey(1);
    vc->forwardFrame({a->buffer()});
    EXPECT_EQ(sink.count(), 1u);
}

TEST_F(VirtualCameraTest, StartWithoutCamerasSucceeds) {
    marlo_test::LogCapture log;
    VirtualCamera vc(11, nullptr);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Vcam(11), "VirtualCamera",
                         "created without a hw camera"),
              1u)
        << log.dump();
    EXPECT_TRUE(vc.getHalCameras().empty());
    EXPECT_EQ(vc.startVideoStream(nullptr), 0);
    EXPECT_EQ(vc.state(), 1);
    vc.stopVideoStream();
    EXPECT_EQ(vc.state(), 0);
}

TEST_F(VirtualCameraTest, StopWhenNotRunningOnlyLogs) {
    marlo_test::LogCapture log;
    vc_->stopVideoStream();
    EXPECT_EQ(
        Count(log, ANDROID_LOG_ERROR, "stopVideoStream", "Failed to stop video stream in state 0"),
        1u)
        << log.dump();
    EXPECT_EQ(vc_->state(), 0);
}

TEST_F(VirtualCameraTest, StopWithACameraThatHasGoneLogsTheStoppingState) {
    ASSERT_TRUE(vc_->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    ASSERT_EQ(vc_->startVideoStream(nullptr), 0);
    /* The camera goes while the client runs; its destruction stops the capture. */
    camera_.reset();
    EXPECT_FALSE(node_->Streaming());
    marlo_test::LogCapture log;
    vc_->stopVideoStream();
    EXPECT_EQ(
        Count(log, ANDROID_LOG_ERROR, "stopVideoStream", "Failed to stop video stream in state 2"),
        1u)
        << log.dump();
    EXPECT_EQ(vc_->state(), 0);
}

TEST_F(VirtualCameraTest, StopForgetsTheLentSetsAndTheCallback) {
    ASSERT_TRUE(vc_->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    auto a = Grey(1);
    auto b = Grey(2);
    FrameSet set{a->buffer()};
    vc_->setFrameInfo(set);
    vc_->doneWithFrame({b->buffer()});
    ASSERT_EQ(vc_->freeSetCount(), 2u);
    ASSERT_EQ(vc_->startVideoStream([](FrameSet) {}), 0);
    vc_->stopVideoStream();
    EXPECT_EQ(vc_->freeSetCount(), 0u);
    /* With the callback gone, a forwarded set goes nowhere. */
    vc_->forwardFrame({a->buffer()});
}

TEST_F(VirtualCameraTest, SetFrameInfoReplacesTheQueueWithOneSet) {
    auto a = Grey(1);
    auto b = Grey(2);
    auto c = Grey(3);
    FrameSet first{a->buffer()};
    vc_->setFrameInfo(first);
    vc_->doneWithFrame({b->buffer()});
    ASSERT_EQ(vc_->freeSetCount(), 2u);

    marlo_test::LogCapture log;
    FrameSet second{b->buffer(), c->buffer()};
    EXPECT_EQ(vc_->setFrameInfo(second), 0);
    EXPECT_EQ(vc_->freeSetCount(), 1u);
    /* The informational line is logged at severity 4. */
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "setFrameInfo",
                    "Received buffer cookies 2 fd = " + std::to_string(b->fd()) + "\n"),
              1u)
        << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "setFrameInfo",
                    "Received buffer cookies 3 fd = " + std::to_string(c->fd()) + "\n"),
              1u)
        << log.dump();
    FrameSet taken = vc_->getAvailableFrames();
    EXPECT_EQ(taken, second);
    EXPECT_EQ(vc_->freeSetCount(), 0u);
}

TEST_F(VirtualCameraTest, EmptyQueueGivesAnEmptySetAndSaysSo) {
    marlo_test::LogCapture log;
    EXPECT_TRUE(vc_->getAvailableFrames().empty());
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "getAvailableFrames",
                    "has No available buffer to NAX copy!!!!"),
              1u)
        << log.dump();
}

TEST_F(VirtualCameraTest, SetsComeBackOldestFirst) {
    auto a = Grey(1);
    auto b = Grey(2);
    auto c = Grey(3);
    FrameSet first{a->buffer()};
    vc_->setFrameInfo(first);
    vc_->doneWithFrame({b->buffer()});
    vc_->doneWithFrame({c->buffer(), a->buffer()});
    EXPECT_EQ(vc_->getAvailableFrames(), first);
    EXPECT_EQ(vc_->getAvailableFrames(), FrameSet{b->buffer()});
    EXPECT_EQ(vc_->getAvailableFrames(), (FrameSet{c->buffer(), a->buffer()}));
    EXPECT_EQ(vc_->freeSetCount(), 0u);
}

TEST_F(VirtualCameraTest, DoneWithAnEmptySetQueuesNothing) {
    marlo_test::LogCapture log;
    vc_->doneWithFrame({});
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, "doneWithFrame", "doneWithFrame null"), 1u)
        << log.dump();
    EXPECT_EQ(vc_->freeSetCount(), 0u);
}

TEST_F(VirtualCameraTest, DoneWithFrameQueuesTheSetAndLogsEachCookie) {
    auto a = Grey(41);
    auto b = Grey(42);
    marlo_test::LogCapture log;
    vc_->doneWithFrame({a->buffer(), b->buffer()});
    EXPECT_EQ(vc_->freeSetCount(), 1u);
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, "doneWithFrame", "doneWithFrame index 41"), 1u)
        << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, "doneWithFrame", "doneWithFrame index 42"), 1u)
        << log.dump();
}

TEST_F(VirtualCameraTest, ForwardingAnEmptySetOnlyLogs) {
    FrameSink sink;
    ASSERT_EQ(vc_->startVideoStream(sink.callback()), -2);  // not opened: refused
    marlo_test::LogCapture log;
    vc_->forwardFrame({});
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, "forwardFrame", "forwardFrame null"), 1u) << log.dump();
    EXPECT_EQ(sink.count(), 0u);
}

TEST_F(VirtualCameraTest, ForwardCallsTheCallbackOnTheCallingThread) {
    ASSERT_TRUE(vc_->openVideoStream(64, 48, V4L2_PIX_FMT_GREY));
    FrameSink sink;
    ASSERT_EQ(vc_->startVideoStream(sink.callback()), 0);
    auto a = Grey(5);
    vc_->forwardFrame({a->buffer()});
    ASSERT_EQ(sink.count(), 1u);
    EXPECT_EQ(sink.at(0), FrameSet{a->buffer()});
    vc_->stopVideoStream();
}

TEST_F(VirtualCameraTest, TraceSectionsNameTheBuffers) {
    TraceRecorder trace;
    auto a = Grey(5);
    a->buffer()->SetSequence(9);
    FrameSet set{a->buffer()};
    vc_->setFrameInfo(set);
    vc_->forwardFrame(set);
    vc_->doneWithFrame(set);
    std::string fd = std::to_string(a->fd());
    EXPECT_EQ(trace.names(), (std::vector<std::string>{
                                 "setFrameInfo (vcam 7, cookies 5, fd = " + fd + ")",
                                 "forwardFrame (vcam 7, sequence 9, cookies 5, fd = " + fd + ")",
                                 "doneWithFrame (vcam 7, cookies 5, fd = " + fd + ")"}));
    EXPECT_EQ(trace.ends(), 3u);
}

TEST_F(VirtualCameraTest, NoTraceSectionWithoutTheCameraTag) {
    marlo_test::ScopedProperty tags("debug.atrace.tags.enableflags", "0x1");
    std::vector<std::string> names;
    marlo_host_set_trace_hook(
        [](const char* name, void* ctx) {
            static_cast<std::vector<std::string>*>(ctx)->emplace_back(name ? name : "<end>");
        },
        &names);
    auto a = Grey(5);
    FrameSet set{a->buffer()};
    vc_->setFrameInfo(set);
    vc_->doneWithFrame(set);
    marlo_host_set_trace_hook(nullptr, nullptr);
    EXPECT_TRUE(names.empty());
}
