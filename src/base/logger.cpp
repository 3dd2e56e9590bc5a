#include <marlo/base/logger.h>

#include <android/log.h>
#include <cutils/properties.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <map>

#include "base/cached_property.h"

namespace tessaro::marlo {

namespace {

constexpr char kLogLevelProperty[] = "persist.vendor.tessaro.marlo.loglevel";

int32_t ReadLogLevel(const char* name) {
    char level[PROPERTY_VALUE_MAX];
    property_get(name, level, "4");
    return atoi(level);
}

/*
 * Every log call, taken or not, asks for the level; it is read again only
 * when the property changed, so a level set at run time applies from the
 * next call on.
 */
int32_t LogLevel() {
    // Never destroyed: destructors of other statics may still log at exit.
    static auto* level = new detail::CachedProperty(kLogLevelProperty, ReadLogLevel);
    return level->get();
}

const std::map<marlo_log_severity, android_LogPriority>& SeverityToPriority() {
    // Never destroyed: destructors of other statics may still log at exit.
    static const auto* kMap = new std::map<marlo_log_severity, android_LogPriority>{
        {MARLO_LOG_VERBOSE, ANDROID_LOG_VERBOSE}, {MARLO_LOG_DEBUG, ANDROID_LOG_DEBUG},
        {MARLO_LOG_INFO, ANDROID_LOG_INFO},       {MARLO_LOG_WARN, ANDROID_LOG_WARN},
        {MARLO_LOG_ERROR, ANDROID_LOG_ERROR},     {MARLO_LOG_FATAL, ANDROID_LOG_FATAL},
    };
    return *kMap;
}

android_LogPriority PriorityOf(marlo_log_severity severity) {
    // A severity above 5 has no Android counterpart and goes out as UNKNOWN.
    // The map stays read-only so that concurrent callers never race on it.
    const auto& map = SeverityToPriority();
    auto it = map.find(severity);
    return it != map.end() ? it->second : ANDROID_LOG_UNKNOWN;
}

}  // namespace

namespace detail {

std::string FormatLogLine(LogSeverity severity, const char* tag, const char* message) {
    static const char severityToString[] = "VIDWEF";

    char stamp[32];
    time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    strftime(stamp, sizeof(stamp), "%m-%d %H:%M:%S", &local);

    // Out-of-range severities would read past the letter table.
    char letter =
        (severity >= 0 && severity <= LOG_SEVERITY_FATAL) ? severityToString[severity] : '?';
    std::string line(stamp);
    line += '|';
    line += letter;
    line += '|';
    line += tag != nullptr ? tag : "";
    line += '|';
    line += message != nullptr ? message : "";
    line += '\n';
    return line;
}

}  // namespace detail

ConsoleLogger::ConsoleLogger(bool flush) : flush_(flush) {}

void ConsoleLogger::WriteToLog(const std::string& line) {
    fputs(line.c_str(), stdout);
    if (flush_)
        fflush(stdout);
}

FileLogger::FileLogger(const std::string& path)
    : stream_(path, std::ios::out | std::ios::app), path_(path) {}

FileLogger::~FileLogger() {
    stream_.close();
}

void FileLogger::WriteToLog(const std::string& line) {
    stream_.write(line.data(), static_cast<std::streamsize>(line.size()));
}

std::unique_ptr<BaseLogger> LogManager::logger_;

}  // namespace tessaro::marlo

using tessaro::marlo::LogLevel;
using tessaro::marlo::PriorityOf;

extern "C" void marlo_log(marlo_log_severity severity, const char* tag, const char* fmt, ...) {
    if (severity < 0)
        return;

    if (LogLevel() > severity)
        return;

    if (fmt == nullptr) {
        // Nothing to format; say so rather than crash in the formatter.
        __android_log_write(PriorityOf(severity), tag, "marlo_log called without a format");
        return;
    }

    va_list args;
    va_start(args, fmt);
    __android_log_vprint(PriorityOf(severity), tag, fmt, args);
    va_end(args);
}
