#include <marlo/base/thread.h>

#include <android/log.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "fault_injection.h"
#include "support/gate.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::Gate;
using marlo_test::LogCapture;
using namespace std::chrono_literals;

namespace {

constexpr char kTag[] = "marlo_base";

int CurrentMask() {
    cpu_set_t set;
    CPU_ZERO(&set);
    EXPECT_EQ(sched_getaffinity(0, sizeof(set), &set), 0);
    return detail::MaskFromCpuSet(set);
}

std::string HexText(int mask) {
    char text[16];
    snprintf(text, sizeof(text), "%X", static_cast<unsigned>(mask));
    return text;
}

// Shortens the stop deadline for one test.
class ScopedStopTimeout {
  public:
    explicit ScopedStopTimeout(std::chrono::milliseconds timeout)
        : previous_(detail::SetThreadStopTimeoutForTesting(timeout)) {}
    ~ScopedStopTimeout() { detail::SetThreadStopTimeoutForTesting(previous_); }

  private:
    std::chrono::milliseconds previous_;
};

}  // namespace

TEST(Thread, DefaultsAreNormalPriorityAndTheProcessAffinity) {
    LogCapture capture;
    Thread thread;
    int mask = CurrentMask();
    EXPECT_EQ(thread.getPriority(), Thread::NORMAL);
    EXPECT_TRUE(thread.stopped());
    EXPECT_FALSE(thread.joinable());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, "get cpu affinity " + HexText(mask)))
        << capture.dump();
    EXPECT_EQ(thread.getAffinity(), mask);
}

TEST(Thread, PriorityNamesHaveTheirValues) {
    EXPECT_EQ(Thread::LOW, 0);
    EXPECT_EQ(Thread::NORMAL, 1);
    EXPECT_EQ(Thread::HIGH, 2);
}

TEST(Thread, StopOnANeverStartedThreadReturnsAtOnce) {
    Thread thread;
    auto begin = std::chrono::steady_clock::now();
    thread.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_TRUE(thread.stopped());
}

TEST(Thread, JoinOnANeverStartedThreadLogsNotJoinable) {
    Thread thread;
    LogCapture capture;
    thread.join();
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Thread not joinable"));
}

TEST(Thread, RunsTheFunctionAndMarksItselfStoppedAfterwards) {
    Thread thread;
    Gate gate;
    std::atomic<bool> ran{false};
    thread.start([&] {
        gate.wait();
        ran = true;
    });
    EXPECT_FALSE(thread.stopped());
    EXPECT_TRUE(thread.joinable());
    gate.open();
    thread.stop();
    EXPECT_TRUE(ran);
    EXPECT_TRUE(thread.stopped());
    thread.join();
    EXPECT_FALSE(thread.joinable());
}

TEST(Thread, StopWaitsUntilTheFunctionReturns) {
    Thread thread;
    std::atomic<bool> returned{false};
    thread.start([&] {
        std::this_thread::sleep_for(100ms);
        returned = true;
    });
    thread.stop();
    EXPECT_TRUE(returned);
    thread.join();
}

TEST(Thread, IsNotJoinableFromItself) {
    LogCapture capture;
    Thread thread;
    std::atomic<bool> joinableInside{true};
    Gate started;  // the handle is stored once start() returns
    thread.start([&] {
        started.wait();
        joinableInside = thread.joinable();
        thread.join();
    });
    started.open();
    thread.stop();
    EXPECT_FALSE(joinableInside);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Thread not joinable"));
    EXPECT_TRUE(thread.joinable());
    thread.join();
}

TEST(Thread, StartingAgainDetachesTheRunningThread) {
    LogCapture capture;
    Thread thread;
    auto firstGate = std::make_shared<Gate>();
    auto firstDone = std::make_shared<std::atomic<bool>>(false);
    thread.start([firstGate, firstDone] {
        firstGate->wait();
        *firstDone = true;
    });
    std::atomic<bool> secondRan{false};
    thread.start([&] { secondRan = true; });
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Thread already started"));

    // The second thread is the one held now; the first goes on by itself.
    thread.stop();
    thread.join();
    EXPECT_TRUE(secondRan);
    EXPECT_FALSE(*firstDone);
    firstGate->open();
    for (int i = 0; i < 500 && !*firstDone; ++i)
        std::this_thread::sleep_for(10ms);
    EXPECT_TRUE(*firstDone);
}

TEST(Thread, RestartsAfterStopAndJoin) {
    LogCapture capture;
    Thread thread;
    std::atomic<int> runs{0};
    for (int i = 0; i < 3; ++i) {
        thread.start([&] { ++runs; });
        thread.stop();
        thread.join();
    }
    EXPECT_EQ(runs, 3);
    EXPECT_EQ(capture.count("Thread already started"), 0u);
}

