/* The stream session over the fake V4L2 kernel and the software 2D engine. */
#include <linux/videodev2.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "fake_v4l2.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"
#include "stream_test_util.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace camera_test;
using namespace stream_test;
using tessaro::marlo::FrameBufferRect;
using tessaro::marlo::HalCamera;
using tessaro::marlo::V4l2Stream;
using Registry = tessaro::marlo::detail::StreamRegistryAccess;

namespace {

using V4l2StreamTest = StreamTest;

}  // namespace

TEST_F(V4l2StreamTest, FirstOpenRegistersANewCameraAndOpensNothing) {
    V4l2Stream stream;
    marlo_test::LogCapture log;
    EXPECT_EQ(Open(stream, 3), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 3, "OpenCamera",
                    std::string("do not find deviceId ") + kNode0 + " in list, new halCamera"),
              1u)
        << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 3, "OpenCamera", "succeed"), 1u);
    EXPECT_EQ(Registry::Size(), 1u);
    std::shared_ptr<HalCamera> hal = Registry::Find(kNode0);
    ASSERT_NE(hal, nullptr);
    EXPECT_EQ(hal->clientCount(), 1u);
    EXPECT_EQ(hal->hwCamera(), nullptr);
    EXPECT_EQ(node_->CountRequests(marlo_fake::kOpenRequest), 0u);
    EXPECT_EQ(stream.clientId(), 3);
    EXPECT_EQ(stream.deviceId(), kNode0);
    EXPECT_EQ(stream.state(), 0u);
    hal.reset();
    stream.CloseCamera();
}

TEST_F(V4l2StreamTest, RegistryAllowsOneEntryPerBucket) {
    EXPECT_FLOAT_EQ(Registry::MaxLoadFactor(), 1.0f);
}

TEST_F(V4l2StreamTest, SecondClientSharesTheCameraUntilTheLastCloses) {
    V4l2Stream first;
    V4l2Stream second;
    ASSERT_EQ(Open(first, 1), 0);
    std::shared_ptr<HalCamera> hal = Registry::Find(kNode0);
    marlo_test::LogCapture log;
    ASSERT_EQ(Open(second, 2), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 2, "OpenCamera",
                    std::string("find deviceId ") + kNode0 + " in list"),
              1u)
        << log.dump();
    EXPECT_EQ(Registry::Find(kNode0), hal);
    EXPECT_EQ(Registry::Size(), 1u);
    EXPECT_EQ(hal->clientCount(), 2u);

    first.CloseCamera();
    EXPECT_EQ(Registry::Find(kNode0), hal);
    EXPECT_EQ(hal->clientCount(), 1u);

    std::weak_ptr<HalCamera> watch = hal;
    hal.reset();
    second.CloseCamera();
    EXPECT_EQ(Registry::Size(), 0u);
    EXPECT_TRUE(watch.expired());
}

