/* The shared hardware camera over the fake V4L2 kernel, and SafeList. */
#include <linux/videodev2.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "camera_test_util.h"
#include "fake_v4l2.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/safe_list.h"
#include "marlo/camera/virtual_camera.h"
#include "support/log_capture.h"

using namespace camera_test;
using tessaro::marlo::HalCamera;
using tessaro::marlo::SafeList;
using tessaro::marlo::VirtualCamera;

namespace {

using HalCameraTest = HalCameraFixture;

}  // namespace

TEST(SafeList, RemoveErasesEveryMatchFrontToBack) {
    SafeList<int> list;
    for (int i : {1, 2, 3, 4, 5, 6})
        list.push_back(i);
    std::vector<int> seen;
    list.remove([&seen](const int& value) {
        seen.push_back(value);
        return value % 2 == 0;
    });
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, 4, 5, 6}));
    EXPECT_EQ(list.size(), 3u);
    std::vector<int> left;
    list.forEach([&left](const int& value) { left.push_back(value); });
    EXPECT_EQ(left, (std::vector<int>{1, 3, 5}));
}

TEST(SafeList, RemovedElementsAreDestroyed) {
    SafeList<std::shared_ptr<int>> list;
    auto kept = std::make_shared<int>(1);
    auto dropped = std::make_shared<int>(2);
    list.push_back(kept);
    list.push_back(dropped);
    std::weak_ptr<int> watch = dropped;
    dropped.reset();
    list.remove([](const std::shared_ptr<int>& value) { return *value == 2; });
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(kept.use_count(), 2);
}

TEST_F(HalCameraTest, ConstructionOpensNothing) {
    EXPECT_EQ(camera_->deviceId(), kNode0);
    EXPECT_EQ(camera_->hwCamera(), nullptr);
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_EQ(camera_->streamingClients(), 0);
    EXPECT_EQ(camera_->clientCount(), 0u);
    EXPECT_EQ(camera_->width(), 0);
    EXPECT_EQ(camera_->height(), 0);
    EXPECT_EQ(camera_->format(), 0);
    EXPECT_EQ(node_->CountRequests(marlo_fake::kOpenRequest), 0u);
}

TEST_F(HalCameraTest, FirstOpeningCreatesAndOpensTheDevice) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    ASSERT_NE(camera_->hwCamera(), nullptr);
    EXPECT_GE(camera_->hwCamera()->Fd(), 0);
    EXPECT_EQ(node_->CountRequests(marlo_fake::kOpenRequest), 1u);
    EXPECT_EQ(node_->Format().fmt.pix_mp.width, 64u);
    EXPECT_EQ(node_->Format().fmt.pix_mp.pixelformat, static_cast<uint32_t>(V4L2_PIX_FMT_GREY));
    EXPECT_EQ(node_->BufferCount(), 3u);
    EXPECT_EQ(camera_->width(), 64);
    EXPECT_EQ(camera_->height(), 48);
    EXPECT_EQ(camera_->format(), static_cast<int>(V4L2_PIX_FMT_GREY));
}

TEST_F(HalCameraTest, SecondOpeningKeepsTheHardwareButStoresItsGeometry) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    node_->ClearRequests();
    marlo_test::LogCapture log;
    EXPECT_TRUE(camera_->clientStreamOpening(32, 16, V4L2_PIX_FMT_NV12));
    EXPECT_EQ(Count(log, ANDROID_LOG_WARN, "clientStreamOpening", "already in streaming"), 1u)
        << log.dump();
    /* Nothing reaches the device ... */
    EXPECT_TRUE(node_->Requests().empty());
    EXPECT_EQ(node_->Format().fmt.pix_mp.width, 64u);
    EXPECT_EQ(node_->Format().fmt.pix_mp.pixelformat, static_cast<uint32_t>(V4L2_PIX_FMT_GREY));
    /* ... yet the stored geometry is the second opener's. */
    EXPECT_EQ(camera_->width(), 32);
    EXPECT_EQ(camera_->height(), 16);
    EXPECT_EQ(camera_->format(), static_cast<int>(V4L2_PIX_FMT_NV12));
}

TEST_F(HalCameraTest, FailedOpenIsReportedAndRetriedByTheNextOpener) {
    node_->InjectError(marlo_fake::kOpenRequest, ENOENT);
    marlo_test::LogCapture log;
    EXPECT_FALSE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "clientStreamOpening", "Failed to open a hw camera"),
              1u)
        << log.dump();
    EXPECT_NE(camera_->hwCamera(), nullptr);
    EXPECT_LT(camera_->hwCamera()->Fd(), 0);
    /* The geometry is stored whatever followed. */
    EXPECT_EQ(camera_->width(), 64);
    EXPECT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
}

