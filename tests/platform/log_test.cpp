#include <android/log.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <marlo_host/hooks.h>

#include <regex>
#include <string>
#include <vector>

namespace {

struct Message {
    int prio;
    std::string tag;
    std::string text;
};

void Record(int prio, const char* tag, const char* text, void* ctx) {
    static_cast<std::vector<Message>*>(ctx)->push_back({prio, tag ? tag : "", text});
}

}  // namespace

TEST(HostLog, OneLineOnStandardErrorPerMessage) {
    testing::internal::CaptureStderr();
    __android_log_print(ANDROID_LOG_WARN, "marlo_test", "value %d\n\n", 7);
    std::string out = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(std::regex_match(
        out, std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+ W marlo_test: value 7\n)")))
        << out;
}

TEST(HostLog, PriorityLetters) {
    const char* letters = "VDIWEF";
    for (int prio = ANDROID_LOG_VERBOSE; prio <= ANDROID_LOG_FATAL; ++prio) {
        testing::internal::CaptureStderr();
        __android_log_write(prio, "t", "m");
        std::string out = testing::internal::GetCapturedStderr();
        EXPECT_NE(out.find(std::string(" ") + letters[prio - ANDROID_LOG_VERBOSE] + " t: m\n"),
                  std::string::npos)
            << out;
    }
}

TEST(HostLog, TheHookSeesTheFormattedMessage) {
    std::vector<Message> messages;
    marlo_host_set_log_hook(Record, &messages);
    marlo_host_set_log_to_stderr(0);
    __android_log_print(ANDROID_LOG_ERROR, "marlo_base", "fd(%d) %s", 3, "closed");
    __android_log_write(ANDROID_LOG_INFO, nullptr, nullptr);
    marlo_host_set_log_to_stderr(1);
    marlo_host_set_log_hook(nullptr, nullptr);
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(messages[0].prio, ANDROID_LOG_ERROR);
    EXPECT_EQ(messages[0].tag, "marlo_base");
    EXPECT_EQ(messages[0].text, "fd(3) closed");
    EXPECT_EQ(messages[1].tag, "");
    EXPECT_EQ(messages[1].text, "");
}

TEST(HostLog, LoggingLeavesErrnoAlone) {
    marlo_host_set_log_to_stderr(0);
    errno = ENOENT;
    __android_log_print(ANDROID_LOG_ERROR, "marlo_test", "open failed");
    EXPECT_EQ(errno, ENOENT);
    marlo_host_set_log_to_stderr(1);
}