TEST_F(V4l2StreamTest, FramesReachTheClientBuffersConvertedAndStamped) {
    marlo_test::FdLeakCheck fds;
    {
        V4l2Stream stream;
        ASSERT_EQ(Open(stream, 1), 0);
        auto same = Nv12(11);
        auto cropped = std::make_shared<MemFrame>(32, 24, V4L2_PIX_FMT_NV12, 32 * 24 * 3 / 2,
                                                  FrameBufferRect{16, 12, 32, 24}, 0, 12);
        auto rgba = std::make_shared<MemFrame>(32, 24, V4L2_PIX_FMT_RGBA32, 32 * 24 * 4,
                                               FrameBufferRect{}, 0, 13);
        ASSERT_TRUE(same->valid() && cropped->valid() && rgba->valid());
        FrameSet set{same->buffer(), cropped->buffer(), rgba->buffer()};
        ASSERT_EQ(stream.ClientSetBufferInfo(set), 0);

        Client client;
        marlo_test::LogCapture log;
        ASSERT_EQ(stream.ClientStartStream(client.callback()), 0);
        EXPECT_EQ(stream.state(), 1u);
        EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 1, "ClientStartStream", "stream state 1"),
                  1u)
            << log.dump();
        EXPECT_EQ(
            Count(log, ANDROID_LOG_INFO, kNode0, 1, "ClientStartStream", "open a vcam succeed"),
            1u);
        EXPECT_TRUE(node_->Streaming());
        EXPECT_EQ(node_->Format().fmt.pix_mp.width, static_cast<uint32_t>(kWidth));

        ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(7, {12, 345678}, 0x80)));
        ASSERT_TRUE(client.waitFor(1));
        FrameSet got = client.at(0);
        ASSERT_EQ(got.size(), 3u);
        EXPECT_EQ(got[0], same->buffer());
        EXPECT_EQ(got[1], cropped->buffer());
        EXPECT_EQ(got[2], rgba->buffer());
        for (const auto& buffer : got) {
            EXPECT_EQ(buffer->sequence(), 7u);
            EXPECT_EQ(buffer->timestamp(), 12345678000ull);
        }
        EXPECT_TRUE(AllBytes(*same, kNv12Size, 0x80));
        EXPECT_TRUE(AllBytes(*cropped, 32 * 24 * 3 / 2, 0x80));
        /* A mid grey in RGBA: equal colour bytes, opaque. */
        const uint8_t* px = rgba->data();
        EXPECT_EQ(px[0], px[1]);
        EXPECT_EQ(px[1], px[2]);
        EXPECT_NE(px[0], 0xee);
        EXPECT_EQ(px[3], 0xff);

        /* Given back, the set serves the next frame. */
        EXPECT_EQ(stream.ClientReturnFrame(got), 0);
        ASSERT_GE(node_->ProduceFrame(marlo_fake::Frame(8, {13, 0}, 0x40)), 0);
        ASSERT_TRUE(client.waitFor(2));
        EXPECT_EQ(client.at(1)[0]->sequence(), 8u);
        EXPECT_TRUE(AllBytes(*same, kNv12Size, 0x40));

        stream.ClientStopStream();
        EXPECT_EQ(stream.state(), 0u);
        EXPECT_FALSE(node_->Streaming());
        stream.CloseCamera();
        EXPECT_EQ(node_->OpenDescriptors(), 0u);
        got.clear();
        client.clear();
    }
    EXPECT_TRUE(fds.unchanged()) << fds.before() << " " << marlo_test::OpenFdCount();
}

TEST_F(V4l2StreamTest, ReturnedSetsQueueBehindTheLentOne) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    auto a = Nv12(1);
    auto b = Nv12(2);
    FrameSet first{a->buffer()};
    FrameSet second{b->buffer()};
    ASSERT_EQ(stream.ClientSetBufferInfo(first), 0);
    /* Lending a further set goes through the return path. */
    ASSERT_EQ(stream.ClientReturnFrame(second), 0);

    Client client;
    ASSERT_EQ(stream.ClientStartStream(client.callback()), 0);
    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(0)));
    ASSERT_TRUE(client.waitFor(1));
    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(1)));
    ASSERT_TRUE(client.waitFor(2));
    EXPECT_EQ(client.at(0)[0], a->buffer());
    EXPECT_EQ(client.at(1)[0], b->buffer());
    stream.CloseCamera();
    client.clear();
}

TEST_F(V4l2StreamTest, TwoClientsOnOneDeviceBothReceiveEachFrame) {
    V4l2Stream first;
    V4l2Stream second;
    ASSERT_EQ(Open(first, 1), 0);
    ASSERT_EQ(Open(second, 2), 0);
    auto a = Nv12(1);
    auto b = std::make_shared<MemFrame>(32, 24, V4L2_PIX_FMT_NV12, 32 * 24 * 3 / 2);
    FrameSet setA{a->buffer()};
    FrameSet setB{b->buffer()};
    ASSERT_EQ(first.ClientSetBufferInfo(setA), 0);
    ASSERT_EQ(second.ClientSetBufferInfo(setB), 0);

    Client clientA(&first);
    Client clientB(&second);
    ASSERT_EQ(first.ClientStartStream(clientA.callback()), 0);
    ASSERT_EQ(second.ClientStartStream(clientB.callback()), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMON), 1u);

    for (int i = 0; i < 3; ++i) {
        ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(i, {0, 0}, 0x10 + i)));
        ASSERT_TRUE(clientA.waitFor(i + 1));
        ASSERT_TRUE(clientB.waitFor(i + 1));
    }
    EXPECT_TRUE(AllBytes(*a, kNv12Size, 0x12));
    EXPECT_TRUE(AllBytes(*b, 32 * 24 * 3 / 2, 0x12));

    /* The first client leaving keeps capture running for the second. */
    first.CloseCamera();
    EXPECT_TRUE(node_->Streaming());
    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(3)));
    ASSERT_TRUE(clientB.waitFor(4));
    EXPECT_EQ(clientA.count(), 3u);

    second.CloseCamera();
    EXPECT_FALSE(node_->Streaming());
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    clientA.clear();
    clientB.clear();
}

