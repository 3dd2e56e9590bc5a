/* Parsing of single elements into configuration records. */
#include <android/log.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <marlo/config/config.h>
#include <tinyxml2.h>

#include <cmath>

#include "support/log_capture.h"

using marlo_test::LogCapture;
using tessaro::marlo::GlobalCameraConfig;
using tinyxml2::XMLDocument;
using tinyxml2::XMLElement;

namespace {

constexpr char kTag[] = "marlo_config";

/* Holds a parsed snippet; root() is its first element. */
class Snippet {
  public:
    explicit Snippet(const char* xml) : doc_(true, tinyxml2::PRESERVE_WHITESPACE) {
        EXPECT_EQ(doc_.Parse(xml), tinyxml2::XML_SUCCESS) << xml;
    }
    const XMLElement* root() const { return doc_.FirstChildElement(); }

  private:
    XMLDocument doc_;
};

GlobalCameraConfig::StreamConfig StreamWithFormat(const char* format) {
    std::string xml = std::string("<stream id=\"3\" format=\"") + format + "\"/>";
    Snippet snippet(xml.c_str());
    return GlobalCameraConfig::parseStreamConfig(snippet.root());
}

}  // namespace

TEST(ParseStreamConfig, ReadsEveryAttribute) {
    Snippet s(R"(<stream id="7" format="NV12" width="1920" height="1080" buf_cnt="6"/>)");
    auto stream = GlobalCameraConfig::parseStreamConfig(s.root());
    EXPECT_EQ(stream.id, 7);
    EXPECT_EQ(stream.format, static_cast<uint32_t>(V4L2_PIX_FMT_NV12));
    EXPECT_EQ(stream.width, 1920);
    EXPECT_EQ(stream.height, 1080);
    EXPECT_EQ(stream.buf_cnt, 6);
}

TEST(ParseStreamConfig, AFrameRateIsOptional) {
    Snippet rated(R"(<stream id="1" format="NV12" width="64" height="48" fps="29.97"/>)");
    EXPECT_FLOAT_EQ(GlobalCameraConfig::parseStreamConfig(rated.root()).fps, 29.97f);
    Snippet plain(R"(<stream id="1" format="NV12" width="64" height="48"/>)");
    EXPECT_EQ(GlobalCameraConfig::parseStreamConfig(plain.root()).fps, 0.0f);
    /* A rate that is no positive number leaves the driver's own. */
    for (const char* bad : {"0", "-5", "fast", "nan"}) {
        std::string xml = std::string("<stream id=\"1\" fps=\"") + bad + "\"/>";
        Snippet snippet(xml.c_str());
        EXPECT_EQ(GlobalCameraConfig::parseStreamConfig(snippet.root()).fps, 0.0f) << bad;
    }
}

/* Format bytes of 0x80 and up land unchanged whatever the signedness of char
 * (signed on x86, unsigned on arm64): no sign bits spill into the higher
 * bytes. "&#xE9;" is U+00E9, the bytes 0xC3 0xA9 in the parsed text. */
