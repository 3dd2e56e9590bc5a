/* Loading the configuration files and choosing the board's entry. */
#include <android/log.h>
#include <gtest/gtest.h>
#include <marlo/config/config.h>

#include <cmath>
#include <fstream>
#include <sstream>

#include "config/board_configs_access.h"
#include "config/config_test_util.h"
#include "config/temp_sysroot.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using marlo_test::BoardXml;
using marlo_test::ConfigXml;
using marlo_test::LogCapture;
using marlo_test::TempSysroot;
using tessaro::marlo::GlobalCameraConfig;
using tessaro::marlo::detail::BoardConfigsAccess;

namespace {

constexpr char kTag[] = "marlo_config";
constexpr char kDefaultModel[] = "Tessaro TS9100 VEHICLE EVB V22 Board";
constexpr char kOverrideWarning[] =
    "loadFromConfig: Unable to load override config file, change to load default config file";
constexpr char kLoadSucceeded[] = "loadFromConfig: load marlo config succeed!";

class ConfigLoad : public ::testing::Test {
  protected:
    void SetUp() override { BoardConfigsAccess::Clear(); }
    void TearDown() override { BoardConfigsAccess::Clear(); }

    TempSysroot sysroot_;
};

std::string ReadExample() {
    std::ifstream in(MARLO_EXAMPLE_CONFIG);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace

TEST_F(ConfigLoad, WithoutOverrideTheDefaultFileIsUsedAfterAWarning) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Default board", 4)));
    sysroot_.writeModel(std::string("Default board") + '\0');
    LogCapture capture;
    auto board = GlobalCameraConfig::Creat();
    EXPECT_EQ(board.name, "Default board");
    ASSERT_EQ(board.cameras.size(), 1u);
    EXPECT_EQ(board.cameras[0].id, 4);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag, kOverrideWarning)) << capture.dump();
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, kLoadSucceeded));
}

TEST_F(ConfigLoad, OverrideFileIsReadFirstAndItsLoadLogsNothing) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Default board", 4)));
    sysroot_.writeOverrideConfig(ConfigXml(BoardXml("Override board", 5)));
    LogCapture capture;
    auto board = GlobalCameraConfig::Creat();
    EXPECT_EQ(board.name, "Override board");
    EXPECT_EQ(capture.count(kOverrideWarning), 0u);
    EXPECT_EQ(capture.count(kLoadSucceeded), 0u);
    EXPECT_FALSE(capture.containsText("Unable to load"));
    EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), 1u);
}

TEST_F(ConfigLoad, NeitherFileReadableGivesAnEmptyBoard) {
    LogCapture capture;
    auto board = GlobalCameraConfig::Creat();
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(board.cameras.empty());
    EXPECT_TRUE(board.inputMap.empty());
    EXPECT_TRUE(board.cameraParams.empty());
    EXPECT_TRUE(GlobalCameraConfig::boardConfigs().empty());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag, kOverrideWarning));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "loadFromConfig: Unable to load marlo config file "
                                 "'/vendor/etc/marlo_config.xml'. Error: "
                                 "XML_ERROR_FILE_NOT_FOUND"))
        << capture.dump();
    EXPECT_EQ(capture.count(kLoadSucceeded), 0u);
    /* With no board there is nothing to match and nothing to say about it. */
    EXPECT_FALSE(capture.containsText("Matching config"));
    EXPECT_FALSE(capture.containsText("config not found"));
}

TEST_F(ConfigLoad, BrokenOverrideFallsBackToTheDefaultFile) {
    sysroot_.writeOverrideConfig("<CameraConfig><board name=\"x\"></CameraConfig>");
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Default board", 4)));
    LogCapture capture;
    auto board = GlobalCameraConfig::Creat();
    EXPECT_EQ(board.name, "Default board");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag, kOverrideWarning));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, kLoadSucceeded));
}

