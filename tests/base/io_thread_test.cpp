#include <marlo/base/error.h>
#include <marlo/base/io_thread.h>

#include <android/fdsan.h>
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fault_injection.h"
#include "support/fd_count.h"
#include "support/gate.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::Gate;
using marlo_test::LogCapture;
using namespace std::chrono_literals;

namespace {

constexpr char kTag[] = "marlo_base";

// A pipe whose ends close with the test.
class Pipe {
  public:
    Pipe() { EXPECT_EQ(pipe2(fds_, O_CLOEXEC | O_NONBLOCK), 0); }
    ~Pipe() {
        closeWriter();
        if (fds_[0] >= 0)
            close(fds_[0]);
    }
    int reader() const { return fds_[0]; }
    void closeWriter() {
        if (fds_[1] >= 0)
            close(fds_[1]);
        fds_[1] = -1;
    }
    void signal() { ASSERT_EQ(write(fds_[1], "x", 1), 1); }
    void drain() {
        char buffer[64];
        while (read(fds_[0], buffer, sizeof(buffer)) > 0) {
        }
    }

  private:
    int fds_[2] = {-1, -1};
};

void WriteCounter(int fd, uint64_t value) {
    ASSERT_EQ(write(fd, &value, sizeof(value)), static_cast<ssize_t>(sizeof(value)));
}

template <typename Predicate>
bool WaitFor(Predicate predicate, std::chrono::milliseconds limit = 5s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

std::string Text(const char* fmt, int value) {
    char text[128];
    snprintf(text, sizeof(text), fmt, value);
    return text;
}

}  // namespace

/* Epoll */

TEST(Epoll, OpenIsIdempotentAndTheDescriptorIsOwnedByTheObject) {
    marlo_test::FdLeakCheck leaks;
    {
        Epoll epoll;
        EXPECT_EQ(epoll.fd(), -1);
        ASSERT_EQ(epoll.Open(), OK);
        int fd = epoll.fd();
        EXPECT_GE(fd, 0);
        EXPECT_EQ(epoll.Open(), OK);
        EXPECT_EQ(epoll.fd(), fd);
        EXPECT_EQ(android_fdsan_get_owner_tag(fd),
                  android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD,
                                                 reinterpret_cast<uint64_t>(&epoll)));
        EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST(Epoll, OpenFailureIsLoggedAndMapped) {
    Epoll epoll;
    LogCapture capture;
    int result;
    {
        marlo_test::ScopedFault fault(marlo_test::Faults().epollCreate1);
        result = epoll.Open();
    }
    EXPECT_EQ(result, ERR_INSUFFICIENT_RESOURCES);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_create1 failed"));
    EXPECT_EQ(epoll.fd(), -1);
}

TEST(Epoll, RegisteringTheSameDescriptorTwiceKeepsTheFirstHandler) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe pipe;
    int first = 0, second = 0;
    ASSERT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [&](int, unsigned) { ++first; }, EPOLLIN),
              OK);

    LogCapture capture;
    EXPECT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [&](int, unsigned) { ++second; }, EPOLLIN),
              ERR_INVALID_ARGUMENT);
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_ERROR, kTag,
        Text("Cannot specify two epoll handlers for a given FD %d", pipe.reader())));

    pipe.signal();
    auto ready = epoll.Wait(1000);
    ASSERT_EQ(ready.size(), 1u);
    ready[0]->handler(ready[0]->fd, ready[0]->events);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
}

TEST(Epoll, AnEmptyEventMaskRegistersNothing) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe pipe;
    LogCapture capture;
    EXPECT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [](int, unsigned) {}, 0),
              ERR_FAILED);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Must specify events"));

    // Neither the map nor the kernel holds it: registering it now works.
    EXPECT_EQ(epoll.UnregisterHandler(pipe.reader()), ERR_FILE_NOT_FOUND);
    EXPECT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [](int, unsigned) {}, EPOLLIN),
              OK);
}

