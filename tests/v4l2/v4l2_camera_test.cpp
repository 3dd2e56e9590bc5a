/* V4l2Camera: open sequence, run state, frames, against the fake driver. */
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <future>
#include <string>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>

#include <marlo/v4l2/v4l2_camera.h>

#include "fake_v4l2.h"
#include "support/fake_node_test.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

namespace {

using tessaro::marlo::V4l2Buffer;
using tessaro::marlo::V4l2Camera;

constexpr char kPath[] = "/dev/marlo-fake-cam0";
constexpr char kTag[] = "marlo_stream";

std::string Cam(const char* func, int line, const std::string& text) {
    char prefix[256];
    snprintf(prefix, sizeof(prefix), "V4LCAM(%s) %s:%d ", kPath, func, line);
    return prefix + text;
}

class V4l2CameraTest : public marlo_test::FakeVideoNodeTest {
  protected:
    void SetUp() override { AddNode(kPath); }

    /* Opens \a camera at 640x480 NV12, the geometry of most tests. */
    static void Open(V4l2Camera& camera) {
        ASSERT_TRUE(camera.OpenCamera(640, 480, V4L2_PIX_FMT_NV12));
    }
    /* Opens \a camera as Open() does and starts its stream. */
    static void OpenAndStart(V4l2Camera& camera) {
        ASSERT_NO_FATAL_FAILURE(Open(camera));
        ASSERT_EQ(camera.StartVideoStream(), 0);
    }

    bool HasError(const marlo_test::LogCapture& log, const std::string& message) {
        return log.contains(ANDROID_LOG_ERROR, kTag, message);
    }

