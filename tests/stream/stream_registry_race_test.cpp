/*
 * Opens and closes of one device on several threads at once. The tests
 * install camera hooks that can hold a thread at the stream's call of two
 * camera members and let another thread run into the gap; the calls then go
 * on to the members.
 */
#include <linux/videodev2.h>
#include <string.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "camera/camera_hooks.h"
#include "fake_v4l2.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/virtual_camera.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"
#include "stream_test_util.h"
#include "support/gate.h"
#include "support/log_capture.h"

using namespace std::chrono_literals;
using tessaro::marlo::HalCamera;
using tessaro::marlo::V4l2Stream;
using tessaro::marlo::VirtualCamera;
using tessaro::marlo::detail::CameraHooks;
using Registry = tessaro::marlo::detail::StreamRegistryAccess;

namespace {

constexpr char kDevice[] = "/dev/video-race0";
constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr auto kWait = 10s;

/*
 * Holds the next call of a member at its start: entered() opens when the
 * call arrived, and the call goes on once the test opens release().
 */
struct Hold {
    std::atomic<bool> armed{false};
    marlo_test::Gate entered;
    marlo_test::Gate release;

    void pass() {
        if (!armed.exchange(false))
            return;
        entered.open();
        release.wait();
    }
};

/* Holds the stream's next call of each member when armed. */
struct HoldingHooks : CameraHooks {
    std::shared_ptr<VirtualCamera> makeVirtualCamera(HalCamera& camera, int clientId) override {
        make.pass();
        return CameraHooks::makeVirtualCamera(camera, clientId);
    }
    void clientStreamclosing(HalCamera& camera) override {
        closing.pass();
        CameraHooks::clientStreamclosing(camera);
    }

    Hold make;
    Hold closing;
};

int Open(V4l2Stream& stream, int client) {
    return stream.OpenCamera(client, kDevice, kWidth, kHeight, V4L2_PIX_FMT_NV12);
}

}  // namespace

class StreamRegistryRaceTest : public ::testing::Test {
  protected:
    void SetUp() override {
        node_ = marlo_fake::AddVideoNode(kDevice);
        previous_ = CameraHooks::Install(&hooks_);
    }
    void TearDown() override {
        CameraHooks::Install(previous_);
        EXPECT_EQ(Registry::Size(), 0u);
        node_.reset();
        marlo_fake::Reset();
    }

    HoldingHooks hooks_;
    CameraHooks* previous_ = nullptr;
    std::shared_ptr<marlo_fake::FakeVideoNode> node_;
};

TEST_F(StreamRegistryRaceTest, TheStreamCallsGoThroughTheInstalledHooks) {
    /* Without this the tests below would prove nothing. */
    V4l2Stream stream;
    hooks_.make.armed = true;
    auto opened = std::async(std::launch::async, [&] { return Open(stream, 1); });
    hooks_.make.entered.wait();
    hooks_.make.release.open();
    EXPECT_EQ(opened.get(), 0);
    hooks_.closing.armed = true;
    hooks_.closing.release.open();
    stream.CloseCamera();
    EXPECT_FALSE(hooks_.closing.armed);
}

TEST_F(StreamRegistryRaceTest, CloseWhileAnotherClientAttachesKeepsTheCameraRegistered) {
    V4l2Stream first;
    ASSERT_EQ(Open(first, 1), 0);
    std::shared_ptr<HalCamera> hal = Registry::Find(kDevice);
    ASSERT_NE(hal, nullptr);

    /* The second client has found the camera and is about to attach. */
    V4l2Stream second;
    hooks_.make.armed = true;
    auto opened = std::async(std::launch::async, [&] { return Open(second, 2); });
    hooks_.make.entered.wait();

    marlo_test::LogCapture log;
    first.CloseCamera();
    EXPECT_EQ(
        stream_test::Count(log, ANDROID_LOG_INFO, kDevice, 1, "CloseCamera",
                           std::string("another client is opening ") + kDevice + ", camera kept"),
        1u)
        << log.dump();
    hooks_.make.release.open();
    ASSERT_EQ(opened.get(), 0);

    EXPECT_EQ(Registry::Find(kDevice), hal);
    EXPECT_EQ(hal->clientCount(), 1u);
    hal.reset();
    second.CloseCamera();
}

