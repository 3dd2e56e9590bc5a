/* The debug-state tables and the report file. */
#include <android/log.h>
#include <gtest/gtest.h>
#include <marlo/debug/debug_helper.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "config/board_configs_access.h"
#include "config/temp_sysroot.h"
#include "support/fd_count.h"
#include "support/log_capture.h"
#include "support/scoped_property.h"

using marlo_test::LogCapture;
using marlo_test::ScopedProperty;
using marlo_test::TempSysroot;
using tessaro::marlo::DebugHelper;
using tessaro::marlo::detail::BoardConfigsAccess;

namespace {

constexpr char kTag[] = "marlo_debug";
constexpr char kOn[] = "persist.vendor.tessaro.marlo.dbgfile.on";
constexpr char kInterval[] = "persist.vendor.tessaro.marlo.dbgfile.interval";
constexpr char kReport[] = "/data/vendor/camera/marlo_debug.log";

/*
 * Streams 0, 3 and 10; camera 0 (two nodes) and camera 1 (one node) are
 * mapped, camera 2 is not.
 */
constexpr char kSmallBoard[] = R"(<?xml version="1.0"?>
<CameraConfig><board name="Small">
  <cameras>
    <camera id="0"><channels>
      <channel id="0" dev="/dev/video1"><cameraModel>m</cameraModel></channel>
      <channel id="1" dev="/dev/video0"><cameraModel>m</cameraModel></channel>
    </channels></camera>
    <camera id="1"><channels>
      <channel id="0" dev="/dev/video4"><cameraModel>m</cameraModel></channel>
    </channels></camera>
    <camera id="2"><channels>
      <channel id="0" dev="/dev/video9"><cameraModel>m</cameraModel></channel>
    </channels></camera>
  </cameras>
  <inputMapping>
    <inputMap camId="10"><inputSrc cameraId="0" channelId="1" streamId="0"/></inputMap>
    <inputMap camId="3"><inputSrc cameraId="1" channelId="0" streamId="0"/></inputMap>
    <inputMap camId="0"><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap>
  </inputMapping>
</board></CameraConfig>
)";

/* A helper of its own for each test, built like the process's one. */
class TestHelper : public DebugHelper {
  public:
    TestHelper() = default;
    ~TestHelper() = default;
};

class DebugHelperTest : public ::testing::Test {
  protected:
    void SetUp() override {
        BoardConfigsAccess::Clear();
        sysroot_.writeDefaultConfig(kSmallBoard);
        std::filesystem::create_directories(sysroot_.path("/data/vendor/camera"));
    }
    void TearDown() override { BoardConfigsAccess::Clear(); }

    bool reportExists() const { return sysroot_.exists(kReport); }
    void removeReport() const { std::filesystem::remove(sysroot_.path(kReport)); }
    std::string report() const { return sysroot_.read(kReport); }

    TempSysroot sysroot_;
};

/* Dumping on, with a long interval, for the test's lifetime. */
class DebugHelperOn : public DebugHelperTest {
  protected:
    ScopedProperty on_{kOn, "true"};
    ScopedProperty interval_{kInterval, "200"};
};

class DebugHelperOff : public DebugHelperTest {
  protected:
    ScopedProperty on_{kOn, "false"};
};

std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace

TEST_F(DebugHelperOff, TablesComeFromTheInputMap) {
    TestHelper helper;
    auto streams = helper.streamInfos();
    ASSERT_EQ(streams.size(), 3u);
    for (unsigned int id : {0u, 3u, 10u}) {
        ASSERT_EQ(streams.count(id), 1u) << id;
        EXPECT_EQ(streams[id].state, "STOPPED");
        EXPECT_EQ(streams[id].frameNumber, 0);
        EXPECT_EQ(streams[id].fps, 0u);
        EXPECT_EQ(streams[id].dropCount, 0u);
    }
    auto cameras = helper.cameraInfos();
    ASSERT_EQ(cameras.size(), 3u);
    EXPECT_EQ(cameras.count("/dev/video0"), 1u);
    EXPECT_EQ(cameras.count("/dev/video1"), 1u);
    EXPECT_EQ(cameras.count("/dev/video4"), 1u);
    /* Camera 2 is not mapped by any client camera id. */
    EXPECT_EQ(cameras.count("/dev/video9"), 0u);
    EXPECT_EQ(cameras["/dev/video0"].state, "STOPPED");
    EXPECT_TRUE(helper.cachedLines().empty());
    EXPECT_TRUE(helper.running());
    EXPECT_EQ(helper.interval(), 0);
}

