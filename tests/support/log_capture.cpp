#include "support/log_capture.h"

#include <cutils/properties.h>
#include <marlo_host/hooks.h>

namespace marlo_test {

namespace {
constexpr char kLevelProperty[] = "persist.vendor.tessaro.marlo.loglevel";
}

LogCapture::LogCapture(bool allLevels) : restoreLevel_(allLevels) {
    if (allLevels)
        property_set(kLevelProperty, "0");
    marlo_host_set_log_hook(&LogCapture::Hook, this);
}

LogCapture::~LogCapture() {
    marlo_host_set_log_hook(nullptr, nullptr);
    if (restoreLevel_)
        property_set(kLevelProperty, "");
}

void LogCapture::Hook(int prio, const char* tag, const char* message, void* ctx) {
    auto* self = static_cast<LogCapture*>(ctx);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->records_.push_back({prio, tag ? tag : "", message ? message : ""});
}

std::vector<LogRecord> LogCapture::records() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    records_.clear();
}

size_t LogCapture::count(const std::string& message) const {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& record : records_)
        n += record.message == message;
    return n;
}

bool LogCapture::contains(int priority, const std::string& tag, const std::string& message) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& record : records_)
        if (record.priority == priority && record.tag == tag && record.message == message)
            return true;
    return false;
}

bool LogCapture::containsText(const std::string& fragment) const {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& record : records_)
        if (record.message.find(fragment) != std::string::npos)
            return true;
    return false;
}

std::string LogCapture::dump() const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::string text;
    for (const auto& record : records_)
        text += std::to_string(record.priority) + " " + record.tag + ": " + record.message + "\n";
    return text;
}

}  // namespace marlo_test
