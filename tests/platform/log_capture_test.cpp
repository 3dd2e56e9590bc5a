#include <android/log.h>
#include <gtest/gtest.h>

#include <marlo/base/logger.h>

#include <memory>
#include <mutex>
#include <new>

#include "support/log_capture.h"

using marlo_test::LogCapture;

// A capture lives where a later lock lives, as happens when test fixtures
// holding one are freed and their memory reused. Logging while holding that
// lock must not look like a lock-order inversion with the capture.
TEST(LogCapture, ItsMemoryCanBeReusedByALockHeldWhileLogging) {
    alignas(LogCapture) alignas(
        std::mutex) unsigned char storage[sizeof(LogCapture) + sizeof(std::mutex)];

    auto* first = new (storage) LogCapture();
    marlo_log(MARLO_LOG_ERROR, "marlo_base", "first");
    EXPECT_EQ(first->count("first"), 1u);
    first->~LogCapture();

    LogCapture second;
    auto* lock = new (storage) std::mutex();
    {
        std::lock_guard<std::mutex> guard(*lock);
        marlo_log(MARLO_LOG_ERROR, "marlo_base", "second");
    }
    lock->~mutex();
    EXPECT_EQ(second.count("second"), 1u);
    EXPECT_EQ(second.count("first"), 0u);
}
