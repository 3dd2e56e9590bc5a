#include <android/fdsan.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace {

bool IsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

// Death tests fork; the threadsafe style re-executes the binary, which is
// what a process with sanitizer threads needs.
class FdsanDeathTest : public ::testing::Test {
  protected:
    void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

}  // namespace

TEST(Fdsan, OwnerTagPutsTheTypeInTheTopByte) {
    EXPECT_EQ(android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x1234),
              (uint64_t{3} << 56) | 0x1234);
    EXPECT_EQ(android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_GENERIC_FF, 1),
              (uint64_t{0xff} << 56) | 1);
    // The tag keeps its low 56 bits only.
    EXPECT_EQ(android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_FILE, ~uint64_t{0}),
              (uint64_t{1} << 56) | ((uint64_t{1} << 56) - 1));
    // Tag 0 means "no owner", whatever the type.
    EXPECT_EQ(android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0), 0u);
}

TEST(Fdsan, ExchangeAndCloseWithTheRightTagsWork) {
    int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    uint64_t first = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x10);
    uint64_t second = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x20);
    EXPECT_EQ(android_fdsan_get_owner_tag(fd), 0u);
    android_fdsan_exchange_owner_tag(fd, 0, first);
    EXPECT_EQ(android_fdsan_get_owner_tag(fd), first);
    android_fdsan_exchange_owner_tag(fd, first, second);
    EXPECT_EQ(android_fdsan_get_owner_tag(fd), second);
    EXPECT_EQ(android_fdsan_close_with_tag(fd, second), 0);
    EXPECT_FALSE(IsOpen(fd));
    EXPECT_EQ(android_fdsan_get_owner_tag(fd), 0u);
}

TEST(Fdsan, AnUnownedDescriptorClosesWithTagZero) {
    int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(android_fdsan_close_with_tag(fd, 0), 0);
    EXPECT_FALSE(IsOpen(fd));
}

TEST(Fdsan, ReleasingOwnershipLeavesTheDescriptorOpen) {
    int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    uint64_t tag = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x30);
    android_fdsan_exchange_owner_tag(fd, 0, tag);
    android_fdsan_exchange_owner_tag(fd, tag, 0);
    EXPECT_EQ(android_fdsan_get_owner_tag(fd), 0u);
    EXPECT_TRUE(IsOpen(fd));
    close(fd);
}

TEST(Fdsan, ClosingAnInvalidDescriptorFailsWithEbadf) {
    errno = 0;
    EXPECT_EQ(android_fdsan_close_with_tag(-1, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST_F(FdsanDeathTest, ExchangeWithAWrongExpectedTagAborts) {
    int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    uint64_t owner = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x40);
    uint64_t stranger = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x41);
    android_fdsan_exchange_owner_tag(fd, 0, owner);
    EXPECT_DEATH(android_fdsan_exchange_owner_tag(fd, stranger, 0),
                 "failed to exchange ownership of file descriptor: fd [0-9]+ is owned by "
                 "0x300000000000040, was expected to be owned by 0x300000000000041");
    android_fdsan_close_with_tag(fd, owner);
}

TEST_F(FdsanDeathTest, CloseWithAWrongTagAborts) {
    int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    uint64_t owner = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x50);
    android_fdsan_exchange_owner_tag(fd, 0, owner);
    EXPECT_DEATH(android_fdsan_close_with_tag(fd, 0),
                 "attempted to close file descriptor [0-9]+, expected to be owned by 0x0, "
                 "actually owned by 0x300000000000050");
    EXPECT_TRUE(IsOpen(fd));
    android_fdsan_close_with_tag(fd, owner);
}

TEST_F(FdsanDeathTest, AdoptingAnOwnedDescriptorAborts) {
    int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    uint64_t owner = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x60);
    uint64_t other = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x61);
    android_fdsan_exchange_owner_tag(fd, 0, owner);
    EXPECT_DEATH(android_fdsan_exchange_owner_tag(fd, 0, other), "failed to exchange ownership");
    android_fdsan_close_with_tag(fd, owner);
}

TEST(Fdsan, AtWarningLevelAWrongCloseIsReportedButNotFatal) {
    auto previous = android_fdsan_set_error_level(ANDROID_FDSAN_ERROR_LEVEL_WARN_ALWAYS);
    EXPECT_EQ(previous, ANDROID_FDSAN_ERROR_LEVEL_FATAL);
    EXPECT_EQ(android_fdsan_get_error_level(), ANDROID_FDSAN_ERROR_LEVEL_WARN_ALWAYS);
    int fd = eventfd(0, EFD_CLOEXEC);
    ASSERT_GE(fd, 0);
    uint64_t owner = android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 0x70);
    android_fdsan_exchange_owner_tag(fd, 0, owner);
    // The descriptor is still closed, as bionic does.
    EXPECT_EQ(android_fdsan_close_with_tag(fd, 0), 0);
    EXPECT_FALSE(IsOpen(fd));
    android_fdsan_set_error_level(previous);
}