    /*
     * Both lines of a failed open (and no other line of the camera), false
     * from OpenCamera, and no step after the failing request \a lastRequest.
     */
    void ExpectOpenFailure(const std::string& stepMessage, const std::string& lastRequest) {
        marlo_test::LogCapture log;
        V4l2Camera camera(kPath);
        EXPECT_FALSE(camera.OpenCamera(640, 480, V4L2_PIX_FMT_NV12));
        EXPECT_TRUE(HasError(log, stepMessage)) << log.dump();
        EXPECT_TRUE(HasError(log, Cam("OpenCamera", 146, "Failed to open a video deivce")));
        size_t cameraLines = 0;
        for (const auto& record : log.records())
            cameraLines += record.tag == kTag;
        EXPECT_EQ(cameraLines, 2u) << log.dump();
        const auto requests = node_->Requests();
        ASSERT_FALSE(requests.empty());
        EXPECT_EQ(requests.back().name, lastRequest);
    }
};

TEST_F(V4l2CameraTest, OpenSequence) {
    V4l2Camera camera(kPath);
    EXPECT_EQ(camera.Fd(), -1);
    EXPECT_EQ(camera.State(), 0u);
    ASSERT_TRUE(camera.OpenCamera(1280, 720, V4L2_PIX_FMT_NV12));
    EXPECT_GE(camera.Fd(), 0);
    EXPECT_EQ(camera.State(), 0u);
    EXPECT_EQ(node_->LastOpenFlags(), 0x80002);

    std::vector<std::string> names;
    for (const auto& record : node_->Requests())
        names.push_back(record.name);
    const std::vector<std::string> expected = {
        "open",          "VIDIOC_QUERYCAP", "VIDIOC_S_FMT", "VIDIOC_REQBUFS",  "VIDIOC_QUERYBUF",
        "mmap",          "VIDIOC_QUERYBUF", "mmap",         "VIDIOC_QUERYBUF", "mmap",
        "VIDIOC_EXPBUF", "VIDIOC_EXPBUF",   "VIDIOC_EXPBUF"};
    EXPECT_EQ(names, expected);
    auto fmt = node_->Requests(VIDIOC_S_FMT).at(0);
    EXPECT_EQ(fmt.width, 1280u);
    EXPECT_EQ(fmt.height, 720u);
    EXPECT_EQ(fmt.pixelformat, V4L2_PIX_FMT_NV12);
    auto req = node_->Requests(VIDIOC_REQBUFS).at(0);
    EXPECT_EQ(req.count, 3u);
    EXPECT_EQ(req.memory, static_cast<uint32_t>(V4L2_MEMORY_MMAP));
    EXPECT_EQ(camera.NumBuffers(), 3u);
}

TEST_F(V4l2CameraTest, OpenFailsWhenTheNodeCannotBeOpened) {
    node_->InjectError(marlo_fake::kOpenRequest, EACCES);
    ExpectOpenFailure(Cam("OpenInternal", 99, "failed to open a v4l2 video device -2"), "open");
}

TEST_F(V4l2CameraTest, OpenFailsOnQueryCap) {
    node_->InjectError(VIDIOC_QUERYCAP, EIO);
    ExpectOpenFailure(Cam("OpenInternal", 106, "QueryCap failed -2"), "VIDIOC_QUERYCAP");
}

TEST_F(V4l2CameraTest, OpenFailsOnSetFormat) {
    node_->InjectError(VIDIOC_S_FMT, EINVAL);
    ExpectOpenFailure(Cam("OpenInternal", 113, "set format 640x480 failed -2"), "VIDIOC_S_FMT");
}

TEST_F(V4l2CameraTest, OpenFailsWhenTheDriverGrantsTwoBuffers) {
    node_->SetGrantedCount(2);
    ExpectOpenFailure(Cam("OpenInternal", 120, "request buffer failed 2"), "VIDIOC_REQBUFS");
}

TEST_F(V4l2CameraTest, OpenFailsWhenTheDriverGrantsFourBuffers) {
    node_->SetGrantedCount(4);
    ExpectOpenFailure(Cam("OpenInternal", 120, "request buffer failed 4"), "VIDIOC_REQBUFS");
}

TEST_F(V4l2CameraTest, OpenFailsWhenRequestBuffersFails) {
    node_->InjectError(VIDIOC_REQBUFS, ENOMEM);
    ExpectOpenFailure(Cam("OpenInternal", 120, "request buffer failed -1"), "VIDIOC_REQBUFS");
}

TEST_F(V4l2CameraTest, OpenFailsOnQueryBuffer) {
    node_->InjectError(VIDIOC_QUERYBUF, EIO);
    ExpectOpenFailure(Cam("OpenInternal", 127, "query buffer failed -2"), "VIDIOC_QUERYBUF");
}

TEST_F(V4l2CameraTest, OpenFailsOnExport) {
    node_->InjectError(VIDIOC_EXPBUF, EMFILE);
    ExpectOpenFailure(Cam("OpenInternal", 133, "export buffer failed -2"), "VIDIOC_EXPBUF");
}

TEST_F(V4l2CameraTest, ANegativeSizeReachesTheDriverAsItsUnsignedValue) {
    V4l2Camera camera(kPath);
    camera.OpenCamera(-8, 480, V4L2_PIX_FMT_NV12);
    auto formats = node_->Requests(VIDIOC_S_FMT);
    ASSERT_EQ(formats.size(), 1u);
    EXPECT_EQ(formats[0].width, 0xfffffff8u);
    EXPECT_EQ(formats[0].height, 480u);
}

TEST_F(V4l2CameraTest, FailedOpenKeepsTheDescriptorUntilShutdown) {
    node_->InjectError(VIDIOC_S_FMT, EINVAL);
    V4l2Camera camera(kPath);
    EXPECT_FALSE(camera.OpenCamera(640, 480, V4L2_PIX_FMT_NV12));
    EXPECT_GE(camera.Fd(), 0);
    EXPECT_EQ(node_->OpenDescriptors(), 1u);
    camera.shutdown();
    EXPECT_EQ(camera.Fd(), -1);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

TEST_F(V4l2CameraTest, StartQueuesEveryBufferAndStreams) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    EXPECT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(camera.State(), V4l2Camera::kRunning);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 3u);
    EXPECT_EQ(node_->QueuedCount(), 3u);
    EXPECT_TRUE(node_->Streaming());
}

TEST_F(V4l2CameraTest, SecondStartIsRefusedAndQueuesNothing) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    node_->ClearRequests();
    marlo_test::LogCapture log;
    EXPECT_EQ(camera.StartVideoStream(), -2);
    EXPECT_TRUE(node_->Requests().empty());
    EXPECT_TRUE(
        HasError(log, Cam("StartVideoStream", 182,
                          "Already in RUN state, so we can't start a new streaming thread")))
        << log.dump();
}

