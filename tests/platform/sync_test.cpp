#include <android/sync.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/types.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <string.h>
#include <chrono>

#include "support/sw_sync.h"

using namespace std::chrono_literals;

namespace {

using marlo_test::CreateFence;
using marlo_test::kSwSync;

}  // namespace

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

TEST(Sync, RealFencesFromTheSoftwareTimeline) {
    int timeline = open(kSwSync, O_RDWR | O_CLOEXEC);
    if (timeline < 0)
        GTEST_SKIP() << kSwSync << " unavailable (" << strerror(errno)
                     << "): needs debugfs and CONFIG_SW_SYNC";

    int first = CreateFence(timeline, 1);
    int second = CreateFence(timeline, 2);
    ASSERT_GE(first, 0);
    ASSERT_GE(second, 0);
    int merged = sync_merge("merged", first, second);
    ASSERT_GE(merged, 0);

    errno = 0;
    EXPECT_EQ(sync_wait(first, 10), -1);
    EXPECT_EQ(errno, ETIME);

    __u32 step = 1;
    ASSERT_EQ(ioctl(timeline, SW_SYNC_IOC_INC, &step), 0);
    EXPECT_EQ(sync_wait(first, 100), 0);
    errno = 0;
    EXPECT_EQ(sync_wait(merged, 10), -1);  // waits for the second fence as well
    EXPECT_EQ(errno, ETIME);

    ASSERT_EQ(ioctl(timeline, SW_SYNC_IOC_INC, &step), 0);
    EXPECT_EQ(sync_wait(merged, 100), 0);
    EXPECT_EQ(sync_wait(second, 0), 0);

    close(merged);
    close(second);
    close(first);
    close(timeline);
}