TEST(ParseStreamConfig, HighFormatBytesKeepTheirPlaces) {
    Snippet s(R"(<stream id="1" format="&#xE9;AB"/>)");
    EXPECT_EQ(GlobalCameraConfig::parseStreamConfig(s.root()).format, 0x4241A9C3u);
}

TEST(ParseStreamConfig, NullElementGivesDefaults) {
    auto stream = GlobalCameraConfig::parseStreamConfig(nullptr);
    EXPECT_EQ(stream.id, 0);
    EXPECT_EQ(stream.format, 0u);
    EXPECT_EQ(stream.width, 0);
    EXPECT_EQ(stream.height, 0);
    EXPECT_EQ(stream.buf_cnt, 0);
    EXPECT_EQ(stream.fps, 0.0f);
}

TEST(ParseStreamConfig, YuyvGivesTheV4l2Code) {
    EXPECT_EQ(StreamWithFormat("YUYV").format, static_cast<uint32_t>(V4L2_PIX_FMT_YUYV));
}

TEST(ParseStreamConfig, LongerFormatUsesItsFirstFourCharacters) {
    EXPECT_EQ(StreamWithFormat("YUYV_EXTRA").format, static_cast<uint32_t>(V4L2_PIX_FMT_YUYV));
    EXPECT_EQ(StreamWithFormat("NV12NV21").format, static_cast<uint32_t>(V4L2_PIX_FMT_NV12));
}

TEST(ParseStreamConfig, FirstCharacterIsTheLowestByte) {
    EXPECT_EQ(StreamWithFormat("ABCD").format, 0x44434241u);
}

TEST(ParseStreamConfig, ThreeCharactersKeepTheTerminatingZero) {
    LogCapture capture;
    EXPECT_EQ(StreamWithFormat("RGB").format, 0x00424752u);
    EXPECT_FALSE(capture.containsText("shorter than three characters")) << capture.dump();
}

TEST(ParseStreamConfig, ShorterFormatsFillWithZeroAndWarn) {
    LogCapture capture;
    EXPECT_EQ(StreamWithFormat("AB").format, 0x00004241u);
    EXPECT_EQ(StreamWithFormat("A").format, 0x00000041u);
    EXPECT_EQ(StreamWithFormat("").format, 0u);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag,
                                 "parseStreamConfig: format 'AB' of stream 3 is shorter than "
                                 "three characters, missing bytes taken as zero"))
        << capture.dump();
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag,
                                 "parseStreamConfig: format '' of stream 3 is shorter than "
                                 "three characters, missing bytes taken as zero"));
}

TEST(ParseStreamConfig, FormatsOfZeroToEightCharacters) {
    const char* texts[] = {"", "Y", "YU", "YUY", "YUYV", "YUYV1", "YUYV12", "YUYV123", "YUYV1234"};
    const uint32_t expected[] = {0u,
                                 0x59u,
                                 0x5559u,
                                 0x595559u,
                                 V4L2_PIX_FMT_YUYV,
                                 V4L2_PIX_FMT_YUYV,
                                 V4L2_PIX_FMT_YUYV,
                                 V4L2_PIX_FMT_YUYV,
                                 V4L2_PIX_FMT_YUYV};
    for (size_t i = 0; i < 9; ++i)
        EXPECT_EQ(StreamWithFormat(texts[i]).format, expected[i]) << "'" << texts[i] << "'";
}

TEST(ParseStreamConfig, NonAsciiFormatBytesAreTakenUnsigned) {
    /* U+00E9 is two bytes, 0xC3 0xA9, in UTF-8. */
    EXPECT_EQ(StreamWithFormat("\xC3\xA9XY").format, 0x5958A9C3u);
}

TEST(ParseStreamConfig, AbsentAndNonNumericAttributesKeepDefaults) {
    Snippet s(R"(<stream id="abc" width="" height="wide" buf_cnt="-"/>)");
    auto stream = GlobalCameraConfig::parseStreamConfig(s.root());
    EXPECT_EQ(stream.id, 0);
    EXPECT_EQ(stream.format, 0u);
    EXPECT_EQ(stream.width, 0);
    EXPECT_EQ(stream.height, 0);
    EXPECT_EQ(stream.buf_cnt, 0);
}

TEST(ParseStreamConfig, NegativeAndHexNumbersAsTheXmlLibraryReadsThem) {
    Snippet s(R"(<stream id="-5" width="0x10" height="  720" buf_cnt="4 buffers"/>)");
    auto stream = GlobalCameraConfig::parseStreamConfig(s.root());
    EXPECT_EQ(stream.id, -5);
    EXPECT_EQ(stream.width, 16);
    EXPECT_EQ(stream.height, 720);
    EXPECT_EQ(stream.buf_cnt, 4);
}

TEST(ParseStreamConfig, HugeNumbersDoNotCrash) {
    Snippet s(R"(<stream id="99999999999999999999999" width="2147483647" height="-2147483648"/>)");
    auto stream = GlobalCameraConfig::parseStreamConfig(s.root());
    EXPECT_EQ(stream.width, 2147483647);
    EXPECT_EQ(stream.height, -2147483648LL);
}

