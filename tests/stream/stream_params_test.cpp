/* The client parameter queries, against configurations written by the test and the example file. */
#include <linux/videodev2.h>
#include <stddef.h>
#include <string.h>

#include <fstream>
#include <iterator>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "config/board_configs_access.h"
#include "config/temp_sysroot.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream_test_util.h"
#include "support/log_capture.h"

using namespace stream_test;
using tessaro::marlo::V4l2Stream;
using tessaro::marlo::detail::BoardConfigsAccess;

namespace {

constexpr char kDevice[] = "/dev/video-params";

/* A record with recognisable words, to see which ones a query writes. */
marlo_param_value_t Marked() {
    marlo_param_value_t value;
    value.words[0] = 0xa5a5a5a5;
    value.words[1] = 0xb6b6b6b6;
    value.words[2] = 0xc7c7c7c7;
    return value;
}

uint32_t Word(const marlo_param_value_t& value, size_t index) {
    uint32_t words[3];
    memcpy(words, &value, sizeof(words));
    return words[index];
}

/* Each test reads its own system root and starts from an empty board list. */
class StreamParamsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sysroot_ = std::make_unique<marlo_test::TempSysroot>();
        BoardConfigsAccess::Clear();
    }
    void TearDown() override {
        BoardConfigsAccess::Clear();
        sysroot_.reset();
    }

    /* The answer for \a id of a stream of client \a client; the status goes to \a status. */
    static marlo_param_value_t Ask(int client, marlo_param_t id, int* status,
                                   int format = V4L2_PIX_FMT_NV12) {
        V4l2Stream stream;
        EXPECT_EQ(stream.OpenCamera(client, kDevice, 1280, 720, format), 0);
        marlo_param_value_t value = Marked();
        *status = stream.ClientGetParams(id, &value);
        stream.CloseCamera();
        return value;
    }

    static int32_t Location(int client) {
        int status = -1;
        marlo_param_value_t value = Ask(client, MARLO_PARAM_LOCATION, &status);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(Word(value, 1), 0xb6b6b6b6u);
        return static_cast<int32_t>(Word(value, 0));
    }

    static int32_t LensFacing(int client) {
        int status = -1;
        marlo_param_value_t value = Ask(client, MARLO_PARAM_LENS_FACING, &status);
        EXPECT_EQ(status, 0);
        EXPECT_EQ(Word(value, 1), 0xb6b6b6b6u);
        return static_cast<int32_t>(Word(value, 0));
    }

    std::unique_ptr<marlo_test::TempSysroot> sysroot_;
};

/* One camera per client id, each channel's placement from \a texts (location, lens facing). */
std::string Board(const std::vector<std::pair<std::string, std::string>>& texts,
                  const std::string& extraMaps = "") {
    std::string xml = "<?xml version=\"1.0\"?>\n<CameraConfig><board name=\"Params\"><cameras>";
    for (size_t i = 0; i < texts.size(); ++i) {
        xml += "<camera id=\"" + std::to_string(i) + "\"><channels><channel id=\"0\" dev=\"" +
               kDevice + "\"><cameraModel>m</cameraModel><cameraParam><location>" + texts[i].first +
               "</location><lensFacing>" + texts[i].second +
               "</lensFacing></cameraParam></channel></channels></camera>";
    }
    xml += "</cameras><inputMapping>";
    for (size_t i = 0; i < texts.size(); ++i) {
        xml += "<inputMap camId=\"" + std::to_string(i) + "\"><inputSrc cameraId=\"" +
               std::to_string(i) + "\" channelId=\"0\" streamId=\"0\"/></inputMap>";
    }
    xml += extraMaps + "</inputMapping></board></CameraConfig>\n";
    return xml;
}

}  // namespace

TEST_F(StreamParamsTest, IdFiveIsRefusedThoughItLiesBetweenAnsweredIds) {
    V4l2Stream stream;
    ASSERT_EQ(stream.OpenCamera(2, kDevice, 1280, 720, V4L2_PIX_FMT_NV12), 0);
    marlo_param_value_t value = Marked();
    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientGetParams(static_cast<marlo_param_t>(5), &value), -2);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kDevice, 2, "ClientGetParams", "invaild param"), 1u)
        << log.dump();
    EXPECT_EQ(Word(value, 0), 0xa5a5a5a5u);
    EXPECT_EQ(Word(value, 1), 0xb6b6b6b6u);
    EXPECT_EQ(Word(value, 2), 0xc7c7c7c7u);
    stream.CloseCamera();
}