TEST_F(DebugHelperOff, InitializeWritesTheInitialReportWhenDumpingIsOff) {
    TestHelper helper;
    ASSERT_TRUE(reportExists());
    std::string text = report();
    EXPECT_NE(text.find("0\t\tSTOPPED\t\t0\t\t0\t\t0\n"), std::string::npos) << text;
    EXPECT_NE(text.find("/dev/video4\t\tSTOPPED\t\t0\t\t0\t\t0\t\t0\n"), std::string::npos);
}

TEST_F(DebugHelperOn, InitializeWritesNoReportWhenDumpingIsOn) {
    TestHelper helper;
    EXPECT_FALSE(reportExists());
    EXPECT_TRUE(DebugHelper::started());
}

TEST_F(DebugHelperOff, UpdatesChangeNothingAndWriteNoFileWhenOff) {
    TestHelper helper;
    removeReport();
    helper.updateStreamState(0, "RUNNING");
    helper.updateStreamFrameNumber(0, 5, 2000000000ul);
    helper.updateStreamDropCount(0);
    helper.updateCameraState("/dev/video0", "RUNNING");
    helper.updateCameraDropCount("/dev/video0");
    helper.updateNaxProcessingTime("/dev/video0", 10);
    helper.updateCache("line");
    EXPECT_FALSE(reportExists());
    auto stream = helper.streamInfos()[0];
    EXPECT_EQ(stream.state, "STOPPED");
    EXPECT_EQ(stream.frameNumber, 0);
    EXPECT_EQ(stream.dropCount, 0u);
    auto camera = helper.cameraInfos()["/dev/video0"];
    EXPECT_EQ(camera.state, "STOPPED");
    EXPECT_EQ(camera.dropCount, 0u);
    EXPECT_EQ(camera.max, 0u);
    EXPECT_TRUE(helper.cachedLines().empty());
}

TEST_F(DebugHelperTest, ShortIntervalBecomes200WithMessage) {
    ScopedProperty on(kOn, "1");
    ScopedProperty interval(kInterval, "20");
    TestHelper helper;
    LogCapture capture;
    EXPECT_TRUE(helper.isPropertySupported());
    EXPECT_EQ(helper.interval(), 200);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_WARN, kTag, "isPropertySupported: interval is too short!"))
        << capture.dump();
}

TEST_F(DebugHelperTest, Interval33IsAccepted) {
    ScopedProperty on(kOn, "1");
    ScopedProperty interval(kInterval, "33");
    TestHelper helper;
    LogCapture capture;
    EXPECT_TRUE(helper.isTimerStarted());
    EXPECT_EQ(helper.interval(), 33);
    EXPECT_TRUE(helper.isPropertySupported());
    EXPECT_EQ(helper.interval(), 33);
    EXPECT_FALSE(capture.containsText("interval is too short"));
}

TEST_F(DebugHelperTest, IntervalIsReadByIsTimerStartedWithTheSameFloor) {
    ScopedProperty on(kOn, "1");
    ScopedProperty interval(kInterval, "32");
    LogCapture capture;
    TestHelper helper;
    EXPECT_EQ(helper.interval(), 200);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_WARN, kTag, "isPropertySupported: interval is too short!"));
    ScopedProperty longer(kInterval, "500");
    EXPECT_TRUE(helper.isTimerStarted());
    EXPECT_EQ(helper.interval(), 500);
}

