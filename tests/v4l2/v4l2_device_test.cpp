/* V4l2Device: open flags, the request wrapper, request names and events. */
#include <errno.h>
#include <fcntl.h>
#include <linux/v4l2-subdev.h>
#include <string.h>

#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include <marlo/v4l2/v4l2_device.h>

#include "fake_v4l2.h"
#include "support/fake_node_test.h"
#include "support/fd_count.h"
#include "support/log_capture.h"
#include "v4l2_test_util.h"

namespace {

using tessaro::marlo::V4l2Device;
using tessaro::marlo::V4l2Event;
using tessaro::marlo::V4l2EventSubscription;
using tessaro::marlo::detail::RequestToString;

constexpr char kPath[] = "/dev/marlo-fake-dev0";
using v4l2_test::kTag;
using v4l2_test::WrapperLine;

class V4l2DeviceTest : public marlo_test::FakeVideoNodeTest {
  protected:
    void SetUp() override { AddNode(kPath); }
};

TEST(RequestToStringTest, AllTwentyEightNames) {
    const std::pair<unsigned, const char*> table[] = {
        {0x80685600, "querycap"},
        {0xc0405602, "enum_fmt"},
        {0xc0d05604, "g_fmt"},
        {0xc0d05605, "s_fmt"},
        {0xc0145608, "reqbuf"},
        {0xc0585609, "querybuf"},
        {0xc058560f, "qbuf"},
        {0xc0405610, "expbuf"},
        {0xc0585611, "dqbuf"},
        {0x40045612, "streamon"},
        {0x40045613, "streamoff"},
        {0xc008561b, "g_ctrl"},
        {0xc008561c, "s_ctrl"},
        {0xc0445624, "query_ctrl"},
        {0xc02c5625, "query_menu"},
        {0xc0d05640, "try_fmt"},
        {0xc02c564a, "enum_framesizes"},
        {0xc034564b, "enum_frameintervals"},
        {0x80405600, "subdev_querycap"},
        {0xc0585604, "subdev_g_fmt"},
        {0xc0585605, "subdev_s_fmt"},
        {0xc040563d, "subdev_g_selection"},
        {0xc040563e, "subdev_s_selection"},
        {0xc0305615, "subdev_g_frame_interval"},
        {0xc0305616, "subdev_s_frame_interval"},
        {0xc0305602, "subdev_enum_mbus_code"},
        {0xc040564a, "subdev_enum_frame_size"},
        {0xc040564b, "subdev_enum_frame_interval"},
    };
    for (const auto& [code, name] : table)
        EXPECT_EQ(RequestToString(code), name) << std::hex << code;
}

TEST(RequestToStringTest, QbufAndUnknown) {
    EXPECT_EQ(RequestToString(0xc058560f), "qbuf");
    EXPECT_EQ(RequestToString(0x4020565a), "unknown");
}

TEST(RequestToStringTest, EventAndSelectionRequestsAreDeliberatelyAbsent) {
    EXPECT_EQ(RequestToString(VIDIOC_SUBSCRIBE_EVENT), "unknown");
    EXPECT_EQ(RequestToString(VIDIOC_UNSUBSCRIBE_EVENT), "unknown");
    EXPECT_EQ(RequestToString(VIDIOC_DQEVENT), "unknown");
    EXPECT_EQ(RequestToString(VIDIOC_G_SELECTION), "unknown");
    EXPECT_EQ(RequestToString(VIDIOC_S_SELECTION), "unknown");
}

TEST_F(V4l2DeviceTest, ConstructedClosed) {
    V4l2Device device(kPath);
    EXPECT_EQ(device.Fd(), -1);
    EXPECT_EQ(device.Name(), kPath);
}

TEST_F(V4l2DeviceTest, OpenFlagsBlockingAndNonBlocking) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    EXPECT_EQ(node_->LastOpenFlags(), 0x80002);
    ASSERT_EQ(device.Open(false), 0);
    EXPECT_EQ(node_->LastOpenFlags(), 0x80802);
    /* The second descriptor replaced (and closed) the first. */
    EXPECT_EQ(node_->OpenDescriptors(), 1u);
    device.Close();
    EXPECT_EQ(device.Fd(), -1);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

TEST_F(V4l2DeviceTest, DestructorClosesTheDescriptor) {
    marlo_test::FdLeakCheck leaks;
    {
        V4l2Device device(kPath);
        ASSERT_EQ(device.Open(true), 0);
        EXPECT_EQ(node_->OpenDescriptors(), 1u);
    }
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(V4l2DeviceTest, OpenMissingPathLogsTheSystemText) {
    marlo_test::LogCapture log;
    V4l2Device device("/dev/marlo-no-such-node");
    EXPECT_EQ(device.Open(false), -2);
    EXPECT_EQ(device.Fd(), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag,
                             std::string("Open device /dev/marlo-no-such-node failed with error ") +
                                 strerror(ENOENT) + "\n"))
        << log.dump();
}

TEST_F(V4l2DeviceTest, FailedReopenLeavesTheObjectClosed) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    ASSERT_EQ(node_->OpenDescriptors(), 1u);
    marlo_test::LogCapture log;
    node_->InjectError(marlo_fake::kOpenRequest, EACCES);
    EXPECT_EQ(device.Open(false), -2);
    EXPECT_EQ(device.Fd(), -1);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    EXPECT_TRUE(log.contains(
        ANDROID_LOG_ERROR, kTag,
        std::string("Open device ") + kPath + " failed with error " + strerror(EACCES) + "\n"))
        << log.dump();
}