TEST_F(V4l2StreamTest, SecondStartIsRefusedButReplacesTheCallback) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    auto a = Nv12(1);
    FrameSet set{a->buffer()};
    ASSERT_EQ(stream.ClientSetBufferInfo(set), 0);
    Client first;
    Client second;
    ASSERT_EQ(stream.ClientStartStream(first.callback()), 0);

    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientStartStream(second.callback()), -2);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kNode0, 1, "ClientStartStream", "stream state 1 wrong"),
              1u)
        << log.dump();
    EXPECT_EQ(stream.state(), 1u);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMON), 1u);

    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(0)));
    ASSERT_TRUE(second.waitFor(1));
    EXPECT_EQ(first.count(), 0u);
    stream.CloseCamera();
    second.clear();
}

TEST_F(V4l2StreamTest, StopWhenNotStreamingLogsTheStateOnly) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    marlo_test::LogCapture log;
    stream.ClientStopStream();
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 1, "ClientStopStream", "stream state 0"), 1u)
        << log.dump();
    size_t streamLines = 0;
    for (const auto& record : log.records())
        streamLines += record.tag == kTag && record.message.rfind("V4LSTRM(", 0) == 0;
    EXPECT_EQ(streamLines, 1u) << log.dump();
    EXPECT_EQ(stream.state(), 0u);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 0u);
    stream.CloseCamera();
}

TEST_F(V4l2StreamTest, StopThenStartAgainDeliversAgain) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    auto a = Nv12(1);
    FrameSet set{a->buffer()};
    Client client(&stream);
    ASSERT_EQ(stream.ClientSetBufferInfo(set), 0);
    ASSERT_EQ(stream.ClientStartStream(client.callback()), 0);
    marlo_test::LogCapture log;
    stream.ClientStopStream();
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 1, "ClientStopStream", "stream state 1"), 1u)
        << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 1, "ClientStopStream", "stream state 0"), 1u);
    EXPECT_FALSE(node_->Streaming());

    /* Stopping forgets the lent sets: they are lent again before the restart. */
    ASSERT_EQ(stream.ClientSetBufferInfo(set), 0);
    ASSERT_EQ(stream.ClientStartStream(client.callback()), 0);
    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(5)));
    ASSERT_TRUE(client.waitFor(1));
    stream.CloseCamera();
    client.clear();
}

TEST_F(V4l2StreamTest, CloseWhileStreamingStopsAndForgetsTheClientId) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 4), 0);
    Client client;
    ASSERT_EQ(stream.ClientStartStream(client.callback()), 0);
    ASSERT_TRUE(node_->Streaming());

    marlo_test::LogCapture log;
    stream.CloseCamera();
    /* The stop sequence runs inside the close. */
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 4, "ClientStopStream", "stream state 1"), 1u)
        << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 4, "ClientStopStream", "stream state 0"), 1u);
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 4, "CloseCamera", "stream state 0"), 1u);
    /* Once from the close, once from the camera's destructor. */
    EXPECT_EQ(CountLines(log, ANDROID_LOG_INFO, Cam(kNode0), "clientStreamclosing",
                         "Clients(0) Streaming(0) State(0)"),
              2u);
    EXPECT_FALSE(node_->Streaming());
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_EQ(stream.state(), 0u);
    EXPECT_EQ(stream.clientId(), -1);
    EXPECT_EQ(Registry::Size(), 0u);

    log.clear();
    EXPECT_EQ(stream.ClientStartStream(client.callback()), -2);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_ERROR, kNode0, -1, "ClientStartStream", "start with null vcam"), 1u)
        << log.dump();
}

