/* V4l2SubDevice against the fake sub-device. */
#include <errno.h>
#include <string.h>

#include <string>

#include <android/log.h>
#include <gtest/gtest.h>

#include <marlo/v4l2/v4l2_subdevice.h>

#include "fake_v4l2.h"
#include "support/fake_node_test.h"
#include "support/log_capture.h"
#include "v4l2_test_util.h"

namespace {

using tessaro::marlo::V4l2FrameSizeRange;
using tessaro::marlo::V4l2Rect;
using tessaro::marlo::V4l2SubdevFormat;
using tessaro::marlo::V4l2SubDevice;

constexpr char kPath[] = "/dev/marlo-fake-subdev1";
using v4l2_test::kTag;
constexpr uint32_t kCodeA = 0x2006;  // MEDIA_BUS_FMT_UYVY8_2X8
constexpr uint32_t kCodeB = 0x2008;  // MEDIA_BUS_FMT_YUYV8_2X8

class V4l2SubDeviceTest : public marlo_test::FakeNodeTest<marlo_fake::FakeSubdevNode> {
  protected:
    void SetUp() override {
        marlo_fake::SubdevNodeConfig config;
        config.pads.resize(2);
        config.pads[0].mbusCodes = {kCodeA, kCodeB};
        config.pads[0].frameSizes[kCodeA] = {{64, 48, 1920, 1080}, {2592, 1944, 2592, 1944}};
        config.pads[0].intervals[kCodeA] = {{1, 30}, {1, 15}};
        config.pads[0].selections[V4L2_SEL_TGT_CROP_BOUNDS] = {0, 0, 1920, 1080};
        node_ = marlo_fake::AddSubdevNode(kPath, config);
        ASSERT_EQ(subdev_.Open(true), 0);
    }
    void TearDown() override {
        subdev_.Close();
        FakeNodeTest::TearDown();
    }

    bool HasError(const marlo_test::LogCapture& log, const std::string& text, int err) {
        return log.contains(ANDROID_LOG_ERROR, kTag, text + " : " + strerror(err) + "\n");
    }
    bool HasWrapperLine(const marlo_test::LogCapture& log, const char* name, int err) {
        return log.contains(ANDROID_LOG_ERROR, kTag, v4l2_test::WrapperLine(kPath, name, err));
    }

