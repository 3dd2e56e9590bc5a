#include <marlo/buffer/frame_buffer.h>

#include <marlo/buffer/frame_buffer_allocator.h>

#include <gtest/gtest.h>

#include <android/fdsan.h>
#include <android/log.h>
#include <dlfcn.h>
#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/eventfd.h>

#include <string>
#include <vector>

#include "buffer/buffer_test_util.h"
#include "buffer/dma_sync_spy.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_buffer_test::FdIsOpen;
using marlo_buffer_test::IsMapped;
using marlo_buffer_test::MakeMemfd;
using marlo_buffer_test::SameFile;

namespace {

/* Descriptors closed through the fd sanitizer, in order, while recording. */
bool g_recordCloses = false;
std::vector<int> g_closed;

}  // namespace

/* Sees every sanitizer close of the library, then lets the platform close. */
extern "C" int android_fdsan_close_with_tag(int fd, uint64_t tag) {
    using CloseFn = int (*)(int, uint64_t);
    static auto realClose = reinterpret_cast<CloseFn>(dlsym(RTLD_NEXT, __func__));
    if (g_recordCloses)
        g_closed.push_back(fd);
    return realClose(fd, tag);
}

namespace {

constexpr char kTag[] = "marlo_buf";

class TestFrameBuffer : public FrameBuffer {
  public:
    explicit TestFrameBuffer(const FrameBufferInfo& info) : FrameBuffer(info) {}
    void* Map() override { return nullptr; }
    int UnMap() override { return 0; }
};

/* An allocator of kind \a Base that records the calls frame buffers make. */
template <typename Base>
class RecordingAllocator : public Base {
  public:
    int Allocate(FrameBufferInfo&, FrameBuffer**) override {
        calls.push_back("Allocate");
        return 0;
    }
    int Free(FrameBuffer* fb) override {
        calls.push_back("Free");
        lastBuffer = fb;
        return 0;
    }
    void* Map(FrameBuffer* fb) override {
        calls.push_back("Map");
        lastBuffer = fb;
        return mapResult;
    }
    int UnMap(FrameBuffer* fb) override {
        calls.push_back("UnMap");
        lastBuffer = fb;
        return unmapResult;
    }

    std::vector<std::string> calls;
    FrameBuffer* lastBuffer = nullptr;
    void* mapResult = nullptr;
    int unmapResult = 0;
};

using Strings = std::vector<std::string>;

FrameBufferInfo SampleInfo() {
    FrameBufferInfo info;
    info.type = 9;
    info.reserved0 = 0x11111111;
    info.fourcc = FOURCC_NV12;
    for (size_t i = 0; i < sizeof(info.reserved1); i++)
        info.reserved1[i] = static_cast<uint8_t>(i + 1);
    info.sourceCrop = {1, 2, 300, 200};
    info.transform = 0x4;
    info.width = 640;
    info.height = 480;
    info.stride = 656;
    info.size = 4096 * 3;
    info.reserved2 = 0x22222222;
    info.flags = 0x1234567890ull;
    return info;
}

int MakeEventFd() {
    return eventfd(0, EFD_CLOEXEC);
}

}  // namespace

TEST(FrameBufferInfoTest, LayoutIsFixed) {
    EXPECT_EQ(offsetof(FrameBufferInfo, type), 0u);
    EXPECT_EQ(offsetof(FrameBufferInfo, reserved0), 4u);
    EXPECT_EQ(offsetof(FrameBufferInfo, fourcc), 8u);
    EXPECT_EQ(offsetof(FrameBufferInfo, reserved1), 12u);
    EXPECT_EQ(sizeof(FrameBufferInfo::reserved1), 28u);
    EXPECT_EQ(offsetof(FrameBufferInfo, sourceCrop), 40u);
    EXPECT_EQ(offsetof(FrameBufferInfo, transform), 56u);
    EXPECT_EQ(offsetof(FrameBufferInfo, width), 60u);
    EXPECT_EQ(offsetof(FrameBufferInfo, height), 64u);
    EXPECT_EQ(offsetof(FrameBufferInfo, stride), 68u);
    EXPECT_EQ(offsetof(FrameBufferInfo, size), 72u);
    EXPECT_EQ(offsetof(FrameBufferInfo, reserved2), 76u);
    EXPECT_EQ(offsetof(FrameBufferInfo, flags), 80u);
    EXPECT_EQ(sizeof(FrameBufferInfo), 88u);
    EXPECT_EQ(sizeof(FrameBufferRect), 16u);
}

