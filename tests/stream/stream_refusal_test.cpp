/*
 * The stream's answers to refusals the camera layer never gives in practice:
 * a camera that makes no client camera and a client camera that does not
 * open. The tests install camera hooks that refuse when asked and otherwise
 * hand over to the camera members.
 */
#include <linux/videodev2.h>

#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "camera/camera_hooks.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/virtual_camera.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"
#include "stream_test_util.h"
#include "support/log_capture.h"

using stream_test::Count;
using tessaro::marlo::HalCamera;
using tessaro::marlo::V4l2Stream;
using tessaro::marlo::VirtualCamera;
using tessaro::marlo::detail::CameraHooks;
using Registry = tessaro::marlo::detail::StreamRegistryAccess;

namespace {

constexpr char kDevice[] = "/dev/video-refusal0";

/* Refuses a call while asked to; otherwise the camera members answer. */
struct RefusingHooks : CameraHooks {
    std::shared_ptr<VirtualCamera> makeVirtualCamera(HalCamera& camera, int clientId) override {
        if (refuseMake)
            return nullptr;
        return CameraHooks::makeVirtualCamera(camera, clientId);
    }
    bool openVideoStream(VirtualCamera& client, int width, int height, int format) override {
        if (refuseOpen)
            return false;
        return CameraHooks::openVideoStream(client, width, height, format);
    }

    std::atomic<bool> refuseMake{false};
    std::atomic<bool> refuseOpen{false};
};

}  // namespace

class StreamRefusalTest : public ::testing::Test {
  protected:
    void SetUp() override { previous_ = CameraHooks::Install(&hooks_); }
    void TearDown() override { CameraHooks::Install(previous_); }

    RefusingHooks hooks_;
    CameraHooks* previous_ = nullptr;
};

TEST_F(StreamRefusalTest, TheStreamCallsGoThroughTheInstalledHooks) {
    /* Without this the tests below would prove nothing. */
    V4l2Stream stream;
    hooks_.refuseMake = true;
    EXPECT_EQ(stream.OpenCamera(1, kDevice, 64, 48, V4L2_PIX_FMT_NV12), -2);
    hooks_.refuseMake = false;
    EXPECT_EQ(stream.OpenCamera(1, kDevice, 64, 48, V4L2_PIX_FMT_NV12), 0);
    stream.CloseCamera();
    EXPECT_EQ(Registry::Size(), 0u);
}

TEST_F(StreamRefusalTest, NoClientCameraFailsTheOpenAndKeepsTheCameraRegistered) {
    V4l2Stream stream;
    hooks_.refuseMake = true;
    marlo_test::LogCapture log;
    EXPECT_EQ(stream.OpenCamera(2, kDevice, 64, 48, V4L2_PIX_FMT_NV12), -2);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kDevice, 2, "OpenCamera",
                    "hw camera not found or not available"),
              1u)
        << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kDevice, 2, "OpenCamera", "succeed"), 0u);
    /* The camera stays registered with no client, for the next opener to reuse. */
    std::shared_ptr<HalCamera> hal = Registry::Find(kDevice);
    ASSERT_NE(hal, nullptr);
    EXPECT_EQ(hal->clientCount(), 0u);
    /* The stream holds no client camera: every call is refused. */
    EXPECT_EQ(stream.ClientStartStream(nullptr), -2);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_ERROR, kDevice, 2, "ClientStartStream", "start with null vcam"), 1u);

    hooks_.refuseMake = false;
    log.clear();
    V4l2Stream next;
    ASSERT_EQ(next.OpenCamera(3, kDevice, 64, 48, V4L2_PIX_FMT_NV12), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kDevice, 3, "OpenCamera",
                    std::string("find deviceId ") + kDevice + " in list"),
              1u)
        << log.dump();
    EXPECT_EQ(Registry::Find(kDevice), hal);
    hal.reset();
    next.CloseCamera();
    EXPECT_EQ(Registry::Size(), 0u);
}

TEST_F(StreamRefusalTest, ClientCameraThatDoesNotOpenFailsTheStart) {
    V4l2Stream stream;
    ASSERT_EQ(stream.OpenCamera(4, kDevice, 64, 48, V4L2_PIX_FMT_NV12), 0);
    hooks_.refuseOpen = true;
    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientStartStream(nullptr), -2);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kDevice, 4, "ClientStartStream", "failed to open vcam"),
              1u)
        << log.dump();
    /* Refused before the state changes. */
    EXPECT_EQ(stream.state(), 0u);
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kDevice, 4, "ClientStartStream", "stream state 1"), 0u);
    stream.CloseCamera();
    EXPECT_EQ(Registry::Size(), 0u);
}