TEST(Epoll, AKernelRefusalUndoesTheRegistration) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    int file = open("/proc/self/status", O_RDONLY | O_CLOEXEC);  // not pollable
    ASSERT_GE(file, 0);
    LogCapture capture;
    EXPECT_EQ(epoll.RegisterHandler(
                  file, [](int, unsigned) {}, EPOLLIN),
              ERR_ACCESS_DENIED);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_ctl failed to add fd\n"));

    // The map entry is gone too: waiting sees no handler at all.
    capture.clear();
    EXPECT_TRUE(epoll.Wait(0).empty());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_wait failed"));
    close(file);
}

TEST(Epoll, UnregisteringADescriptorEpollDoesNotKnowReturnsTheMappedError) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe pipe;
    LogCapture capture;
    EXPECT_EQ(epoll.UnregisterHandler(pipe.reader()), ERR_FILE_NOT_FOUND);  // ENOENT
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_ctl failed to remove fd"));
    EXPECT_EQ(epoll.UnregisterHandler(-1), ERR_INVALID_HANDLE);  // EBADF
}

TEST(Epoll, UnregisteringADescriptorWithoutHandlerFails) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe pipe;
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = pipe.reader();
    ASSERT_EQ(epoll_ctl(epoll.fd(), EPOLL_CTL_ADD, pipe.reader(), &event), 0);

    LogCapture capture;
    EXPECT_EQ(epoll.UnregisterHandler(pipe.reader()), ERR_FAILED);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag,
                         "Attempting to remove epoll handler for FD without an existing handler"));
}

TEST(Epoll, UnregisteringRemovesTheHandler) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe pipe;
    ASSERT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [](int, unsigned) {}, EPOLLIN),
              OK);
    EXPECT_EQ(epoll.UnregisterHandler(pipe.reader()), OK);
    pipe.signal();
    LogCapture capture;
    EXPECT_TRUE(epoll.Wait(0).empty());
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_wait failed"));
}

TEST(Epoll, WaitWithoutHandlersFailsAndReturnsNothing) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    LogCapture capture;
    auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(epoll.Wait(-1).empty());
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_EQ(marlo_test::Faults().epollWaitMaxEvents, 0);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_wait failed"));
}

TEST(Epoll, WaitReportsReadyDescriptorsWithTheKernelEvents) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe a, b, c;
    for (Pipe* pipe : {&a, &b, &c})
        ASSERT_EQ(epoll.RegisterHandler(
                      pipe->reader(), [](int, unsigned) {}, EPOLLIN | EPOLLPRI),
                  OK);

    EXPECT_TRUE(epoll.Wait(0).empty());
    EXPECT_EQ(marlo_test::Faults().epollWaitMaxEvents, 3);

    b.signal();
    c.closeWriter();
    LogCapture capture;
    auto ready = epoll.Wait(1000);
    ASSERT_EQ(ready.size(), 2u);
    // Ready in this order: b became readable before c hung up.
    EXPECT_EQ(ready[0]->fd, b.reader());
    EXPECT_EQ(ready[0]->events, static_cast<uint32_t>(EPOLLIN));
    EXPECT_EQ(ready[1]->fd, c.reader());
    EXPECT_EQ(ready[1]->events, static_cast<uint32_t>(EPOLLHUP));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_VERBOSE, kTag,
                                 Text("Epoll polled fd(%d) events(1)", b.reader())));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_VERBOSE, kTag,
                                 Text("Epoll polled fd(%d) events(10)", c.reader())));
}

TEST(Epoll, AReadyDescriptorWithoutHandlerIsDroppedAndLogged) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe known, stray;
    ASSERT_EQ(epoll.RegisterHandler(
                  known.reader(), [](int, unsigned) {}, EPOLLIN),
              OK);
    // Watched by the kernel behind the object's back, so the map lacks it.
    struct epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = stray.reader();
    ASSERT_EQ(epoll_ctl(epoll.fd(), EPOLL_CTL_ADD, stray.reader(), &event), 0);

    stray.signal();
    LogCapture capture;
    EXPECT_TRUE(epoll.Wait(1000).empty());
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag,
                         Text("Epoll polled fd(%d) without a handler, dropped", stray.reader())));

    // The map did not gain an empty entry: the known descriptor still works.
    stray.drain();
    known.signal();
    auto ready = epoll.Wait(1000);
    ASSERT_FALSE(ready.empty());
    for (const auto& entry : ready)
        EXPECT_TRUE(entry->handler != nullptr);
    EXPECT_EQ(marlo_test::Faults().epollWaitMaxEvents, 1);
}