TEST_F(StreamParamsTest, EveryOtherUnknownIdIsRefused) {
    V4l2Stream stream;
    ASSERT_EQ(stream.OpenCamera(2, kDevice, 1280, 720, V4L2_PIX_FMT_NV12), 0);
    marlo_test::LogCapture log;
    for (int id : {-1, 0, 1, 2, 8, 100}) {
        marlo_param_value_t value = Marked();
        EXPECT_EQ(stream.ClientGetParams(static_cast<marlo_param_t>(id), &value), -2) << id;
        EXPECT_EQ(Word(value, 0), 0xa5a5a5a5u) << id;
    }
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kDevice, 2, "ClientGetParams", "invaild param"), 6u)
        << log.dump();
    stream.CloseCamera();
}

TEST_F(StreamParamsTest, NullValueIsRefused) {
    V4l2Stream stream;
    ASSERT_EQ(stream.OpenCamera(2, kDevice, 1280, 720, V4L2_PIX_FMT_NV12), 0);
    marlo_test::LogCapture log;
    EXPECT_EQ(stream.ClientGetParams(MARLO_PARAM_RESOLUTION, nullptr), -2);
    EXPECT_EQ(
        Count(log, ANDROID_LOG_ERROR, kDevice, 2, "ClientGetParams", "param 4 with null value"), 1u)
        << log.dump();
    /* The id is judged first: an unknown one is refused as such, pointer or not. */
    log.clear();
    EXPECT_EQ(stream.ClientGetParams(static_cast<marlo_param_t>(5), nullptr), -2);
    EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kDevice, 2, "ClientGetParams", "invaild param"), 1u)
        << log.dump();
    for (marlo_param_t id :
         {MARLO_PARAM_COLOR_FORMAT, MARLO_PARAM_LOCATION, MARLO_PARAM_LENS_FACING})
        EXPECT_EQ(stream.ClientGetParams(id, nullptr), -2) << id;
    stream.CloseCamera();
}

TEST_F(StreamParamsTest, ColourFormatOfTheTwelveIsTheSameCode) {
    const uint32_t codes[] = {
        V4L2_PIX_FMT_RGB24, V4L2_PIX_FMT_UYVY,   V4L2_PIX_FMT_YUYV,   V4L2_PIX_FMT_YVYU,
        V4L2_PIX_FMT_VYUY,  V4L2_PIX_FMT_NV12,   V4L2_PIX_FMT_NV21,   V4L2_PIX_FMT_NV16,
        V4L2_PIX_FMT_NV61,  V4L2_PIX_FMT_YUV420, V4L2_PIX_FMT_YVU420, V4L2_PIX_FMT_RGBA32,
    };
    for (uint32_t code : codes) {
        int status = -1;
        marlo_param_value_t value =
            Ask(1, MARLO_PARAM_COLOR_FORMAT, &status, static_cast<int>(code));
        EXPECT_EQ(status, 0);
        EXPECT_EQ(Word(value, 0), code);
        EXPECT_EQ(Word(value, 1), 0xb6b6b6b6u);
        EXPECT_EQ(Word(value, 2), 0xc7c7c7c7u);
    }
    int status = -1;
    EXPECT_EQ(Ask(1, MARLO_PARAM_COLOR_FORMAT, &status, V4L2_PIX_FMT_NV12).color_format,
              MARLO_COLOR_FMT_NV12);
}

TEST_F(StreamParamsTest, ColourFormatOutsideTheTwelveIsReportedAsUyvy) {
    for (uint32_t code : {static_cast<uint32_t>(V4L2_PIX_FMT_ARGB32), 0u, 0xffffffffu,
                          static_cast<uint32_t>(V4L2_PIX_FMT_GREY)}) {
        int status = -1;
        marlo_param_value_t value =
            Ask(1, MARLO_PARAM_COLOR_FORMAT, &status, static_cast<int>(code));
        EXPECT_EQ(status, 0);
        EXPECT_EQ(Word(value, 0), 0x59565955u) << std::hex << code;
    }
}