TEST(ParseCameraParam, ReadsEveryField) {
    Snippet s(R"(<cameraParam>
        <location>rear</location>
        <lensFacing>back</lensFacing>
        <orientation yaw="1.5" roll="2.5" pitch="-3.5"/>
        <instrinsic fx="1000.25" fy="999.75" cx="640.5" cy="360.5"/>
        <fov hfov="190" vfov="142.5"/>
        <distortion k1="0.123456789012345" k2="-0.5" p1="1e-10" p2="2" k3="-3.25"/>
    </cameraParam>)");
    auto p = GlobalCameraConfig::parseCameraParam(s.root());
    EXPECT_EQ(p.location, "rear");
    EXPECT_EQ(p.lensFacing, "back");
    EXPECT_FLOAT_EQ(p.yaw, 1.5f);
    EXPECT_FLOAT_EQ(p.roll, 2.5f);
    EXPECT_FLOAT_EQ(p.pitch, -3.5f);
    EXPECT_FLOAT_EQ(p.fx, 1000.25f);
    EXPECT_FLOAT_EQ(p.fy, 999.75f);
    EXPECT_FLOAT_EQ(p.cx, 640.5f);
    EXPECT_FLOAT_EQ(p.cy, 360.5f);
    EXPECT_FLOAT_EQ(p.hfov, 190.0f);
    EXPECT_FLOAT_EQ(p.vfov, 142.5f);
    EXPECT_DOUBLE_EQ(p.k2, -0.5);
    EXPECT_DOUBLE_EQ(p.p1, 1e-10);
    EXPECT_DOUBLE_EQ(p.p2, 2.0);
    EXPECT_DOUBLE_EQ(p.k3, -3.25);
}

TEST(ParseCameraParam, DistortionKeepsDoublePrecision) {
    Snippet s(R"(<cameraParam><distortion k1="0.123456789012345"/>
                 <fov hfov="0.123456789012345"/></cameraParam>)");
    auto p = GlobalCameraConfig::parseCameraParam(s.root());
    EXPECT_EQ(p.k1, 0.123456789012345);
    /* The other numbers are single precision. */
    EXPECT_EQ(p.hfov, 0.123456789012345f);
    EXPECT_NE(static_cast<double>(p.hfov), 0.123456789012345);
}

TEST(ParseCameraParam, CorrectlySpelledIntrinsicIsNotRecognised) {
    Snippet s(R"(<cameraParam><intrinsic fx="1" fy="2" cx="3" cy="4"/></cameraParam>)");
    auto p = GlobalCameraConfig::parseCameraParam(s.root());
    EXPECT_EQ(p.fx, 0.0f);
    EXPECT_EQ(p.fy, 0.0f);
    EXPECT_EQ(p.cx, 0.0f);
    EXPECT_EQ(p.cy, 0.0f);
}

TEST(ParseCameraParam, EveryChildAndAttributeIsOptional) {
    Snippet s(R"(<cameraParam><orientation yaw="4"/><distortion p2="0.25"/></cameraParam>)");
    auto p = GlobalCameraConfig::parseCameraParam(s.root());
    EXPECT_EQ(p.location, "");
    EXPECT_EQ(p.lensFacing, "");
    EXPECT_EQ(p.yaw, 4.0f);
    EXPECT_EQ(p.roll, 0.0f);
    EXPECT_EQ(p.pitch, 0.0f);
    EXPECT_EQ(p.p2, 0.25);
    EXPECT_EQ(p.k1, 0.0);
    EXPECT_EQ(p.fx, 0.0f);
    EXPECT_EQ(p.hfov, 0.0f);
}

TEST(ParseCameraParam, EmptyLocationStaysEmptyWithoutMessage) {
    LogCapture capture;
    Snippet s(R"(<cameraParam><location></location><lensFacing>front</lensFacing></cameraParam>)");
    auto p = GlobalCameraConfig::parseCameraParam(s.root());
    EXPECT_EQ(p.location, "");
    EXPECT_EQ(p.lensFacing, "front");
    EXPECT_TRUE(capture.records().empty()) << capture.dump();
}