TEST_F(V4l2StreamTest, CallsOnANeverOpenedStreamAreRefused) {
    V4l2Stream stream;
    auto a = Nv12(1);
    FrameSet set{a->buffer()};
    Client client;
    marlo_test::LogCapture log;
    stream.CloseCamera();
    EXPECT_EQ(stream.ClientStartStream(client.callback()), -2);
    stream.ClientStopStream();
    EXPECT_EQ(stream.ClientReturnFrame(set), -2);
    EXPECT_EQ(stream.ClientSetBufferInfo(set), -2);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "", -1, "CloseCamera", "close with null vcam"), 1u)
        << log.dump();
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "", -1, "ClientStartStream", "start with null vcam"),
              1u);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_ERROR, "", -1, "ClientStopStream", "failed stopping null vcam"), 1u);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "", -1, "ClientReturnFrame", "failed with null vcam"),
              1u);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, "", -1, "ClientSetBufferInfo", "failed with null vcam"),
              1u);
    EXPECT_EQ(stream.state(), 0u);
    EXPECT_EQ(Registry::Size(), 0u);
    /* The refused start kept nothing: the buffer is the test's alone. */
    EXPECT_EQ(a->buffer().use_count(), 2);
}

TEST_F(V4l2StreamTest, PauseAndResumeReturnZeroAndChangeNothing) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    auto a = Nv12(1);
    Client client(&stream);
    ASSERT_EQ(LendAndStart(stream, client, a), 0);

    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientPauseStream(), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kNode0, 1, "ClientPauseStream", "not implemented"), 1u)
        << log.dump();
    EXPECT_EQ(stream.state(), 1u);
    EXPECT_TRUE(node_->Streaming());
    /* Frames still flow while "paused". */
    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(0)));
    ASSERT_TRUE(client.waitFor(1));

    EXPECT_EQ(stream.ClientResumeStream(), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kNode0, 1, "ClientResumeStream", "not implemented"),
              1u);
    EXPECT_EQ(stream.state(), 1u);
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 0u);
    stream.CloseCamera();
    client.clear();
}

TEST_F(V4l2StreamTest, SetParamsAcceptsNothing) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    marlo_param_value_t value;
    value.words[0] = 0x11111111;
    value.words[1] = 0x22222222;
    value.words[2] = 0x33333333;
    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientSetParams(MARLO_PARAM_RESOLUTION, &value), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kNode0, 1, "ClientSetParams", "not implemented"), 1u)
        << log.dump();
    EXPECT_EQ(value.words[0], 0x11111111u);
    EXPECT_EQ(value.words[1], 0x22222222u);
    EXPECT_EQ(value.words[2], 0x33333333u);
    marlo_param_value_t answer;
    ASSERT_EQ(stream.ClientGetParams(MARLO_PARAM_RESOLUTION, &answer), 0);
    EXPECT_EQ(answer.resolution.width, kWidth);
    stream.CloseCamera();
}

TEST_F(V4l2StreamTest, WithoutACallbackASetIsNeitherDeliveredNorGivenBack) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    auto a = Nv12(1);
    FrameSet set{a->buffer()};
    ASSERT_EQ(stream.ClientSetBufferInfo(set), 0);
    ASSERT_EQ(stream.ClientStartStream(nullptr), 0);

    marlo_test::LogCapture log;
    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(0, {0, 0}, 0x33)));
    ASSERT_TRUE(node_->WaitQueued(1, kWait));
    /* The set was filled and kept by nobody: the next frame finds no free set. */
    ASSERT_GE(node_->ProduceFrame(marlo_fake::Frame(1, {0, 0}, 0x44)), 0);
    EXPECT_TRUE(WaitUntil([&] {
        return CountLines(log, ANDROID_LOG_ERROR, Vcam(1), "getAvailableFrames",
                          "has No available buffer to NAX copy!!!!") >= 1;
    })) << log.dump();
    EXPECT_TRUE(AllBytes(*a, kNv12Size, 0x33));

    /* Called directly, an empty callback drops the set as well. */
    stream.ClientDeliverFrame(set);
    EXPECT_EQ(a->buffer().use_count(), 2);
    stream.CloseCamera();
}