TEST(FrameBufferTest, FreshBufferDefaults) {
    TestFrameBuffer fb(SampleInfo());
    EXPECT_EQ(fb.fence(), -1);
    EXPECT_EQ(fb.sequence(), 0u);
    EXPECT_EQ(fb.timestamp(), 0u);
    EXPECT_EQ(fb.cookies(), 0xFFFFFFFFFFFFFFFFull);
    for (const FrameBufferPlane& plane : fb.planes()) {
        EXPECT_EQ(plane.fd.get(), -1);
        EXPECT_EQ(plane.stride, 0u);
        EXPECT_EQ(plane.offset, 0u);
        EXPECT_EQ(plane.length, 0u);
    }
}

TEST(FrameBufferTest, AccessorsReadTheInfoCopy) {
    FrameBufferInfo info = SampleInfo();
    TestFrameBuffer fb(info);
    info.width = 1;  // the buffer holds its own copy

    EXPECT_EQ(fb.width(), 640u);
    EXPECT_EQ(fb.height(), 480u);
    EXPECT_EQ(fb.stride(), 656u);
    EXPECT_EQ(fb.size(), 4096u * 3);
    EXPECT_EQ(fb.fourcc(), FOURCC_NV12);
    EXPECT_EQ(fb.transform(), 0x4u);
    EXPECT_EQ(fb.flags(), 0x1234567890ull);
    FrameBufferRect crop = fb.sourceCrop();
    EXPECT_EQ(crop.x, 1);
    EXPECT_EQ(crop.y, 2);
    EXPECT_EQ(crop.width, 300);
    EXPECT_EQ(crop.height, 200);

    FrameBufferInfo copy = fb.info();
    FrameBufferInfo expected = SampleInfo();
    EXPECT_EQ(memcmp(&copy, &expected, sizeof(copy)), 0);  // reserved fields carried
}

TEST(FrameBufferTest, StampsAndCookies) {
    TestFrameBuffer fb(SampleInfo());
    fb.SetCookies(42);
    fb.SetSequence(7);
    fb.SetTimestamp(123456789012ul);
    EXPECT_EQ(fb.cookies(), 42u);
    EXPECT_EQ(fb.sequence(), 7u);
    EXPECT_EQ(fb.timestamp(), 123456789012u);
}

TEST(FrameBufferTest, SetFenceOwnershipRules) {
    marlo_test::FdLeakCheck leaks;
    {
        TestFrameBuffer fb(SampleInfo());
        int first = MakeEventFd();
        ASSERT_GE(first, 0);
        fb.SetFence(first);
        EXPECT_EQ(fb.fence(), first);
        uint64_t owner = android_fdsan_get_owner_tag(first);
        EXPECT_NE(owner, 0u);

        // The fence already held: neither closed nor re-tagged.
        fb.SetFence(first);
        EXPECT_TRUE(FdIsOpen(first));
        EXPECT_EQ(android_fdsan_get_owner_tag(first), owner);

        // Another fence replaces and closes the old one.
        int second = MakeEventFd();
        ASSERT_GE(second, 0);
        fb.SetFence(second);
        EXPECT_EQ(fb.fence(), second);
        EXPECT_FALSE(FdIsOpen(first));
        EXPECT_NE(android_fdsan_get_owner_tag(second), 0u);

        // -1 releases the held fence.
        fb.SetFence(-1);
        EXPECT_EQ(fb.fence(), -1);
        EXPECT_FALSE(FdIsOpen(second));

        int third = MakeEventFd();
        ASSERT_GE(third, 0);
        fb.SetFence(third);
    }
    EXPECT_TRUE(leaks.unchanged());  // destruction closed the last fence
}