TEST(ParseCameraParam, EmptyLensFacingIsLeftEmptyWithWarning) {
    LogCapture capture;
    Snippet s(R"(<cameraParam><lensFacing/></cameraParam>)");
    auto p = GlobalCameraConfig::parseCameraParam(s.root());
    EXPECT_EQ(p.lensFacing, "");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag,
                                 "parseCameraParam: <lensFacing> has no text, left empty"))
        << capture.dump();
}

TEST(ParseCameraParam, OnlyTheFirstChildOfANameCounts) {
    Snippet s(R"(<cameraParam><location>left</location><location>right</location>
                 <orientation yaw="1"/><orientation yaw="2"/></cameraParam>)");
    auto p = GlobalCameraConfig::parseCameraParam(s.root());
    EXPECT_EQ(p.location, "left");
    EXPECT_EQ(p.yaw, 1.0f);
}

TEST(ParseCameraParam, NonNumericAndSpecialFloats) {
    Snippet s(R"(<cameraParam><orientation yaw="north" roll="1e999" pitch="-0.5x"/>
                 <distortion k1="nan" k2="zero" k3="1e999"/></cameraParam>)");
    auto p = GlobalCameraConfig::parseCameraParam(s.root());
    EXPECT_EQ(p.yaw, 0.0f);
    EXPECT_TRUE(std::isinf(p.roll));
    EXPECT_EQ(p.pitch, -0.5f);
    EXPECT_TRUE(std::isnan(p.k1));
    EXPECT_EQ(p.k2, 0.0);
    EXPECT_TRUE(std::isinf(p.k3));
}

TEST(ParseChannelConfig, ReadsAttributesModelParamAndStreamsInOrder) {
    LogCapture capture;
    Snippet s(R"(<channel id="4" dev="/dev/video4">
        <cameraModel>OX03C10</cameraModel>
        <cameraParam><location>front</location></cameraParam>
        <stream id="2" format="UYVY"/>
        <unknown id="9"/>
        <stream id="1" format="NV12"/>
    </channel>)");
    auto channel = GlobalCameraConfig::parseChannelConfig(s.root());
    EXPECT_EQ(channel.id, 4);
    EXPECT_EQ(channel.dev, "/dev/video4");
    EXPECT_EQ(channel.cameraModel, "OX03C10");
    EXPECT_EQ(channel.cameraParam.location, "front");
    ASSERT_EQ(channel.streams.size(), 2u);
    EXPECT_EQ(channel.streams[0].id, 2);
    EXPECT_EQ(channel.streams[1].id, 1);
    auto records = capture.records();
    ASSERT_EQ(records.size(), 2u) << capture.dump();
    EXPECT_EQ(records[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(records[0].tag, kTag);
    EXPECT_EQ(records[0].message, "parseChannelConfig: parsed stream id:2!");
    EXPECT_EQ(records[1].message, "parseChannelConfig: parsed stream id:1!");
}

TEST(ParseChannelConfig, MissingCameraModelIsLeftEmptyWithWarning) {
    LogCapture capture;
    Snippet s(R"(<channel id="3" dev="/dev/video3"/>)");
    auto channel = GlobalCameraConfig::parseChannelConfig(s.root());
    EXPECT_EQ(channel.cameraModel, "");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag,
                                 "parseChannelConfig: channel 3 has no <cameraModel>, left empty"))
        << capture.dump();
}

TEST(ParseChannelConfig, EmptyCameraModelIsLeftEmptyWithWarning) {
    LogCapture capture;
    Snippet s(R"(<channel id="3"><cameraModel><!-- none --></cameraModel></channel>)");
    auto channel = GlobalCameraConfig::parseChannelConfig(s.root());
    EXPECT_EQ(channel.cameraModel, "");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag,
                                 "parseChannelConfig: <cameraModel> has no text, left empty"));
}

TEST(ParseChannelConfig, NullElementGivesDefaults) {
    auto channel = GlobalCameraConfig::parseChannelConfig(nullptr);
    EXPECT_EQ(channel.id, 0);
    EXPECT_TRUE(channel.dev.empty());
    EXPECT_TRUE(channel.streams.empty());
}