TEST_F(V4l2StreamTest, DeliverHandsTheCallbackACopyOfTheSet) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    Client client;
    /* Not streaming: the refused hardware plays no part, only the stored callback. */
    node_->InjectError(VIDIOC_STREAMON, EIO);
    (void)stream.ClientStartStream(client.callback());
    auto a = Nv12(1);
    FrameSet set{a->buffer()};
    stream.ClientDeliverFrame(set);
    ASSERT_EQ(client.count(), 1u);
    EXPECT_EQ(client.at(0), set);
    stream.CloseCamera();
    /* The close dropped the callback: nothing more is delivered. */
    stream.ClientDeliverFrame(set);
    EXPECT_EQ(client.count(), 1u);
    client.clear();
}

TEST_F(V4l2StreamTest, ReopenAfterCloseMakesAFreshCamera) {
    marlo_test::FdLeakCheck fds;
    {
        V4l2Stream stream;
        auto a = Nv12(1);
        for (int round = 0; round < 2; ++round) {
            marlo_test::LogCapture log;
            ASSERT_EQ(Open(stream, 1), 0);
            EXPECT_EQ(
                Count(log, ANDROID_LOG_INFO, kNode0, 1, "OpenCamera",
                      std::string("do not find deviceId ") + kNode0 + " in list, new halCamera"),
                1u)
                << log.dump();
            Client client(&stream);
            ASSERT_EQ(LendAndStart(stream, client, a), 0);
            ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(round)));
            ASSERT_TRUE(client.waitFor(1));
            stream.CloseCamera();
            EXPECT_EQ(node_->OpenDescriptors(), 0u);
            EXPECT_EQ(Registry::Size(), 0u);
            client.clear();
        }
        EXPECT_EQ(node_->CountRequests(marlo_fake::kOpenRequest), 2u);
    }
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(V4l2StreamTest, OpeningAnOpenStreamAgainClosesTheEarlierCamera) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    Client client;
    ASSERT_EQ(stream.ClientStartStream(client.callback()), 0);
    ASSERT_TRUE(node_->Streaming());
    marlo_test::LogCapture log;
    ASSERT_EQ(stream.OpenCamera(2, kNode1, kWidth, kHeight, V4L2_PIX_FMT_NV12), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_WARN, kNode0, 1, "OpenCamera",
                    "opened again while open, closing the earlier camera first"),
              1u)
        << log.dump();
    EXPECT_FALSE(node_->Streaming());
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_EQ(Registry::Size(), 1u);
    EXPECT_NE(Registry::Find(kNode1), nullptr);
    EXPECT_EQ(stream.state(), 0u);
    stream.CloseCamera();
}

TEST_F(V4l2StreamTest, DestroyingAnOpenStreamClosesIt) {
    auto stream = std::make_unique<V4l2Stream>();
    ASSERT_EQ(Open(*stream, 6), 0);
    Client client;
    ASSERT_EQ(stream->ClientStartStream(client.callback()), 0);
    marlo_test::LogCapture log;
    stream.reset();
    EXPECT_EQ(
        Count(log, ANDROID_LOG_WARN, kNode0, 6, "~V4l2Stream", "destroyed while open, closing"), 1u)
        << log.dump();
    EXPECT_FALSE(node_->Streaming());
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_EQ(Registry::Size(), 0u);
}

