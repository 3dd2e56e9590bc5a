/*
 * LogCapture records every message the library logs while it is alive, with
 * the Android priority and tag, so tests check exact texts.
 */
#pragma once

#include <string>
#include <vector>

namespace marlo_test {

struct LogRecord {
    int priority;
    std::string tag;
    std::string message;
};

class LogCapture {
  public:
    /*
     * Lets every severity through marlo_log's level filter while capturing
     * (the level property is "0" until the capture ends, then as before).
     * One capture at a time: the log has a single hook.
     */
    explicit LogCapture(bool allLevels = true);
    ~LogCapture();

    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    std::vector<LogRecord> records() const;
    void clear();

    /* Number of records whose message equals \a message exactly. */
    size_t count(const std::string& message) const;
    /* Whether a record has exactly this priority, tag and message. */
    bool contains(int priority, const std::string& tag, const std::string& message) const;
    /* Whether some message contains \a fragment. */
    bool containsText(const std::string& fragment) const;

    /* All messages, one per line, for failure output. */
    std::string dump() const;

  private:
    static void Hook(int prio, const char* tag, const char* message, void* ctx);

    // Guarded by a lock that lives as long as the process (see the source).
    std::vector<LogRecord> records_;
    bool restoreLevel_;
    std::string previousLevel_;
};

}  // namespace marlo_test
