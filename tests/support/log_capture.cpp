#include "support/log_capture.h"

#include <cutils/properties.h>
#include <marlo_host/hooks.h>

#include <mutex>

namespace marlo_test {

namespace {

constexpr char kLevelProperty[] = "persist.vendor.tessaro.marlo.loglevel";

/*
 * The lock of every capture's records. A lock inside the object would be
 * reused at the same address by whatever the test allocates next (a camera,
 * a thread), and std::mutex tells the thread sanitizer nothing when it goes
 * away: code that logs while holding that later lock would then look like a
 * lock-order inversion with the capture. This one never moves nor ends.
 */
std::mutex& RecordsMutex() {
    static std::mutex* mutex = new std::mutex();
    return *mutex;
}

}  // namespace

LogCapture::LogCapture(bool allLevels) : restoreLevel_(allLevels) {
    if (allLevels) {
        char previous[PROPERTY_VALUE_MAX];
        property_get(kLevelProperty, previous, "");
        previousLevel_ = previous;
        property_set(kLevelProperty, "0");
    }
    marlo_host_set_log_hook(&LogCapture::Hook, this);
}

LogCapture::~LogCapture() {
    // Returns once no message is being recorded any more.
    marlo_host_set_log_hook(nullptr, nullptr);
    if (restoreLevel_)
        property_set(kLevelProperty, previousLevel_.c_str());
}

void LogCapture::Hook(int prio, const char* tag, const char* message, void* ctx) {
    auto* self = static_cast<LogCapture*>(ctx);
    std::lock_guard<std::mutex> lock(RecordsMutex());
    self->records_.push_back({prio, tag ? tag : "", message ? message : ""});
}

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(RecordsMutex());
    return records_;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(RecordsMutex());
    records_.clear();
}

size_t LogCapture::count(const std::string& message) const {
    std::lock_guard<std::mutex> lock(RecordsMutex());
    size_t n = 0;
    for (const auto& record : records_)
        n += record.message == message;
    return n;
}

bool LogCapture::contains(int priority, const std::string& tag, const std::string& message) const {
    std::lock_guard<std::mutex> lock(RecordsMutex());
    for (const auto& record : records_)
        if (record.priority == priority && record.tag == tag && record.message == message)
            return true;
    return false;
}

bool LogCapture::containsText(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(RecordsMutex());
    for (const auto& record : records_)
        if (record.message.find(fragment) != std::string::npos)
            return true;
    return false;
}

std::string LogCapture::dump() const {
    std::lock_guard<std::mutex> lock(RecordsMutex());
    std::string text;
    for (const auto& record : records_)
        text += std::to_string(record.priority) + " " + record.tag + ": " + record.message + "\n";
    return text;
}

}  // namespace marlo_test