TEST_F(V4l2DeviceTest, InterruptedTwiceThenSuccessLogsNothing) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    marlo_test::LogCapture log;
    node_->InjectEintr(VIDIOC_G_FMT, 2);
    v4l2_format fmt = {};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(device.IoCtl(VIDIOC_G_FMT, &fmt), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_G_FMT), 3u);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(V4l2DeviceTest, PositiveResultIsNotPassedOn) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    marlo_test::LogCapture log;
    node_->InjectResult(VIDIOC_G_FMT, 5);
    v4l2_format fmt = {};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(device.IoCtl(VIDIOC_G_FMT, &fmt), 0);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(V4l2DeviceTest, FailureLogsTheShortName) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    marlo_test::LogCapture log;
    node_->InjectError(VIDIOC_G_FMT, EIO);
    v4l2_format fmt = {};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(device.IoCtl(VIDIOC_G_FMT, &fmt), -2);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, WrapperLine(kPath, "g_fmt", EIO)))
        << log.dump();
}

TEST_F(V4l2DeviceTest, UnknownRequestFailureUsesUnknown) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    marlo_test::LogCapture log;
    /* 0x4020565a is VIDIOC_SUBSCRIBE_EVENT; event type 0 (all) is refused. */
    static_assert(VIDIOC_SUBSCRIBE_EVENT == 0x4020565a);
    V4l2EventSubscription sub = {};
    EXPECT_EQ(device.IoCtl(0x4020565a, &sub), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, WrapperLine(kPath, "unknown", EINVAL)))
        << log.dump();
}

TEST_F(V4l2DeviceTest, RequestOnClosedDeviceFailsWithEbadf) {
    V4l2Device device(kPath);
    marlo_test::LogCapture log;
    v4l2_capability caps = {};
    EXPECT_EQ(device.IoCtl(VIDIOC_QUERYCAP, &caps), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, WrapperLine(kPath, "querycap", EBADF)))
        << log.dump();
}

TEST_F(V4l2DeviceTest, QueryCapLogsAlignedLines) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    marlo_test::LogCapture log;
    ASSERT_EQ(device.QueryCap(), 0);
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag, "device capabilities: driver\t\tfake-v4l2\n"))
        << log.dump();
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_INFO, kTag, "                   : card\t\tFake capture\n"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                             "                   : bus_info\t\tplatform:fake-v4l2\n"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                             "                   : version\t\t" + std::to_string(0x060100) + "\n"));
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_INFO, kTag, "                   : capabilities\t4001000\n"));
}

TEST_F(V4l2DeviceTest, QueryCapFailure) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    marlo_test::LogCapture log;
    node_->InjectError(VIDIOC_QUERYCAP, ENODEV);
    EXPECT_EQ(device.QueryCap(), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag,
                             std::string("query capabilities failed ") + strerror(ENODEV) + "\n"))
        << log.dump();
}

TEST_F(V4l2DeviceTest, EventsSubscribeDequeueUnsubscribe) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    V4l2EventSubscription sub = {};
    sub.type = V4L2_EVENT_EOS;
    ASSERT_EQ(device.SubscribeEvent(sub), 0);
    EXPECT_EQ(node_->SubscribedEvents().count(V4L2_EVENT_EOS), 1u);
    v4l2_event posted = {};
    posted.type = V4L2_EVENT_EOS;
    node_->PostEvent(posted);
    V4l2Event event;
    memset(&event, 0xff, sizeof(event));
    ASSERT_EQ(device.DequeEvent(event), 0);
    EXPECT_EQ(event.type, static_cast<uint32_t>(V4L2_EVENT_EOS));
    ASSERT_EQ(device.UnSubscribeEvent(sub), 0);
    EXPECT_TRUE(node_->SubscribedEvents().empty());
}

TEST_F(V4l2DeviceTest, EventFailuresLogTheirTexts) {
    V4l2Device device(kPath);
    ASSERT_EQ(device.Open(true), 0);
    marlo_test::LogCapture log;
    V4l2EventSubscription sub = {};
    sub.type = V4L2_EVENT_EOS;
    node_->InjectError(VIDIOC_SUBSCRIBE_EVENT, EINVAL);
    EXPECT_EQ(device.SubscribeEvent(sub), -2);
    node_->InjectError(VIDIOC_UNSUBSCRIBE_EVENT, EINVAL);
    EXPECT_EQ(device.UnSubscribeEvent(sub), -2);
    V4l2Event event;
    memset(&event, 0xff, sizeof(event));
    EXPECT_EQ(device.DequeEvent(event), -2);  // nothing pending: ENOENT
    /* The record is zeroed before the request, so a failure leaves it empty. */
    const unsigned char zero[sizeof(V4l2Event)] = {};
    EXPECT_EQ(memcmp(&event, zero, sizeof(event)), 0);
    const std::string einval = strerror(EINVAL);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "subscribe event failed " + einval + "\n"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "unsubscribe event failed " + einval + "\n"));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag,
                             std::string("dq event failed ") + strerror(ENOENT) + "\n"));
    /* The wrapper names these requests "unknown". */
    EXPECT_EQ(log.count(WrapperLine(kPath, "unknown", EINVAL)), 2u);
}

}  // namespace