TEST(ParseCameraConfig, ReadsTextsAndChannelsOfTheFirstChannelsElement) {
    LogCapture capture;
    Snippet s(R"(<camera id="5">
        <entity>max9296 0-0048</entity><subDev>/dev/v4l-subdev2</subDev>
        <mbusCode>MEDIA_BUS_FMT_UYVY8_2X8</mbusCode>
        <channels>
            <channel id="1" dev="/dev/video1"><cameraModel>a</cameraModel></channel>
            <channel id="0" dev="/dev/video0"><cameraModel>b</cameraModel></channel>
        </channels>
        <channels><channel id="9" dev="/dev/video9"><cameraModel>c</cameraModel></channel></channels>
    </camera>)");
    auto camera = GlobalCameraConfig::parseCameraConfig(s.root());
    EXPECT_EQ(camera.id, 5);
    EXPECT_EQ(camera.entity, "max9296 0-0048");
    EXPECT_EQ(camera.subDev, "/dev/v4l-subdev2");
    EXPECT_EQ(camera.mbusCode, "MEDIA_BUS_FMT_UYVY8_2X8");
    ASSERT_EQ(camera.channels.size(), 2u);
    EXPECT_EQ(camera.channels[0].dev, "/dev/video1");
    EXPECT_EQ(camera.channels[1].dev, "/dev/video0");
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_INFO, kTag, "parseCameraConfig: parsed channel id:1!"));
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_INFO, kTag, "parseCameraConfig: parsed channel id:0!"));
    EXPECT_EQ(capture.count("parseCameraConfig: parsed channel id:9!"), 0u);
}

TEST(ParseCameraConfig, EmptyTextElementsAreLeftEmptyWithWarnings) {
    LogCapture capture;
    Snippet s(R"(<camera id="1"><entity/><subDev></subDev><mbusCode/></camera>)");
    auto camera = GlobalCameraConfig::parseCameraConfig(s.root());
    EXPECT_EQ(camera.entity, "");
    EXPECT_EQ(camera.subDev, "");
    EXPECT_EQ(camera.mbusCode, "");
    EXPECT_TRUE(camera.channels.empty());
    for (const char* name : {"entity", "subDev", "mbusCode"})
        EXPECT_TRUE(capture.contains(
            ANDROID_LOG_WARN, kTag,
            std::string("parseCameraConfig: <") + name + "> has no text, left empty"))
            << name;
}

TEST(ParseCameraConfig, TextIsKeptAsItStands) {
    Snippet s("<camera><entity>  spaced name\n</entity><subDev>&lt;a&amp;b&gt;</subDev></camera>");
    auto camera = GlobalCameraConfig::parseCameraConfig(s.root());
    EXPECT_EQ(camera.entity, "  spaced name\n");
    EXPECT_EQ(camera.subDev, "<a&b>");
}

TEST(ParseBoardConfig, ReadsNameCamerasAndMappingWithMessages) {
    LogCapture capture;
    Snippet s(R"(<board name="EVB">
        <cameras>
            <camera id="10"><channels><channel id="0" dev="/dev/video0"><cameraModel>m</cameraModel>
                <stream id="0" format="UYVY"/></channel></channels></camera>
            <camera id="11"/>
        </cameras>
        <inputMapping>
            <inputMap camId="0"><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap>
            <inputMap camId="1"><inputSrc cameraId="1" channelId="2" streamId="3"/></inputMap>
        </inputMapping>
    </board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    EXPECT_EQ(board.name, "EVB");
    ASSERT_EQ(board.cameras.size(), 2u);
    EXPECT_EQ(board.cameras[0].id, 10);
    EXPECT_EQ(board.cameras[1].id, 11);
    ASSERT_EQ(board.inputMap.size(), 2u);
    EXPECT_EQ(board.inputMap[1].cameraId, 1);
    EXPECT_EQ(board.inputMap[1].channelId, 2);
    EXPECT_EQ(board.inputMap[1].streamId, 3);
    EXPECT_TRUE(board.cameraParams.empty());

    std::vector<std::string> expected = {
        "parseBoardConfig: parsing board: EVB!",
        "parseChannelConfig: parsed stream id:0!",
        "parseCameraConfig: parsed channel id:0!",
        "parseBoardConfig: parsed camera id:10!",
        "parseBoardConfig: parsed camera id:11!",
        "Parsed camera mapping 0 stream 0, channel 0 of camera 0",
        "Parsed camera mapping 1 stream 3, channel 2 of camera 1",
    };
    auto records = capture.records();
    ASSERT_EQ(records.size(), expected.size()) << capture.dump();
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(records[i].message, expected[i]);
        EXPECT_EQ(records[i].priority, ANDROID_LOG_INFO);
        EXPECT_EQ(records[i].tag, kTag);
    }
}