TEST_F(HalCameraTest, TwoClientsStartTheHardwareOnceAndTheLastStopStopsIt) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    EXPECT_EQ(camera_->clientStreamStarting(), 0);
    EXPECT_EQ(camera_->captureState(), 1);
    EXPECT_EQ(CameraState(kNode0), "RUNNING");
    EXPECT_EQ(camera_->clientStreamStarting(), 0);
    EXPECT_EQ(camera_->streamingClients(), 2);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMON), 1u);
    EXPECT_TRUE(node_->Streaming());

    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->streamingClients(), 1);
    EXPECT_EQ(camera_->captureState(), 1);
    EXPECT_TRUE(node_->Streaming());
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 0u);
    EXPECT_EQ(CameraState(kNode0), "RUNNING");

    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->streamingClients(), 0);
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_FALSE(node_->Streaming());
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 1u);
    EXPECT_EQ(CameraState(kNode0), "STOPPED");
}

TEST_F(HalCameraTest, EndingWithNoStreamingClientChangesNothing) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->streamingClients(), 0);
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 0u);
    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->streamingClients(), 0);
}

TEST_F(HalCameraTest, AFailedHardwareStartIsStillRecordedAsRunning) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    ASSERT_EQ(camera_->clientStreamStarting(), 0);
    /* A refused stream-off leaves the capture camera refusing starts. */
    node_->InjectError(VIDIOC_STREAMOFF, EIO);
    camera_->clientStreamEnding();
    ASSERT_EQ(camera_->captureState(), 0);

    EXPECT_EQ(camera_->clientStreamStarting(), -2);
    EXPECT_EQ(camera_->captureState(), 1);
    EXPECT_EQ(camera_->streamingClients(), 1);
    EXPECT_EQ(CameraState(kNode0), "RUNNING");
    /* The later end undoes it. */
    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_EQ(CameraState(kNode0), "STOPPED");
}

TEST_F(HalCameraTest, OnlyTheFirstStarterSeesTheHardwareResult) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    ASSERT_EQ(camera_->clientStreamStarting(), 0);
    node_->InjectError(VIDIOC_STREAMOFF, EIO);
    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->clientStreamStarting(), -2);
    EXPECT_EQ(camera_->clientStreamStarting(), 0);
    EXPECT_EQ(camera_->streamingClients(), 2);
    camera_->clientStreamEnding();
    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->captureState(), 0);
}

TEST_F(HalCameraTest, StartingWithoutAnOpeningIsRefused) {
    marlo_test::LogCapture log;
    EXPECT_EQ(camera_->clientStreamStarting(), -2);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "clientStreamStarting",
                    "no hw camera to start, open it first"),
              1u)
        << log.dump();
    EXPECT_EQ(camera_->streamingClients(), 0);
    EXPECT_EQ(camera_->captureState(), 0);
}

TEST_F(HalCameraTest, StartingAfterAFailedOpeningIsRecordedAsRunningAndEndsCleanly) {
    node_->InjectError(marlo_fake::kOpenRequest, ENOENT);
    ASSERT_FALSE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    size_t threads = ThreadCount();
    marlo_test::LogCapture log;
    /* The capture camera exists but has no node: its start only logs, as it does. */
    EXPECT_EQ(camera_->clientStreamStarting(), 0);
    EXPECT_EQ(camera_->captureState(), 1);
    EXPECT_EQ(CameraState(kNode0), "RUNNING");
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMON), 0u);
    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_EQ(camera_->streamingClients(), 0);
    EXPECT_EQ(CameraState(kNode0), "STOPPED");
    EXPECT_TRUE(ThreadCountReaches(threads)) << ThreadCount();
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

TEST_F(HalCameraTest, ClosingLogsTheCountsAndKeepsTheDeviceOpenWithoutStreamingClients) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    marlo_test::LogCapture log;
    camera_->clientStreamclosing();
    EXPECT_EQ(
        Count(log, ANDROID_LOG_INFO, "clientStreamclosing", "Clients(0) Streaming(0) State(0)"), 1u)
        << log.dump();
    /* The shutdown condition wants a non-zero streaming count: not met here. */
    EXPECT_GE(camera_->hwCamera()->Fd(), 0);
    EXPECT_EQ(node_->OpenDescriptors(), 1u);
}

