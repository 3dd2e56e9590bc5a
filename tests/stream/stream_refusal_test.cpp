/*
 * The stream's answers to refusals the camera layer never gives in practice:
 * a camera that makes no client camera and a client camera that does not
 * open. This executable defines the two camera members itself; the dynamic
 * linker binds the library's calls to these definitions, which hand over to
 * the library's own unless a test asks for a refusal.
 */
#include <dlfcn.h>
#include <linux/videodev2.h>

#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>

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
using Registry = tessaro::marlo::detail::StreamRegistryAccess;

namespace {

std::atomic<bool> refuse_make{false};
std::atomic<bool> refuse_open{false};

/* The library's definitions, found past this executable. */
template <typename F>
F Next(const char* symbol) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, symbol));
}

constexpr char kDevice[] = "/dev/video-refusal0";

}  // namespace

namespace tessaro::marlo {

std::shared_ptr<VirtualCamera> HalCamera::MakeVirtualCamera(int id) {
    using Real = std::shared_ptr<VirtualCamera> (*)(HalCamera*, int);
    static Real real = Next<Real>("_ZN7tessaro5marlo9HalCamera17MakeVirtualCameraEi");
    if (refuse_make || real == nullptr)
        return nullptr;
    return real(this, id);
}

bool VirtualCamera::openVideoStream(int width, int height, int format) {
    using Real = bool (*)(VirtualCamera*, int, int, int);
    static Real real = Next<Real>("_ZN7tessaro5marlo13VirtualCamera15openVideoStreamEiii");
    if (refuse_open || real == nullptr)
        return false;
    return real(this, width, height, format);
}

}  // namespace tessaro::marlo

class StreamRefusalTest : public ::testing::Test {
  protected:
    void TearDown() override {
        refuse_make = false;
        refuse_open = false;
    }
};

TEST_F(StreamRefusalTest, TheLibraryCallsGoThroughThisExecutable) {
    /* Without the binding the tests below would prove nothing. */
    V4l2Stream stream;
    refuse_make = true;
    EXPECT_EQ(stream.OpenCamera(1, kDevice, 64, 48, V4L2_PIX_FMT_NV12), -2);
    refuse_make = false;
    EXPECT_EQ(stream.OpenCamera(1, kDevice, 64, 48, V4L2_PIX_FMT_NV12), 0);
    stream.CloseCamera();
    EXPECT_EQ(Registry::Size(), 0u);
}

TEST_F(StreamRefusalTest, NoClientCameraFailsTheOpenAndKeepsTheCameraRegistered) {
    V4l2Stream stream;
    refuse_make = true;
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

    refuse_make = false;
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
    refuse_open = true;
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