TEST_F(ConfigLoad, LoadFromConfigTakesItsPathAsGiven) {
    sysroot_.write("/elsewhere/my.xml", ConfigXml(BoardXml("Mine", 1)));
    LogCapture capture;
    GlobalCameraConfig::loadFromConfig(sysroot_.path("/elsewhere/my.xml").c_str());
    auto boards = GlobalCameraConfig::boardConfigs();
    ASSERT_EQ(boards.size(), 1u);
    EXPECT_EQ(boards[0].name, "Mine");
    EXPECT_TRUE(capture.records().size() > 0);
    EXPECT_FALSE(capture.containsText("loadFromConfig"));
}

TEST_F(ConfigLoad, NullPathFallsBackToTheDefaultFile) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Default board", 4)));
    LogCapture capture;
    GlobalCameraConfig::loadFromConfig(nullptr);
    EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), 1u);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag, kOverrideWarning));
}

TEST_F(ConfigLoad, DocumentWithoutCameraConfigRootAddsNoBoard) {
    sysroot_.writeOverrideConfig("<?xml version=\"1.0\"?><Config>" + BoardXml("x", 1) +
                                 "</Config>");
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Default board", 4)));
    LogCapture capture;
    auto board = GlobalCameraConfig::Creat();
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(GlobalCameraConfig::boardConfigs().empty());
    /* The override file loaded, so the default file is not tried. */
    EXPECT_EQ(capture.count(kOverrideWarning), 0u);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 "loadFromConfig: no automotive camera config specified"));
}

TEST_F(ConfigLoad, BoardsAreListedOnceInFileOrderHoweverOftenTheFileIsLoaded) {
    sysroot_.writeDefaultConfig(
        ConfigXml(BoardXml("First", 1) + BoardXml("Second", 2) + BoardXml("Third", 3)));
    GlobalCameraConfig::loadFromConfig(nullptr);
    GlobalCameraConfig::loadFromConfig(nullptr);
    auto boards = GlobalCameraConfig::boardConfigs();
    ASSERT_EQ(boards.size(), 3u);
    const char* names[] = {"First", "Second", "Third"};
    for (size_t i = 0; i < 3; ++i)
        EXPECT_EQ(boards[i].name, names[i]);
}

TEST_F(ConfigLoad, RepeatedQueriesParseAnUnchangedFileOnce) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("A", 1) + BoardXml("B", 2)));
    sysroot_.writeModel(std::string("B") + '\0');
    for (int k = 1; k <= 3; ++k) {
        LogCapture capture;
        auto board = GlobalCameraConfig::Creat();
        EXPECT_EQ(board.name, "B");
        EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), 2u);
        /* The per-entry parse lines come with the first read only. */
        EXPECT_EQ(capture.count("parseBoardConfig: parsing board: A!"), k == 1 ? 1u : 0u);
        /* The lines of each query stay. */
        EXPECT_EQ(capture.count(kOverrideWarning), 1u);
        EXPECT_EQ(capture.count(kLoadSucceeded), 1u);
        EXPECT_EQ(capture.count("Matching config : A ret 1"), 1u) << capture.dump();
        EXPECT_EQ(capture.count("Matching config : B ret 0"), 1u);
    }
}

TEST_F(ConfigLoad, ThousandQueriesKeepOneEntryPerBoard) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("A", 1) + BoardXml("B", 2)));
    /* Matching no board walks the whole list at every query. */
    sysroot_.writeModel(std::string("Z") + '\0');
    for (int k = 0; k < 1000; ++k)
        ASSERT_EQ(GlobalCameraConfig::Creat().name, "A");
    EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), 2u);
    LogCapture capture;
    GlobalCameraConfig::Creat();
    EXPECT_EQ(capture.count("Matching config : A ret 1"), 1u) << capture.dump();
    EXPECT_EQ(capture.count("Matching config : B ret 1"), 1u);
}

