/*
 * Stream events as a client sees them: started and stopped, dropped frames,
 * the listener's thread and its calling rules, and the frame rate a client
 * or the board configuration asks for.
 */
#include <linux/videodev2.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "config/board_configs_access.h"
#include "marlo/base/error.h"
#include "marlo/camera/hal_camera.h"
#include "stream_events_util.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace camera_test;
using namespace stream_test;
using tessaro::marlo::V4l2Stream;
using Registry = tessaro::marlo::detail::StreamRegistryAccess;

namespace {

using namespace std::chrono_literals;
using EventsTest = StreamEventsTest;

}  // namespace

TEST_F(EventsTest, StartAndStopArriveInOrderOnTheEventThread) {
    EventLog events;
    V4l2Stream stream;
    ASSERT_EQ(stream.ClientSetEventListener(events.listener()), 0);
    ASSERT_EQ(Open(stream, 1), 0);
    auto frame = Nv12(1);
    Client client;
    ASSERT_EQ(LendAndStart(stream, client, frame), 0);
    ASSERT_TRUE(events.waitFor(StreamEventType::kStreamStarted));
    stream.ClientStopStream();
    ASSERT_TRUE(events.waitFor(StreamEventType::kStreamStopped));
    stream.CloseCamera();

    std::vector<StreamEventType> expected = {StreamEventType::kStreamStarted,
                                             StreamEventType::kStreamStopped};
    EXPECT_EQ(events.types(), expected) << events.dump();
    for (const StreamEvent& event : events.events()) {
        EXPECT_EQ(event.deviceId, kNode0);
        EXPECT_EQ(event.clientId, 1);
        EXPECT_EQ(event.status, 0);
        EXPECT_GT(event.timestampNs, 0u);
    }
    for (std::thread::id thread : events.threads())
        EXPECT_NE(thread, std::this_thread::get_id());
}

TEST_F(EventsTest, ClosingAStreamingClientTellsItStopped) {
    EventLog events;
    V4l2Stream stream;
    stream.ClientSetEventListener(events.listener());
    ASSERT_EQ(Open(stream, 2), 0);
    auto frame = Nv12(1);
    Client client;
    ASSERT_EQ(LendAndStart(stream, client, frame), 0);
    stream.CloseCamera();
    ASSERT_TRUE(events.waitFor(StreamEventType::kStreamStopped));
    EXPECT_EQ(events.count(StreamEventType::kStreamStarted), 1u);
}

TEST_F(EventsTest, AClientWithoutAFreeSetIsToldItMissedTheFrame) {
    EventLog events;
    V4l2Stream stream;
    stream.ClientSetEventListener(events.listener());
    ASSERT_EQ(Open(stream, 1), 0);
    auto frame = Nv12(1);
    Client client;  // keeps every set it receives
    ASSERT_EQ(LendAndStart(stream, client, frame), 0);
    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(20, {1, 0}, 0x10)));
    ASSERT_TRUE(client.waitFor(1));
    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(21, {1, 0}, 0x20)));
    ASSERT_TRUE(events.waitFor(StreamEventType::kFrameDropped));
    StreamEvent dropped = events.first(StreamEventType::kFrameDropped);
    EXPECT_EQ(dropped.sequence, 21u);
    EXPECT_EQ(dropped.clientId, 1);
    EXPECT_EQ(client.count(), 1u);
    stream.CloseCamera();
}