TEST_F(DebugHelperTest, MissingOrBadIntervalPropertyGivesTheDefault) {
    ScopedProperty on(kOn, "1");
    ScopedProperty interval(kInterval, "");
    TestHelper helper;
    EXPECT_EQ(helper.interval(), 200);
    ScopedProperty negative(kInterval, "-40");
    helper.isTimerStarted();
    EXPECT_EQ(helper.interval(), 200);
}

TEST_F(DebugHelperTest, OffPropertyReadsNoInterval) {
    ScopedProperty on(kOn, "0");
    ScopedProperty interval(kInterval, "20");
    TestHelper helper;
    LogCapture capture;
    EXPECT_FALSE(helper.isPropertySupported());
    EXPECT_EQ(helper.interval(), 0);
    EXPECT_TRUE(capture.records().empty());
}

TEST_F(DebugHelperOn, TurningOnCreatesNoTimerThread) {
    ScopedProperty interval(kInterval, "33");
    TestHelper helper;
    EXPECT_TRUE(helper.isTimerStarted());
    EXPECT_TRUE(helper.running());
    /* The running flag was set before startTimer() looked at it: no periodic report. */
    std::this_thread::sleep_for(std::chrono::milliseconds(250));
    EXPECT_FALSE(reportExists());
}

TEST_F(DebugHelperOn, TurningOffClearsTheFlagsAndUpdatesStop) {
    TestHelper helper;
    ASSERT_TRUE(helper.isTimerStarted());
    {
        ScopedProperty off(kOn, "false");
        EXPECT_FALSE(helper.isTimerStarted());
        EXPECT_FALSE(helper.running());
        EXPECT_FALSE(DebugHelper::started());
        helper.updateStreamState(3, "RUNNING");
        EXPECT_EQ(helper.streamInfos()[3].state, "STOPPED");
    }
    /* On again: started, running set, still no thread. */
    EXPECT_TRUE(helper.isTimerStarted());
    EXPECT_TRUE(helper.running());
    helper.updateStreamState(3, "RUNNING");
    EXPECT_EQ(helper.streamInfos()[3].state, "RUNNING");
}

TEST_F(DebugHelperOn, StartTimerAfterStopRunsThePeriodicReport) {
    ScopedProperty interval(kInterval, "40");
    TestHelper helper;
    helper.isTimerStarted();
    helper.stopTimer();
    EXPECT_FALSE(helper.running());
    EXPECT_FALSE(reportExists());
    helper.startTimer();
    EXPECT_TRUE(helper.running());
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!reportExists() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(reportExists());
    /* Written again at the next interval, with no update in between. */
    removeReport();
    deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!reportExists() && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(reportExists());
    helper.stopTimer();
    EXPECT_FALSE(helper.running());
    /* Stopped and waited for: no report after this. */
    removeReport();
    std::this_thread::sleep_for(std::chrono::milliseconds(120));
    EXPECT_FALSE(reportExists());
}

TEST_F(DebugHelperOn, StartTimerTwiceAfterASwitchOffJoinsTheOldThread) {
    ScopedProperty interval(kInterval, "40");
    TestHelper helper;
    helper.stopTimer();
    helper.startTimer();
    {
        /* Switched off: the flag is cleared without waiting for the thread. */
        ScopedProperty off(kOn, "0");
        EXPECT_FALSE(helper.isTimerStarted());
    }
    LogCapture capture;
    helper.startTimer();
    EXPECT_TRUE(helper.running());
    helper.stopTimer();
    /* Joined rather than detached, but reported as Thread reports a replaced thread. */
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, "marlo_base", "Thread already started"))
        << capture.dump();
    EXPECT_EQ(capture.count("Thread already started"), 1u);
}

TEST_F(DebugHelperOn, FirstStartTimerReportsNoReplacedThread) {
    ScopedProperty interval(kInterval, "40");
    TestHelper helper;
    helper.stopTimer();
    LogCapture capture;
    helper.startTimer();
    EXPECT_TRUE(helper.running());
    /* Already running: nothing is started or replaced. */
    helper.startTimer();
    helper.stopTimer();
    EXPECT_FALSE(capture.containsText("Thread already started")) << capture.dump();
}