TEST(Thread, StopGivesUpAfterItsDeadlineAndJoinStillWaits) {
    ScopedStopTimeout timeout(50ms);
    LogCapture capture;
    Thread thread;
    Gate gate;
    std::atomic<bool> returned{false};
    thread.start([&] {
        gate.wait();
        returned = true;
    });

    auto begin = std::chrono::steady_clock::now();
    thread.stop();
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 50ms);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_FATAL, kTag, "wait thread stop timeout!!"));
    EXPECT_FALSE(thread.stopped());
    EXPECT_FALSE(returned);

    std::thread opener([&] {
        std::this_thread::sleep_for(100ms);
        gate.open();
    });
    thread.join();
    EXPECT_TRUE(returned);
    opener.join();
}

TEST(Thread, TheStopDeadlineIsOneHourByDefault) {
    auto previous = detail::SetThreadStopTimeoutForTesting(1ms);
    EXPECT_EQ(previous, std::chrono::milliseconds(std::chrono::hours(1)));
    detail::SetThreadStopTimeoutForTesting(previous);
}

TEST(Thread, InvalidPriorityIsLoggedAndStillStored) {
    LogCapture capture;
    Thread thread;
    thread.setPriority(static_cast<Thread::Priority>(3));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Invalid priority"));
    EXPECT_EQ(static_cast<int>(thread.getPriority()), 3);
}

TEST(Thread, ValidPrioritiesApplyUnderTheTimeSharingPolicy) {
    LogCapture capture;
    std::thread worker([] {
        Thread thread;
        for (auto priority : {Thread::LOW, Thread::NORMAL, Thread::HIGH}) {
            thread.setPriority(priority);
            EXPECT_EQ(thread.getPriority(), priority);
        }
    });
    worker.join();
    EXPECT_EQ(capture.count("Invalid priority"), 0u);
    EXPECT_EQ(capture.count("Failed to set thread priority"), 0u);
}

TEST(Thread, PrioritiesMapToTheRealTimeRange) {
    // Real-time scheduling needs privileges that test machines rarely grant.
    std::atomic<bool> allowed{false};
    int seen[3] = {-1, -1, -1};
    std::thread worker([&] {
        struct sched_param param = {};
        param.sched_priority = sched_get_priority_min(SCHED_FIFO);
        if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) != 0)
            return;
        allowed = true;
        Thread thread;
        int i = 0;
        for (auto priority : {Thread::LOW, Thread::NORMAL, Thread::HIGH}) {
            thread.setPriority(priority);
            int policy;
            pthread_getschedparam(pthread_self(), &policy, &param);
            seen[i++] = param.sched_priority;
        }
    });
    worker.join();
    if (!allowed)
        GTEST_SKIP() << "SCHED_FIFO not permitted here";
    int min = sched_get_priority_min(SCHED_FIFO);
    int max = sched_get_priority_max(SCHED_FIFO);
    EXPECT_EQ(seen[0], min);
    EXPECT_EQ(seen[1], (min + max) / 2);
    EXPECT_EQ(seen[2], max);
}

TEST(Thread, FailureToReadSchedulerParametersIsLogged) {
    LogCapture capture;
    Thread thread;
    {
        marlo_test::ScopedFault fault(marlo_test::Faults().pthreadGetschedparam);
        thread.setPriority(Thread::HIGH);
    }
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "Failed to get thread scheduler parameters"));
    EXPECT_EQ(capture.count("Failed to set thread priority"), 0u);
    EXPECT_EQ(thread.getPriority(), Thread::HIGH);
}

TEST(Thread, FailureToSetThePriorityIsLogged) {
    LogCapture capture;
    Thread thread;
    {
        marlo_test::ScopedFault fault(marlo_test::Faults().pthreadSetschedparam);
        thread.setPriority(Thread::LOW);
    }
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Failed to set thread priority"));
}

TEST(Thread, FailureToReadTheAffinityFoldsAnEmptySet) {
    LogCapture capture;
    int mask;
    {
        marlo_test::ScopedFault fault(marlo_test::Faults().schedGetaffinity);
        Thread thread;
        mask = thread.getAffinity();
    }
    EXPECT_EQ(mask, 0);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Failed to get cpu affinity"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, "get cpu affinity 0"));
}

TEST(Thread, MaskOneSelectsEveryThirtySecondCpu) {
    cpu_set_t set = detail::CpuSetFromMask(0x1);
    EXPECT_EQ(CPU_COUNT(&set), 32);
    for (int cpu = 0; cpu < 1024; ++cpu)
        EXPECT_EQ(CPU_ISSET(cpu, &set) != 0, cpu % 32 == 0) << "cpu " << cpu;
}