TEST(Epoll, AFiniteWaitTimesOutEmpty) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe pipe;
    ASSERT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [](int, unsigned) {}, EPOLLIN),
              OK);
    LogCapture capture;
    auto begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(epoll.Wait(50).empty());
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 45ms);
    EXPECT_FALSE(capture.containsText("epoll_wait failed"));
}

namespace {
void IgnoreSignal(int) {}
}  // namespace

TEST(Epoll, AnInterruptedWaitIsRepeated) {
    struct sigaction action = {};
    struct sigaction previous;
    action.sa_handler = IgnoreSignal;  // no SA_RESTART: epoll_wait fails with EINTR
    ASSERT_EQ(sigaction(SIGUSR1, &action, &previous), 0);

    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe pipe;
    ASSERT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [](int, unsigned) {}, EPOLLIN),
              OK);
    LogCapture capture;
    std::atomic<bool> waiting{false};
    std::vector<std::shared_ptr<Epoll::Event>> ready;
    std::thread waiter([&] {
        waiting = true;
        ready = epoll.Wait(5000);
    });
    ASSERT_TRUE(WaitFor([&] { return waiting.load(); }));
    int callsBefore = marlo_test::Faults().epollWaitCalls;
    std::this_thread::sleep_for(50ms);
    pthread_kill(waiter.native_handle(), SIGUSR1);
    ASSERT_TRUE(WaitFor([&] { return marlo_test::Faults().epollWaitCalls > callsBefore; }));
    pipe.signal();
    waiter.join();
    sigaction(SIGUSR1, &previous, nullptr);

    ASSERT_EQ(ready.size(), 1u);
    EXPECT_EQ(ready[0]->fd, pipe.reader());
    EXPECT_FALSE(capture.containsText("epoll_wait failed"));
}

/* IoThread */

TEST(IoThread, ConstructionOpensTheEpollInstance) {
    IoThread io;
    EXPECT_GE(io.fd(), 0);
    EXPECT_EQ(io.wakeupFd(), -1);
}