TEST(ParseBoardConfig, BoardWithoutNameLogsNoParsingMessage) {
    LogCapture capture;
    Snippet s("<board><inputMapping/></board>");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    EXPECT_EQ(board.name, "");
    EXPECT_FALSE(capture.containsText("parsing board"));
}

TEST(ParseBoardConfig, WithoutInputMappingMapsAreEmptyAndLogged) {
    LogCapture capture;
    Snippet s(R"(<board name="B"><cameras><camera id="0"/></cameras></board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    EXPECT_EQ(board.cameras.size(), 1u);
    EXPECT_TRUE(board.inputMap.empty());
    EXPECT_TRUE(board.cameraParams.empty());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 "parseBoardConfig: no internal <inputMapping> specified"));
}

TEST(ParseBoardConfig, InputMapWithoutCamIdIsSkippedWithItsCameraParam) {
    LogCapture capture;
    Snippet s(R"(<board name="B"><inputMapping>
        <inputMap><inputSrc cameraId="0" channelId="0" streamId="0"/>
            <cameraParam><location>front</location></cameraParam></inputMap>
        <inputMap camId="x"><inputSrc cameraId="0" channelId="0" streamId="0"/>
            <cameraParam><location>rear</location></cameraParam></inputMap>
        <inputMap camId="-3"><inputSrc cameraId="0" channelId="0" streamId="0"/>
            <cameraParam><location>left</location></cameraParam></inputMap>
    </inputMapping></board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    EXPECT_TRUE(board.inputMap.empty());
    EXPECT_TRUE(board.cameraParams.empty());
    EXPECT_FALSE(capture.containsText("Parsed camera mapping"));
}

TEST(ParseBoardConfig, InputMapWithoutInputSrcIsSkippedWithItsCameraParam) {
    LogCapture capture;
    Snippet s(R"(<board name="B"><inputMapping>
        <inputMap camId="1"><cameraParam><location>front</location></cameraParam></inputMap>
    </inputMapping></board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    EXPECT_TRUE(board.inputMap.empty());
    EXPECT_TRUE(board.cameraParams.empty());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 "parseBoardConfig: no internal <inputSrc> specified"));
}

