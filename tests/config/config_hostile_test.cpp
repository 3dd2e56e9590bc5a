/*
 * Malformed and hostile configuration files: each gives the described result
 * or a clear error, and never a crash.
 */
#include <android/log.h>
#include <gtest/gtest.h>
#include <marlo/config/config.h>

#include <cmath>
#include <filesystem>

#include "config/board_configs_access.h"
#include "config/config_test_util.h"
#include "config/temp_sysroot.h"
#include "support/log_capture.h"

using marlo_test::BoardXml;
using marlo_test::ConfigXml;
using marlo_test::LogCapture;
using marlo_test::TempSysroot;
using tessaro::marlo::GlobalCameraConfig;
using tessaro::marlo::detail::BoardConfigsAccess;

namespace {

constexpr char kTag[] = "marlo_config";

class ConfigHostile : public ::testing::Test {
  protected:
    void SetUp() override { BoardConfigsAccess::Clear(); }
    void TearDown() override { BoardConfigsAccess::Clear(); }

    /* Only the default file exists, with \a xml; returns Creat()'s board. */
    GlobalCameraConfig::BoardConfig CreatWith(const std::string& xml) {
        sysroot_.writeDefaultConfig(xml);
        return GlobalCameraConfig::Creat();
    }

    std::string LoadError(const char* name) const {
        return std::string(
                   "loadFromConfig: Unable to load marlo config file "
                   "'/vendor/etc/marlo_config.xml'. Error: ") +
               name;
    }

    TempSysroot sysroot_;
};

}  // namespace

TEST_F(ConfigHostile, NotWellFormedXmlIsAClearError) {
    LogCapture capture;
    auto board = CreatWith("<CameraConfig><board name=\"a\"></cameras></CameraConfig>");
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(GlobalCameraConfig::boardConfigs().empty());
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, LoadError("XML_ERROR_MISMATCHED_ELEMENT")))
        << capture.dump();
}

TEST_F(ConfigHostile, UnterminatedDocumentIsAClearError) {
    LogCapture capture;
    auto board = CreatWith("<CameraConfig><board name=\"a");
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(capture.containsText("Unable to load marlo config file")) << capture.dump();
}

TEST_F(ConfigHostile, EmptyFileIsAClearError) {
    LogCapture capture;
    auto board = CreatWith("");
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, LoadError("XML_ERROR_EMPTY_DOCUMENT")))
        << capture.dump();
}

TEST_F(ConfigHostile, BinaryGarbageIsAClearError) {
    std::string garbage;
    for (int i = 0; i < 4096; ++i)
        garbage.push_back(static_cast<char>((i * 131 + 7) & 0xff));
    LogCapture capture;
    auto board = CreatWith(garbage);
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(capture.containsText("Unable to load marlo config file")) << capture.dump();
}

TEST_F(ConfigHostile, DirectoryInPlaceOfTheFileIsAClearError) {
    std::filesystem::create_directories(sysroot_.path("/vendor/etc/marlo_config.xml"));
    LogCapture capture;
    auto board = GlobalCameraConfig::Creat();
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(capture.containsText("Unable to load marlo config file")) << capture.dump();
}

TEST_F(ConfigHostile, MissingRootGivesNoBoard) {
    LogCapture capture;
    auto board = CreatWith("<?xml version=\"1.0\"?><!-- nothing here -->\n<board name=\"x\"/>");
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 "loadFromConfig: no automotive camera config specified"));
}

TEST_F(ConfigHostile, NestedCameraConfigIsNotTheRoot) {
    LogCapture capture;
    auto board = CreatWith("<Top><CameraConfig>" + BoardXml("x", 1) + "</CameraConfig></Top>");
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(capture.containsText("no automotive camera config specified"));
}

TEST_F(ConfigHostile, DeeplyNestedFileIsAClearError) {
    std::string xml = "<CameraConfig><board name=\"deep\">";
    const int depth = 100000;
    for (int i = 0; i < depth; ++i)
        xml += "<n>";
    for (int i = 0; i < depth; ++i)
        xml += "</n>";
    xml += "</board></CameraConfig>";
    LogCapture capture;
    auto board = CreatWith(xml);
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, LoadError("XML_ELEMENT_DEPTH_EXCEEDED")))
        << capture.dump();
}

TEST_F(ConfigHostile, NestingWithinTheLimitIsIgnoredAsUnknown) {
    std::string xml = "<CameraConfig><board name=\"deep\"><cameras><camera id=\"3\">";
    for (int i = 0; i < 45; ++i)
        xml += "<channels><channel id=\"9\">";
    for (int i = 0; i < 45; ++i)
        xml += "</channel></channels>";
    xml += "</camera></cameras></board></CameraConfig>";
    sysroot_.writeModel(std::string("deep") + '\0');
    auto board = CreatWith(xml);
    EXPECT_EQ(board.name, "deep");
    ASSERT_EQ(board.cameras.size(), 1u);
    /* Only the direct channel of the first "channels" is read. */
    ASSERT_EQ(board.cameras[0].channels.size(), 1u);
    EXPECT_EQ(board.cameras[0].channels[0].id, 9);
    EXPECT_TRUE(board.cameras[0].channels[0].streams.empty());
}