TEST(FrameBufferTest, OwnedFdsAreTaggedByTheirMember) {
    FrameBufferInfo info = SampleInfo();
    int fd = MakeMemfd(info.size);
    ASSERT_GE(fd, 0);
    DmaFrameBuffer fb(nullptr, info, fd);
    int planeFd = fb.planes()[0].fd.get();
    ASSERT_GE(planeFd, 0);
    EXPECT_EQ(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD, 3);
    EXPECT_EQ(android_fdsan_get_owner_tag(planeFd),
              android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD,
                                             reinterpret_cast<uint64_t>(&fb.planes()[0].fd)));

    // The fence member is private: its tag has the owner type 3 and names an
    // address inside the buffer object.
    int fence = MakeEventFd();
    ASSERT_GE(fence, 0);
    fb.SetFence(fence);
    uint64_t tag = android_fdsan_get_owner_tag(fence);
    EXPECT_EQ(tag >> 56, 3u);
    uint64_t owner = tag & ((uint64_t{1} << 56) - 1);
    auto begin = reinterpret_cast<uint64_t>(&fb) & ((uint64_t{1} << 56) - 1);
    EXPECT_GE(owner, begin);
    EXPECT_LT(owner, begin + sizeof(fb));
}

TEST(FrameBufferTest, DestructionClosesPlanesBackwardsThenFence) {
    marlo_test::FdLeakCheck leaks;
    int fds[5];
    for (int& fd : fds) {
        fd = MakeEventFd();
        ASSERT_GE(fd, 0);
    }
    {
        TestFrameBuffer fb(SampleInfo());
        fb.SetFence(fds[4]);
        for (int p = 0; p < 4; p++)
            fb.planes()[p].fd.reset(fds[p]);
        g_closed.clear();
        g_recordCloses = true;
    }
    g_recordCloses = false;
    EXPECT_EQ(g_closed, (std::vector<int>{fds[3], fds[2], fds[1], fds[0], fds[4]}));
    EXPECT_TRUE(leaks.unchanged());
}

TEST(GrallocFrameBufferTest, UnMapNeverMappedMakesNoAllocatorCall) {
    RecordingAllocator<GrallocFrameBufferAllocator> allocator;
    FrameBufferInfo info = SampleInfo();
    const native_handle* handle = nullptr;
    {
        GrallocFrameBuffer fb(&allocator, info, handle);
        EXPECT_EQ(fb.handle(), nullptr);
        EXPECT_EQ(fb.UnMap(), 0);
        EXPECT_TRUE(allocator.calls.empty());
    }
    // Destroying an unmapped buffer only frees it.
    EXPECT_EQ(allocator.calls, Strings({"Free"}));
}

TEST(GrallocFrameBufferTest, DestroyingMappedBufferUnMapsBeforeFree) {
    RecordingAllocator<GrallocFrameBufferAllocator> allocator;
    int storage = 0;
    allocator.mapResult = &storage;
    FrameBufferInfo info = SampleInfo();
    const native_handle* handle = nullptr;
    FrameBuffer* address = nullptr;
    {
        GrallocFrameBuffer fb(&allocator, info, handle);
        address = &fb;
        EXPECT_EQ(fb.Map(), &storage);
    }
    EXPECT_EQ(allocator.calls, Strings({"Map", "UnMap", "Free"}));
    EXPECT_EQ(allocator.lastBuffer, address);
}

