/*
 * A path of the shared camera that the fake kernel cannot reach: a client
 * camera the camera fails to own. This executable defines the function the
 * library asks; the dynamic linker binds the library's calls to this
 * definition, which hands over to the library's own unless a test asks
 * otherwise.
 */
#include <dlfcn.h>
#include <linux/videodev2.h>

#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>

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