TEST_F(V4l2StreamTest, DeviceThatCannotBeOpenedShowsOnlyInTheLogAndMissingFrames) {
    marlo_test::FdLeakCheck fds;
    {
        V4l2Stream stream;
        node_->InjectError(marlo_fake::kOpenRequest, ENOENT);
        /* Opening the stream touches no hardware ... */
        ASSERT_EQ(Open(stream, 1), 0);
        auto a = Nv12(1);
        FrameSet set{a->buffer()};
        ASSERT_EQ(stream.ClientSetBufferInfo(set), 0);
        Client client;
        marlo_test::LogCapture log;
        /* ... the start does; the layers below report success whatever the device said. */
        EXPECT_EQ(stream.ClientStartStream(client.callback()), 0);
        EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Cam(kNode0), "clientStreamOpening",
                             "Failed to open a hw camera"),
                  1u)
            << log.dump();
        EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, "V4LCAM(" + std::string(kNode0) + ")",
                             "StartVideoStream", "stream on failed -2"),
                  1u);
        EXPECT_EQ(
            Count(log, ANDROID_LOG_ERROR, kNode0, 1, "ClientStartStream", "failed to open vcam"),
            0u);
        EXPECT_EQ(stream.state(), 1u);
        EXPECT_FALSE(node_->Streaming());
        /* Nothing can be captured. */
        EXPECT_LT(node_->ProduceFrame(marlo_fake::Frame(0)), 0);
        stream.ClientStopStream();
        EXPECT_EQ(stream.state(), 0u);
        stream.CloseCamera();
        EXPECT_EQ(Registry::Size(), 0u);
        EXPECT_EQ(client.count(), 0u);
    }
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(V4l2StreamTest, StreamOnRefusedShowsOnlyInTheLogAndCloseCleansUp) {
    marlo_test::FdLeakCheck fds;
    {
        V4l2Stream stream;
        ASSERT_EQ(Open(stream, 1), 0);
        node_->InjectError(VIDIOC_STREAMON, EIO);
        Client client;
        marlo_test::LogCapture log;
        EXPECT_EQ(stream.ClientStartStream(client.callback()), 0);
        EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, "V4LCAM(" + std::string(kNode0) + ")",
                             "StartVideoStream", "stream on failed -2"),
                  1u)
            << log.dump();
        EXPECT_EQ(stream.state(), 1u);
        EXPECT_FALSE(node_->Streaming());
        stream.CloseCamera();
        EXPECT_EQ(stream.state(), 0u);
        EXPECT_EQ(Registry::Size(), 0u);
        EXPECT_EQ(node_->OpenDescriptors(), 0u);
    }
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(V4l2StreamTest, RefusedHardwareStartFailsAndLeavesTheStateAtOne) {
    marlo_test::FdLeakCheck fds;
    {
        V4l2Stream stream;
        ASSERT_EQ(Open(stream, 1), 0);
        Client client;
        ASSERT_EQ(stream.ClientStartStream(client.callback()), 0);
        /* A refused stream-off leaves the capture camera refusing the next start. */
        node_->InjectError(VIDIOC_STREAMOFF, EIO);
        stream.ClientStopStream();
        ASSERT_EQ(stream.state(), 0u);

        marlo_test::LogCapture log;
        EXPECT_EQ(stream.ClientStartStream(client.callback()), -2);
        EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kNode0, 1, "ClientStartStream",
                        "startVideoStream failed"),
                  1u)
            << log.dump();
        EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 1, "ClientStartStream", "stream state 1"),
                  1u);
        EXPECT_EQ(
            Count(log, ANDROID_LOG_INFO, kNode0, 1, "ClientStartStream", "open a vcam succeed"),
            0u);
        /* Deliberately not rolled back; a stop undoes it. */
        EXPECT_EQ(stream.state(), 1u);
        stream.ClientStopStream();
        EXPECT_EQ(stream.state(), 0u);
        stream.CloseCamera();
        EXPECT_EQ(Registry::Size(), 0u);
        EXPECT_EQ(node_->OpenDescriptors(), 0u);
    }
    EXPECT_TRUE(fds.unchanged());
}