TEST(GrallocFrameBufferTest, MapCachesAddressAndUnMapClearsIt) {
    RecordingAllocator<GrallocFrameBufferAllocator> allocator;
    int storage = 0;
    allocator.mapResult = &storage;
    allocator.unmapResult = -2;
    FrameBufferInfo info = SampleInfo();
    const native_handle* handle = nullptr;
    GrallocFrameBuffer fb(&allocator, info, handle);

    EXPECT_EQ(fb.Map(), &storage);
    EXPECT_EQ(fb.Map(), &storage);
    EXPECT_EQ(allocator.calls, Strings({"Map"}));

    // The cache is cleared before the allocator answers, whatever it says.
    EXPECT_EQ(fb.UnMap(), -2);
    EXPECT_EQ(fb.UnMap(), 0);
    EXPECT_EQ(allocator.calls, Strings({"Map", "UnMap"}));
    EXPECT_EQ(fb.Map(), &storage);
    EXPECT_EQ(allocator.calls, Strings({"Map", "UnMap", "Map"}));
}

TEST(GrallocFrameBufferTest, NullMapResultAsksAgain) {
    RecordingAllocator<GrallocFrameBufferAllocator> allocator;
    FrameBufferInfo info = SampleInfo();
    const native_handle* handle = nullptr;
    {
        GrallocFrameBuffer fb(&allocator, info, handle);
        EXPECT_EQ(fb.Map(), nullptr);
        EXPECT_EQ(fb.Map(), nullptr);
        EXPECT_EQ(fb.UnMap(), 0);
    }
    EXPECT_EQ(allocator.calls, Strings({"Map", "Map", "Free"}));
}

TEST(V4l2FrameBufferTest, SameMapRulesThroughItsAllocator) {
    RecordingAllocator<V4l2FrameBufferAllocator> allocator;
    int storage = 0;
    FrameBufferInfo info = SampleInfo();
    {
        V4l2FrameBuffer fb(&allocator, info);
        EXPECT_EQ(fb.UnMap(), 0);
        EXPECT_TRUE(allocator.calls.empty());
        allocator.mapResult = &storage;
        EXPECT_EQ(fb.Map(), &storage);
        EXPECT_EQ(fb.Map(), &storage);
    }
    EXPECT_EQ(allocator.calls, Strings({"Map", "UnMap", "Free"}));
}

TEST(DrmFrameBufferTest, SameMapRulesThroughItsAllocator) {
    RecordingAllocator<DrmFrameBufferAllocator> allocator;
    int storage = 0;
    FrameBufferInfo info = SampleInfo();
    {
        DrmFrameBuffer fb(&allocator, info);
        EXPECT_EQ(fb.UnMap(), 0);
        EXPECT_TRUE(allocator.calls.empty());
        EXPECT_EQ(fb.Map(), nullptr);
        allocator.mapResult = &storage;
        EXPECT_EQ(fb.Map(), &storage);
        EXPECT_EQ(fb.UnMap(), 0);
    }
    EXPECT_EQ(allocator.calls, Strings({"Map", "Map", "UnMap", "Free"}));
}

TEST(V4l2FrameBufferTest, PlaceholderAllocatorMapsNothing) {
    V4l2FrameBufferAllocator allocator;
    FrameBufferInfo info = SampleInfo();
    V4l2FrameBuffer fb(&allocator, info);
    EXPECT_EQ(fb.Map(), nullptr);
    EXPECT_EQ(fb.UnMap(), 0);
}

TEST(FrameBufferTest, MissingAllocatorIsReported) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = SampleInfo();
    FrameBuffer* address;
    {
        DrmFrameBuffer fb(nullptr, info);
        address = &fb;
        EXPECT_EQ(fb.Map(), nullptr);
        EXPECT_EQ(fb.UnMap(), 0);
    }
    char expected[96];
    snprintf(expected, sizeof(expected), "Map: buffer %p has no allocator",
             static_cast<void*>(address));
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, expected)) << logs.dump();
    snprintf(expected, sizeof(expected), "Free: buffer %p has no allocator to return to",
             static_cast<void*>(address));
    EXPECT_TRUE(logs.contains(ANDROID_LOG_WARN, kTag, expected)) << logs.dump();
}