TEST_F(DebugHelperOn, DestroyingAHelperWithARunningTimerJoinsIt) {
    ScopedProperty interval(kInterval, "100000");
    auto start = std::chrono::steady_clock::now();
    {
        TestHelper helper;
        helper.stopTimer();
        helper.startTimer();
    }
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
}

TEST_F(DebugHelperOn, FrameRateWindow) {
    TestHelper helper;
    helper.updateStreamFrameNumber(3, 1, 0ul);
    helper.updateStreamFrameNumber(3, 2, 500000000ul);
    auto info = helper.streamInfos()[3];
    EXPECT_EQ(info.frameCount, 2u);
    EXPECT_EQ(info.fps, 0u);
    helper.updateStreamFrameNumber(3, 3, 1000000000ul);
    info = helper.streamInfos()[3];
    EXPECT_EQ(info.fps, 2u);
    EXPECT_EQ(info.frameCount, 0u);
    EXPECT_EQ(info.frameNumber, 3);
    EXPECT_EQ(info.windowStartNs, 1000000000u);
    /* Frame numbers and rates do not write the report. */
    EXPECT_FALSE(reportExists());
}

TEST_F(DebugHelperOn, FrameRateWindowJustShortOfOneSecondStaysOpen) {
    TestHelper helper;
    helper.updateStreamFrameNumber(0, 1, 1000000000ul);
    helper.updateStreamFrameNumber(0, 2, 1999999999ul);
    auto info = helper.streamInfos()[0];
    EXPECT_EQ(info.fps, 0u);
    EXPECT_EQ(info.frameCount, 1u);
    EXPECT_EQ(info.windowStartNs, 1000000000u);
}

TEST_F(DebugHelperOn, TimestampGoingBackwardsClosesTheWindow) {
    /* Unsigned difference: an earlier time counts as a long wait. */
    TestHelper helper;
    helper.updateStreamFrameNumber(0, 1, 5000000000ul);
    helper.updateStreamFrameNumber(0, 2, 5100000000ul);
    helper.updateStreamFrameNumber(0, 3, 100ul);
    auto info = helper.streamInfos()[0];
    EXPECT_EQ(info.windowStartNs, 100u);
    EXPECT_EQ(info.fps, 1u);
    EXPECT_EQ(info.frameCount, 0u);
}

TEST_F(DebugHelperOn, ProcessingTimeStatistics) {
    TestHelper helper;
    helper.updateNaxProcessingTime("/dev/video0", 10);
    helper.updateNaxProcessingTime("/dev/video0", 20);
    helper.updateNaxProcessingTime("/dev/video0", 15);
    auto info = helper.cameraInfos()["/dev/video0"];
    EXPECT_EQ(info.max, 20u);
    EXPECT_EQ(info.min, 15u);
    EXPECT_EQ(info.avg, 0u);
    EXPECT_EQ(info.sum, 0u);
    EXPECT_EQ(info.sampleCount, 3u);
    helper.updateNaxProcessingTime("/dev/video0", 17);
    info = helper.cameraInfos()["/dev/video0"];
    EXPECT_EQ(info.sum, 17u);
    EXPECT_EQ(info.avg, 4u);
    EXPECT_EQ(info.sampleCount, 4u);
    /* A time below the minimum becomes the new minimum and does not enter the sum. */
    helper.updateNaxProcessingTime("/dev/video0", 12);
    info = helper.cameraInfos()["/dev/video0"];
    EXPECT_EQ(info.min, 12u);
    EXPECT_EQ(info.sum, 17u);
    EXPECT_FALSE(reportExists());
}