TEST_F(V4l2CameraTest, StopWithoutStartTouchesNothing) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    node_->ClearRequests();
    marlo_test::LogCapture log;
    camera.StopVideoStream();
    EXPECT_EQ(camera.State(), 0u);
    EXPECT_TRUE(node_->Requests().empty());
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(V4l2CameraTest, StopStreamsOff) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    marlo_test::LogCapture log;
    camera.StopVideoStream();
    EXPECT_EQ(camera.State(), 0u);
    EXPECT_FALSE(node_->Streaming());
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag, Cam("StopVideoStream", 166, "stream off")))
        << log.dump();
    /* Start works again and queues all three buffers. */
    node_->ClearRequests();
    EXPECT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 3u);
}

TEST_F(V4l2CameraTest, FailedStopLeavesTheCameraStuck) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    node_->InjectError(VIDIOC_STREAMOFF, EIO);
    marlo_test::LogCapture log;
    camera.StopVideoStream();
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag, Cam("StopVideoStream", 166, "stream off")));
    EXPECT_TRUE(HasError(log, Cam("StopVideoStream", 168, "stream off failed -2"))) << log.dump();
    EXPECT_EQ(camera.State(), V4l2Camera::kRunning | V4l2Camera::kStopping);

    EXPECT_EQ(camera.StartVideoStream(), -2);
    camera.StopVideoStream();
    EXPECT_TRUE(HasError(
        log, Cam("StopVideoStream", 162, "stopStream called while stream is already stopping.")));
    EXPECT_EQ(camera.State(), 3u);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 1u);

    /* Only a new successful open resets the state. */
    ASSERT_EQ(camera.StreamOff(), 0);
    ASSERT_TRUE(camera.OpenCamera(640, 480, V4L2_PIX_FMT_NV12));
    EXPECT_EQ(camera.State(), 0u);
    EXPECT_EQ(camera.StartVideoStream(), 0);
}

TEST_F(V4l2CameraTest, FailedStreamOnStillAnswersZero) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    node_->InjectError(VIDIOC_STREAMON, EPIPE);
    marlo_test::LogCapture log;
    EXPECT_EQ(camera.StartVideoStream(), 0);
    EXPECT_TRUE(HasError(log, Cam("StartVideoStream", 197, "stream on failed -2"))) << log.dump();
    EXPECT_EQ(camera.State(), V4l2Camera::kRunning);
    EXPECT_EQ(camera.StartVideoStream(), -2);
}

TEST_F(V4l2CameraTest, CollectAndReturnFrames) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));

    /* The owner learns of a frame through the descriptor, as its IO thread does. */
    int ep = epoll_create1(EPOLL_CLOEXEC);
    ASSERT_GE(ep, 0);
    epoll_event ev = {};
    ev.events = EPOLLIN;
    ASSERT_EQ(epoll_ctl(ep, EPOLL_CTL_ADD, camera.Fd(), &ev), 0);
    EXPECT_EQ(epoll_wait(ep, &ev, 1, 0), 0);
    ASSERT_EQ(node_->ProduceFrame(marlo_fake::Frame(10, {12, 345678}, 0xab)), 0);
    EXPECT_EQ(epoll_wait(ep, &ev, 1, 1000), 1);
    close(ep);

    auto frame = camera.CollectFrames();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->GetIndex(), 0u);
    EXPECT_EQ(frame->GetSequence(), 10u);
    EXPECT_EQ(frame->GetTimestamp(), 12345678000ull);
    EXPECT_EQ(frame->GetLength(0), 640u * 480u * 3u / 2u);
    EXPECT_EQ(static_cast<uint8_t*>(frame->GetPtr(0))[100], 0xab);
    uint8_t byte = 0;
    ASSERT_EQ(pread(frame->GetDmaFd(0), &byte, 1, 200), 1);
    EXPECT_EQ(byte, 0xab);

    EXPECT_EQ(camera.ReturnFrame(std::move(frame)), 0);
    EXPECT_EQ(node_->QueuedCount(), 3u);
}

TEST_F(V4l2CameraTest, CollectBlocksUntilAFrameIsReady) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    auto pending = std::async(std::launch::async, [&] { return camera.CollectFrames(); });
    EXPECT_EQ(pending.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    node_->ProduceFrame(marlo_fake::Frame(1));
    auto frame = pending.get();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->GetSequence(), 1u);
    EXPECT_EQ(camera.ReturnFrame(std::move(frame)), 0);
}