TEST(IoThread, StartAndStopFollowTheWakeupProtocol) {
    marlo_test::FdLeakCheck leaks;
    LogCapture capture;
    {
        IoThread io;
        io.Start();
        int wakeup = io.wakeupFd();
        ASSERT_GE(wakeup, 0);
        EXPECT_NE(android_fdsan_get_owner_tag(wakeup), 0u);
        EXPECT_EQ(android_fdsan_get_owner_tag(wakeup) >> 56,
                  uint64_t{ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD});
        int flags = fcntl(wakeup, F_GETFL);
        EXPECT_NE(flags & O_NONBLOCK, 0);
        EXPECT_NE(fcntl(wakeup, F_GETFD) & FD_CLOEXEC, 0);

        io.Stop();
        EXPECT_EQ(io.wakeupFd(), -1);

        auto records = capture.records();
        std::vector<std::pair<int, std::string>> protocol;
        for (const auto& record : records)
            if (record.tag == kTag && record.message.find("IO thread") != std::string::npos)
                protocol.emplace_back(record.priority, record.message);
        std::vector<std::pair<int, std::string>> expected = {
            {ANDROID_LOG_WARN, Text("Starting IO thread wakeup fd(%d)!!", wakeup)},
            {ANDROID_LOG_WARN, Text("Try to wakeup IO thread to stop it, fd(%d) !!", wakeup)},
            {ANDROID_LOG_WARN, "Start stop IO thread !!"},
            {ANDROID_LOG_ERROR, Text("Wakeup IO thread fd(%d) ev(1) !!", wakeup)},
        };
        // The loop's wake-up message may come before or after "Start stop".
        ASSERT_EQ(protocol.size(), expected.size()) << capture.dump();
        EXPECT_EQ(protocol[0], expected[0]);
        EXPECT_EQ(protocol[1], expected[1]);
        EXPECT_TRUE((protocol[2] == expected[2] && protocol[3] == expected[3]) ||
                    (protocol[2] == expected[3] && protocol[3] == expected[2]))
            << capture.dump();
        EXPECT_FALSE(capture.containsText("failed")) << capture.dump();
        EXPECT_FALSE(capture.containsText("not joinable"));
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST(IoThread, HandlersRunOnTheIoThread) {
    IoThread io;
    Pipe pipe;
    std::atomic<int> calls{0};
    std::atomic<unsigned> seenEvents{0};
    std::atomic<int> seenFd{-1};
    std::thread::id handlerThread;
    io.AddHandler(
        pipe.reader(),
        [&](int fd, unsigned events) {
            handlerThread = std::this_thread::get_id();
            seenFd = fd;
            seenEvents = events;
            pipe.drain();
            ++calls;
        },
        EPOLLIN);
    io.Start();
    pipe.signal();
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
    io.Stop();
    EXPECT_EQ(seenFd, pipe.reader());
    EXPECT_EQ(seenEvents, static_cast<unsigned>(EPOLLIN));
    EXPECT_NE(handlerThread, std::this_thread::get_id());
}

TEST(IoThread, AddHandlerDropsTheResult) {
    IoThread io;
    Pipe pipe;
    LogCapture capture;
    io.AddHandler(
        pipe.reader(), [](int, unsigned) {}, 0);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Must specify events"));
    io.AddHandler(
        pipe.reader(), [](int, unsigned) {}, EPOLLIN);
    EXPECT_EQ(io.RemoveHandler(pipe.reader()), OK);
    EXPECT_EQ(io.RemoveHandler(pipe.reader()), ERR_FILE_NOT_FOUND);
}

TEST(IoThread, HangUpAloneIsNotDispatchedAndTheDescriptorIsParked) {
    IoThread io;
    Pipe pipe;
    std::atomic<int> calls{0};
    std::atomic<int> errors{0};
    std::atomic<unsigned> errorEvents{0};
    io.AddHandler(
        pipe.reader(), [&](int, unsigned) { ++calls; }, EPOLLIN,
        [&](int, unsigned events) {
            ++errors;
            errorEvents = events;
        });
    LogCapture capture;
    io.Start();
    pipe.closeWriter();
    ASSERT_TRUE(WaitFor([&] { return errors.load() == 1; }));
    /* Parked: the level-triggered hang-up no longer wakes the loop. */
    int waits = marlo_test::Faults().epollWaitCalls;
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(marlo_test::Faults().epollWaitCalls, waits);
    io.Stop();
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(errors, 1);
    EXPECT_EQ(errorEvents.load(), static_cast<unsigned>(EPOLLHUP));
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_WARN, kTag,
        Text("IO thread fd(%d) reports only error or hang-up (events 10), no longer watched",
             pipe.reader())));
    /* A parked descriptor is forgotten without asking epoll. */
    EXPECT_EQ(io.RemoveHandler(pipe.reader()), OK);
    EXPECT_EQ(io.RemoveHandler(pipe.reader()), ERR_FILE_NOT_FOUND);
}