TEST_F(HalCameraTest, ClosingWhileAClientStreamsKeepsTheDeviceOpen) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    ASSERT_EQ(camera_->clientStreamStarting(), 0);
    marlo_test::LogCapture log;
    camera_->clientStreamclosing();
    EXPECT_EQ(
        Count(log, ANDROID_LOG_INFO, "clientStreamclosing", "Clients(0) Streaming(1) State(1)"), 1u)
        << log.dump();
    EXPECT_GE(camera_->hwCamera()->Fd(), 0);
    camera_->clientStreamEnding();
}

TEST_F(HalCameraTest, DestructionClosesFirst) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    marlo_test::LogCapture log;
    camera_.reset();
    EXPECT_EQ(
        Count(log, ANDROID_LOG_INFO, "clientStreamclosing", "Clients(0) Streaming(0) State(0)"), 1u)
        << log.dump();
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

TEST_F(HalCameraTest, DestructionWhileCapturingStopsTheCaptureFirst) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    ASSERT_EQ(camera_->clientStreamStarting(), 0);
    size_t threads = ThreadCount();
    marlo_test::LogCapture log;
    camera_.reset();
    EXPECT_EQ(Count(log, ANDROID_LOG_WARN, "~HalCamera",
                    "destroyed with 1 streaming clients, stopping capture"),
              1u)
        << log.dump();
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_TRUE(ThreadCountReaches(threads - 1)) << ThreadCount();
    EXPECT_EQ(CameraState(kNode0), "STOPPED");
}

TEST_F(HalCameraTest, OwningAnEmptyPointerFails) {
    marlo_test::LogCapture log;
    std::shared_ptr<VirtualCamera> none;
    EXPECT_FALSE(camera_->OwnVirtualCamera(none));
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "OwnVirtualCamera",
                    "Failed to create virtualCamera camera object"),
              1u)
        << log.dump();
    EXPECT_EQ(camera_->clientCount(), 0u);
}

TEST_F(HalCameraTest, OwningAppendsAndLogsTheNewSize) {
    auto vc = std::make_shared<VirtualCamera>(3, camera_);
    marlo_test::LogCapture log;
    EXPECT_TRUE(camera_->OwnVirtualCamera(vc));
    EXPECT_EQ(camera_->clientCount(), 1u);
    std::string text = std::string("CAM(") + kNode0 + ") add virtual camera, size 1 \n";
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, "OwnVirtualCamera", text), 1u) << log.dump();
}

TEST_F(HalCameraTest, MakeVirtualCameraOwnsTheNewClient) {
    std::shared_ptr<VirtualCamera> vc = camera_->MakeVirtualCamera(5);
    ASSERT_NE(vc, nullptr);
    EXPECT_EQ(vc->id(), 5);
    EXPECT_EQ(vc->state(), 0);
    EXPECT_EQ(camera_->clientCount(), 1u);
    auto cameras = vc->getHalCameras();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras[0], camera_);
    /* A weak reference only. */
    EXPECT_EQ(camera_.use_count(), 2);
}

TEST_F(HalCameraTest, MakeVirtualCameraNeedsASharedOwner) {
    HalCamera unowned(kNode1);
    EXPECT_THROW(unowned.MakeVirtualCamera(1), std::bad_weak_ptr);
}

TEST_F(HalCameraTest, DuplicateIdAsTheLastEntryIsRemovedAndStopped) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    std::shared_ptr<VirtualCamera> first = camera_->MakeVirtualCamera(1);
    std::shared_ptr<VirtualCamera> old = camera_->MakeVirtualCamera(2);
    ASSERT_EQ(old->startVideoStream(nullptr), 0);
    ASSERT_EQ(old->state(), 1);

    marlo_test::LogCapture log;
    std::shared_ptr<VirtualCamera> fresh = camera_->MakeVirtualCamera(2);
    ASSERT_NE(fresh, nullptr);
    EXPECT_NE(fresh, old);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "operator()",
                    "WARNING! Adding virtual camera already exits!!!!!"),
              1u)
        << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "MakeVirtualCamera",
                    "WARNING! virtual camera 2 in wrong state 1"),
              1u)
        << log.dump();
    EXPECT_EQ(old->state(), 0);
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_EQ(camera_->clientCount(), 2u);
}