    V4l2SubDevice subdev_{kPath};
};

TEST_F(V4l2SubDeviceTest, QueryCap) {
    EXPECT_EQ(subdev_.QueryCap(), 0);
    marlo_test::LogCapture log;
    node_->InjectError(VIDIOC_SUBDEV_QUERYCAP, ENOTTY);
    EXPECT_EQ(subdev_.QueryCap(), -2);
    /* The capability query reports with the format wording. */
    EXPECT_TRUE(HasError(log, "get fmt failed", ENOTTY)) << log.dump();
    EXPECT_TRUE(HasWrapperLine(log, "subdev_querycap", ENOTTY));
}

TEST_F(V4l2SubDeviceTest, FormatsUseTheActiveConfiguration) {
    V4l2SubdevFormat format = {1280, 720, kCodeB};
    ASSERT_EQ(subdev_.SetFormat(1, format), 0);
    auto set = node_->Requests(VIDIOC_SUBDEV_S_FMT).at(0);
    EXPECT_EQ(set.which, static_cast<uint32_t>(V4L2_SUBDEV_FORMAT_ACTIVE));
    EXPECT_EQ(set.pad, 1u);
    EXPECT_EQ(node_->Pad(1).format.field, 0u);
    EXPECT_EQ(node_->Pad(1).format.colorspace, 0u);
    V4l2SubdevFormat got = {};
    ASSERT_EQ(subdev_.GetFormat(1, got), 0);
    EXPECT_EQ(got.width, 1280u);
    EXPECT_EQ(got.height, 720u);
    EXPECT_EQ(got.code, kCodeB);
    EXPECT_EQ(node_->Requests(VIDIOC_SUBDEV_G_FMT).at(0).which,
              static_cast<uint32_t>(V4L2_SUBDEV_FORMAT_ACTIVE));

    marlo_test::LogCapture log;
    EXPECT_EQ(subdev_.GetFormat(5, got), -2);
    EXPECT_EQ(subdev_.SetFormat(5, format), -2);
    EXPECT_TRUE(HasError(log, "get fmt failed", EINVAL));
    EXPECT_TRUE(HasError(log, "set fmt failed", EINVAL));
    EXPECT_TRUE(HasWrapperLine(log, "subdev_g_fmt", EINVAL));
    EXPECT_TRUE(HasWrapperLine(log, "subdev_s_fmt", EINVAL));
}

TEST_F(V4l2SubDeviceTest, Selections) {
    V4l2Rect rect = {};
    ASSERT_EQ(subdev_.GetSelection(0, V4L2_SEL_TGT_CROP_BOUNDS, rect), 0);
    EXPECT_EQ(rect.width, 1920u);
    auto asked = node_->Requests(VIDIOC_SUBDEV_G_SELECTION).at(0);
    EXPECT_EQ(asked.which, static_cast<uint32_t>(V4L2_SUBDEV_FORMAT_ACTIVE));
    EXPECT_EQ(asked.flags, 0u);
    EXPECT_EQ(asked.target, static_cast<uint32_t>(V4L2_SEL_TGT_CROP_BOUNDS));
    V4l2Rect crop = {16, 8, 640, 480};
    ASSERT_EQ(subdev_.SetSelection(0, V4L2_SEL_TGT_CROP, crop), 0);
    auto sent = node_->Requests(VIDIOC_SUBDEV_S_SELECTION).at(0);
    EXPECT_EQ(sent.which, static_cast<uint32_t>(V4L2_SUBDEV_FORMAT_ACTIVE));
    EXPECT_EQ(sent.flags, 0u);
    EXPECT_EQ(sent.target, static_cast<uint32_t>(V4L2_SEL_TGT_CROP));
    ASSERT_EQ(subdev_.GetSelection(0, V4L2_SEL_TGT_CROP, rect), 0);
    EXPECT_EQ(rect.left, 16);
    EXPECT_EQ(rect.height, 480u);

    marlo_test::LogCapture log;
    EXPECT_EQ(subdev_.GetSelection(0, V4L2_SEL_TGT_COMPOSE, rect), -2);
    node_->InjectError(VIDIOC_SUBDEV_S_SELECTION, ERANGE);
    EXPECT_EQ(subdev_.SetSelection(0, V4L2_SEL_TGT_CROP, crop), -2);
    EXPECT_TRUE(HasError(log, "get sel failed", EINVAL));
    EXPECT_TRUE(HasError(log, "set sel failed", ERANGE));
    EXPECT_TRUE(HasWrapperLine(log, "subdev_g_selection", EINVAL));
    EXPECT_TRUE(HasWrapperLine(log, "subdev_s_selection", ERANGE));
}

TEST_F(V4l2SubDeviceTest, FrameIntervals) {
    ASSERT_EQ(subdev_.SetFrameIntervals(0, 1, 25), 0);
    unsigned num = 0, den = 0;
    ASSERT_EQ(subdev_.GetFrameIntervals(0, &num, &den), 0);
    EXPECT_EQ(num, 1u);
    EXPECT_EQ(den, 25u);

    marlo_test::LogCapture log;
    EXPECT_EQ(subdev_.GetFrameIntervals(9, &num, &den), -2);
    EXPECT_EQ(subdev_.SetFrameIntervals(0, 1, 0), -2);
    EXPECT_TRUE(HasError(log, "subdev get interval failed", EINVAL));
    EXPECT_TRUE(HasError(log, "subdev set interval failed", EINVAL));
    EXPECT_TRUE(HasWrapperLine(log, "subdev_g_frame_interval", EINVAL));
    EXPECT_TRUE(HasWrapperLine(log, "subdev_s_frame_interval", EINVAL));
    EXPECT_EQ(subdev_.GetFrameIntervals(0, nullptr, &den), -4);
}

TEST_F(V4l2SubDeviceTest, EnumMbusCodeAnswersMinusTwoWithTheCodes) {
    marlo_test::LogCapture log;
    std::vector<unsigned> codes = {99};
    EXPECT_EQ(subdev_.EnumMbusCode(0, &codes), -2);
    EXPECT_EQ(codes, (std::vector<unsigned>{kCodeA, kCodeB}));
    EXPECT_EQ(log.count(std::string("subdev enum mbus code failed : ") + strerror(EINVAL) + "\n"),
              1u);
    EXPECT_TRUE(HasWrapperLine(log, "subdev_enum_mbus_code", EINVAL));
    for (const auto& record : node_->Requests(VIDIOC_SUBDEV_ENUM_MBUS_CODE))
        EXPECT_EQ(record.which, 0u);
}

TEST_F(V4l2SubDeviceTest, EnumMbusCodeFirstFailure) {
    marlo_test::LogCapture log;
    std::vector<unsigned> codes = {99};
    EXPECT_EQ(subdev_.EnumMbusCode(1, &codes), -2);
    EXPECT_TRUE(codes.empty());
    EXPECT_TRUE(HasError(log, "subdev enum mbus code failed", EINVAL));
}

TEST_F(V4l2SubDeviceTest, EnumFrameSizeAppends) {
    marlo_test::LogCapture log;
    std::vector<V4l2FrameSizeRange> sizes;
    EXPECT_EQ(subdev_.EnumFrameSize(0, kCodeA, &sizes), 0);
    ASSERT_EQ(sizes.size(), 2u);
    EXPECT_EQ(sizes[0].minWidth, 64u);
    EXPECT_EQ(sizes[0].minHeight, 48u);
    EXPECT_EQ(sizes[0].maxWidth, 1920u);
    EXPECT_EQ(sizes[0].maxHeight, 1080u);
    EXPECT_EQ(sizes[0].stepWidth, 0u);
    EXPECT_EQ(sizes[0].stepHeight, 0u);
    EXPECT_EQ(subdev_.EnumFrameSize(0, kCodeA, &sizes), 0);
    EXPECT_EQ(sizes.size(), 4u);
    EXPECT_EQ(sizes[3].maxWidth, 2592u);
    EXPECT_EQ(log.count(std::string("subdev enum frame size failed : ") + strerror(EINVAL) + "\n"),
              2u);
    /* A code without sizes also answers 0. */
    EXPECT_EQ(subdev_.EnumFrameSize(0, kCodeB, &sizes), 0);
    EXPECT_EQ(sizes.size(), 4u);
}

TEST_F(V4l2SubDeviceTest, EnumFrameIntervalUsesTheFrameSizeWording) {
    marlo_test::LogCapture log;
    auto intervals = subdev_.EnumFrameInterval(0, kCodeA, 1920, 1080);
    ASSERT_EQ(intervals.size(), 2u);
    EXPECT_EQ(intervals[0], std::make_pair(1u, 30u));
    EXPECT_EQ(intervals[1], std::make_pair(1u, 15u));
    auto record = node_->Requests(VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL).at(0);
    EXPECT_EQ(record.width, 1920u);
    EXPECT_EQ(record.height, 1080u);
    EXPECT_EQ(record.which, 0u);
    EXPECT_TRUE(HasError(log, "subdev enum frame size failed", EINVAL));
    EXPECT_TRUE(HasWrapperLine(log, "subdev_enum_frame_interval", EINVAL));
    EXPECT_TRUE(subdev_.EnumFrameInterval(0, kCodeB, 1920, 1080).empty());
}

TEST_F(V4l2SubDeviceTest, FrameIntervalRequestsCarryThePad) {
    ASSERT_EQ(subdev_.SetFrameIntervals(1, 1, 60), 0);
    unsigned num = 0, den = 0;
    ASSERT_EQ(subdev_.GetFrameIntervals(1, &num, &den), 0);
    EXPECT_EQ(den, 60u);
    EXPECT_EQ(node_->Requests(VIDIOC_SUBDEV_S_FRAME_INTERVAL).at(0).pad, 1u);
    EXPECT_EQ(node_->Requests(VIDIOC_SUBDEV_G_FRAME_INTERVAL).at(0).pad, 1u);
    EXPECT_EQ(node_->Pad(0).interval.denominator, 30u);
}

TEST_F(V4l2SubDeviceTest, MissingOutputsAreRefusedWithoutARequest) {
    node_->ClearRequests();
    marlo_test::LogCapture log;
    unsigned value = 0;
    EXPECT_EQ(subdev_.GetFrameIntervals(0, &value, nullptr), -4);
    EXPECT_EQ(subdev_.EnumMbusCode(0, nullptr), -4);
    EXPECT_EQ(subdev_.EnumFrameSize(0, kCodeA, nullptr), -4);
    EXPECT_TRUE(HasError(log, "subdev get interval failed", EINVAL)) << log.dump();
    EXPECT_TRUE(HasError(log, "subdev enum mbus code failed", EINVAL));
    EXPECT_TRUE(HasError(log, "subdev enum frame size failed", EINVAL));
    EXPECT_TRUE(node_->Requests().empty());
}

TEST_F(V4l2SubDeviceTest, EnumMbusCodeReportsTheErrorThatEndedIt) {
    node_->InjectError(VIDIOC_SUBDEV_ENUM_MBUS_CODE, EIO, 1, 1);
    marlo_test::LogCapture log;
    std::vector<unsigned> codes;
    EXPECT_EQ(subdev_.EnumMbusCode(0, &codes), -2);
    EXPECT_EQ(codes, (std::vector<unsigned>{kCodeA}));
    EXPECT_TRUE(HasError(log, "subdev enum mbus code failed", EIO)) << log.dump();
    EXPECT_TRUE(HasWrapperLine(log, "subdev_enum_mbus_code", EIO));
    auto records = node_->Requests(VIDIOC_SUBDEV_ENUM_MBUS_CODE);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].index, 0u);
    EXPECT_EQ(records[1].index, 1u);
}