TEST(IoThread, AnErrorAloneParksTheDescriptorWithoutAnErrorHandler) {
    IoThread io;
    int fds[2];
    ASSERT_EQ(pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
    /* A pipe's write end whose reader went reports an error only. */
    close(fds[0]);
    std::atomic<int> calls{0};
    io.AddHandler(
        fds[1], [&](int, unsigned) { ++calls; }, EPOLLIN);
    LogCapture capture;
    int before = marlo_test::Faults().epollWaitCalls;
    io.Start();
    ASSERT_TRUE(WaitFor([&] {
        return capture.contains(
            ANDROID_LOG_WARN, kTag,
            Text("IO thread fd(%d) reports only error or hang-up (events 8), no longer watched",
                 fds[1]));
    }));
    std::this_thread::sleep_for(100ms);
    /* One wait reported it; the loop then slept. */
    EXPECT_LE(marlo_test::Faults().epollWaitCalls, before + 2);
    io.Stop();
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(io.RemoveHandler(fds[1]), OK);
    close(fds[1]);
}

TEST(IoThread, OtherDescriptorsGoOnAfterOneIsParked) {
    IoThread io;
    Pipe gone;
    Pipe live;
    std::atomic<int> liveCalls{0};
    std::atomic<int> errors{0};
    io.AddHandler(
        gone.reader(), [](int, unsigned) {}, EPOLLIN, [&](int, unsigned) { ++errors; });
    io.AddHandler(
        live.reader(),
        [&](int, unsigned) {
            live.drain();
            ++liveCalls;
        },
        EPOLLIN);
    LogCapture capture(false);
    io.Start();
    gone.closeWriter();
    ASSERT_TRUE(WaitFor([&] { return errors.load() == 1; }));
    live.signal();
    ASSERT_TRUE(WaitFor([&] { return liveCalls.load() == 1; }));
    io.Stop();
    EXPECT_EQ(errors, 1);
    io.RemoveHandler(gone.reader());
    io.RemoveHandler(live.reader());
}

TEST(Epoll, ParkingStopsReportsAndKeepsTheRegistration) {
    Epoll epoll;
    ASSERT_EQ(epoll.Open(), OK);
    Pipe pipe;
    ASSERT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [](int, unsigned) {}, EPOLLIN),
              OK);
    pipe.signal();
    EXPECT_EQ(epoll.Wait(0).size(), 1u);
    EXPECT_EQ(epoll.Park(pipe.reader()), OK);
    EXPECT_EQ(epoll.Park(pipe.reader()), OK);
    EXPECT_TRUE(epoll.Wait(0).empty());
    /* Still registered: a second handler for it is refused. */
    LogCapture capture;
    EXPECT_EQ(epoll.RegisterHandler(
                  pipe.reader(), [](int, unsigned) {}, EPOLLIN),
              ERR_INVALID_ARGUMENT);
    EXPECT_EQ(epoll.UnregisterHandler(pipe.reader()), OK);
    EXPECT_EQ(epoll.Park(pipe.reader()), ERR_FAILED);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag,
                         Text("Cannot park fd(%d) without an existing handler", pipe.reader())));
}

TEST(IoThread, WithoutTimeoutTheLoopSleepsUntilAnEvent) {
    IoThread io;
    Pipe pipe;
    std::atomic<int> calls{0};
    io.AddHandler(
        pipe.reader(),
        [&](int, unsigned) {
            pipe.drain();
            ++calls;
        },
        EPOLLIN);
    auto waits = [before = marlo_test::Faults().epollWaitCalls.load()] {
        return marlo_test::Faults().epollWaitCalls - before;
    };
    io.Start();
    ASSERT_TRUE(WaitFor([&] { return waits() == 1; }));
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(waits(), 1);
    pipe.signal();
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
    ASSERT_TRUE(WaitFor([&] { return waits() == 2; }));
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(waits(), 2);
    io.Stop();
}