TEST_F(StreamParamsTest, ResolutionIsTheOpenSizeAtThirtyFrames) {
    int status = -1;
    marlo_param_value_t value = Ask(1, MARLO_PARAM_RESOLUTION, &status);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(value.resolution.width, 1280);
    EXPECT_EQ(value.resolution.height, 720);
    EXPECT_EQ(value.resolution.frame_rate, 30.0f);
    EXPECT_EQ(Word(value, 0), 1280u);
    EXPECT_EQ(Word(value, 1), 720u);
    EXPECT_EQ(Word(value, 2), 0x41F00000u);
}

TEST_F(StreamParamsTest, QueriesNeedNoOpenStream) {
    V4l2Stream stream;
    marlo_param_value_t value = Marked();
    EXPECT_EQ(stream.ClientGetParams(MARLO_PARAM_COLOR_FORMAT, &value), 0);
    EXPECT_EQ(value.color_format, MARLO_COLOR_FMT_UYVY);
    value = Marked();
    EXPECT_EQ(stream.ClientGetParams(MARLO_PARAM_RESOLUTION, &value), 0);
    EXPECT_EQ(value.resolution.width, 0);
    EXPECT_EQ(value.resolution.height, 0);
    EXPECT_EQ(value.resolution.frame_rate, 30.0f);
}

TEST_F(StreamParamsTest, PlacementTextsMapToTheirValues) {
    sysroot_->writeDefaultConfig(Board({{"interior", "exterior_other"},
                                        {"exterior_rear", "exterior_rear"},
                                        {"extra_other", "interior_seat_row_1_center"},
                                        {"extra_front", "interior_seat_row_2_left"},
                                        {"extra_left", "interior_seat_row_2_right"},
                                        {"extra_right", "interior_seat_row_3_right"}}));
    EXPECT_EQ(Location(0), MARLO_LOCATION_INTERIOR);
    EXPECT_EQ(LensFacing(0), MARLO_LENS_FACING_EXTERIOR_OTHER);
    EXPECT_EQ(Location(1), 3);
    EXPECT_EQ(LensFacing(1), 2);
    EXPECT_EQ(Location(2), 6);
    EXPECT_EQ(LensFacing(2), 7);
    EXPECT_EQ(Location(3), 7);
    EXPECT_EQ(LensFacing(3), 9);
    EXPECT_EQ(Location(4), 9);
    EXPECT_EQ(LensFacing(4), 11);
    EXPECT_EQ(Location(5), 10);
    EXPECT_EQ(LensFacing(5), 14);
}

TEST_F(StreamParamsTest, TextsMissingFromTheListsAnswerZero) {
    /* No rear "extra" location and no text for the second row's centre seat. */
    sysroot_->writeDefaultConfig(Board({{"extra_rear", "interior_seat_row_2_center"},
                                        {"", ""},
                                        {"Exterior_Front", "exterior front"}}));
    for (int client : {0, 1, 2}) {
        EXPECT_EQ(Location(client), 0) << client;
        EXPECT_EQ(LensFacing(client), 0) << client;
    }
}

TEST_F(StreamParamsTest, ClientEntryWinsOverItsInputMapping) {
    /* Client 5 maps to camera 0 (exterior_front) but carries its own record. */
    sysroot_->writeDefaultConfig(
        Board({{"exterior_front", "exterior_front"}},
              "<inputMap camId=\"5\"><inputSrc cameraId=\"0\" channelId=\"0\" streamId=\"0\"/>"
              "<cameraParam><location>exterior_left</location>"
              "<lensFacing>interior_seat_row_3_left</lensFacing></cameraParam></inputMap>"));
    EXPECT_EQ(Location(0), MARLO_LOCATION_EXTERIOR_FRONT);
    EXPECT_EQ(Location(5), MARLO_LOCATION_EXTERIOR_LEFT);
    EXPECT_EQ(LensFacing(5), MARLO_LENS_FACING_INTERIOR_SEAT_ROW_3_LEFT);
}

