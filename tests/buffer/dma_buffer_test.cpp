#include <marlo/buffer/dma_buffer.h>

#include <gtest/gtest.h>

#include <android/fdsan.h>
#include <android/log.h>
#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include <string>

#include "buffer/buffer_test_util.h"
#include "buffer/dma_sync_spy.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_buffer_test::FdIsOpen;
using marlo_buffer_test::IsMapped;
using marlo_buffer_test::MakeMemfd;

namespace {

constexpr char kTag[] = "marlo_buf";
constexpr size_t kSize = 2 * 4096;

std::string SyncFailed(int err) {
    return std::string("DMA_BUF_IOCTL_SYNC ioctl failed ") + strerror(err);
}

std::string Access(const char* what, int dir, int fd) {
    return std::string(what) + " CPU access dir " + std::to_string(dir) + " for BO fd " +
           std::to_string(fd);
}

class DmaBufferTest : public ::testing::Test {
  protected:
    void SetUp() override { dma_sync_spy_reset(); }
    void TearDown() override { dma_sync_spy_reset(); }
};

}  // namespace

TEST_F(DmaBufferTest, NoFdReportsMinusOneAndReleasesNothing) {
    marlo_test::FdLeakCheck leaks;
    {
        DmaBuffer buffer(-1, kSize, nullptr);
        EXPECT_EQ(buffer.GetFd(), -1);
        EXPECT_EQ(buffer.GetSize(), kSize);
        EXPECT_FALSE(buffer.Mapped());
        EXPECT_EQ(buffer.Release(), -1);
        EXPECT_EQ(buffer.GetFd(), -1);
    }
    EXPECT_TRUE(leaks.unchanged());
    EXPECT_EQ(dma_sync_spy_count(), 0);
}

TEST_F(DmaBufferTest, AdoptsTheDescriptor) {
    marlo_test::FdLeakCheck leaks;
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    {
        DmaBuffer buffer(fd, kSize, nullptr);
        EXPECT_EQ(buffer.GetFd(), fd);
        EXPECT_NE(android_fdsan_get_owner_tag(fd), 0u);
    }
    EXPECT_FALSE(FdIsOpen(fd));
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(DmaBufferTest, MapTwiceReturnsSameAddressWithOneSync) {
    marlo_test::LogCapture logs;
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    DmaBuffer buffer(fd, kSize, nullptr);

    void* first = buffer.Map();
    ASSERT_NE(first, nullptr);
    EXPECT_TRUE(buffer.Mapped());
    void* second = buffer.Map();
    EXPECT_EQ(first, second);

    ASSERT_EQ(dma_sync_spy_count(), 1);
    EXPECT_EQ(dma_sync_spy_record(0).fd, fd);
    EXPECT_EQ(dma_sync_spy_record(0).flags, 1u);  // start, read
    // A memory file is no dma-buf: the request fails and is logged.
    EXPECT_EQ(logs.count(SyncFailed(ENOTTY)), 1u) << logs.dump();
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, SyncFailed(ENOTTY)));

    // The mapping is usable whatever the sync said.
    memset(first, 0x5a, kSize);
    EXPECT_EQ(static_cast<unsigned char*>(first)[kSize - 1], 0x5a);
}

TEST_F(DmaBufferTest, SuccessfulSyncLogsAccessAtInfo) {
    marlo_test::LogCapture logs;
    dma_sync_spy_set_succeed(1);
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    DmaBuffer buffer(fd, kSize, nullptr);
    ASSERT_NE(buffer.Map(), nullptr);
    buffer.UnMap();
    EXPECT_TRUE(logs.contains(ANDROID_LOG_INFO, kTag, Access("start", 1, fd))) << logs.dump();
    EXPECT_TRUE(logs.contains(ANDROID_LOG_INFO, kTag, Access("end", 1, fd))) << logs.dump();
    EXPECT_EQ(logs.count(SyncFailed(ENOTTY)), 0u);
}

TEST_F(DmaBufferTest, FailedMapStillStartsAccess) {
    marlo_test::LogCapture logs;
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    DmaBuffer buffer(fd, 0, nullptr);  // a zero-length mapping is refused

    EXPECT_EQ(buffer.Map(), nullptr);
    EXPECT_FALSE(buffer.Mapped());
    std::string mapFailed =
        "dma_buf fd " + std::to_string(fd) + " size 0 map failed " + strerror(EINVAL);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, mapFailed)) << logs.dump();
    ASSERT_EQ(dma_sync_spy_count(), 1);
    EXPECT_EQ(dma_sync_spy_record(0).flags, 1u);

    // Unmapped and still usable: unmap does nothing, a later map tries again.
    buffer.UnMap();
    EXPECT_EQ(dma_sync_spy_count(), 1);
    EXPECT_EQ(buffer.Map(), nullptr);
    EXPECT_EQ(dma_sync_spy_count(), 2);
}

TEST_F(DmaBufferTest, MapWithoutDescriptorFails) {
    marlo_test::LogCapture logs;
    DmaBuffer buffer(-1, kSize, nullptr);
    EXPECT_EQ(buffer.Map(), nullptr);
    std::string mapFailed =
        "dma_buf fd -1 size " + std::to_string(kSize) + " map failed " + strerror(EBADF);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, mapFailed)) << logs.dump();
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, SyncFailed(EBADF))) << logs.dump();
}

TEST_F(DmaBufferTest, MapsAtTheOffset) {
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, "tail", 4, 4096), 4);
    DmaBuffer buffer(fd, 4096, nullptr);
    buffer.SetOffset(4096);
    auto* data = static_cast<char*>(buffer.Map());
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(std::string(data, 4), "tail");
}