TEST(Thread, MaskBitsFoldBothWays) {
    cpu_set_t set = detail::CpuSetFromMask(static_cast<int>(0x80000002u));
    EXPECT_EQ(CPU_COUNT(&set), 64);
    EXPECT_TRUE(CPU_ISSET(1, &set));
    EXPECT_TRUE(CPU_ISSET(31, &set));
    EXPECT_TRUE(CPU_ISSET(1023, &set));
    EXPECT_FALSE(CPU_ISSET(0, &set));
    EXPECT_EQ(static_cast<unsigned>(detail::MaskFromCpuSet(set)), 0x80000002u);

    cpu_set_t sparse;
    CPU_ZERO(&sparse);
    CPU_SET(33, &sparse);
    CPU_SET(70, &sparse);
    EXPECT_EQ(detail::MaskFromCpuSet(sparse), 0x2 | 0x40);
}

TEST(Thread, SetAffinityStoresAndLogsTheMask) {
    LogCapture capture;
    int mask = CurrentMask();
    int applied = -1;
    std::thread worker([&] {
        Thread thread;
        thread.setAffinity(mask);
        applied = CurrentMask();
        EXPECT_EQ(thread.getAffinity(), mask);
    });
    worker.join();
    EXPECT_EQ(applied, mask);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, "set cpu affinity " + HexText(mask)));
    EXPECT_FALSE(capture.containsText("Failed to set cpu affinity"));
}

TEST(Thread, AnEmptyAffinityIsRefusedAndLogged) {
    LogCapture capture;
    std::thread worker([] {
        Thread thread;
        thread.setAffinity(0);
    });
    worker.join();
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, "set cpu affinity 0"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "Failed to set cpu affinity to cpu 0, Invalid argument"));
}

TEST(Thread, TheNewThreadAppliesTheStoredPriorityAndAffinity) {
    LogCapture capture;
    Thread thread;
    int mask = CurrentMask();
    thread.setAffinity(mask);
    capture.clear();
    std::atomic<int> seen{-1};
    thread.start([&] { seen = CurrentMask(); });
    thread.stop();
    thread.join();
    EXPECT_EQ(seen, mask);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, "set cpu affinity " + HexText(mask)));
    EXPECT_EQ(capture.count("Invalid priority"), 0u);
}

TEST(Thread, MovingTransfersTheRunningThread) {
    Gate gate;
    Thread first;
    first.setAffinity(first.getAffinity());
    first.start([&] { gate.wait(); });

    Thread second(std::move(first));
    EXPECT_TRUE(first.stopped());
    EXPECT_FALSE(first.joinable());
    EXPECT_FALSE(second.stopped());
    EXPECT_TRUE(second.joinable());

    Thread third;
    third.setPriority(Thread::LOW);
    third = std::move(second);
    EXPECT_EQ(third.getPriority(), Thread::NORMAL);
    EXPECT_EQ(second.getPriority(), Thread::LOW);
    EXPECT_TRUE(second.stopped());
    EXPECT_FALSE(third.stopped());

    gate.open();
    third.stop();
    EXPECT_TRUE(third.stopped());
    third.join();
}

TEST(Thread, DestructorJoinsARunningThread) {
    std::atomic<bool> returned{false};
    {
        Thread thread;
        thread.start([&] {
            std::this_thread::sleep_for(50ms);
            returned = true;
        });
    }
    EXPECT_TRUE(returned);
}

TEST(ThreadDeathTest, DestroyingTheObjectFromItsOwnThreadTerminates) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            static Gate started;  // the handle is stored once start() returns
            auto* thread = new Thread();
            thread->start([thread] {
                started.wait();
                delete thread;
            });
            started.open();
            std::this_thread::sleep_for(5s);
        },
        "");
}

TEST(Thread, AThreadThatCannotBeCreatedThrowsAndStaysStopped) {
    Thread thread;
    bool threw = false;
    {
        marlo_test::ScopedFault fault(marlo_test::Faults().pthreadCreate);
        try {
            thread.start([] {});
        } catch (const std::system_error& error) {
            threw = true;
            EXPECT_NE(std::string(error.what()).find("thread constructor failed"),
                      std::string::npos)
                << error.what();
            EXPECT_EQ(error.code().value(), EAGAIN);
        }
    }
    EXPECT_TRUE(threw);
    EXPECT_TRUE(thread.stopped());
    EXPECT_FALSE(thread.joinable());
    auto begin = std::chrono::steady_clock::now();
    thread.stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
}