TEST_F(DebugHelperOn, The1001stSampleResetsAllButTheMaximum) {
    TestHelper helper;
    helper.updateNaxProcessingTime("/dev/video4", 900);
    for (int i = 1; i < 1000; ++i)
        helper.updateNaxProcessingTime("/dev/video4", 100);
    auto info = helper.cameraInfos()["/dev/video4"];
    EXPECT_EQ(info.sampleCount, 1000u);
    EXPECT_EQ(info.max, 900u);
    EXPECT_EQ(info.min, 100u);
    EXPECT_EQ(info.sum, 99800u);
    EXPECT_EQ(info.avg, 99u);
    helper.updateNaxProcessingTime("/dev/video4", 50);
    info = helper.cameraInfos()["/dev/video4"];
    EXPECT_EQ(info.sampleCount, 1u);
    EXPECT_EQ(info.max, 900u);
    /* The min was reset to 0, so this first sample sets it. */
    EXPECT_EQ(info.min, 50u);
    EXPECT_EQ(info.sum, 0u);
    EXPECT_EQ(info.avg, 0u);
}

TEST_F(DebugHelperOn, CacheKeepsAtMost4097Lines) {
    TestHelper helper;
    for (int i = 0; i < 5000; ++i) {
        helper.updateCache("line " + std::to_string(i));
        if (i % 97 == 0 || (i >= 4090 && i <= 4100)) {
            ASSERT_LE(helper.cachedLines().size(), 4097u) << i;
        }
    }
    auto lines = helper.cachedLines();
    ASSERT_EQ(lines.size(), 4097u);
    EXPECT_EQ(lines.front(), "line 903");
    EXPECT_EQ(lines.back(), "line 4999");
    EXPECT_FALSE(reportExists());
}

TEST_F(DebugHelperOn, ReportMatchesTheExpectedBytes) {
    TestHelper helper;
    helper.updateStreamState(0, "RUNNING");
    helper.updateStreamFrameNumber(0, 41, 0ul);
    helper.updateStreamFrameNumber(0, 42, 500000000ul);
    helper.updateStreamFrameNumber(0, 43, 1000000000ul);
    helper.updateStreamDropCount(3);
    helper.updateStreamDropCount(3);
    helper.updateCameraState("/dev/video0", "RUNNING");
    helper.updateCameraDropCount("/dev/video4");
    for (unsigned int t : {10u, 20u, 15u, 17u})
        helper.updateNaxProcessingTime("/dev/video0", t);
    helper.updateCache("first line");
    helper.updateCache("second\tline");
    /* Written afresh: what was in the file before is gone. */
    sysroot_.write(kReport, std::string(100000, 'x'));
    helper.dumpDebugInfo();
    EXPECT_EQ(report(), ReadFile(std::string(MARLO_DEBUG_TEST_DATA) + "/small_board_report.log"));
}

TEST_F(DebugHelperOn, StateAndDropUpdatesWriteTheReport) {
    TestHelper helper;
    helper.updateStreamState(10, "RUNNING");
    EXPECT_NE(report().find("10\t\tRUNNING\t\t0\t\t0\t\t0\n"), std::string::npos);
    removeReport();
    helper.updateStreamDropCount(10);
    EXPECT_NE(report().find("10\t\tRUNNING\t\t0\t\t0\t\t1\n"), std::string::npos);
    removeReport();
    helper.updateCameraState("/dev/video1", "RUNNING");
    EXPECT_NE(report().find("/dev/video1\t\tRUNNING\t\t0\t\t0\t\t0\t\t0\n"), std::string::npos);
    removeReport();
    helper.updateCameraDropCount("/dev/video1");
    EXPECT_NE(report().find("/dev/video1\t\tRUNNING\t\t1\t\t0\t\t0\t\t0\n"), std::string::npos);
}

