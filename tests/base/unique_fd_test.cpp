#include <marlo/base/unique_fd.h>

#include <android/fdsan.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <utility>

#include "support/fd_count.h"

using namespace tessaro::marlo;

namespace {
bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}
}  // namespace

TEST(UniqueFd, OwnsAndClosesThroughTheSanitizer) {
    marlo_test::FdLeakCheck leaks;
    int raw = eventfd(0, EFD_CLOEXEC);
    {
        UniqueFd fd(raw);
        EXPECT_EQ(fd.get(), raw);
        EXPECT_EQ(android_fdsan_get_owner_tag(raw), fd.ownerTag());
        EXPECT_EQ(fd.ownerTag() >> 56, uint64_t{ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD});
    }
    EXPECT_FALSE(IsOpen(raw));
    EXPECT_EQ(android_fdsan_get_owner_tag(raw), 0u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST(UniqueFd, ResetToTheSameDescriptorKeepsIt) {
    UniqueFd fd(eventfd(0, EFD_CLOEXEC));
    int raw = fd.get();
    fd.reset(raw);
    EXPECT_TRUE(IsOpen(raw));
    EXPECT_EQ(fd.get(), raw);
}

TEST(UniqueFd, ResetToAnotherClosesTheOld) {
    UniqueFd fd(eventfd(0, EFD_CLOEXEC));
    int old = fd.get();
    int other = eventfd(0, EFD_CLOEXEC);
    fd.reset(other);
    EXPECT_FALSE(IsOpen(old));
    EXPECT_EQ(fd.get(), other);
}

TEST(UniqueFd, MoveTransfersTheTag) {
    UniqueFd a(eventfd(0, EFD_CLOEXEC));
    int raw = a.get();
    UniqueFd b(std::move(a));
    EXPECT_EQ(a.get(), -1);
    EXPECT_EQ(b.get(), raw);
    EXPECT_EQ(android_fdsan_get_owner_tag(raw), b.ownerTag());
    UniqueFd c;
    c = std::move(b);
    EXPECT_EQ(android_fdsan_get_owner_tag(raw), c.ownerTag());
}

TEST(UniqueFd, ReleaseHandsBackAnUnownedDescriptor) {
    UniqueFd fd(eventfd(0, EFD_CLOEXEC));
    int raw = fd.release();
    EXPECT_EQ(fd.get(), -1);
    EXPECT_EQ(android_fdsan_get_owner_tag(raw), 0u);
    EXPECT_TRUE(IsOpen(raw));
    close(raw);
}

TEST(UniqueFdDeathTest, ForeignCloseWithTheWrongTagAborts) {
    EXPECT_DEATH(
        {
            UniqueFd fd(eventfd(0, EFD_CLOEXEC));
            android_fdsan_close_with_tag(fd.get(), 0);
        },
        "attempted to close file descriptor");
}