TEST_F(DmaBufferTest, ReleaseClosesAndReturnsTheOldFd) {
    marlo_test::FdLeakCheck leaks;
    marlo_test::LogCapture logs;
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    {
        DmaBuffer buffer(fd, kSize, nullptr);
        void* address = buffer.Map();
        ASSERT_NE(address, nullptr);

        EXPECT_EQ(buffer.Release(), fd);
        EXPECT_FALSE(FdIsOpen(fd));
        EXPECT_EQ(buffer.GetFd(), -1);
        EXPECT_EQ(buffer.Release(), -1);
        // The mapping stays until unmapped.
        EXPECT_TRUE(buffer.Mapped());
        EXPECT_TRUE(IsMapped(address));

        logs.clear();
        buffer.UnMap();
        EXPECT_FALSE(IsMapped(address));
        ASSERT_EQ(dma_sync_spy_count(), 2);
        EXPECT_EQ(dma_sync_spy_record(1).fd, -1);
        EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, SyncFailed(EBADF))) << logs.dump();
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(DmaBufferTest, SyncFlagsFollowDirection) {
    marlo_test::LogCapture logs;
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    DmaBuffer buffer(fd, kSize, nullptr);

    struct Case {
        uint32_t dir;
        bool start;
        uint64_t flags;
    } cases[] = {
        {1, true, 1}, {1, false, 5}, {2, true, 2}, {2, false, 6},
        {0, true, 3}, {0, false, 7}, {3, true, 3}, {7, false, 7},
    };
    for (const Case& c : cases) {
        dma_sync_spy_reset();
        EXPECT_EQ(buffer.Sync(fd, static_cast<DmaBufferDirection>(c.dir), c.start), -2);
        ASSERT_EQ(dma_sync_spy_count(), 1);
        EXPECT_EQ(dma_sync_spy_record(0).flags, c.flags) << c.dir << " " << c.start;
    }
    EXPECT_EQ(logs.count(SyncFailed(ENOTTY)), 8u);

    dma_sync_spy_reset();
    dma_sync_spy_set_succeed(1);
    logs.clear();
    EXPECT_EQ(buffer.Sync(fd, static_cast<DmaBufferDirection>(0), true), 0);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_INFO, kTag, Access("start", 0, fd))) << logs.dump();
    EXPECT_EQ(buffer.Sync(fd, DMA_BUFFER_WRITE, false), 0);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_INFO, kTag, Access("end", 2, fd))) << logs.dump();
    EXPECT_EQ(dma_sync_spy_record(0).flags, 3u);
    EXPECT_EQ(dma_sync_spy_record(1).flags, 6u);
}

TEST_F(DmaBufferTest, CpuAccessUsesOwnFd) {
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    DmaBuffer buffer(fd, kSize, nullptr);
    dma_sync_spy_set_succeed(1);
    EXPECT_EQ(buffer.BeginCpuAccess(DMA_BUFFER_WRITE), 0);
    EXPECT_EQ(buffer.EndCpuAccess(DMA_BUFFER_READ_WRITE), 0);
    ASSERT_EQ(dma_sync_spy_count(), 2);
    EXPECT_EQ(dma_sync_spy_record(0).fd, fd);
    EXPECT_EQ(dma_sync_spy_record(0).flags, 2u);
    EXPECT_EQ(dma_sync_spy_record(1).fd, fd);
    EXPECT_EQ(dma_sync_spy_record(1).flags, 7u);
    dma_sync_spy_set_succeed(0);
    EXPECT_EQ(buffer.BeginCpuAccess(DMA_BUFFER_READ), -2);
}

TEST_F(DmaBufferTest, DestroyingMappedBufferEndsAccessUnmapsAndCloses) {
    marlo_test::FdLeakCheck leaks;
    marlo_test::LogCapture logs;
    int fd = MakeMemfd(kSize);
    ASSERT_GE(fd, 0);
    void* address;
    {
        DmaBuffer buffer(fd, kSize, nullptr);
        address = buffer.Map();
        ASSERT_NE(address, nullptr);
        ASSERT_TRUE(IsMapped(address));
    }
    ASSERT_EQ(dma_sync_spy_count(), 2);
    EXPECT_EQ(dma_sync_spy_record(1).fd, fd);
    EXPECT_EQ(dma_sync_spy_record(1).flags, 5u);  // end, read
    EXPECT_EQ(logs.count(SyncFailed(ENOTTY)), 2u);
    EXPECT_FALSE(IsMapped(address));
    EXPECT_FALSE(FdIsOpen(fd));
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(DmaBufferTest, UserPointerCountsAsMapping) {
    marlo_test::FdLeakCheck leaks;
    void* region = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(region, MAP_FAILED);
    {
        DmaBuffer buffer(-1, kSize, region);
        EXPECT_TRUE(buffer.Mapped());
        EXPECT_EQ(buffer.Map(), region);
        EXPECT_EQ(dma_sync_spy_count(), 0);
    }
    // Destruction unmaps it like a mapping of its own.
    EXPECT_FALSE(IsMapped(region));
    EXPECT_EQ(dma_sync_spy_count(), 1);

    void* other = mmap(nullptr, kSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(other, MAP_FAILED);
    DmaBuffer buffer(-1, kSize, nullptr);
    EXPECT_FALSE(buffer.Mapped());
    buffer.SetUserPtr(other);
    EXPECT_TRUE(buffer.Mapped());
    buffer.UnMap();
    EXPECT_FALSE(buffer.Mapped());
    EXPECT_FALSE(IsMapped(other));
    EXPECT_TRUE(leaks.unchanged());
}