TEST_F(ConfigLoad, BoardsAFileGainsFollowTheOnesReadBeforeAndStay) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("A", 1) + BoardXml("B", 2)));
    sysroot_.writeModel(std::string("C") + '\0');
    EXPECT_EQ(GlobalCameraConfig::Creat().name, "A");
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("A", 1) + BoardXml("C", 3)));
    EXPECT_EQ(GlobalCameraConfig::Creat().name, "C");
    /* Gone from the file, the board read before still answers first. */
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("A", 1)));
    sysroot_.writeModel(std::string("B") + '\0');
    EXPECT_EQ(GlobalCameraConfig::Creat().name, "B");
    auto boards = GlobalCameraConfig::boardConfigs();
    ASSERT_EQ(boards.size(), 3u);
    EXPECT_EQ(boards[0].name, "A");
    EXPECT_EQ(boards[1].name, "B");
    EXPECT_EQ(boards[2].name, "C");
}

TEST_F(ConfigLoad, EqualBoardsAreListedOnceAlsoWithNotANumber) {
    const std::string board =
        "<board name=\"N\"><inputMapping><inputMap camId=\"0\"><inputSrc cameraId=\"0\" "
        "channelId=\"0\" streamId=\"0\"/><cameraParam><orientation yaw=\"nan\"/>"
        "</cameraParam></inputMap></inputMapping></board>";
    sysroot_.write("/one.xml", ConfigXml(board + board));
    sysroot_.write("/two.xml", ConfigXml(board));
    GlobalCameraConfig::loadFromConfig(sysroot_.path("/one.xml").c_str());
    GlobalCameraConfig::loadFromConfig(sysroot_.path("/two.xml").c_str());
    auto boards = GlobalCameraConfig::boardConfigs();
    ASSERT_EQ(boards.size(), 1u);
    EXPECT_TRUE(std::isnan(boards[0].cameraParams[0].yaw));
}

TEST_F(ConfigLoad, BoardsThatDifferInAnyFieldAreEachListed) {
    sysroot_.write("/a.xml", ConfigXml(BoardXml("Same", 1)));
    sysroot_.write("/b.xml", ConfigXml(BoardXml("Same", 2)));
    GlobalCameraConfig::loadFromConfig(sysroot_.path("/a.xml").c_str());
    GlobalCameraConfig::loadFromConfig(sysroot_.path("/b.xml").c_str());
    GlobalCameraConfig::loadFromConfig(sysroot_.path("/a.xml").c_str());
    auto boards = GlobalCameraConfig::boardConfigs();
    ASSERT_EQ(boards.size(), 2u);
    EXPECT_EQ(boards[0].cameras[0].id, 1);
    EXPECT_EQ(boards[1].cameras[0].id, 2);
}

TEST_F(ConfigLoad, AfterClearingTheListTheSameFileIsParsedAgain) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("A", 1)));
    GlobalCameraConfig::loadFromConfig(nullptr);
    BoardConfigsAccess::Clear();
    LogCapture capture;
    GlobalCameraConfig::loadFromConfig(nullptr);
    EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), 1u);
    EXPECT_EQ(capture.count("parseBoardConfig: parsing board: A!"), 1u);
}

TEST_F(ConfigLoad, MatchComesFromTheFirstCopyEvenAfterTheFileChanged) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("A", 1)));
    sysroot_.writeModel(std::string("A") + '\0');
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("A", 2)));
    LogCapture capture;
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);
    /* It was read again nonetheless. */
    EXPECT_EQ(capture.count("parseBoardConfig: parsed camera id:2!"), 1u);
    EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), 2u);
}

TEST_F(ConfigLoad, ModelWithTrailingZeroByteMatchesTheExactName) {
    sysroot_.writeDefaultConfig(
        ConfigXml(BoardXml("Tessaro TS9100 DEVKIT V10 Board", 1) + BoardXml(kDefaultModel, 2)));
    sysroot_.writeModel(std::string(kDefaultModel) + '\0');
    LogCapture capture;
    auto board = GlobalCameraConfig::Creat();
    EXPECT_EQ(board.name, kDefaultModel);
    EXPECT_EQ(board.cameras[0].id, 2);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 std::string("Running on board : ") + kDefaultModel));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 std::string("Matching config : ") + kDefaultModel + " ret 0"));
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_INFO, kTag,
        std::string("getMatchConfig: found matched board: ") + kDefaultModel + "!"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 std::string("match ") + kDefaultModel + " config\n"));
}