TEST(ParseBoardConfig, RejectedMappingStillRecordsItsCameraParam) {
    LogCapture capture;
    Snippet s(R"(<board name="B"><inputMapping>
        <inputMap camId="2"><inputSrc cameraId="0" channelId="-1" streamId="0"/>
            <cameraParam><location>rear</location><fov hfov="120"/></cameraParam></inputMap>
    </inputMapping></board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    EXPECT_EQ(board.inputMap.count(2), 0u);
    ASSERT_EQ(board.cameraParams.count(2), 1u);
    EXPECT_EQ(board.cameraParams[2].location, "rear");
    EXPECT_EQ(board.cameraParams[2].hfov, 120.0f);
    EXPECT_FALSE(capture.containsText("Parsed camera mapping"));
}

TEST(ParseBoardConfig, AnyAbsentOrNegativeSourceFieldRejectsTheMapping) {
    Snippet s(R"(<board><inputMapping>
        <inputMap camId="1"><inputSrc channelId="0" streamId="0"/></inputMap>
        <inputMap camId="2"><inputSrc cameraId="0" channelId="0"/></inputMap>
        <inputMap camId="3"><inputSrc cameraId="-1" channelId="0" streamId="0"/></inputMap>
        <inputMap camId="4"><inputSrc cameraId="a" channelId="0" streamId="0"/></inputMap>
        <inputMap camId="5"><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap>
    </inputMapping></board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    ASSERT_EQ(board.inputMap.size(), 1u);
    EXPECT_EQ(board.inputMap.count(5), 1u);
}

TEST(ParseBoardConfig, LaterInputMapWithTheSameCamIdWins) {
    Snippet s(R"(<board><inputMapping>
        <inputMap camId="0"><inputSrc cameraId="0" channelId="0" streamId="0"/>
            <cameraParam><location>front</location></cameraParam></inputMap>
        <inputMap camId="0"><inputSrc cameraId="1" channelId="2" streamId="3"/>
            <cameraParam><location>rear</location></cameraParam></inputMap>
    </inputMapping></board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    ASSERT_EQ(board.inputMap.size(), 1u);
    EXPECT_EQ(board.inputMap[0].cameraId, 1);
    EXPECT_EQ(board.inputMap[0].channelId, 2);
    EXPECT_EQ(board.inputMap[0].streamId, 3);
    EXPECT_EQ(board.cameraParams[0].location, "rear");
}

TEST(ParseBoardConfig, ChannelAndBoardCameraParamsAreIndependent) {
    Snippet s(R"(<board><cameras><camera><channels><channel id="0" dev="/dev/video0">
            <cameraModel>m</cameraModel>
            <cameraParam><location>front</location><instrinsic fx="11"/></cameraParam>
        </channel></channels></camera></cameras>
        <inputMapping>
        <inputMap camId="0"><inputSrc cameraId="0" channelId="0" streamId="0"/>
            <cameraParam><location>rear</location><instrinsic fx="22"/></cameraParam></inputMap>
        </inputMapping></board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    const auto& channelParam = board.cameras[0].channels[0].cameraParam;
    EXPECT_EQ(channelParam.location, "front");
    EXPECT_EQ(channelParam.fx, 11.0f);
    EXPECT_EQ(board.cameraParams[0].location, "rear");
    EXPECT_EQ(board.cameraParams[0].fx, 22.0f);
}

TEST(ParseBoardConfig, PositionsAreKeptEvenOutsideTheLists) {
    /* The mapping is not checked against the camera list. */
    Snippet s(R"(<board><inputMapping>
        <inputMap camId="7"><inputSrc cameraId="4" channelId="9" streamId="1"/></inputMap>
    </inputMapping></board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    EXPECT_TRUE(board.cameras.empty());
    EXPECT_EQ(board.inputMap[7].cameraId, 4);
    EXPECT_EQ(board.inputMap[7].channelId, 9);
}

TEST(ParseBoardConfig, OnlyFirstCamerasAndInputMappingCount) {
    Snippet s(R"(<board>
        <cameras><camera id="1"/></cameras><cameras><camera id="2"/></cameras>
        <inputMapping><inputMap camId="0"><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap></inputMapping>
        <inputMapping><inputMap camId="1"><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap></inputMapping>
    </board>)");
    auto board = GlobalCameraConfig::parseBoardConfig(s.root());
    ASSERT_EQ(board.cameras.size(), 1u);
    EXPECT_EQ(board.cameras[0].id, 1);
    EXPECT_EQ(board.inputMap.size(), 1u);
    EXPECT_EQ(board.inputMap.count(0), 1u);
}

TEST(ParseBoardConfig, NullElementGivesEmptyBoard) {
    auto board = GlobalCameraConfig::parseBoardConfig(nullptr);
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(board.cameras.empty());
    EXPECT_TRUE(board.inputMap.empty());
    EXPECT_TRUE(board.cameraParams.empty());
    EXPECT_TRUE(GlobalCameraConfig::parseCameraConfig(nullptr).channels.empty());
    EXPECT_TRUE(GlobalCameraConfig::parseCameraParam(nullptr).location.empty());
}