TEST_F(EventsTest, AListenerMayStopAndCloseItsOwnStream) {
    marlo_test::FdLeakCheck fds;
    {
        EventLog events;
        std::atomic<bool> closed{false};
        V4l2Stream stream;
        stream.ClientSetEventListener(events.listener([&](const StreamEvent& event) {
            if (event.type != StreamEventType::kFrameDropped || closed)
                return;
            stream.ClientStopStream();
            stream.CloseCamera();
            closed = true;
        }));
        ASSERT_EQ(Open(stream, 1), 0);
        auto frame = Nv12(1);
        Client client;
        ASSERT_EQ(LendAndStart(stream, client, frame), 0);
        node_->StartFrames(2ms);
        ASSERT_TRUE(WaitUntil([&] { return closed.load(); })) << events.dump();
        node_->StopFrames();
        EXPECT_EQ(Registry::Size(), 0u);
        EXPECT_EQ(stream.clientId(), -1);
        EXPECT_FALSE(node_->Streaming());
    }
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(EventsTest, AListenerMayOpenAnotherClient) {
    EventLog events;
    std::atomic<int> opened{1};
    V4l2Stream other;
    V4l2Stream stream;
    stream.ClientSetEventListener(events.listener([&](const StreamEvent& event) {
        if (event.type == StreamEventType::kStreamStarted)
            opened = Open(other, 2);
    }));
    ASSERT_EQ(Open(stream, 1), 0);
    auto frame = Nv12(1);
    Client client;
    ASSERT_EQ(LendAndStart(stream, client, frame), 0);
    ASSERT_TRUE(WaitUntil([&] { return opened.load() == 0; }));
    EXPECT_EQ(Registry::Find(kNode0)->clientCount(), 2u);
    other.CloseCamera();
    stream.CloseCamera();
}

TEST_F(EventsTest, ARemovedListenerIsNeverCalledAgain) {
    std::atomic<int> calls{0};
    std::atomic<bool> inside{false};
    V4l2Stream stream;
    stream.ClientSetEventListener([&](const StreamEvent&) {
        inside = true;
        ++calls;
        std::this_thread::sleep_for(5ms);
        inside = false;
    });
    ASSERT_EQ(Open(stream, 1), 0);
    auto frame = Nv12(1);
    Client client;  // keeps its one set: every later frame is a drop
    ASSERT_EQ(LendAndStart(stream, client, frame), 0);
    node_->StartFrames(1ms);
    ASSERT_TRUE(WaitUntil([&] { return calls.load() >= 3; }));
    ASSERT_EQ(stream.ClientSetEventListener(nullptr), 0);
    /* No call runs once the removal returned, and none starts later. */
    EXPECT_FALSE(inside.load());
    int after = calls.load();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(calls.load(), after);
    node_->StopFrames();
    stream.CloseCamera();
}

TEST_F(EventsTest, AListenerSetBeforeOpeningFollowsTheStreamAcrossReopening) {
    EventLog events;
    V4l2Stream stream;
    stream.ClientSetEventListener(events.listener());
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(Open(stream, 5), 0);
        auto frame = Nv12(1);
        Client client;
        ASSERT_EQ(LendAndStart(stream, client, frame), 0);
        stream.CloseCamera();
    }
    ASSERT_TRUE(events.waitFor(StreamEventType::kStreamStopped, 2));
    EXPECT_EQ(events.count(StreamEventType::kStreamStarted), 2u);
}

TEST_F(EventsTest, TheEventThreadEndsWithTheLastListener) {
    size_t before = ThreadCount();
    {
        V4l2Stream stream;
        stream.ClientSetEventListener([](const StreamEvent&) {});
        EXPECT_EQ(ThreadCount(), before + 1);
        V4l2Stream second;
        second.ClientSetEventListener([](const StreamEvent&) {});
        EXPECT_EQ(ThreadCount(), before + 1);
    }
    EXPECT_TRUE(ThreadCountReaches(before)) << ThreadCount();
}