TEST_F(DebugHelperOn, UnknownStreamIdsAreLoggedAndStateOrDropStillWrites) {
    TestHelper helper;
    LogCapture capture;
    helper.updateStreamState(7, "RUNNING");
    EXPECT_TRUE(reportExists());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "updateStreamState: failed to find corresponding stream id 7!"))
        << capture.dump();
    removeReport();
    helper.updateStreamDropCount(4294967295u);
    EXPECT_TRUE(reportExists());
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_ERROR, kTag,
        "updateStreamDropCount: failed to find corresponding stream id 4294967295!"));
    removeReport();
    helper.updateStreamFrameNumber(8, 1, 0ul);
    EXPECT_FALSE(reportExists());
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag,
                         "updateStreamFrameNumber: failed to find corresponding stream id 8!"));
    EXPECT_EQ(helper.streamInfos().size(), 3u);
}

TEST_F(DebugHelperOn, UnknownDeviceNodesAreLoggedAndWriteNothing) {
    TestHelper helper;
    LogCapture capture;
    helper.updateCameraState("/dev/video7", "RUNNING");
    helper.updateCameraDropCount("/dev/video7");
    helper.updateNaxProcessingTime("/dev/video7", 5);
    EXPECT_FALSE(reportExists());
    for (const char* operation :
         {"updateCameraState", "updateCameraDropCount", "updateNaxProcessingTime"})
        EXPECT_TRUE(capture.contains(
            ANDROID_LOG_ERROR, kTag,
            std::string(operation) + ": failed to find corresponding deviceNode /dev/video7!"))
            << operation << "\n"
            << capture.dump();
    EXPECT_EQ(helper.cameraInfos().size(), 3u);
}

TEST_F(DebugHelperOn, UnopenableReportIsLogged) {
    TestHelper helper;
    std::filesystem::remove_all(sysroot_.path("/data"));
    LogCapture capture;
    helper.updateStreamState(0, "RUNNING");
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "dumpDebugInfo: failed to open debug file"))
        << capture.dump();
    EXPECT_EQ(helper.streamInfos()[0].state, "RUNNING");
}

TEST_F(DebugHelperOff, CameraPositionOutsideTheBoardIsLoggedAndSkipped) {
    sysroot_.writeDefaultConfig(R"(<CameraConfig><board name="b"><cameras>
        <camera><channels><channel dev="/dev/video2"><cameraModel>m</cameraModel></channel></channels></camera>
        </cameras><inputMapping>
        <inputMap camId="1"><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap>
        <inputMap camId="2"><inputSrc cameraId="5" channelId="0" streamId="0"/></inputMap>
        </inputMapping></board></CameraConfig>)");
    LogCapture capture;
    TestHelper helper;
    EXPECT_EQ(helper.streamInfos().size(), 2u);
    auto cameras = helper.cameraInfos();
    ASSERT_EQ(cameras.size(), 1u);
    EXPECT_EQ(cameras.count("/dev/video2"), 1u);
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_ERROR, kTag,
        "initialize: camera position 5 is outside the board's 1 cameras, no device node added"))
        << capture.dump();
}

TEST_F(DebugHelperOff, NoConfigurationGivesEmptyTablesAndAnEmptyReport) {
    std::filesystem::remove(sysroot_.path("/vendor/etc/marlo_config.xml"));
    TestHelper helper;
    EXPECT_TRUE(helper.streamInfos().empty());
    EXPECT_TRUE(helper.cameraInfos().empty());
    std::string text = report();
    std::string expected = std::string(73, '-') + "\n";
    EXPECT_EQ(text.substr(0, expected.size()), expected);
    /* Every fixed line, and no table row. */
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 11);
}

TEST_F(DebugHelperOff, InitializeAgainKeepsExistingEntries) {
    TestHelper helper;
    {
        ScopedProperty on(kOn, "1");
        helper.updateStreamDropCount(0);
    }
    helper.initialize();
    EXPECT_EQ(helper.streamInfos()[0].dropCount, 1u);
    EXPECT_EQ(helper.streamInfos().size(), 3u);
}