TEST_F(ConfigLoad, ModelWithoutZeroByteLosesItsLastCharacter) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Other", 0) + BoardXml("EVB V2", 1)));
    sysroot_.writeModel("EVB V22");
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);

    BoardConfigsAccess::Clear();
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Other", 0) + BoardXml("EVB V2X", 1)));
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);
}

TEST_F(ConfigLoad, OnlyTheFirstLineOfTheModelFileIsRead) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Other", 0) + BoardXml("Model A", 1)));
    sysroot_.writeModel("Model A\nOther\n");
    LogCapture capture;
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, "Running on board : Model A"));
}

TEST_F(ConfigLoad, MissingModelFileUsesTheDefaultModelName) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Other", 0) + BoardXml(kDefaultModel, 1)));
    LogCapture capture;
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, "Running on board : "));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 std::string("match ") + kDefaultModel + " config\n"));
}

TEST_F(ConfigLoad, EmptyModelFileUsesTheDefaultModelName) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Other", 0) + BoardXml(kDefaultModel, 1)));
    sysroot_.writeModel("");
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);
}

TEST_F(ConfigLoad, TwoBoardsWithEqualNamesGiveTheFirst) {
    sysroot_.writeDefaultConfig(
        ConfigXml(BoardXml("Twin", 1) + BoardXml("Twin", 2) + BoardXml("Twin", 3)));
    sysroot_.writeModel(std::string("Twin") + '\0');
    LogCapture capture;
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);
    /* Matching stops at the first equal board. */
    EXPECT_EQ(capture.count("Matching config : Twin ret 0"), 1u);
}

TEST_F(ConfigLoad, LongerNameWithTheModelsBeginningMatchesAndTheFirstWins) {
    sysroot_.writeDefaultConfig(
        ConfigXml(BoardXml("Bo", 0) + BoardXml("Board rev B", 1) + BoardXml("Board", 2)));
    sysroot_.writeModel(std::string("Board") + '\0');
    EXPECT_EQ(GlobalCameraConfig::Creat().cameras[0].id, 1);
}

TEST_F(ConfigLoad, ModelMatchingNoBoardGivesTheFirstBoard) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("First", 1) + BoardXml("Second", 2)));
    sysroot_.writeModel(std::string("Unknown") + '\0');
    LogCapture capture;
    auto board = GlobalCameraConfig::Creat();
    EXPECT_EQ(board.name, "First");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 "getMatchConfig: config not found, using default : First!"))
        << capture.dump();
    EXPECT_FALSE(capture.containsText("found matched board"));
}

TEST_F(ConfigLoad, MatchingLogsTheSignOfEachComparison) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Alpha", 0) + BoardXml("Charlie", 1) +
                                          BoardXml("Bo", 2) + BoardXml("Bravo", 3)));
    GlobalCameraConfig::loadFromConfig(nullptr);
    LogCapture capture;
    /* Compared: the first five characters, "Bravo". */
    auto board = GlobalCameraConfig::getMatchConfig("Bravo!");
    EXPECT_EQ(board.cameras[0].id, 3);
    std::vector<std::string> expected = {
        "Matching config : Alpha ret 1",
        "Matching config : Charlie ret -1",
        "Matching config : Bo ret 1",
        "Matching config : Bravo ret 0",
        "getMatchConfig: found matched board: Bravo!!",
    };
    auto records = capture.records();
    ASSERT_EQ(records.size(), expected.size()) << capture.dump();
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(records[i].message, expected[i]);
        EXPECT_EQ(records[i].priority, ANDROID_LOG_INFO);
        EXPECT_EQ(records[i].tag, kTag);
    }
}

