/*
 * Paths of the shared camera that the fake kernel cannot reach: a client
 * camera the camera fails to own, and a capture node that reports only an
 * error right after start. This executable defines the two functions the
 * library asks; the dynamic linker binds the library's calls to these
 * definitions, which hand over to the library's own unless a test asks
 * otherwise.
 */
#include <dlfcn.h>
#include <linux/videodev2.h>

#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "camera/frame_fan_out.h"
#include "camera_test_util.h"
#include "fake_v4l2.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/virtual_camera.h"
#include "support/log_capture.h"

using namespace camera_test;
using tessaro::marlo::HalCamera;
using tessaro::marlo::VirtualCamera;

namespace {

std::atomic<bool> refuse_own{false};
std::atomic<bool> report_error{false};
std::atomic<int> asked_fd{-2};

/* The library's definitions, found past this executable. */
template <typename F>
F Next(const char* symbol) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, symbol));
}

}  // namespace

namespace tessaro::marlo {

bool HalCamera::OwnVirtualCamera(std::shared_ptr<VirtualCamera>& vc) {
    using Real = bool (*)(HalCamera*, std::shared_ptr<VirtualCamera>&);
    static Real real = Next<Real>(
        "_ZN7tessaro5marlo9HalCamera16OwnVirtualCameraERSt10shared_ptrINS0_13VirtualCameraEE");
    if (refuse_own || real == nullptr)
        return false;
    return real(this, vc);
}

namespace detail {

bool ReportsOnlyError(int fd) {
    using Real = bool (*)(int);
    static Real real = Next<Real>("_ZN7tessaro5marlo6detail16ReportsOnlyErrorEi");
    asked_fd = fd;
    if (report_error)
        return true;
    return real != nullptr && real(fd);
}

}  // namespace detail
}  // namespace tessaro::marlo

namespace {

class CameraSeamTest : public ::testing::Test {
  protected:
    void SetUp() override {
        marlo_fake::VideoNodeConfig config;
        config.formats = {{V4L2_PIX_FMT_GREY, "Grey"}};
        node_ = marlo_fake::AddVideoNode(kNode0, config);
        camera_ = std::make_shared<HalCamera>(kNode0);
    }
    void TearDown() override {
        refuse_own = false;
        report_error = false;
        camera_.reset();
        node_.reset();
        marlo_fake::Reset();
    }

    std::shared_ptr<marlo_fake::FakeVideoNode> node_;
    std::shared_ptr<HalCamera> camera_;
};

}  // namespace

TEST_F(CameraSeamTest, AClientCameraThatCannotBeOwnedIsNotHandedOut) {
    refuse_own = true;
    marlo_test::LogCapture log;
    EXPECT_EQ(camera_->MakeVirtualCamera(6), nullptr);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Cam(kNode0), "MakeVirtualCamera",
                         "Failed to own a client camera 6 object\n"),
              1u)
        << log.dump();
    EXPECT_EQ(camera_->clientCount(), 0u);

    /* Handed over to the library's own, the same call succeeds. */
    refuse_own = false;
    std::shared_ptr<VirtualCamera> vc = camera_->MakeVirtualCamera(6);
    ASSERT_NE(vc, nullptr);
    EXPECT_EQ(camera_->clientCount(), 1u);
}

TEST_F(CameraSeamTest, ACaptureNodeReportingOnlyAnErrorAfterStartStopsTheIoThread) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    size_t threads = ThreadCount();
    report_error = true;
    asked_fd = -2;
    marlo_test::LogCapture log;
    EXPECT_EQ(camera_->clientStreamStarting(), 0);
    /* The capture node itself was asked, right after the start. */
    EXPECT_EQ(asked_fd.load(), camera_->hwCamera()->Fd());
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Cam(kNode0), "clientStreamStarting",
                         "capture node reports an error after start, IO thread stopped"),
              1u)
        << log.dump();
    /* No IO thread is left to spin, yet the capture counts as running ... */
    EXPECT_TRUE(ThreadCountReaches(threads)) << ThreadCount();
    EXPECT_EQ(camera_->captureState(), 1);
    EXPECT_EQ(camera_->streamingClients(), 1);
    EXPECT_EQ(CameraState(kNode0), "RUNNING");

    /* ... and the usual end stops it. */
    camera_->clientStreamEnding();
    EXPECT_EQ(camera_->captureState(), 0);
    EXPECT_FALSE(node_->Streaming());
    EXPECT_EQ(CameraState(kNode0), "STOPPED");
    EXPECT_TRUE(ThreadCountReaches(threads)) << ThreadCount();
}

TEST_F(CameraSeamTest, AHealthyCaptureNodeKeepsTheIoThread) {
    ASSERT_TRUE(camera_->clientStreamOpening(64, 48, V4L2_PIX_FMT_GREY));
    size_t threads = ThreadCount();
    marlo_test::LogCapture log;
    asked_fd = -2;
    EXPECT_EQ(camera_->clientStreamStarting(), 0);
    EXPECT_EQ(asked_fd.load(), camera_->hwCamera()->Fd());
    EXPECT_FALSE(log.containsText("reports an error after start")) << log.dump();
    EXPECT_TRUE(ThreadCountReaches(threads + 1)) << ThreadCount();
    camera_->clientStreamEnding();
    EXPECT_TRUE(ThreadCountReaches(threads)) << ThreadCount();
}