TEST(IoThread, APositiveTimeoutGoesOnWithEmptyBatches) {
    IoThread io;
    Pipe pipe;
    std::atomic<int> calls{0};
    io.AddHandler(
        pipe.reader(), [&](int, unsigned) { ++calls; }, EPOLLIN);
    io.SetTimeout(20);
    LogCapture capture;
    auto waits = [before = marlo_test::Faults().epollWaitCalls.load()] {
        return marlo_test::Faults().epollWaitCalls - before;
    };
    auto begin = std::chrono::steady_clock::now();
    io.Start();
    // Five waits mean four that timed out, each after 20 ms.
    ASSERT_TRUE(WaitFor([&] { return waits() >= 5; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 80ms);
    EXPECT_EQ(calls, 0);
    EXPECT_FALSE(capture.containsText("epoll_wait failed"));

    // Back to no limit: after the wait in progress the loop sleeps.
    io.SetTimeout(-1);
    std::this_thread::sleep_for(100ms);
    int settled = waits();
    std::this_thread::sleep_for(300ms);
    EXPECT_LE(waits(), settled + 1);
    io.Stop();
}

TEST(IoThread, StopReturnsOnlyAfterTheRunningHandlerReturned) {
    IoThread io;
    Pipe pipe;
    Gate inHandler, release;
    std::atomic<bool> handlerReturned{false};
    std::atomic<bool> stopReturned{false};
    std::atomic<bool> returnedBeforeStop{false};
    io.AddHandler(
        pipe.reader(),
        [&](int, unsigned) {
            pipe.drain();
            inHandler.open();
            release.wait();
            std::this_thread::sleep_for(20ms);
            handlerReturned = true;
        },
        EPOLLIN);
    io.Start();
    pipe.signal();
    inHandler.wait();

    std::thread stopper([&] {
        io.Stop();
        returnedBeforeStop = handlerReturned.load();
        stopReturned = true;
    });
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(stopReturned);
    release.open();
    stopper.join();
    EXPECT_TRUE(returnedBeforeStop);
    io.RemoveHandler(pipe.reader());
}

TEST(IoThread, AStopFromItsOwnHandlerEndsTheLoopAndIsJoinedLater) {
    Pipe pipe;
    std::atomic<int> calls{0};
    std::atomic<bool> onWorker{false};
    Gate stopped;
    /* Last: its loop is joined before what the handler uses goes. */
    IoThread io;
    io.AddHandler(
        pipe.reader(),
        [&](int, unsigned) {
            pipe.drain();
            ++calls;
            onWorker = io.isCurrentThread();
            /* Cannot wait for itself: returns at once, the loop ends after this batch. */
            io.Stop();
            stopped.open();
        },
        EPOLLIN);
    io.Start();
    EXPECT_FALSE(io.isCurrentThread());
    pipe.signal();
    stopped.wait();
    EXPECT_TRUE(onWorker);
    io.JoinStopped();
    /* The loop no longer runs: a new event waits for the next start. */
    pipe.signal();
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(calls.load(), 1);
    io.Start();
    EXPECT_TRUE(WaitFor([&] { return calls.load() == 2; }));
    io.RemoveHandler(pipe.reader());
}

TEST(IoThread, HandlersStayRegisteredAcrossStopAndStart) {
    LogCapture capture;
    IoThread io;
    Pipe pipe;
    std::atomic<int> calls{0};
    io.AddHandler(
        pipe.reader(),
        [&](int, unsigned) {
            pipe.drain();
            ++calls;
        },
        EPOLLIN);
    io.Start();
    io.Stop();
    io.Start();
    int wakeup = io.wakeupFd();
    EXPECT_GE(wakeup, 0);
    pipe.signal();
    ASSERT_TRUE(WaitFor([&] { return calls.load() == 1; }));
    io.Stop();
    size_t starts = 0;
    for (const auto& record : capture.records())
        starts += record.message.rfind("Starting IO thread wakeup fd(", 0) == 0;
    EXPECT_EQ(starts, 2u);
    EXPECT_EQ(capture.count("Starting IO thread which already started!!"), 0u);
    EXPECT_EQ(io.RemoveHandler(pipe.reader()), OK);
}

TEST(IoThread, StartingARunningLoopOnlyWarns) {
    IoThread io;
    io.Start();
    int wakeup = io.wakeupFd();
    LogCapture capture;
    io.Start();
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_WARN, kTag, "Starting IO thread which already started!!"));
    EXPECT_EQ(io.wakeupFd(), wakeup);
    EXPECT_FALSE(capture.containsText("Thread already started"));
    io.Stop();
}

