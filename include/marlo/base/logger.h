/*
 * Logging: the exported marlo_log() call that every module reports through,
 * and a small family of line loggers for the embedding process.
 */
#pragma once

#include <stdint.h>

#include <fstream>
#include <memory>
#include <string>

#ifdef __cplusplus
extern "C" {
#endif

/* Severities of marlo_log(); each maps to one Android log priority. */
typedef enum marlo_log_severity : int32_t {
    MARLO_LOG_VERBOSE = 0,
    MARLO_LOG_DEBUG = 1,
    MARLO_LOG_INFO = 2,
    MARLO_LOG_WARN = 3,
    MARLO_LOG_ERROR = 4,
    MARLO_LOG_FATAL = 5,
} marlo_log_severity;

/*
 * Logs a printf-style message under \a tag when \a severity reaches the level
 * of the property "persist.vendor.tessaro.marlo.loglevel" (default 4).
 */
void marlo_log(marlo_log_severity severity, const char* tag, const char* fmt, ...)
    __attribute__((__format__(printf, 3, 4)));

#ifdef __cplusplus
}
#endif

namespace tessaro::marlo {

/*
 * Severities of the line loggers. The letters are "VIDWEF": information
 * comes before debug here, unlike marlo_log_severity.
 */
enum LogSeverity : int {
    LOG_SEVERITY_VERBOSE = 0,
    LOG_SEVERITY_INFO = 1,
    LOG_SEVERITY_DEBUG = 2,
    LOG_SEVERITY_WARNING = 3,
    LOG_SEVERITY_ERROR = 4,
    LOG_SEVERITY_FATAL = 5,
};

class BaseLogger {
  public:
    virtual ~BaseLogger() = default;
    /* Formats "MM-DD HH:MM:SS|<letter>|<tag>|<message>\n" and writes it. */
    virtual void LogMessage(LogSeverity severity, const char* tag, const char* message) = 0;
    virtual void WriteToLog(const std::string& line) = 0;
};

namespace detail {
/* The one-line record that every logger writes. */
std::string FormatLogLine(LogSeverity severity, const char* tag, const char* message);
}  // namespace detail

template <typename T>
class Logger : public BaseLogger {
  public:
    void LogMessage(LogSeverity severity, const char* tag, const char* message) override {
        static_cast<T*>(this)->WriteToLog(detail::FormatLogLine(severity, tag, message));
    }
};

/* Writes each line to standard output, flushing it when asked to. */
class ConsoleLogger : public Logger<ConsoleLogger> {
  public:
    explicit ConsoleLogger(bool flush);
    void WriteToLog(const std::string& line) override;

  private:
    bool flush_;
};

/*
 * Appends each line to a file. A path that cannot be opened leaves the
 * stream failed, and lines are then silently lost.
 */
class FileLogger : public Logger<FileLogger> {
  public:
    explicit FileLogger(const std::string& path);
    ~FileLogger() override;
    void WriteToLog(const std::string& line) override;

  private:
    std::ofstream stream_;
    std::string path_;
};

/* Holds one logger for the embedding process; the library never reads it. */
class LogManager {
  public:
    static std::unique_ptr<BaseLogger> logger_;
};

}  // namespace tessaro::marlo
