/* MediaDevice against the fake media controller; its messages go to stderr. */
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <new>
#include <string>

#include <gtest/gtest.h>

#include <marlo/v4l2/media_device.h>

#include "fake_v4l2.h"
#include "support/fake_node_test.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

namespace {

using tessaro::marlo::MediaDevice;

constexpr char kPath[] = "/dev/marlo-fake-media1";

class MediaDeviceTest : public marlo_test::FakeNodeTest<marlo_fake::FakeMediaNode> {
  protected:
    void SetUp() override {
        marlo_fake::MediaNodeConfig config;
        config.entities = {{1, "sensor", MEDIA_ENT_F_CAM_SENSOR, 1},
                           {4, "csi2", MEDIA_ENT_F_VID_IF_BRIDGE, 2},
                           {7, "capture", MEDIA_ENT_F_IO_V4L, 1}};
        config.links = {{1, 0, 4, 0, MEDIA_LNK_FL_ENABLED}, {4, 1, 7, 0, 0}};
        node_ = marlo_fake::AddMediaNode(kPath, config);
    }
};

TEST_F(MediaDeviceTest, OpenFlagsIncludeCreation) {
    MediaDevice media(kPath);
    EXPECT_EQ(media.Fd(), -1);
    ASSERT_EQ(media.Open(), 0);
    EXPECT_EQ(node_->LastOpenFlags(), 0x80042);
    EXPECT_EQ(node_->LastOpenMode(), 0640u);
    ASSERT_EQ(media.Open(), 0);
    EXPECT_EQ(node_->OpenDescriptors(), 1u);
    media.Close();
    EXPECT_EQ(media.Fd(), -1);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

TEST_F(MediaDeviceTest, RequestsFillTheHeldRecords) {
    MediaDevice media(kPath);
    ASSERT_EQ(media.Open(), 0);
    marlo_test::LogCapture log;
    testing::internal::CaptureStderr();
    ASSERT_EQ(media.GetDeviceInfo(), 0);
    EXPECT_STREQ(media.Info().driver, "fake-media");

    ASSERT_EQ(media.GetTopology(), 0);
    EXPECT_EQ(media.Topology().num_entities, 3u);
    EXPECT_EQ(media.Topology().num_links, 2u);

    media.Entity().id = 4;
    ASSERT_EQ(media.EnumEntities(), 0);
    EXPECT_STREQ(media.Entity().name, "csi2");
    EXPECT_EQ(media.Entity().pads, 2);

    media_pad_desc pads[2] = {};
    media_link_desc links[1] = {};
    media.Links().entity = 4;
    media.Links().pads = pads;
    media.Links().links = links;
    ASSERT_EQ(media.EnumLinks(), 0);
    EXPECT_EQ(links[0].sink.entity, 7u);

    media.Link() = links[0];
    media.Link().flags = MEDIA_LNK_FL_ENABLED;
    ASSERT_EQ(media.SetupLinks(), 0);
    EXPECT_EQ(node_->Links()[1].flags, static_cast<uint32_t>(MEDIA_LNK_FL_ENABLED));
    EXPECT_TRUE(testing::internal::GetCapturedStderr().empty());
    EXPECT_TRUE(log.records().empty());
}

TEST_F(MediaDeviceTest, FailuresGoToStandardErrorOnly) {
    MediaDevice media(kPath);
    ASSERT_EQ(media.Open(), 0);
    node_->InjectError(MEDIA_IOC_DEVICE_INFO, EIO);
    node_->InjectError(MEDIA_IOC_G_TOPOLOGY, EIO);
    node_->InjectError(MEDIA_IOC_SETUP_LINK, EPERM);
    media.Entity().id = 42;
    media.Links().entity = 42;
    marlo_test::LogCapture log;
    testing::internal::CaptureStderr();
    EXPECT_EQ(media.GetDeviceInfo(), -2);
    EXPECT_EQ(media.GetTopology(), -2);
    EXPECT_EQ(media.EnumEntities(), -2);
    EXPECT_EQ(media.EnumLinks(), -2);
    EXPECT_EQ(media.SetupLinks(), -2);
    const std::string err = testing::internal::GetCapturedStderr();
    const std::string eio = strerror(EIO);
    const std::string einval = strerror(EINVAL);
    EXPECT_EQ(err, "get device info failed : " + eio + "\n" + "get topology failed : " + eio +
                       "\n" + "enum entities failed : " + einval + "\n" + "enum links failed : " +
                       einval + "\n" + "enum links failed : " + strerror(EPERM) + "\n");
    EXPECT_TRUE(log.records().empty()) << log.dump();
}

TEST_F(MediaDeviceTest, InterruptedRequestsAreRetried) {
    MediaDevice media(kPath);
    ASSERT_EQ(media.Open(), 0);
    node_->InjectEintr(MEDIA_IOC_DEVICE_INFO, 3);
    testing::internal::CaptureStderr();
    EXPECT_EQ(media.GetDeviceInfo(), 0);
    EXPECT_TRUE(testing::internal::GetCapturedStderr().empty());
    EXPECT_EQ(node_->CountRequests(MEDIA_IOC_DEVICE_INFO), 4u);
}

TEST(MediaDeviceFileTest, MissingPathBecomesAnEmptyFile) {
    char dir[] = "/tmp/marlo-media-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/media0";
    mode_t old = umask(022);
    marlo_test::FdLeakCheck leaks;
    {
        MediaDevice media(path);
        testing::internal::CaptureStderr();
        ASSERT_EQ(media.Open(), 0);
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_TRUE(S_ISREG(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0640u);
        EXPECT_EQ(st.st_size, 0);
        EXPECT_EQ(media.GetDeviceInfo(), -2);
        EXPECT_EQ(media.GetTopology(), -2);
        EXPECT_EQ(media.EnumEntities(), -2);
        EXPECT_EQ(media.EnumLinks(), -2);
        EXPECT_EQ(media.SetupLinks(), -2);
        const std::string err = testing::internal::GetCapturedStderr();
        const std::string notty = strerror(ENOTTY);
        EXPECT_EQ(
            err, "get device info failed : " + notty + "\n" + "get topology failed : " + notty +
                     "\n" + "enum entities failed : " + notty + "\n" +
                     "enum links failed : " + notty + "\n" + "enum links failed : " + notty + "\n");
    }
    EXPECT_TRUE(leaks.unchanged());
    umask(old);
    unlink(path.c_str());
    rmdir(dir);
}

TEST(MediaDeviceFileTest, OpenFailureWritesToStandardError) {
    /* Nothing can be created at the top of procfs, not even by root. */
    const char* path = "/proc/marlo-media-node";
    int probe = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0640);
    ASSERT_EQ(probe, -1);
    const std::string text = strerror(errno);
    MediaDevice media(path);
    testing::internal::CaptureStderr();
    EXPECT_EQ(media.Open(), -2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              std::string("Open device ") + path + " failed with error " + text + "\n");
    EXPECT_EQ(media.Fd(), -1);
}

TEST_F(MediaDeviceTest, RequestsBeforeOpenFailWithTheirMessages) {
    MediaDevice media(kPath);
    marlo_test::LogCapture log;
    testing::internal::CaptureStderr();
    EXPECT_EQ(media.GetDeviceInfo(), -2);
    EXPECT_EQ(media.SetupLinks(), -2);
    const std::string badf = strerror(EBADF);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "get device info failed : " + badf + "\n" + "enum links failed : " + badf + "\n");
    EXPECT_TRUE(log.records().empty()) << log.dump();
    EXPECT_TRUE(node_->Requests().empty());
}

TEST_F(MediaDeviceTest, RecordsStartZeroed) {
    /* Built over dirty memory, so a zero cannot be left over by chance. */
    alignas(MediaDevice) unsigned char storage[sizeof(MediaDevice)];
    memset(storage, 0xa5, sizeof(storage));
    MediaDevice* media = new (storage) MediaDevice(kPath);
    const media_device_info zeroInfo = {};
    const media_v2_topology zeroTopology = {};
    const media_entity_desc zeroEntity = {};
    EXPECT_EQ(memcmp(&media->Info(), &zeroInfo, sizeof(zeroInfo)), 0);
    EXPECT_EQ(memcmp(&media->Topology(), &zeroTopology, sizeof(zeroTopology)), 0);
    EXPECT_EQ(memcmp(&media->Entity(), &zeroEntity, sizeof(zeroEntity)), 0);
    /* The two link records have padding: compare their fields. */
    EXPECT_EQ(media->Links().entity, 0u);
    EXPECT_EQ(media->Links().pads, nullptr);
    EXPECT_EQ(media->Links().links, nullptr);
    for (uint32_t reserved : media->Links().reserved)
        EXPECT_EQ(reserved, 0u);
    EXPECT_EQ(media->Link().source.entity, 0u);
    EXPECT_EQ(media->Link().source.index, 0u);
    EXPECT_EQ(media->Link().sink.entity, 0u);
    EXPECT_EQ(media->Link().sink.index, 0u);
    EXPECT_EQ(media->Link().flags, 0u);
    EXPECT_EQ(media->Fd(), -1);
    media->~MediaDevice();
}

TEST_F(MediaDeviceTest, FailedOpenWritesOnlyToStandardError) {
    node_->InjectError(marlo_fake::kOpenRequest, EACCES);
    MediaDevice media(kPath);
    marlo_test::LogCapture log;
    testing::internal::CaptureStderr();
    EXPECT_EQ(media.Open(), -2);
    EXPECT_EQ(
        testing::internal::GetCapturedStderr(),
        std::string("Open device ") + kPath + " failed with error " + strerror(EACCES) + "\n");
    EXPECT_TRUE(log.records().empty()) << log.dump();
    EXPECT_EQ(media.Fd(), -1);
}

TEST_F(MediaDeviceTest, DestructorClosesTheDescriptor) {
    {
        MediaDevice media(kPath);
        ASSERT_EQ(media.Open(), 0);
        EXPECT_EQ(node_->OpenDescriptors(), 1u);
    }
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

}  // namespace