TEST_F(V4l2CameraTest, CollectAfterStopGivesNull) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    camera.StopVideoStream();
    EXPECT_EQ(camera.CollectFrames(), nullptr);
}

TEST_F(V4l2CameraTest, RefusedReturnWaitsInTheFreeListForTheNextStart) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    node_->ProduceFrame();
    auto frame = camera.CollectFrames();
    ASSERT_NE(frame, nullptr);
    node_->InjectError(VIDIOC_QBUF, EIO);
    EXPECT_EQ(camera.ReturnFrame(std::move(frame)), -2);
    EXPECT_EQ(node_->QueuedCount(), 2u);
    camera.StopVideoStream();
    node_->ClearRequests();
    ASSERT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 3u);
    EXPECT_EQ(node_->QueuedCount(), 3u);
}

TEST_F(V4l2CameraTest, FrameHeldOverAStopIsQueuedWhenReturned) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    node_->ProduceFrame();
    auto held = camera.CollectFrames();
    ASSERT_NE(held, nullptr);
    camera.StopVideoStream();
    node_->ClearRequests();
    ASSERT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 2u);
    EXPECT_EQ(camera.ReturnFrame(std::move(held)), 0);
    EXPECT_EQ(node_->QueuedCount(), 3u);
}

TEST_F(V4l2CameraTest, ShutdownClosesOnlyTheDescriptor) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    camera.shutdown();
    EXPECT_EQ(camera.Fd(), -1);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_NE(camera.GetBuffer(), nullptr);
}

TEST_F(V4l2CameraTest, ShutdownKeepsTheRunState) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    node_->ProduceFrame();
    auto held = camera.CollectFrames();
    ASSERT_NE(held, nullptr);
    camera.shutdown();
    EXPECT_EQ(camera.State(), V4l2Camera::kRunning);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 0u);
    /* The held frame stays usable: its mapping and descriptor are its own. */
    EXPECT_NE(held->GetPtr(0), nullptr);
    EXPECT_GE(held->GetDmaFd(0), 0);
    EXPECT_EQ(camera.StartVideoStream(), -2);
}

TEST_F(V4l2CameraTest, DestructionDoesNotStreamOffAndLeaksNothing) {
    marlo_test::FdLeakCheck leaks;
    {
        V4l2Camera camera(kPath);
        ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
        node_->ProduceFrame();
        auto frame = camera.CollectFrames();
        ASSERT_NE(frame, nullptr);
        EXPECT_EQ(camera.ReturnFrame(std::move(frame)), 0);
    }
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 0u);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_EQ(node_->LiveMappings(), 0u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(V4l2CameraTest, ConcurrentStartsActOnce) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    marlo_test::LogCapture log(false);
    auto a = std::async(std::launch::async, [&] { return camera.StartVideoStream(); });
    auto b = std::async(std::launch::async, [&] { return camera.StartVideoStream(); });
    int ra = a.get(), rb = b.get();
    EXPECT_EQ(ra + rb, -2);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMON), 1u);
}

TEST_F(V4l2CameraTest, SinglePlanarNodeOpensAndCaptures) {
    AddNode(kPath, WithCapabilities(kSinglePlanar));
    V4l2Camera camera(kPath);
    ASSERT_TRUE(camera.OpenCamera(320, 240, V4L2_PIX_FMT_YUYV));
    EXPECT_EQ(camera.BufferType(), static_cast<uint32_t>(V4L2_BUF_TYPE_VIDEO_CAPTURE));
    auto fmt = node_->Requests(VIDIOC_S_FMT).at(0);
    EXPECT_EQ(fmt.type, static_cast<uint32_t>(V4L2_BUF_TYPE_VIDEO_CAPTURE));
    EXPECT_EQ(fmt.pixelformat, V4L2_PIX_FMT_YUYV);
    ASSERT_EQ(camera.StartVideoStream(), 0);
    ASSERT_GE(node_->ProduceFrame(marlo_fake::Frame(4, {0, 0}, 0x11)), 0);
    auto frame = camera.CollectFrames();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->GetSequence(), 4u);
    EXPECT_EQ(static_cast<uint8_t*>(frame->GetPtr(0))[0], 0x11);
    EXPECT_EQ(camera.ReturnFrame(std::move(frame)), 0);
}