TEST_F(V4l2StreamTest, UnknownDeviceNodeDeliversNothing) {
    V4l2Stream stream;
    ASSERT_EQ(stream.OpenCamera(1, kUnlisted, kWidth, kHeight, V4L2_PIX_FMT_NV12), 0);
    Client client;
    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientStartStream(client.callback()), 0);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Cam(kUnlisted), "clientStreamOpening",
                         "Failed to open a hw camera"),
              1u)
        << log.dump();
    stream.CloseCamera();
    EXPECT_EQ(Registry::Size(), 0u);
    EXPECT_EQ(client.count(), 0u);
}

TEST_F(V4l2StreamTest, SameClientIdTwiceOnOneDeviceReplacesTheEarlierClientCamera) {
    V4l2Stream first;
    V4l2Stream second;
    ASSERT_EQ(Open(first, 5), 0);
    Client client;
    ASSERT_EQ(first.ClientStartStream(client.callback()), 0);
    ASSERT_TRUE(node_->Streaming());

    marlo_test::LogCapture log;
    ASSERT_EQ(Open(second, 5), 0);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Cam(kNode0), "operator()",
                         "WARNING! Adding virtual camera already exits!!!!!"),
              1u)
        << log.dump();
    /* The earlier client camera was the last entry: it is stopped as well. */
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Cam(kNode0), "MakeVirtualCamera",
                         "WARNING! virtual camera 5 in wrong state 1"),
              1u);
    std::shared_ptr<HalCamera> hal = Registry::Find(kNode0);
    ASSERT_NE(hal, nullptr);
    EXPECT_EQ(hal->clientCount(), 1u);
    EXPECT_FALSE(node_->Streaming());
    hal.reset();

    /* Closing the newer one ends the camera; the older one then closes on its own. */
    second.CloseCamera();
    EXPECT_EQ(Registry::Size(), 0u);
    log.clear();
    first.CloseCamera();
    EXPECT_EQ(Count(log, ANDROID_LOG_WARN, kNode0, 5, "CloseCamera",
                    "stream state 1 with no camera left to stop it, now 0"),
              1u)
        << log.dump();
    EXPECT_EQ(first.state(), 0u);
    EXPECT_EQ(first.clientId(), -1);
    /* The stream is usable again. */
    ASSERT_EQ(Open(first, 5), 0);
    EXPECT_EQ(first.ClientStartStream(client.callback()), 0);
    EXPECT_TRUE(node_->Streaming());
    first.CloseCamera();
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

TEST_F(V4l2StreamTest, ClosingASupersededClientLeavesTheNewerOneStreaming) {
    V4l2Stream older;
    V4l2Stream newer;
    ASSERT_EQ(Open(older, 5), 0);
    auto a = Nv12(1);
    FrameSet olderSet{a->buffer()};
    ASSERT_EQ(older.ClientSetBufferInfo(olderSet), 0);
    Client olderClient(&older);
    ASSERT_EQ(older.ClientStartStream(olderClient.callback()), 0);

    marlo_test::LogCapture log;
    ASSERT_EQ(Open(newer, 5), 0);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Cam(kNode0), "operator()",
                         "WARNING! Adding virtual camera already exits!!!!!"),
              1u)
        << log.dump();
    auto b = Nv12(2);
    FrameSet newerSet{b->buffer()};
    ASSERT_EQ(newer.ClientSetBufferInfo(newerSet), 0);
    Client newerClient(&newer);
    ASSERT_EQ(newer.ClientStartStream(newerClient.callback()), 0);
    ASSERT_TRUE(node_->Streaming());

    /* The older stream's close takes only its own client camera away. */
    log.clear();
    older.CloseCamera();
    EXPECT_EQ(older.state(), 0u);
    std::shared_ptr<HalCamera> hal = Registry::Find(kNode0);
    ASSERT_NE(hal, nullptr);
    EXPECT_EQ(hal->clientCount(), 1u);
    EXPECT_EQ(hal->streamingClients(), 1);
    hal.reset();
    EXPECT_FALSE(log.containsText("destroyed with")) << log.dump();
    EXPECT_TRUE(node_->Streaming());

    ASSERT_NO_FATAL_FAILURE(Produce(marlo_fake::Frame(9, {1, 0}, 0x33)));
    ASSERT_TRUE(newerClient.waitFor(1));
    EXPECT_TRUE(AllBytes(*b, kNv12Size, 0x33));
    EXPECT_EQ(newerClient.at(0)[0]->sequence(), 9u);

    newer.CloseCamera();
    EXPECT_EQ(Registry::Size(), 0u);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    olderClient.clear();
    newerClient.clear();
}