TEST_F(ConfigLoad, NameShorterThanTheComparedPartNeverMatches) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Main", 0) + BoardXml("EVB", 1)));
    GlobalCameraConfig::loadFromConfig(nullptr);
    /* "EVB V2" is compared; "EVB" is shorter, so the first board is used. */
    EXPECT_EQ(GlobalCameraConfig::getMatchConfig("EVB V22").name, "Main");
}

TEST_F(ConfigLoad, EmptyListGivesAnEmptyBoardWithoutMessage) {
    LogCapture capture;
    auto board = GlobalCameraConfig::getMatchConfig(kDefaultModel);
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(board.cameras.empty());
    EXPECT_TRUE(capture.records().empty()) << capture.dump();
}

TEST_F(ConfigLoad, EmptyModelMatchesOnlyAnUnnamedBoard) {
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Named", 0) + "<board/>"));
    GlobalCameraConfig::loadFromConfig(nullptr);
    LogCapture capture;
    auto board = GlobalCameraConfig::getMatchConfig("");
    EXPECT_TRUE(board.name.empty());
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_WARN, kTag,
                         "getMatchConfig: empty model, only a board without a name matches"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, "Matching config :  ret 0"));

    BoardConfigsAccess::Clear();
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Named", 0)));
    GlobalCameraConfig::loadFromConfig(nullptr);
    EXPECT_EQ(GlobalCameraConfig::getMatchConfig("").name, "Named");
}

TEST_F(ConfigLoad, ExampleConfigurationDescribesTheEvaluationBoard) {
    sysroot_.writeDefaultConfig(ReadExample());
    sysroot_.writeModel(std::string(kDefaultModel) + '\0');
    auto board = GlobalCameraConfig::Creat();
    EXPECT_EQ(board.name, kDefaultModel);
    ASSERT_EQ(board.cameras.size(), 3u);
    const auto& front = board.cameras[0];
    EXPECT_EQ(front.entity, "max9296 0-0048");
    EXPECT_EQ(front.subDev, "/dev/v4l-subdev2");
    EXPECT_EQ(front.mbusCode, "MEDIA_BUS_FMT_UYVY8_2X8");
    ASSERT_EQ(front.channels.size(), 2u);
    EXPECT_EQ(front.channels[0].dev, "/dev/video0");
    EXPECT_EQ(front.channels[0].cameraModel, "OX03C10 front");
    EXPECT_EQ(front.channels[0].cameraParam.location, "exterior_front");
    EXPECT_EQ(front.channels[0].cameraParam.lensFacing, "exterior_front");
    EXPECT_FLOAT_EQ(front.channels[0].cameraParam.pitch, -12.5f);
    EXPECT_DOUBLE_EQ(front.channels[0].cameraParam.k1, -0.0387712394);
    ASSERT_EQ(front.channels[0].streams.size(), 2u);
    EXPECT_EQ(front.channels[0].streams[1].format, 0x3231564Eu); /* NV12 */
    EXPECT_EQ(front.channels[0].streams[1].width, 1280);
    EXPECT_EQ(front.channels[0].streams[1].height, 720);
    EXPECT_EQ(front.channels[0].streams[1].buf_cnt, 4);
    EXPECT_EQ(board.cameras[2].channels[0].dev, "/dev/video8");

    ASSERT_EQ(board.inputMap.size(), 5u);
    EXPECT_EQ(board.inputMap[3].cameraId, 1);
    EXPECT_EQ(board.inputMap[3].channelId, 1);
    EXPECT_EQ(board.cameraParams.size(), 4u);
    EXPECT_EQ(board.cameraParams.count(0), 0u);
    EXPECT_EQ(board.cameraParams[1].location, "exterior_rear");
    EXPECT_EQ(board.cameraParams[1].lensFacing, "exterior_rear");
    EXPECT_FLOAT_EQ(board.cameraParams[1].yaw, 180.0f);
    EXPECT_FLOAT_EQ(board.cameraParams[2].fx, 1008.71f);
    EXPECT_FLOAT_EQ(board.cameraParams[3].vfov, 142.0f);
    EXPECT_TRUE(board.cameraParams[4].location.empty());
    EXPECT_EQ(board.cameraParams[4].lensFacing, "interior_other");
    EXPECT_EQ(GlobalCameraConfig::boardConfigs().size(), 2u);
}