TEST_F(V4l2SubDeviceTest, EnumFrameSizeRequestsCountFromZero) {
    std::vector<V4l2FrameSizeRange> sizes;
    ASSERT_EQ(subdev_.EnumFrameSize(0, kCodeA, &sizes), 0);
    auto records = node_->Requests(VIDIOC_SUBDEV_ENUM_FRAME_SIZE);
    ASSERT_EQ(records.size(), 3u);
    for (uint32_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].index, i);
        EXPECT_EQ(records[i].pad, 0u);
        EXPECT_EQ(records[i].code, kCodeA);
        EXPECT_EQ(records[i].which, 0u);
    }
    /* The second run starts at index 0 again. */
    ASSERT_EQ(subdev_.EnumFrameSize(0, kCodeA, &sizes), 0);
    EXPECT_EQ(node_->Requests(VIDIOC_SUBDEV_ENUM_FRAME_SIZE).at(3).index, 0u);
}

TEST_F(V4l2SubDeviceTest, InterruptedRequestsAreRetried) {
    node_->InjectEintr(VIDIOC_SUBDEV_G_FMT, 2);
    marlo_test::LogCapture log;
    V4l2SubdevFormat got = {};
    EXPECT_EQ(subdev_.GetFormat(0, got), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_SUBDEV_G_FMT), 3u);
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

}  // namespace
