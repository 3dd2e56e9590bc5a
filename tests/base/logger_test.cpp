#include <marlo/base/logger.h>

#include <android/log.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <unistd.h>

#include <fstream>
#include <regex>
#include <sstream>

#include "support/log_capture.h"
#include "support/scoped_property.h"

using namespace tessaro::marlo;
using marlo_test::LogCapture;
using marlo_test::ScopedProperty;

namespace {
constexpr char kLevel[] = "persist.vendor.tessaro.marlo.loglevel";
}

TEST(MarloLog, NegativeSeverityIsDropped) {
    LogCapture capture;
    marlo_log(static_cast<marlo_log_severity>(-1), "marlo_base", "never");
    EXPECT_TRUE(capture.records().empty());
}

TEST(MarloLog, DefaultLevelDropsWarningsAndPassesErrors) {
    LogCapture capture(false);
    ScopedProperty level(kLevel, "");
    marlo_log(MARLO_LOG_WARN, "marlo_base", "warning %d", 3);
    marlo_log(MARLO_LOG_ERROR, "marlo_base", "error %d", 4);
    auto records = capture.records();
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].priority, ANDROID_LOG_ERROR);
    EXPECT_EQ(records[0].tag, "marlo_base");
    EXPECT_EQ(records[0].message, "error 4");
}

TEST(MarloLog, LevelZeroPassesVerbose) {
    LogCapture capture(false);
    ScopedProperty level(kLevel, "0");
    marlo_log(MARLO_LOG_VERBOSE, "marlo_v4l2", "chatter");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_VERBOSE, "marlo_v4l2", "chatter"));
}

TEST(MarloLog, NonNumericLevelReadsAsZero) {
    LogCapture capture(false);
    ScopedProperty level(kLevel, "abc");
    marlo_log(MARLO_LOG_VERBOSE, "marlo_v4l2", "chatter");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_VERBOSE, "marlo_v4l2", "chatter"));
}

TEST(MarloLog, LevelNineSilencesEverything) {
    LogCapture capture(false);
    ScopedProperty level(kLevel, "9");
    for (int severity = 0; severity <= 5; ++severity)
        marlo_log(static_cast<marlo_log_severity>(severity), "marlo_base", "s%d", severity);
    EXPECT_TRUE(capture.records().empty());
}

TEST(MarloLog, EverySeverityMapsToItsPriority) {
    LogCapture capture;
    for (int severity = 0; severity <= 5; ++severity)
        marlo_log(static_cast<marlo_log_severity>(severity), "marlo_base", "s");
    auto records = capture.records();
    ASSERT_EQ(records.size(), 6u);
    const int expected[] = {ANDROID_LOG_VERBOSE, ANDROID_LOG_DEBUG, ANDROID_LOG_INFO,
                            ANDROID_LOG_WARN,    ANDROID_LOG_ERROR, ANDROID_LOG_FATAL};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(records[i].priority, expected[i]) << "severity " << i;
}

TEST(MarloLog, SeverityAboveFiveGoesOutAsUnknown) {
    LogCapture capture;
    marlo_log(static_cast<marlo_log_severity>(7), "marlo_base", "odd");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_UNKNOWN, "marlo_base", "odd"));
}

TEST(MarloLog, LevelChangesWhileRunning) {
    LogCapture capture(false);
    {
        ScopedProperty level(kLevel, "5");
        marlo_log(MARLO_LOG_ERROR, "marlo_base", "dropped");
    }
    {
        ScopedProperty level(kLevel, "4");
        marlo_log(MARLO_LOG_ERROR, "marlo_base", "passed");
    }
    EXPECT_EQ(capture.count("dropped"), 0u);
    EXPECT_EQ(capture.count("passed"), 1u);
}

// A logger whose sink keeps the line, to look at LogMessage's format.
class RecordingLogger : public Logger<RecordingLogger> {
  public:
    void WriteToLog(const std::string& line) override { lines.push_back(line); }
    std::vector<std::string> lines;
};

TEST(LineLogger, LineFormat) {
    RecordingLogger logger;
    logger.LogMessage(LOG_SEVERITY_ERROR, "marlo_base", "epoll_create1 failed");
    ASSERT_EQ(logger.lines.size(), 1u);
    std::regex shape(R"(\d\d-\d\d \d\d:\d\d:\d\d\|E\|marlo_base\|epoll_create1 failed\n)");
    EXPECT_TRUE(std::regex_match(logger.lines[0], shape)) << logger.lines[0];
}

TEST(LineLogger, InformationComesBeforeDebug) {
    RecordingLogger logger;
    logger.LogMessage(static_cast<LogSeverity>(1), "t", "m");
    logger.LogMessage(static_cast<LogSeverity>(2), "t", "m");
    ASSERT_EQ(logger.lines.size(), 2u);
    EXPECT_NE(logger.lines[0].find("|I|t|m"), std::string::npos);
    EXPECT_NE(logger.lines[1].find("|D|t|m"), std::string::npos);
}

TEST(LineLogger, AllLetters) {
    RecordingLogger logger;
    for (int s = 0; s <= 5; ++s)
        logger.LogMessage(static_cast<LogSeverity>(s), "t", "m");
    const char letters[] = "VIDWEF";
    for (int s = 0; s <= 5; ++s)
        EXPECT_EQ(logger.lines[s][15], letters[s]);
}

TEST(LineLogger, OutOfRangeSeverityGetsAQuestionMark) {
    RecordingLogger logger;
    logger.LogMessage(static_cast<LogSeverity>(6), "t", "m");
    EXPECT_NE(logger.lines[0].find("|?|t|m"), std::string::npos);
}

TEST(FileLogger, AppendsLines) {
    char path[] = "/tmp/marlo_filelogger_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    write(fd, "existing\n", 9);
    close(fd);
    {
        FileLogger logger(path);
        logger.LogMessage(LOG_SEVERITY_WARNING, "marlo_base", "one");
        logger.LogMessage(LOG_SEVERITY_INFO, "marlo_base", "two");
    }
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    std::string content = text.str();
    EXPECT_EQ(content.rfind("existing\n", 0), 0u);
    EXPECT_NE(content.find("|W|marlo_base|one\n"), std::string::npos);
    EXPECT_NE(content.find("|I|marlo_base|two\n"), std::string::npos);
    unlink(path);
}

TEST(FileLogger, UnopenablePathWritesNothing) {
    const char* path = "/nonexistent-dir/marlo/log.txt";
    FileLogger logger(path);
    logger.LogMessage(LOG_SEVERITY_ERROR, "marlo_base", "lost");
    EXPECT_NE(access(path, F_OK), 0);
}

TEST(ConsoleLogger, WritesToStandardOutput) {
    ConsoleLogger logger(true);
    testing::internal::CaptureStdout();
    logger.LogMessage(LOG_SEVERITY_FATAL, "marlo_base", "to stdout");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_NE(out.find("|F|marlo_base|to stdout\n"), std::string::npos);
}

TEST(LogManager, HoldsTheEmbeddersLogger) {
    EXPECT_EQ(LogManager::logger_, nullptr);
    LogManager::logger_ = std::make_unique<ConsoleLogger>(false);
    EXPECT_NE(LogManager::logger_, nullptr);
    LogManager::logger_.reset();
}