TEST_F(StreamParamsTest, ClientWithoutACameraInTheConfigurationIsRefused) {
    sysroot_->writeDefaultConfig(
        Board({{"exterior_front", "exterior_front"}},
              "<inputMap camId=\"3\"><inputSrc cameraId=\"4\" channelId=\"0\" streamId=\"0\"/>"
              "</inputMap><inputMap camId=\"4\"><inputSrc cameraId=\"0\" channelId=\"2\" "
              "streamId=\"0\"/></inputMap>"));
    struct Case {
        int client;
        const char* text;
    } cases[] = {
        {9, "no camera for client 9 in the configuration (-1, -1)"},
        {3, "no camera for client 3 in the configuration (4, 0)"},
        {4, "no camera for client 4 in the configuration (0, 2)"},
    };
    for (const Case& c : cases) {
        V4l2Stream stream;
        ASSERT_EQ(stream.OpenCamera(c.client, kDevice, 1280, 720, V4L2_PIX_FMT_NV12), 0);
        for (marlo_param_t id : {MARLO_PARAM_LOCATION, MARLO_PARAM_LENS_FACING}) {
            marlo_param_value_t value = Marked();
            marlo_test::LogCapture log;
            EXPECT_EQ(stream.ClientGetParams(id, &value), -2);
            EXPECT_EQ(Count(log, ANDROID_LOG_ERROR, kDevice, c.client, "ClientGetParams", c.text),
                      1u)
                << log.dump();
            EXPECT_EQ(Word(value, 0), 0xa5a5a5a5u);
        }
        stream.CloseCamera();
    }
}

TEST_F(StreamParamsTest, ExampleConfigurationAnswersItsCameras) {
    std::ifstream in(MARLO_EXAMPLE_CONFIG, std::ios::binary);
    ASSERT_TRUE(in.is_open());
    sysroot_->writeDefaultConfig(
        std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
    /* No model file: the library's default model, the first board. */
    EXPECT_EQ(Location(0), MARLO_LOCATION_EXTERIOR_FRONT);
    EXPECT_EQ(LensFacing(0), MARLO_LENS_FACING_EXTERIOR_FRONT);
    /* Client 1's own record; its channel has none. */
    EXPECT_EQ(Location(1), MARLO_LOCATION_EXTERIOR_REAR);
    EXPECT_EQ(LensFacing(1), MARLO_LENS_FACING_EXTERIOR_REAR);
    EXPECT_EQ(Location(2), MARLO_LOCATION_EXTERIOR_LEFT);
    EXPECT_EQ(Location(3), MARLO_LOCATION_EXTERIOR_RIGHT);
    /* An empty location text. */
    EXPECT_EQ(Location(4), 0);
    EXPECT_EQ(LensFacing(4), MARLO_LENS_FACING_INTERIOR_OTHER);
}

TEST_F(StreamParamsTest, ExampleConfigurationDevkitBoardHasNoPlacement) {
    std::ifstream in(MARLO_EXAMPLE_CONFIG, std::ios::binary);
    ASSERT_TRUE(in.is_open());
    sysroot_->writeDefaultConfig(
        std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()));
    sysroot_->writeModel(std::string("Tessaro TS9100 DEVKIT V10 Board") + '\0');
    EXPECT_EQ(Location(0), 0);
    EXPECT_EQ(LensFacing(0), 0);
}

TEST(StreamParamsVocabularyTest, EveryAnswerFitsThreeWordsAndEachEnumerationIsOneWord) {
    EXPECT_EQ(sizeof(marlo_param_value_t), 3 * sizeof(uint32_t));
    EXPECT_EQ(sizeof(marlo_param_t), 4u);
    EXPECT_EQ(sizeof(marlo_color_fmt_t), 4u);
    EXPECT_EQ(sizeof(marlo_location_t), 4u);
    EXPECT_EQ(sizeof(marlo_lens_facing_t), 4u);
    /* The answers start at the record's first word. */
    EXPECT_EQ(offsetof(marlo_param_value_t, color_format), 0u);
    EXPECT_EQ(offsetof(marlo_param_value_t, location), 0u);
    EXPECT_EQ(offsetof(marlo_param_value_t, lens_facing), 0u);
    EXPECT_EQ(offsetof(marlo_resolution_t, height), 4u);
    EXPECT_EQ(offsetof(marlo_resolution_t, frame_rate), 8u);
}