TEST(IoThread, StoppingANeverStartedLoopReportsAndStaysStopped) {
    IoThread io;
    LogCapture capture;
    auto begin = std::chrono::steady_clock::now();
    io.Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_FALSE(capture.containsText("Try to wakeup IO thread"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag, "Start stop IO thread !!"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Thread not joinable"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_ctl failed to remove fd"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Error 9 : Bad file descriptor\n"));

    // Still stopped: it starts normally.
    capture.clear();
    io.Start();
    EXPECT_FALSE(capture.containsText("already started"));
    io.Stop();
}

TEST(IoThread, TheWholeBatchIsDispatchedAfterTheWakeup) {
    IoThread io;
    Pipe blocker, late;
    Gate inBlocker, release;
    std::atomic<int> lateCalls{0};
    io.AddHandler(
        blocker.reader(),
        [&](int, unsigned) {
            blocker.drain();
            inBlocker.open();
            release.wait();
        },
        EPOLLIN);
    io.AddHandler(
        late.reader(),
        [&](int, unsigned) {
            late.drain();
            ++lateCalls;
        },
        EPOLLIN);
    io.Start();
    blocker.signal();
    inBlocker.wait();

    // While the loop is busy, the wake-up becomes ready before the pipe, so
    // the next batch reports it first.
    LogCapture capture;
    WriteCounter(io.wakeupFd(), 1);
    late.signal();
    release.open();
    ASSERT_TRUE(WaitFor([&] { return capture.containsText("Wakeup IO thread"); }));
    ASSERT_TRUE(WaitFor([&] { return lateCalls.load() == 1; }));
    io.Stop();
    EXPECT_EQ(lateCalls, 1);
}

TEST(IoThread, AFailedWakeupReadIsLoggedAndStillStops) {
    IoThread io;
    Pipe blocker, thief;
    Gate inBlocker, release;
    io.AddHandler(
        blocker.reader(),
        [&](int, unsigned) {
            blocker.drain();
            inBlocker.open();
            release.wait();
        },
        EPOLLIN);
    // Runs just before the wake-up handler in the same batch and takes its
    // count. Added before the loop starts: the handler map has no lock.
    std::atomic<int> wakeupFd{-1};
    io.AddHandler(
        thief.reader(),
        [&](int, unsigned) {
            thief.drain();
            uint64_t value;
            EXPECT_EQ(read(wakeupFd, &value, sizeof(value)), static_cast<ssize_t>(sizeof(value)));
        },
        EPOLLIN);
    io.Start();
    const int wakeup = io.wakeupFd();
    wakeupFd = wakeup;
    blocker.signal();
    inBlocker.wait();

    LogCapture capture;
    thief.signal();
    WriteCounter(wakeup, 1);
    release.open();
    ASSERT_TRUE(WaitFor([&] { return capture.containsText("Read wakeup event failed"); }));
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_WARN, kTag,
        "Read wakeup event failed ret -1 error: Resource temporarily unavailable!!"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 Text("Wakeup IO thread fd(%d) ev(1) !!", wakeup)));
    io.Stop();
    io.RemoveHandler(thief.reader());
    io.RemoveHandler(blocker.reader());
}

TEST(IoThread, AFailedWakeupWriteIsLoggedAndStopGoesOn) {
    IoThread io;
    Pipe blocker;
    Gate inBlocker, release;
    io.AddHandler(
        blocker.reader(),
        [&](int, unsigned) {
            blocker.drain();
            inBlocker.open();
            release.wait();
        },
        EPOLLIN);
    io.Start();
    blocker.signal();
    inBlocker.wait();

    // A full counter makes the stop request's write fail; the loop still
    // finds the wake-up descriptor readable once the handler returns.
    WriteCounter(io.wakeupFd(), 0xfffffffffffffffeull);
    LogCapture capture;
    std::thread opener([&] {
        WaitFor([&] { return capture.containsText("write wakeup event failed"); });
        release.open();
    });
    io.Stop();
    opener.join();
    EXPECT_TRUE(capture.contains(
        ANDROID_LOG_WARN, kTag,
        "write wakeup event failed ret -1 error: Resource temporarily unavailable!!"));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_WARN, kTag, "Start stop IO thread !!"));
    EXPECT_EQ(io.wakeupFd(), -1);
    io.RemoveHandler(blocker.reader());
}

