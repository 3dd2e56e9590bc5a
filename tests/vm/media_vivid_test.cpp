/* MediaDevice on vivid's media controller node. */
#include <errno.h>
#include <gtest/gtest.h>
#include <linux/media.h>
#include <string.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include <marlo/v4l2/media_device.h>

#include "support/fd_count.h"
#include "support/vivid.h"

using namespace tessaro::marlo;
using marlo_vm::Vivid;

namespace {

class VividMediaTest : public testing::Test {
  protected:
    void SetUp() override {
        node_ = marlo_vm::VividMediaNode(Vivid::kSinglePlanar);
        ASSERT_FALSE(node_.empty()) << "no media node of vivid-000";
    }

    std::string node_;
};

TEST_F(VividMediaTest, DeviceInfoNamesTheDriver) {
    MediaDevice media(node_);
    ASSERT_EQ(media.Open(), 0);
    ASSERT_EQ(media.GetDeviceInfo(), 0);
    EXPECT_STREQ(media.Info().driver, "vivid");
    EXPECT_STREQ(media.Info().bus_info, "platform:vivid-000");
    EXPECT_NE(media.Info().media_version, 0u);
}

TEST_F(VividMediaTest, TopologyInTwoPassesListsTheCaptureEntity) {
    MediaDevice media(node_);
    ASSERT_EQ(media.Open(), 0);
    /* First pass: the counts; second pass: the records into arrays of that size. */
    media.Topology() = {};
    ASSERT_EQ(media.GetTopology(), 0);
    uint32_t entities = media.Topology().num_entities;
    uint32_t interfaces = media.Topology().num_interfaces;
    uint32_t links = media.Topology().num_links;
    ASSERT_GT(entities, 0u);
    std::vector<media_v2_entity> entityRecords(entities);
    std::vector<media_v2_interface> interfaceRecords(interfaces);
    std::vector<media_v2_link> linkRecords(links);
    media.Topology().ptr_entities = reinterpret_cast<uintptr_t>(entityRecords.data());
    media.Topology().ptr_interfaces = reinterpret_cast<uintptr_t>(interfaceRecords.data());
    media.Topology().ptr_links = reinterpret_cast<uintptr_t>(linkRecords.data());
    ASSERT_EQ(media.GetTopology(), 0);
    std::set<std::string> names;
    for (const media_v2_entity& entity : entityRecords)
        names.insert(entity.name);
    EXPECT_TRUE(names.count("vivid-000-vid-cap")) << names.size() << " entities";
    /* The device nodes are interfaces, linked to their entities. */
    EXPECT_GE(interfaces, 1u);
    EXPECT_GE(links, 1u);
}

TEST_F(VividMediaTest, EntitiesAndTheirLinks) {
    MediaDevice media(node_);
    ASSERT_EQ(media.Open(), 0);
    std::vector<std::string> names;
    media.Entity() = {};
    media.Entity().id = MEDIA_ENT_ID_FLAG_NEXT;
    while (media.EnumEntities() == 0) {
        names.push_back(media.Entity().name);
        uint32_t id = media.Entity().id;

        std::vector<media_pad_desc> pads(media.Entity().pads + 1);
        std::vector<media_link_desc> links(media.Entity().links + 1);
        media.Links() = {};
        media.Links().entity = id;
        media.Links().pads = pads.data();
        media.Links().links = links.data();
        EXPECT_EQ(media.EnumLinks(), 0) << media.Entity().name;

        media.Entity() = {};
        media.Entity().id = id | MEDIA_ENT_ID_FLAG_NEXT;
    }
    /* The enumeration ends with a refusal, after every entity. */
    EXPECT_GE(names.size(), 1u);
    EXPECT_NE(std::find(names.begin(), names.end(), "vivid-000-vid-cap"), names.end());
}

TEST_F(VividMediaTest, SetupOfALinkThatDoesNotExistIsRefused) {
    MediaDevice media(node_);
    ASSERT_EQ(media.Open(), 0);
    media.Link() = {};
    media.Link().source.entity = 0xffff;
    media.Link().sink.entity = 0xfffe;
    media.Link().flags = MEDIA_LNK_FL_ENABLED;
    testing::internal::CaptureStderr();
    EXPECT_EQ(media.SetupLinks(), -2);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("enum links failed : "), std::string::npos) << err;
}

TEST(VividMedia, CloseReleasesTheNode) {
    std::string node = marlo_vm::VividMediaNode(Vivid::kMultiPlanar);
    ASSERT_FALSE(node.empty()) << "no media node of vivid-001";
    marlo_test::FdLeakCheck leaks;
    {
        MediaDevice media(node);
        ASSERT_EQ(media.Open(), 0);
        ASSERT_EQ(media.GetDeviceInfo(), 0);
        EXPECT_STREQ(media.Info().bus_info, "platform:vivid-001");
        media.Close();
        EXPECT_EQ(media.Fd(), -1);
        testing::internal::CaptureStderr();
        EXPECT_EQ(media.GetDeviceInfo(), -2);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("get device info failed"),
                  std::string::npos);
    }
    EXPECT_TRUE(leaks.unchanged());
}

}  // namespace