TEST_F(HalCameraTest, DuplicateIdFollowedByAnotherEntryIsRemovedButNotStopped) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    std::shared_ptr<VirtualCamera> old = camera_->MakeVirtualCamera(1);
    std::shared_ptr<VirtualCamera> other = camera_->MakeVirtualCamera(2);
    ASSERT_EQ(old->startVideoStream(nullptr), 0);

    marlo_test::LogCapture log;
    std::shared_ptr<VirtualCamera> fresh = camera_->MakeVirtualCamera(1);
    ASSERT_NE(fresh, nullptr);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "operator()",
                    "WARNING! Adding virtual camera already exits!!!!!"),
              1u)
        << log.dump();
    /* The later entry cleared the holder: the old client keeps running. */
    EXPECT_FALSE(log.containsText("in wrong state")) << log.dump();
    EXPECT_EQ(old->state(), 1);
    EXPECT_EQ(camera_->captureState(), 1);
    EXPECT_EQ(camera_->clientCount(), 2u);
    old->stopVideoStream();
    EXPECT_EQ(camera_->captureState(), 0);
}

TEST_F(HalCameraTest, DuplicateOfAStoppedClientReportsState0) {
    std::shared_ptr<VirtualCamera> old = camera_->MakeVirtualCamera(4);
    marlo_test::LogCapture log;
    std::shared_ptr<VirtualCamera> fresh = camera_->MakeVirtualCamera(4);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "MakeVirtualCamera",
                    "WARNING! virtual camera 4 in wrong state 0"),
              1u)
        << log.dump();
    /* Stopping a stopped client only logs. */
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Vcam(4), "stopVideoStream",
                         "Failed to stop video stream in state 0"),
              1u)
        << log.dump();
    EXPECT_EQ(camera_->clientCount(), 1u);
}

TEST_F(HalCameraTest, OrphanEntriesAreDroppedWhenMaking) {
    std::shared_ptr<VirtualCamera> gone = camera_->MakeVirtualCamera(1);
    gone.reset();
    ASSERT_EQ(camera_->clientCount(), 1u);
    marlo_test::LogCapture log;
    std::shared_ptr<VirtualCamera> vc = camera_->MakeVirtualCamera(2);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_ERROR, "operator()", "WARNING! deleting orphan virtual camera!"), 1u)
        << log.dump();
    EXPECT_EQ(camera_->clientCount(), 1u);
}

TEST_F(HalCameraTest, DisowningAnEmptyPointerOnlyLogs) {
    std::shared_ptr<VirtualCamera> vc = camera_->MakeVirtualCamera(1);
    std::shared_ptr<VirtualCamera> none;
    marlo_test::LogCapture log;
    camera_->DisownVirtualCamera(none);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "DisownVirtualCamera",
                    "Ignoring disownVirtualCamera call with null pointer"),
              1u)
        << log.dump();
    EXPECT_EQ(camera_->clientCount(), 1u);
}

TEST_F(HalCameraTest, DisowningRemovesTheClientsOwnEntryAndDropsOrphansWithAWarning) {
    std::shared_ptr<VirtualCamera> gone = camera_->MakeVirtualCamera(1);
    std::shared_ptr<VirtualCamera> kept = camera_->MakeVirtualCamera(2);
    std::shared_ptr<VirtualCamera> leaving = camera_->MakeVirtualCamera(3);
    gone.reset();
    marlo_test::LogCapture log;
    camera_->DisownVirtualCamera(leaving);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_WARN, "operator()", "WARNING! deleting orphan virtual camera!"), 1u)
        << log.dump();
    EXPECT_EQ(
        Count(log, ANDROID_LOG_INFO, "DisownVirtualCamera", "remove virtual camera 3, size 1\n"),
        1u)
        << log.dump();
    EXPECT_EQ(camera_->clientCount(), 1u);
    /* The list holds weak references only. */
    EXPECT_EQ(leaving.use_count(), 1);
}

TEST_F(HalCameraTest, DisowningASupersededClientKeepsTheEntryThatReplacedIt) {
    std::shared_ptr<VirtualCamera> older = camera_->MakeVirtualCamera(6);
    std::shared_ptr<VirtualCamera> newer = camera_->MakeVirtualCamera(6);
    ASSERT_NE(newer, older);
    ASSERT_EQ(camera_->clientCount(), 1u);

    marlo_test::LogCapture log;
    camera_->DisownVirtualCamera(older);
    EXPECT_EQ(camera_->clientCount(), 1u);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_INFO, "DisownVirtualCamera", "remove virtual camera 6, size 1\n"),
        1u)
        << log.dump();

    /* The newer one's own close then takes its entry. */
    camera_->DisownVirtualCamera(newer);
    EXPECT_EQ(camera_->clientCount(), 0u);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_INFO, "DisownVirtualCamera", "remove virtual camera 6, size 0\n"),
        1u)
        << log.dump();
}