TEST(IoThread, ALoopEndedFromOutsideCanBeStartedAgain) {
    LogCapture capture;
    IoThread io;
    io.Start();
    int first = io.wakeupFd();
    WriteCounter(first, 1);
    ASSERT_TRUE(WaitFor([&] { return capture.containsText("Wakeup IO thread"); }));
    std::this_thread::sleep_for(100ms);  // the handler marks the loop stopped after logging
    io.Start();
    EXPECT_EQ(capture.count("Starting IO thread which already started!!"), 0u);
    EXPECT_GE(io.wakeupFd(), 0);
    EXPECT_FALSE(capture.containsText("Thread already started"));
    io.Stop();
    EXPECT_EQ(capture.count("epoll_ctl failed to remove fd"), 0u) << capture.dump();
}

TEST(IoThread, DestroyingARunningLoopStopsIt) {
    Pipe pipe;
    marlo_test::FdLeakCheck leaks;
    {
        IoThread io;
        io.AddHandler(
            pipe.reader(), [](int, unsigned) {}, EPOLLIN);
        io.Start();
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST(IoThread, WithoutAWakeupDescriptorTheLoopDoesNotStart) {
    IoThread io;
    LogCapture capture;
    {
        marlo_test::ScopedFault fault(marlo_test::Faults().eventfd);
        io.Start();
    }
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag,
                         "Create IO thread wakeup fd failed: Too many open files, not started"));
    EXPECT_EQ(io.wakeupFd(), -1);

    // Still stopped, so a later start works.
    capture.clear();
    io.Start();
    EXPECT_GE(io.wakeupFd(), 0);
    EXPECT_FALSE(capture.containsText("already started"));
    io.Stop();
}

TEST(IoThread, AWorkerThatCannotBeCreatedIsReportedNotThrown) {
    marlo_test::FdLeakCheck leaks;
    LogCapture capture;
    {
        IoThread io;
        {
            marlo_test::ScopedFault fault(marlo_test::Faults().pthreadCreate);
            EXPECT_NO_THROW(io.Start());
        }
        EXPECT_TRUE(capture.containsText("Start IO thread failed: thread constructor failed"))
            << capture.dump();
        EXPECT_EQ(io.wakeupFd(), -1);

        // Nothing is left registered and the loop counts as stopped.
        capture.clear();
        io.Start();
        EXPECT_GE(io.wakeupFd(), 0);
        EXPECT_FALSE(capture.containsText("already started"));
        io.Stop();
        EXPECT_FALSE(capture.containsText("epoll_ctl failed")) << capture.dump();
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST(IoThread, AWakeupDescriptorThatCannotBeWatchedIsDropped) {
    marlo_test::FdLeakCheck leaks;
    LogCapture capture;
    {
        std::unique_ptr<IoThread> io;
        {
            marlo_test::ScopedFault fault(marlo_test::Faults().epollCreate1);
            io = std::make_unique<IoThread>();
        }
        EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_create1 failed"));
        EXPECT_EQ(io->fd(), -1);
        io->Start();
        EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "epoll_ctl failed to add fd\n"));
        EXPECT_TRUE(capture.containsText("Register IO thread wakeup fd("));
        EXPECT_TRUE(capture.containsText(") failed, not started"));
        EXPECT_EQ(io->wakeupFd(), -1);
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST(IoThreadDeathTest, AnEmptyHandlerTerminatesWhenDispatched) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            IoThread io;
            int fds[2];
            if (pipe(fds) != 0)
                abort();
            io.AddHandler(fds[0], Epoll::Handler(), EPOLLIN);
            io.Start();
            if (write(fds[1], "x", 1) != 1)
                abort();
            std::this_thread::sleep_for(5s);
            _exit(0);
        },
        "bad_function_call");
}
