#include <android/sync.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <string.h>
#include <chrono>
#include <memory>
#include <string>

#include "support/fence_timeline.h"

using namespace std::chrono_literals;

TEST(Sync, MergingDescriptorsThatAreNoFencesFails) {
    int a = eventfd(0, EFD_CLOEXEC);
    int b = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    errno = 0;
    EXPECT_EQ(sync_merge("merged", a, b), -1);
    EXPECT_NE(errno, 0);
    EXPECT_EQ(errno, ENOTTY);
    close(a);
    close(b);
}

TEST(Sync, MergingAClosedDescriptorFailsWithEbadf) {
    errno = 0;
    EXPECT_EQ(sync_merge("merged", -1, -1), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Sync, WaitingOnAnUnsignalledDescriptorTimesOut) {
    int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    errno = 0;
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(sync_wait(fd, 30), -1);
    EXPECT_EQ(errno, ETIME);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 25ms);
    close(fd);
}

TEST(Sync, WaitingOnAReadableDescriptorSucceeds) {
    int fd = eventfd(1, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(sync_wait(fd, 1000), 0);
    EXPECT_EQ(sync_wait(fd, -1), 0);
    close(fd);
}

TEST(Sync, WaitingOnAnInvalidDescriptorFails) {
    errno = 0;
    EXPECT_EQ(sync_wait(-1, 0), -1);
    EXPECT_EQ(errno, EINVAL);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[0]);
    close(fds[1]);
    errno = 0;
    EXPECT_EQ(sync_wait(fds[0], 0), -1);  // POLLNVAL
    EXPECT_EQ(errno, EINVAL);
}

TEST(Sync, RealFencesFromAKernelTimeline) {
    std::string reason;
    std::unique_ptr<marlo_test::FenceTimeline> timeline = marlo_test::FenceTimeline::Open(&reason);
    if (!timeline)
        GTEST_SKIP() << reason;
    SCOPED_TRACE(timeline->Kind());

    int first = timeline->CreateFence(1);
    int second = timeline->CreateFence(2);
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    int merged = sync_merge("merged", first, second);
    ASSERT_GE(merged, 0);

    errno = 0;
    EXPECT_EQ(sync_wait(first, 10), -1);
    EXPECT_EQ(errno, ETIME);

    ASSERT_TRUE(timeline->Advance(1));
    EXPECT_EQ(sync_wait(first, 100), 0);
    errno = 0;
    EXPECT_EQ(sync_wait(merged, 10), -1);  // waits for the second fence as well
    EXPECT_EQ(errno, ETIME);

    ASSERT_TRUE(timeline->Advance(1));
    EXPECT_EQ(sync_wait(merged, 100), 0);
    EXPECT_EQ(sync_wait(second, 0), 0);

    close(merged);
    close(second);
    close(first);
}
