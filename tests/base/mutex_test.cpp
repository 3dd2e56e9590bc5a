#include <marlo/base/mutex.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

using namespace tessaro::marlo;
using namespace std::chrono_literals;

namespace {

struct Counter {
    Mutex mutex;
    long value MARLO_GUARDED_BY(mutex) = 0;
};

/* Whether another thread can take \a mutex right now. */
bool FreeForOthers(Mutex& mutex) {
    bool taken = false;
    std::thread other([&] {
        if (mutex.try_lock()) {
            taken = true;
            mutex.unlock();
        }
    });
    other.join();
    return taken;
}

TEST(MutexTest, LockerSerialisesIncrements) {
    Counter counter;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&counter] {
            for (int i = 0; i < 10000; ++i) {
                MutexLocker locker(counter.mutex);
                ++counter.value;
            }
        });
    }
    for (auto& thread : threads)
        thread.join();
    MutexLocker locker(counter.mutex);
    EXPECT_EQ(counter.value, 40000);
}

TEST(MutexTest, TryLockFailsWhileHeldElsewhere) {
    Mutex mutex;
    mutex.lock();
    EXPECT_FALSE(FreeForOthers(mutex));
    mutex.unlock();
    EXPECT_TRUE(FreeForOthers(mutex));
}

TEST(MutexTest, LockerUnlocksAndLocksAgain) {
    Mutex mutex;
    MutexLocker locker(mutex);
    locker.unlock();
    EXPECT_TRUE(FreeForOthers(mutex));
    locker.lock();
    EXPECT_FALSE(FreeForOthers(mutex));
}

TEST(MutexTest, LockerReleasesAtScopeEnd) {
    Mutex mutex;
    { MutexLocker locker(mutex); }
    EXPECT_TRUE(FreeForOthers(mutex));
}

TEST(ConditionVariableTest, WaitReturnsOnceThePredicateHolds) {
    Counter counter;
    ConditionVariable cond;
    std::thread producer([&] {
        for (int i = 0; i < 5; ++i) {
            MutexLocker locker(counter.mutex);
            ++counter.value;
            cond.notify_all();
        }
    });
    {
        MutexLocker locker(counter.mutex);
        cond.wait(locker,
                  [&counter]() MARLO_REQUIRES(counter.mutex) { return counter.value == 5; });
        EXPECT_EQ(counter.value, 5);
    }
    producer.join();
}

TEST(ConditionVariableTest, WaitReleasesTheMutexWhileWaiting) {
    Counter counter;
    ConditionVariable cond;
    std::atomic<bool> waiting{false};
    std::thread waiter([&] {
        MutexLocker locker(counter.mutex);
        waiting = true;
        cond.wait(locker,
                  [&counter]() MARLO_REQUIRES(counter.mutex) { return counter.value != 0; });
    });
    while (!waiting)
        std::this_thread::yield();
    // The waiter holds the mutex until it sleeps in wait(); this lock can
    // only be taken once it has released it there.
    {
        MutexLocker locker(counter.mutex);
        counter.value = 1;
    }
    cond.notify_one();
    waiter.join();
    MutexLocker locker(counter.mutex);
    EXPECT_EQ(counter.value, 1);
}

TEST(ConditionVariableTest, WaitForTimesOutWhenThePredicateStaysFalse) {
    Counter counter;
    ConditionVariable cond;
    MutexLocker locker(counter.mutex);
    EXPECT_FALSE(cond.wait_for(
        locker, 10ms, [&counter]() MARLO_REQUIRES(counter.mutex) { return counter.value != 0; }));
    // The locker holds the mutex again after the wait.
    EXPECT_FALSE(FreeForOthers(counter.mutex));
}

TEST(ConditionVariableTest, WaitUntilSeesANotifiedChange) {
    Counter counter;
    ConditionVariable cond;
    std::thread producer([&] {
        MutexLocker locker(counter.mutex);
        counter.value = 7;
        cond.notify_one();
    });
    bool satisfied;
    {
        MutexLocker locker(counter.mutex);
        satisfied = cond.wait_until(
            locker, std::chrono::steady_clock::now() + 60s,
            [&counter]() MARLO_REQUIRES(counter.mutex) { return counter.value == 7; });
    }
    producer.join();
    EXPECT_TRUE(satisfied);
}

}  // namespace