TEST_F(ConfigLoad, ExampleConfigurationUsesEveryElementAndAttribute) {
    std::string xml = ReadExample();
    const char* names[] = {"<CameraConfig>",
                           "<board ",
                           "name=",
                           "<cameras>",
                           "<camera ",
                           "id=",
                           "<entity>",
                           "<subDev>",
                           "<mbusCode>",
                           "<channels>",
                           "<channel ",
                           "dev=",
                           "<cameraModel>",
                           "<cameraParam>",
                           "<stream ",
                           "format=",
                           "width=",
                           "height=",
                           "buf_cnt=",
                           "<inputMapping>",
                           "<inputMap ",
                           "camId=",
                           "<inputSrc ",
                           "cameraId=",
                           "channelId=",
                           "streamId=",
                           "<location>",
                           "<lensFacing>",
                           "<orientation ",
                           "yaw=",
                           "roll=",
                           "pitch=",
                           "<instrinsic ",
                           "fx=",
                           "fy=",
                           "cx=",
                           "cy=",
                           "<fov ",
                           "hfov=",
                           "vfov=",
                           "<distortion ",
                           "k1=",
                           "k2=",
                           "p1=",
                           "p2=",
                           "k3="};
    for (const char* name : names)
        EXPECT_NE(xml.find(name), std::string::npos) << name;
}

TEST_F(ConfigLoad, LoadedTextKeepsItsWhiteSpace) {
    sysroot_.writeDefaultConfig(
        ConfigXml("<board name=\"  Spaced   board \"><cameras><camera>"
                  "<entity>  two  spaces\n</entity></camera></cameras></board>"));
    GlobalCameraConfig::loadFromConfig(nullptr);
    auto boards = GlobalCameraConfig::boardConfigs();
    ASSERT_EQ(boards.size(), 1u);
    EXPECT_EQ(boards[0].name, "  Spaced   board ");
    EXPECT_EQ(boards[0].cameras[0].entity, "  two  spaces\n");
}

TEST_F(ConfigLoad, OnlyTheFirstCameraConfigElementIsRead) {
    sysroot_.writeDefaultConfig("<?xml version=\"1.0\"?>\n<Other/><CameraConfig>" +
                                BoardXml("First root", 1) + "</CameraConfig><CameraConfig>" +
                                BoardXml("Second root", 2) + "</CameraConfig>\n");
    GlobalCameraConfig::loadFromConfig(nullptr);
    auto boards = GlobalCameraConfig::boardConfigs();
    ASSERT_EQ(boards.size(), 1u);
    EXPECT_EQ(boards[0].name, "First root");
}

TEST_F(ConfigLoad, LoadsAndModelReadsLeaveNoDescriptorOpen) {
    marlo_test::FdLeakCheck check;
    /* Neither file, then a broken override and a good default, then the override. */
    GlobalCameraConfig::Creat();
    sysroot_.writeOverrideConfig("<CameraConfig><board>");
    sysroot_.writeDefaultConfig(ConfigXml(BoardXml("Default board", 4)));
    sysroot_.writeModel(std::string("Default board") + '\0');
    GlobalCameraConfig::Creat();
    sysroot_.writeOverrideConfig(ConfigXml(BoardXml("Override board", 5)));
    /* The earlier load's board is still first in the list, and matches. */
    EXPECT_EQ(GlobalCameraConfig::Creat().name, "Default board");
    EXPECT_TRUE(check.unchanged());
}