TEST_F(StreamRegistryRaceTest, OpenWaitsUntilTheClosedCameraIsGone) {
    V4l2Stream first;
    ASSERT_EQ(Open(first, 1), 0);
    stream_test::Client client;
    ASSERT_EQ(first.ClientStartStream(client.callback()), 0);
    ASSERT_TRUE(node_->Streaming());
    std::weak_ptr<HalCamera> closingCamera = Registry::Find(kDevice);

    /* The camera has left the registry and is being shut. */
    hooks_.closing.armed = true;
    auto closed = std::async(std::launch::async, [&] { first.CloseCamera(); });
    hooks_.closing.entered.wait();
    EXPECT_EQ(Registry::Size(), 0u);

    V4l2Stream second;
    marlo_test::LogCapture log;
    auto opened = std::async(std::launch::async, [&] { return Open(second, 2); });
    EXPECT_EQ(opened.wait_for(200ms), std::future_status::timeout);
    EXPECT_FALSE(closingCamera.expired());

    hooks_.closing.release.open();
    closed.get();
    ASSERT_EQ(opened.get(), 0);
    EXPECT_TRUE(closingCamera.expired());
    EXPECT_EQ(stream_test::Count(log, ANDROID_LOG_INFO, kDevice, 2, "OpenCamera",
                                 std::string("waiting for the closing camera of ") + kDevice),
              1u)
        << log.dump();

    /* The new camera has the device to itself. */
    ASSERT_EQ(second.ClientStartStream(client.callback()), 0);
    EXPECT_TRUE(node_->Streaming());
    EXPECT_EQ(node_->OpenDescriptors(), 1u);
    second.CloseCamera();
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    client.clear();
}

TEST_F(StreamRegistryRaceTest, ClientsOpeningAndClosingAtOnceNeverShareTheDeviceTwice) {
    /* Also run under ThreadSanitizer and AddressSanitizer. */
    constexpr int kThreads = 4;
    constexpr int kRounds = 100;
    marlo_test::LogCapture log;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &failures] {
            stream_test::Client client;
            for (int round = 0; round < kRounds; ++round) {
                V4l2Stream stream;
                if (Open(stream, t) != 0 || stream.ClientStartStream(client.callback()) != 0)
                    failures.fetch_add(1);
                /* A client with a camera is always the registered one's. */
                std::shared_ptr<HalCamera> registered = Registry::Find(kDevice);
                if (registered == nullptr || registered->clientCount() == 0)
                    failures.fetch_add(1);
                registered.reset();
                stream.ClientStopStream();
                stream.CloseCamera();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    EXPECT_EQ(failures.load(), 0);
    EXPECT_FALSE(log.containsText("Failed to open a hw camera")) << log.dump();
    EXPECT_FALSE(log.containsText(strerror(EBUSY))) << log.dump();
    EXPECT_EQ(Registry::Size(), 0u);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

TEST_F(StreamRegistryRaceTest, ACameraHeldElsewhereAtCloseIsDestroyedByItsLastHolder) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    std::shared_ptr<HalCamera> held = Registry::Find(kDevice);
    std::weak_ptr<HalCamera> watch = held;
    marlo_test::LogCapture log;
    stream.CloseCamera();
    EXPECT_EQ(stream_test::Count(
                  log, ANDROID_LOG_WARN, kDevice, 1, "CloseCamera",
                  std::string("camera of ") + kDevice + " still held elsewhere, destroyed there"),
              1u)
        << log.dump();
    EXPECT_EQ(Registry::Size(), 0u);
    EXPECT_FALSE(watch.expired());
    held.reset();
    EXPECT_TRUE(watch.expired());
}
