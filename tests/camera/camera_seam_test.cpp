/*
 * A path of the shared camera that the fake kernel cannot reach: a client
 * camera the camera fails to own. The test installs camera hooks that
 * refuse the ownership when asked and otherwise hand over to the camera.
 */
#include <atomic>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "camera/camera_hooks.h"
#include "camera_test_util.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/virtual_camera.h"
#include "support/log_capture.h"

using namespace camera_test;
using tessaro::marlo::HalCamera;
using tessaro::marlo::VirtualCamera;
using tessaro::marlo::detail::CameraHooks;

namespace {

/* Refuses to own client cameras while asked to. */
struct RefusingHooks : CameraHooks {
    bool ownVirtualCamera(HalCamera& camera, std::shared_ptr<VirtualCamera>& client) override {
        if (refuseOwn)
            return false;
        return CameraHooks::ownVirtualCamera(camera, client);
    }

    std::atomic<bool> refuseOwn{false};
};

class CameraSeamTest : public HalCameraFixture {
  protected:
    void SetUp() override {
        HalCameraFixture::SetUp();
        previous_ = CameraHooks::Install(&hooks_);
    }
    void TearDown() override {
        CameraHooks::Install(previous_);
        HalCameraFixture::TearDown();
    }

    RefusingHooks hooks_;
    CameraHooks* previous_ = nullptr;
};

}  // namespace

TEST_F(CameraSeamTest, AClientCameraThatCannotBeOwnedIsNotHandedOut) {
    hooks_.refuseOwn = true;
    marlo_test::LogCapture log;
    EXPECT_EQ(camera_->MakeVirtualCamera(6), nullptr);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "MakeVirtualCamera",
                    "Failed to own a client camera 6 object\n"),
              1u)
        << log.dump();
    EXPECT_EQ(camera_->clientCount(), 0u);

    /* Handed over to the camera, the same call succeeds. */
    hooks_.refuseOwn = false;
    std::shared_ptr<VirtualCamera> vc = camera_->MakeVirtualCamera(6);
    ASSERT_NE(vc, nullptr);
    EXPECT_EQ(camera_->clientCount(), 1u);
}