TEST_F(DebugHelperOn, ConcurrentUpdatesAndReports) {
    TestHelper helper;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&helper, t] {
            for (int i = 0; i < 200; ++i) {
                switch (t) {
                    case 0:
                        helper.updateStreamFrameNumber(0, i,
                                                       static_cast<unsigned long>(i) * 10000000ul);
                        break;
                    case 1:
                        helper.updateNaxProcessingTime("/dev/video0", static_cast<unsigned int>(i));
                        break;
                    case 2:
                        helper.updateStreamState(3, i % 2 ? "RUNNING" : "STOPPED");
                        break;
                    default:
                        helper.updateCache("line " + std::to_string(i));
                        if (i % 20 == 0)
                            helper.updateCameraDropCount("/dev/video4");
                        break;
                }
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(helper.streamInfos()[0].frameNumber, 199);
    EXPECT_EQ(helper.cameraInfos()["/dev/video4"].dropCount, 10u);
    EXPECT_EQ(helper.cachedLines().size(), 200u);
    EXPECT_EQ(helper.cameraInfos()["/dev/video0"].sampleCount, 200u);
}

TEST_F(DebugHelperOff, GetInstanceIsOneHelper) {
    DebugHelper& first = DebugHelper::getInstance();
    DebugHelper& second = DebugHelper::getInstance();
    EXPECT_EQ(&first, &second);
}

TEST_F(DebugHelperOff, ExampleConfigurationGivesEveryMappedStreamAndNode) {
    sysroot_.writeDefaultConfig(ReadFile(MARLO_EXAMPLE_CONFIG));
    TestHelper helper;
    auto streams = helper.streamInfos();
    ASSERT_EQ(streams.size(), 5u);
    EXPECT_EQ(streams.begin()->first, 0u);
    EXPECT_EQ(streams.rbegin()->first, 4u);
    std::vector<std::string> nodes;
    for (const auto& [node, info] : helper.cameraInfos())
        nodes.push_back(node);
    std::vector<std::string> expected = {"/dev/video0", "/dev/video1", "/dev/video4", "/dev/video5",
                                         "/dev/video8"};
    EXPECT_EQ(nodes, expected);
    /* Five stream rows and five device rows besides the fixed lines. */
    std::string text = report();
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 21);
}

namespace {

/* \a text right-aligned in a field of \a width characters. */
std::string Field(const std::string& text, size_t width) {
    return std::string(width > text.size() ? width - text.size() : 0, ' ') + text;
}

}  // namespace

TEST_F(DebugHelperOff, ReportLinesFollowTheFieldWidthsAndRulers) {
    TestHelper helper;
    std::vector<std::string> expected = {
        std::string(73, '-'),
        "streamId" + Field("state", 14) + Field("frameNumber", 16) + Field("FPS", 14) +
            Field("dropCount", 15),
        std::string(73, '-'),
        "0\t\tSTOPPED\t\t0\t\t0\t\t0",
        "3\t\tSTOPPED\t\t0\t\t0\t\t0",
        "10\t\tSTOPPED\t\t0\t\t0\t\t0",
        std::string(73, '-'),
        "",
        std::string(108, '-'),
        Field("NAX process time(us)", 85),
        "deviceNode" + Field("state", 20) + Field("dropCount", 15) + Field("max", 15) +
            Field("min", 15) + Field("avg", 15),
        std::string(108, '-'),
        "/dev/video0\t\tSTOPPED\t\t0\t\t0\t\t0\t\t0",
        "/dev/video1\t\tSTOPPED\t\t0\t\t0\t\t0\t\t0",
        "/dev/video4\t\tSTOPPED\t\t0\t\t0\t\t0\t\t0",
        std::string(108, '-'),
        "",
    };
    std::string text;
    for (const std::string& line : expected)
        text += line + "\n";
    EXPECT_EQ(report(), text);
}

TEST_F(DebugHelperOn, ReportsLeaveNoDescriptorOpen) {
    TestHelper helper;
    marlo_test::FdLeakCheck check;
    helper.updateStreamState(0, "RUNNING");
    helper.dumpDebugInfo();
    /* And when the file cannot be opened. */
    std::filesystem::remove_all(sysroot_.path("/data"));
    helper.dumpDebugInfo();
    EXPECT_TRUE(check.unchanged());
}
