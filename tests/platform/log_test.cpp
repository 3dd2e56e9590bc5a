#include <android/log.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <marlo_host/hooks.h>
#include <stdarg.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
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

namespace {

// Counts its calls and logs once more from within the first one.
void LogAgain(int, const char*, const char* text, void* ctx) {
    auto* messages = static_cast<std::vector<std::string>*>(ctx);
    messages->push_back(text);
    if (messages->size() == 1)
        __android_log_write(ANDROID_LOG_INFO, "marlo_test", "from the hook");
}

// Holds every call until the test opens the gate.
struct BlockingHook {
    std::mutex mutex;
    std::condition_variable cond;
    bool open = false;
    int entered = 0;
    int returned = 0;

    static void Call(int, const char*, const char*, void* ctx) {
        auto* self = static_cast<BlockingHook*>(ctx);
        std::unique_lock<std::mutex> lock(self->mutex);
        ++self->entered;
        self->cond.notify_all();
        self->cond.wait(lock, [self] { return self->open; });
        ++self->returned;
    }
};

}  // namespace

TEST(HostLog, AHookMayLogItself) {
    std::vector<std::string> messages;
    marlo_host_set_log_to_stderr(0);
    marlo_host_set_log_hook(LogAgain, &messages);
    __android_log_write(ANDROID_LOG_INFO, "marlo_test", "first");
    marlo_host_set_log_hook(nullptr, nullptr);
    marlo_host_set_log_to_stderr(1);
    EXPECT_EQ(messages, (std::vector<std::string>{"first", "from the hook"}));
}

TEST(HostLog, ReplacingTheHookWaitsForItsRunningCalls) {
    BlockingHook hook;
    marlo_host_set_log_to_stderr(0);
    marlo_host_set_log_hook(BlockingHook::Call, &hook);
    std::thread logger([] { __android_log_write(ANDROID_LOG_INFO, "marlo_test", "held"); });
    {
        std::unique_lock<std::mutex> lock(hook.mutex);
        hook.cond.wait(lock, [&] { return hook.entered == 1; });
    }

    std::atomic<bool> replaced{false};
    int returnedWhenReplaced = -1;
    std::thread replacer([&] {
        marlo_host_set_log_hook(nullptr, nullptr);
        std::lock_guard<std::mutex> lock(hook.mutex);
        returnedWhenReplaced = hook.returned;
        replaced = true;
    });

    // The replacement waits for the held call, while later messages no
    // longer reach the old hook and do not wait.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_FALSE(replaced);
    std::atomic<bool> lateReturned{false};
    std::thread late([&] {
        __android_log_write(ANDROID_LOG_INFO, "marlo_test", "after the swap");
        lateReturned = true;
    });
    for (int i = 0; i < 500 && !lateReturned; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_TRUE(lateReturned);
    {
        std::lock_guard<std::mutex> lock(hook.mutex);
        EXPECT_EQ(hook.entered, 1);
        hook.open = true;
        hook.cond.notify_all();
    }
    replacer.join();
    logger.join();
    late.join();
    marlo_host_set_log_to_stderr(1);
    EXPECT_TRUE(replaced);
    EXPECT_EQ(returnedWhenReplaced, 1);
}

namespace {

int VPrint(int prio, const char* tag, const char* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    int result = __android_log_vprint(prio, tag, fmt, ap);
    va_end(ap);
    return result;
}

}  // namespace

TEST(HostLog, AMissingFormatLogsAnEmptyMessage) {
    std::vector<Message> messages;
    marlo_host_set_log_hook(Record, &messages);
    marlo_host_set_log_to_stderr(0);
    const char* missing = nullptr;
    VPrint(ANDROID_LOG_WARN, "marlo_test", missing);
    marlo_host_set_log_to_stderr(1);
    marlo_host_set_log_hook(nullptr, nullptr);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].prio, ANDROID_LOG_WARN);
    EXPECT_EQ(messages[0].text, "");
}