class DmaFrameBufferTest : public ::testing::Test {
  protected:
    void SetUp() override { dma_sync_spy_reset(); }
    void TearDown() override { dma_sync_spy_reset(); }
};

TEST_F(DmaFrameBufferTest, OwnsFdAndDuplicatesItIntoPlaneZero) {
    marlo_test::FdLeakCheck leaks;
    RecordingAllocator<V4l2FrameBufferAllocator> ignored;
    FrameBufferInfo info = SampleInfo();
    int fd = MakeMemfd(info.size);
    ASSERT_GE(fd, 0);
    int planeFd;
    {
        DmaFrameBuffer fb(&ignored, info, fd);
        planeFd = fb.planes()[0].fd.get();
        ASSERT_GE(planeFd, 0);
        EXPECT_NE(planeFd, fd);
        EXPECT_TRUE(SameFile(planeFd, fd));
        EXPECT_NE(android_fdsan_get_owner_tag(planeFd), 0u);
        EXPECT_NE(android_fdsan_get_owner_tag(fd), 0u);
        for (int p = 1; p < 4; p++)
            EXPECT_EQ(fb.planes()[p].fd.get(), -1);
    }
    // Both the duplicate and the descriptor handed over are closed.
    EXPECT_FALSE(FdIsOpen(planeFd));
    EXPECT_FALSE(FdIsOpen(fd));
    EXPECT_TRUE(leaks.unchanged());
    EXPECT_TRUE(ignored.calls.empty());  // the allocator argument is not kept
}

TEST_F(DmaFrameBufferTest, MapsSizeBytesOfTheFd) {
    marlo_test::FdLeakCheck leaks;
    FrameBufferInfo info = SampleInfo();
    int fd = MakeMemfd(info.size);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(pwrite(fd, "pixels", 6, info.size - 6), 6);
    {
        DmaFrameBuffer fb(nullptr, info, fd);
        auto* data = static_cast<char*>(fb.Map());
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(fb.Map(), data);
        EXPECT_EQ(dma_sync_spy_count(), 1);
        EXPECT_EQ(std::string(data + info.size - 6, 6), "pixels");
    }
    EXPECT_EQ(dma_sync_spy_count(), 2);  // destruction ended the access
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(DmaFrameBufferTest, UnMapReturnsZeroEvenWhenUnmapFails) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = SampleInfo();
    int fd = MakeMemfd(info.size);
    ASSERT_GE(fd, 0);
    DmaFrameBuffer fb(nullptr, info, fd);
    void* address = fb.Map();
    ASSERT_NE(address, nullptr);
    logs.clear();

    // The end-of-access request fails on a memory file; the result is still 0.
    EXPECT_EQ(fb.UnMap(), 0);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag,
                              std::string("DMA_BUF_IOCTL_SYNC ioctl failed ") + strerror(ENOTTY)))
        << logs.dump();
    EXPECT_FALSE(IsMapped(address));
    EXPECT_EQ(fb.UnMap(), 0);
}

TEST_F(DmaFrameBufferTest, FailedMapReturnsNull) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = SampleInfo();
    info.size = 0;
    int fd = MakeMemfd(4096);
    ASSERT_GE(fd, 0);
    DmaFrameBuffer fb(nullptr, info, fd);
    EXPECT_EQ(fb.Map(), nullptr);
    EXPECT_TRUE(logs.containsText("map failed")) << logs.dump();
    EXPECT_EQ(fb.UnMap(), 0);
}

TEST_F(DmaFrameBufferTest, InvalidFdLeavesPlaneZeroEmpty) {
    marlo_test::FdLeakCheck leaks;
    FrameBufferInfo info = SampleInfo();
    {
        DmaFrameBuffer fb(nullptr, info, -1);
        EXPECT_EQ(fb.planes()[0].fd.get(), -1);
        EXPECT_EQ(fb.Map(), nullptr);
    }
    EXPECT_TRUE(leaks.unchanged());
}