TEST_F(V4l2StreamTest, TheStoredCallbackItselfIsCalledSoItKeepsItsState) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    std::vector<int> seen;
    /* A client's callable that counts the sets it was handed. */
    auto counting = [&seen, count = 0](FrameSet) mutable { seen.push_back(++count); };
    ASSERT_EQ(stream.ClientStartStream(counting), 0);
    auto a = Nv12(1);
    FrameSet set{a->buffer()};
    for (int i = 0; i < 3; ++i)
        stream.ClientDeliverFrame(set);
    EXPECT_EQ(seen, (std::vector<int>{1, 2, 3}));
    stream.CloseCamera();
}

TEST_F(V4l2StreamTest, RefusedStartsWhileFramesFlowReplaceTheCallbackSafely) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    auto a = Nv12(1);
    auto b = Nv12(2);
    FrameSet first{a->buffer()};
    FrameSet second{b->buffer()};
    ASSERT_EQ(stream.ClientSetBufferInfo(first), 0);
    ASSERT_EQ(stream.ClientReturnFrame(second), 0);
    Client one(&stream);
    Client two(&stream);
    ASSERT_EQ(stream.ClientStartStream(one.callback()), 0);
    node_->StartFrames(std::chrono::milliseconds(2), marlo_fake::Frame(-1));
    ASSERT_TRUE(one.waitFor(1));

    /* The IO thread keeps calling the callback while it is replaced here. */
    for (int i = 0; i < 200; ++i) {
        Client& next = i % 2 == 0 ? two : one;
        EXPECT_EQ(stream.ClientStartStream(next.callback()), -2);
    }
    /* The last refused start left "one" in place: it goes on receiving. */
    size_t before = one.count();
    EXPECT_TRUE(one.waitFor(before + 2));
    node_->StopFrames();
    EXPECT_EQ(stream.state(), 1u);
    stream.CloseCamera();
    one.clear();
    two.clear();
}

TEST_F(V4l2StreamTest, ReturningAnEmptySetSucceedsWhateverTheCameraDid) {
    V4l2Stream stream;
    ASSERT_EQ(Open(stream, 1), 0);
    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientReturnFrame({}), 0);
    EXPECT_EQ(CountLines(log, ANDROID_LOG_INFO, Vcam(1), "doneWithFrame", "doneWithFrame null"), 1u)
        << log.dump();
    stream.CloseCamera();
}

TEST_F(V4l2StreamTest, ReopeningAsTheSameClientBesideAnotherKeepsTheSharedCamera) {
    V4l2Stream stream;
    V4l2Stream other;
    ASSERT_EQ(Open(stream, 1), 0);
    ASSERT_EQ(Open(other, 2), 0);
    std::shared_ptr<HalCamera> hal = Registry::Find(kNode0);
    ASSERT_NE(hal, nullptr);

    marlo_test::LogCapture log;
    ASSERT_EQ(Open(stream, 1), 0);
    EXPECT_EQ(Count(log, ANDROID_LOG_WARN, kNode0, 1, "OpenCamera",
                    "opened again while open, closing the earlier camera first"),
              1u)
        << log.dump();
    /* The earlier client camera left before the new one came: no duplicate to remove. */
    EXPECT_EQ(CountLines(log, ANDROID_LOG_ERROR, Cam(kNode0), "operator()",
                         "WARNING! Adding virtual camera already exits!!!!!"),
              0u);
    EXPECT_EQ(Count(log, ANDROID_LOG_INFO, kNode0, 1, "OpenCamera",
                    std::string("find deviceId ") + kNode0 + " in list"),
              1u);
    EXPECT_EQ(Registry::Find(kNode0), hal);
    EXPECT_EQ(hal->clientCount(), 2u);
    hal.reset();
    stream.CloseCamera();
    other.CloseCamera();
}