TEST_F(EventsTest, TheClientsFrameRateIsAskedForBeforeStreaming) {
    V4l2Stream stream;
    EXPECT_EQ(stream.ClientSetFrameRate(25.0f), -2);
    ASSERT_EQ(Open(stream, 1), 0);
    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientSetFrameRate(0.0f), tessaro::marlo::ERR_INVALID_ARGUMENT);
    EXPECT_EQ(stream.ClientSetFrameRate(-3.0f), tessaro::marlo::ERR_INVALID_ARGUMENT);
    EXPECT_EQ(stream.ClientSetFrameRate(25.0f), 0);
    auto frame = Nv12(1);
    Client client;
    ASSERT_EQ(LendAndStart(stream, client, frame), 0);

    /* S_PARM comes before STREAMON. */
    int parm = -1;
    int streamon = -1;
    auto requests = node_->Requests();
    for (size_t i = 0; i < requests.size(); ++i) {
        if (requests[i].request == VIDIOC_S_PARM && parm < 0)
            parm = static_cast<int>(i);
        if (requests[i].request == VIDIOC_STREAMON && streamon < 0)
            streamon = static_cast<int>(i);
    }
    ASSERT_GE(parm, 0);
    EXPECT_LT(parm, streamon);
    EXPECT_EQ(requests[static_cast<size_t>(parm)].numerator, 1000u);
    EXPECT_EQ(requests[static_cast<size_t>(parm)].denominator, 25000u);
    EXPECT_EQ(node_->FrameInterval().denominator, 25000u);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_INFO, Cam(kNode0), "applyFrameRate",
                         "frame rate asked 25.00 fps, granted 25.00 fps"),
              1u)
        << log.dump();
    stream.CloseCamera();
}

TEST_F(EventsTest, TheBoardConfigurationsRateAppliesWhenNoClientAsks) {
    const char* root = getenv("MARLO_SYSROOT");
    ASSERT_NE(root, nullptr);
    const std::string override = std::string(root) + "/vendor/etc/marlo_config_override.xml";
    {
        std::ofstream out(override);
        out << "<?xml version=\"1.0\"?><CameraConfig><board name=\"Rates\"><cameras>"
               "<camera id=\"0\"><channels><channel id=\"0\" dev=\""
            << kNode0
            << "\"><cameraModel>m</cameraModel>"
               "<stream id=\"0\" format=\"UYVY\" width=\"1920\" height=\"1080\" fps=\"10\"/>"
               "<stream id=\"1\" format=\"NV12\" width=\"64\" height=\"48\" fps=\"15\"/>"
               "</channel></channels></camera></cameras></board></CameraConfig>";
    }
    tessaro::marlo::detail::BoardConfigsAccess::Clear();
    {
        V4l2Stream stream;
        ASSERT_EQ(Open(stream, 1), 0);
        auto frame = Nv12(1);
        Client client;
        ASSERT_EQ(LendAndStart(stream, client, frame), 0);
        /* The stream of the opened geometry, not the first one. */
        EXPECT_EQ(node_->FrameInterval().numerator, 1000u);
        EXPECT_EQ(node_->FrameInterval().denominator, 15000u);
        stream.CloseCamera();
    }
    std::filesystem::remove(override);
    tessaro::marlo::detail::BoardConfigsAccess::Clear();
}

TEST_F(EventsTest, WithoutAnAskedRateTheDriversOwnStays) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    auto frame = Nv12(1);
    Client client;
    ASSERT_EQ(LendAndStart(stream, client, frame), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_S_PARM), 0u);
    /* The interval is still read, to know how long a stall is. */
    EXPECT_EQ(node_->CountRequests(VIDIOC_G_PARM), 1u);
    stream.CloseCamera();
}

TEST(StreamEventTypeNameTest, EveryEventHasItsNameAndOtherValuesAreUnknown) {
    using tessaro::marlo::StreamEventTypeName;
    const std::pair<StreamEventType, std::string> named[] = {
        {StreamEventType::kStreamStarted, "StreamStarted"},
        {StreamEventType::kStreamStopped, "StreamStopped"},
        {StreamEventType::kStartFailed, "StartFailed"},
        {StreamEventType::kFrameDropped, "FrameDropped"},
        {StreamEventType::kCaptureStalled, "CaptureStalled"},
        {StreamEventType::kDeviceLost, "DeviceLost"},
        {StreamEventType::kDeviceRecovered, "DeviceRecovered"},
        {StreamEventType::kFormatAdjusted, "FormatAdjusted"},
    };
    for (const auto& [type, name] : named)
        EXPECT_EQ(StreamEventTypeName(type), name);
    for (int32_t value : {8, 1000, -1, INT32_MIN})
        EXPECT_STREQ(StreamEventTypeName(static_cast<StreamEventType>(value)), "Unknown") << value;
}