TEST_F(V4l2CameraTest, FailedExportReleasesEverythingAtDestruction) {
    marlo_test::FdLeakCheck leaks;
    {
        /* The second export fails: one buffer already holds a descriptor. */
        node_->InjectError(VIDIOC_EXPBUF, EMFILE, 1, 1);
        V4l2Camera camera(kPath);
        EXPECT_FALSE(camera.OpenCamera(640, 480, V4L2_PIX_FMT_NV12));
        EXPECT_EQ(node_->CountRequests(VIDIOC_EXPBUF), 2u);
        EXPECT_EQ(node_->LiveMappings(), 3u);
    }
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_EQ(node_->LiveMappings(), 0u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(V4l2CameraTest, StartOffersEachBufferOnceToARefusingDriver) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    node_->InjectError(VIDIOC_QBUF, EIO, 1000);
    node_->ClearRequests();
    EXPECT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 3u);
    EXPECT_EQ(node_->QueuedCount(), 0u);
    /* The refused buffers are all back in the free list. */
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(camera.GetBuffer(), nullptr);
    EXPECT_EQ(camera.GetBuffer(), nullptr);
}

TEST_F(V4l2CameraTest, BufferRefusedAtStartIsQueuedAtTheNextStart) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    node_->InjectError(VIDIOC_QBUF, EIO);
    ASSERT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 3u);
    EXPECT_EQ(node_->QueuedCount(), 2u);
    camera.StopVideoStream();
    node_->ClearRequests();
    ASSERT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QBUF), 3u);
    EXPECT_EQ(node_->QueuedCount(), 3u);
}

TEST_F(V4l2CameraTest, StartAfterShutdownAnswersZeroAndKeepsTheBuffers) {
    const std::string path = kPath;
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    camera.shutdown();
    marlo_test::LogCapture log;
    EXPECT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(camera.State(), V4l2Camera::kRunning);
    const std::string refused = path + ": queue bufffer failed : " + strerror(EBADF) + "\n";
    EXPECT_EQ(log.count(refused), 3u) << log.dump();
    EXPECT_TRUE(HasError(log, Cam("StartVideoStream", 197, "stream on failed -2"))) << log.dump();
    EXPECT_EQ(camera.CollectFrames(), nullptr);
    for (int i = 0; i < 3; ++i)
        EXPECT_NE(camera.GetBuffer(), nullptr);
    EXPECT_EQ(camera.GetBuffer(), nullptr);
}

TEST_F(V4l2CameraTest, ReturningNothingIsRefused) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    node_->ClearRequests();
    EXPECT_LT(camera.ReturnFrame(nullptr), 0);
    EXPECT_TRUE(node_->Requests().empty());
}

TEST_F(V4l2CameraTest, ConcurrentStopsStreamOffOnce) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndStart(camera));
    marlo_test::LogCapture log(false);
    std::vector<std::future<void>> stops;
    for (int i = 0; i < 4; ++i)
        stops.push_back(std::async(std::launch::async, [&] { camera.StopVideoStream(); }));
    for (auto& stop : stops)
        stop.get();
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 1u);
    EXPECT_FALSE(node_->Streaming());
    EXPECT_EQ(camera.State(), 0u);
}

}  // namespace

TEST_F(V4l2CameraTest, StreamOnStatusTellsWhatTheDriverSaid) {
    V4l2Camera camera(kPath);
    ASSERT_NO_FATAL_FAILURE(Open(camera));
    EXPECT_EQ(camera.StreamOnStatus(), 0);
    node_->InjectError(VIDIOC_STREAMON, EPIPE);
    marlo_test::LogCapture log(false);
    EXPECT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(camera.StreamOnStatus(), -2);
    EXPECT_EQ(camera.StreamOnError(), EPIPE);
    camera.StopVideoStream();
    ASSERT_EQ(camera.State(), 0u);
    EXPECT_EQ(camera.StartVideoStream(), 0);
    EXPECT_EQ(camera.StreamOnStatus(), 0);
    EXPECT_EQ(camera.StreamOnError(), 0);
}