TEST_F(ConfigHostile, VeryLargeFileIsReadCompletely) {
    std::string boards;
    const int count = 3000;
    for (int i = 0; i < count; ++i) {
        boards += "<board name=\"board " + std::to_string(i) + "\"><cameras>";
        for (int c = 0; c < 4; ++c)
            boards +=
                "<camera id=\"" + std::to_string(c) +
                "\"><entity>e</entity><channels><channel id=\"0\" dev=\"/dev/video0\">"
                "<cameraModel>m</cameraModel><stream id=\"0\" format=\"NV12\" "
                "width=\"1920\" height=\"1080\" buf_cnt=\"4\"/></channel></channels></camera>";
        boards +=
            "</cameras><inputMapping><inputMap camId=\"0\"><inputSrc cameraId=\"0\" "
            "channelId=\"0\" streamId=\"0\"/></inputMap></inputMapping></board>";
    }
    std::string xml = ConfigXml(boards);
    ASSERT_GT(xml.size(), 1000000u);
    sysroot_.writeModel(std::string("board 2999") + '\0');
    auto board = CreatWith(xml);
    EXPECT_EQ(board.name, "board 2999");
    EXPECT_EQ(board.cameras.size(), 4u);
    EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), static_cast<size_t>(count));
}

TEST_F(ConfigHostile, HugeAttributeAndTextValuesAreKept) {
    std::string longName(1 << 20, 'N');
    std::string longText(1 << 20, 'T');
    sysroot_.writeModel(longName + '\0');
    auto board = CreatWith(ConfigXml("<board name=\"" + longName + "\"><cameras><camera><entity>" +
                                     longText + "</entity></camera></cameras></board>"));
    EXPECT_EQ(board.name, longName);
    ASSERT_EQ(board.cameras.size(), 1u);
    EXPECT_EQ(board.cameras[0].entity, longText);
}

TEST_F(ConfigHostile, HugeModelFileWithoutNewlineFallsBackToTheFirstBoard) {
    sysroot_.writeModel(std::string(1 << 20, 'x'));
    auto board = CreatWith(ConfigXml(BoardXml("First", 1) + BoardXml("Second", 2)));
    EXPECT_EQ(board.name, "First");
}

TEST_F(ConfigHostile, ModelFileThatIsADirectoryGivesTheDefaultModel) {
    std::filesystem::create_directories(sysroot_.path("/proc/device-tree/model"));
    auto board = CreatWith(
        ConfigXml(BoardXml("Other", 0) + BoardXml("Tessaro TS9100 VEHICLE EVB V22 Board", 1)));
    ASSERT_EQ(board.cameras.size(), 1u);
    EXPECT_EQ(board.cameras[0].id, 1);
}

TEST_F(ConfigHostile, NegativeHugeAndNonNumericNumbersStayDefinedEverywhere) {
    sysroot_.writeModel(std::string("n") + '\0');
    auto board = CreatWith(ConfigXml(R"(<board name="n"><cameras>
        <camera id="-2147483648"><channels>
          <channel id="99999999999999999999" dev="">
            <cameraModel>m</cameraModel>
            <stream id="-1" format="NV12" width="-1920" height="1e9" buf_cnt="four"/>
          </channel></channels></camera></cameras>
        <inputMapping>
          <inputMap camId="2147483647"><inputSrc cameraId="0" channelId="0" streamId="0"/>
            <cameraParam><orientation yaw="-1e40" roll="1e40" pitch="0x"/>
              <distortion k1="-1e400" k2="1e-400" p1="--1" p2="+3.5" k3=""/></cameraParam></inputMap>
          <inputMap camId="99999999999999999999"><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap>
          <inputMap camId=""><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap>
        </inputMapping></board>)"));
    ASSERT_EQ(board.cameras.size(), 1u);
    EXPECT_EQ(board.cameras[0].id, -2147483647 - 1);
    const auto& stream = board.cameras[0].channels[0].streams[0];
    EXPECT_EQ(stream.id, -1);
    EXPECT_EQ(stream.width, -1920);
    EXPECT_EQ(stream.buf_cnt, 0);
    ASSERT_EQ(board.inputMap.count(2147483647), 1u);
    const auto& param = board.cameraParams[2147483647];
    EXPECT_TRUE(std::isinf(param.yaw));
    EXPECT_TRUE(std::isinf(param.roll));
    EXPECT_EQ(param.pitch, 0.0f);
    EXPECT_TRUE(std::isinf(param.k1));
    EXPECT_EQ(param.p1, 0.0);
    EXPECT_EQ(param.p2, 3.5);
    EXPECT_EQ(param.k3, 0.0);
}

TEST_F(ConfigHostile, UnknownElementsAndAttributesAreIgnored) {
    sysroot_.writeModel(std::string("u") + '\0');
    auto board = CreatWith(ConfigXml(R"(<extra/><board name="u" colour="red">
        <notes>free text</notes>
        <cameras count="1"><camera id="1" vendor="v"><lens/><channels><channel id="0" dev="/dev/video0" speed="9">
        <cameraModel>m</cameraModel><stream id="0" format="UYVY" fps="30"/></channel></channels></camera></cameras>
        </board>)"));
    EXPECT_EQ(board.name, "u");
    ASSERT_EQ(board.cameras.size(), 1u);
    EXPECT_EQ(board.cameras[0].channels[0].streams.size(), 1u);
}

TEST_F(ConfigHostile, EntitiesAndCharacterReferencesAreProcessed) {
    sysroot_.writeModel(std::string("a&b") + '\0');
    auto board = CreatWith(
        ConfigXml("<board name=\"a&amp;b\"><cameras><camera><entity>&#x41;&#66;</entity></camera>"
                  "</cameras></board>"));
    EXPECT_EQ(board.name, "a&b");
    EXPECT_EQ(board.cameras[0].entity, "AB");
}
