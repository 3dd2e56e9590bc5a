#include <marlo/base/logger.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <gtest/gtest.h>
#include <marlo_host/hooks.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <regex>
#include <sstream>
#include <thread>

#include "support/log_capture.h"
#include "support/scoped_property.h"

using namespace tessaro::marlo;
using marlo_test::LogCapture;
using marlo_test::ScopedProperty;

namespace {
constexpr char kLevel[] = "persist.vendor.tessaro.marlo.loglevel";
}

TEST(MarloLog, NegativeSeverityIsDropped) {
    // A level below the severity would let it through if the level decided.
    LogCapture capture(false);
    ScopedProperty level(kLevel, "-5");
    marlo_log(static_cast<marlo_log_severity>(-1), "marlo_base", "never");
    marlo_log(static_cast<marlo_log_severity>(-4), "marlo_base", "never");
    EXPECT_TRUE(capture.records().empty()) << capture.dump();
    marlo_log(MARLO_LOG_VERBOSE, "marlo_base", "passed");
    EXPECT_TRUE(capture.contains(ANDROID_LOG_VERBOSE, "marlo_base", "passed"));
}

TEST(MarloLog, AMissingFormatIsReportedNotFormatted) {
    LogCapture capture;
    marlo_log(MARLO_LOG_ERROR, "marlo_base", nullptr);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, "marlo_base", "marlo_log called without a format"));
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

TEST(MarloLog, ALevelSetByAnotherThreadAppliesToTheNextCall) {
    LogCapture capture(false);
    ScopedProperty level(kLevel, "4");
    marlo_log(MARLO_LOG_ERROR, "marlo_base", "before");
    std::thread([] { property_set(kLevel, "5"); }).join();
    marlo_log(MARLO_LOG_ERROR, "marlo_base", "silenced");
    std::thread([] { property_set(kLevel, "0"); }).join();
    marlo_log(MARLO_LOG_VERBOSE, "marlo_base", "verbose");
    EXPECT_EQ(capture.count("before"), 1u);
    EXPECT_EQ(capture.count("silenced"), 0u);
    EXPECT_EQ(capture.count("verbose"), 1u);
}

TEST(MarloLog, ALevelPropertyThatAppearsLaterIsSeen) {
    LogCapture capture(false);
    // No level at all: the default 4 lets errors through.
    marlo_host_properties_reset();
    marlo_log(MARLO_LOG_WARN, "marlo_base", "default level");
    marlo_log(MARLO_LOG_ERROR, "marlo_base", "default error");
    ASSERT_EQ(property_set(kLevel, "3"), 0);
    marlo_log(MARLO_LOG_WARN, "marlo_base", "new level");
    marlo_host_properties_reset();
    marlo_log(MARLO_LOG_WARN, "marlo_base", "level gone");
    EXPECT_EQ(capture.count("default level"), 0u);
    EXPECT_EQ(capture.count("default error"), 1u);
    EXPECT_EQ(capture.count("new level"), 1u);
    EXPECT_EQ(capture.count("level gone"), 0u);
}

TEST(MarloLog, LevelChangesRacingWithLogCallsSettleOnTheLastValue) {
    LogCapture capture(false);
    ScopedProperty level(kLevel, "4");
    std::atomic<bool> stop{false};
    std::thread logger([&stop] {
        while (!stop.load())
            marlo_log(MARLO_LOG_VERBOSE, "marlo_base", "racing");
    });
    for (int i = 0; i < 200; ++i)
        property_set(kLevel, i % 2 == 0 ? "0" : "9");
    property_set(kLevel, "9");
    stop = true;
    logger.join();
    capture.clear();
    marlo_log(MARLO_LOG_FATAL, "marlo_base", "after the race");
    EXPECT_EQ(capture.count("after the race"), 0u);
    ASSERT_EQ(property_set(kLevel, "0"), 0);
    marlo_log(MARLO_LOG_VERBOSE, "marlo_base", "verbose after");
    EXPECT_EQ(capture.count("verbose after"), 1u);
}

namespace {
void LogAtExit() {
    marlo_log(MARLO_LOG_ERROR, "marlo_base", "logged at exit");
}
}  // namespace

TEST(MarloLogDeathTest, LoggingFromAnExitHandlerRegisteredEarlierWorks) {
    // Registered before the first message builds the severity map, so the
    // handler runs after the map's turn to be torn down at exit.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            atexit(LogAtExit);
            marlo_log(MARLO_LOG_ERROR, "marlo_base", "first message");
            exit(3);
        },
        testing::ExitedWithCode(3), "logged at exit");
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

TEST(FileLogger, LinesStayInTheStreamUntilItIsClosed) {
    char path[] = "/tmp/marlo_filelogger_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    auto content = [&] {
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    };
    {
        FileLogger logger(path);
        logger.LogMessage(LOG_SEVERITY_ERROR, "marlo_base", "buffered");
        EXPECT_EQ(content(), "");
    }
    EXPECT_NE(content().find("|E|marlo_base|buffered\n"), std::string::npos);
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

namespace {

// What a console logger leaves on standard output when the process ends
// without flushing its streams: run in a child whose standard output is a
// fully buffered pipe.
std::string ConsoleOutputWithoutExitFlush(bool flush) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0)
        return "<pipe failed>";
    fflush(stdout);
    pid_t child = fork();
    if (child == 0) {
        dup2(pipeFds[1], STDOUT_FILENO);
        setvbuf(stdout, nullptr, _IOFBF, BUFSIZ);
        ConsoleLogger logger(flush);
        logger.LogMessage(LOG_SEVERITY_INFO, "marlo_base", "console");
        // Straight to the kernel: sanitizer runtimes flush stdio in _exit.
        syscall(SYS_exit_group, 0);
    }
    close(pipeFds[1]);
    std::string out;
    char buffer[256];
    ssize_t n;
    while ((n = read(pipeFds[0], buffer, sizeof(buffer))) > 0)
        out.append(buffer, static_cast<size_t>(n));
    close(pipeFds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return out;
}

}  // namespace

TEST(ConsoleLogger, FlushesOnlyWhenAsked) {
    EXPECT_NE(ConsoleOutputWithoutExitFlush(true).find("|I|marlo_base|console\n"),
              std::string::npos);
    EXPECT_EQ(ConsoleOutputWithoutExitFlush(false), "");
}

TEST(LogManager, HoldsTheEmbeddersLogger) {
    EXPECT_EQ(LogManager::logger_, nullptr);
    LogManager::logger_ = std::make_unique<ConsoleLogger>(false);
    EXPECT_NE(LogManager::logger_, nullptr);
    LogManager::logger_.reset();
}
