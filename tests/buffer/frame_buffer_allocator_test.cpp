#include <marlo/buffer/frame_buffer_allocator.h>

#include <gtest/gtest.h>

#include <android/log.h>
#include <cutils/native_handle.h>
#include <marlo_host/graphics.h>
#include <string.h>
#include <ui/GraphicBufferAllocator.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "buffer/buffer_test_util.h"
#include "buffer/gralloc_metadata.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using android::hardware::hidl_vec;
using marlo_buffer_test::FdIsOpen;
using marlo_buffer_test::FdTarget;
using marlo_buffer_test::SameFile;

namespace {

constexpr char kTag[] = "marlo_buf";
constexpr uint64_t kCpuUsage = 0x33;  // CPU read and write often

using Strings = std::vector<std::string>;

/* Every emulated graphics call, in order. */
struct CallRecorder {
    static void Hook(const char* call, const void*, void* ctx) {
        static_cast<CallRecorder*>(ctx)->calls.push_back(call);
    }
    Strings calls;
};

std::string Formatted(const char* fmt, const void* pointer) {
    char text[128];
    snprintf(text, sizeof(text), fmt, pointer);
    return text;
}

FrameBufferInfo Info(FourccFormat format, uint32_t width, uint32_t height) {
    FrameBufferInfo info;
    info.fourcc = format;
    info.width = width;
    info.height = height;
    info.flags = kCpuUsage;
    return info;
}

class GrallocAllocatorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        marlo_host_gralloc_reset();
        liveBefore_ = marlo_host_gralloc_live_buffers();
    }
    void TearDown() override {
        marlo_host_gralloc_reset();
        EXPECT_EQ(marlo_host_gralloc_live_buffers(), liveBefore_);
        EXPECT_TRUE(leaks_.unchanged()) << leaks_.before() << " descriptors before";
    }

    void Record() { marlo_host_gralloc_set_hook(&CallRecorder::Hook, &recorder_); }

    std::unique_ptr<FrameBuffer> Allocate(FrameBufferInfo& info) {
        FrameBuffer* fb = nullptr;
        EXPECT_EQ(allocator_.Allocate(info, &fb), 0);
        return std::unique_ptr<FrameBuffer>(fb);
    }

    marlo_test::FdLeakCheck leaks_;
    size_t liveBefore_ = 0;
    GrallocFrameBufferAllocator allocator_;
    CallRecorder recorder_;
};

}  // namespace

TEST_F(GrallocAllocatorTest, AllocateFillsInfoAndPlaneZero) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = Info(FOURCC_AB24, 100, 50);
    info.type = 1;
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);

    EXPECT_EQ(info.type, 5u);
    EXPECT_EQ(info.stride, 112u);  // rows padded to 16 pixels
    EXPECT_EQ(info.size, 24576u);  // 112 * 50 * 4 rounded up to whole pages
    EXPECT_EQ(fb->info().type, 5u);
    EXPECT_EQ(fb->stride(), 112u);
    EXPECT_EQ(fb->size(), info.size);

    auto* gralloc = static_cast<GrallocFrameBuffer*>(fb.get());
    ASSERT_NE(gralloc->handle(), nullptr);
    int shareFd = gralloc->handle()->data[0];
    int planeFd = fb->planes()[0].fd.get();
    ASSERT_GE(planeFd, 0);
    EXPECT_NE(planeFd, shareFd);  // a private duplicate
    EXPECT_TRUE(SameFile(planeFd, shareFd));
    EXPECT_NE(FdTarget(planeFd).find("gralloc:marlo"), std::string::npos) << FdTarget(planeFd);

    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, Formatted(" buffer:%p", gralloc->handle())))
        << logs.dump();
    EXPECT_EQ(marlo_host_gralloc_live_buffers(), liveBefore_ + 1);
}

TEST_F(GrallocAllocatorTest, AllocateSizesFollowTheFormat) {
    struct Case {
        FourccFormat format;
        uint32_t stride;
        uint32_t size;
    } cases[] = {
        {FOURCC_RGB3, 64, 12288},  // 64*64*3
        {FOURCC_RGBP, 64, 8192},  {FOURCC_RA24, 64, 16384}, {FOURCC_XB24, 64, 16384},
        {FOURCC_NV16, 64, 8192},  {FOURCC_NV12, 64, 8192},  // 6144 rounded to a page
        {FOURCC_YV12, 64, 8192},  {FOURCC_UYVY, 64, 8192},
    };
    for (const Case& c : cases) {
        FrameBufferInfo info = Info(c.format, 60, 64);
        auto fb = Allocate(info);
        ASSERT_NE(fb, nullptr);
        EXPECT_EQ(info.stride, c.stride) << std::hex << c.format;
        EXPECT_EQ(info.size, c.size) << std::hex << c.format;
    }
}

TEST_F(GrallocAllocatorTest, MappedMemoryIsTheSharedBuffer) {
    FrameBufferInfo info = Info(FOURCC_NV12, 64, 64);
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);
    auto* data = static_cast<char*>(fb->Map());
    ASSERT_NE(data, nullptr);
    memcpy(data, "frame", 5);
    char readBack[5] = {};
    ASSERT_EQ(pread(fb->planes()[0].fd.get(), readBack, 5, 0), 5);
    EXPECT_EQ(std::string(readBack, 5), "frame");

    marlo_host_gralloc_lock_record lock;
    ASSERT_EQ(marlo_host_gralloc_last_lock(&lock), 0);
    EXPECT_EQ(lock.usage, kCpuUsage);
    EXPECT_EQ(lock.left, 0);
    EXPECT_EQ(lock.top, 0);
    EXPECT_EQ(lock.right, 64);
    EXPECT_EQ(lock.bottom, 64);
    EXPECT_EQ(fb->UnMap(), 0);
}

TEST_F(GrallocAllocatorTest, LockUsageIsLowHalfOfFlags) {
    FrameBufferInfo info = Info(FOURCC_AB24, 16, 16);
    info.flags = 0xABCD000000000003ull;
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);
    ASSERT_NE(fb->Map(), nullptr);
    marlo_host_gralloc_lock_record lock;
    ASSERT_EQ(marlo_host_gralloc_last_lock(&lock), 0);
    EXPECT_EQ(lock.usage, 3u);
}

TEST_F(GrallocAllocatorTest, DestroyingMappedBufferUnlocksBeforeFree) {
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    ASSERT_NE(fb->Map(), nullptr);
    Record();
    fb.reset();
    EXPECT_EQ(recorder_.calls, Strings({"unlock", "free"}));
}

TEST_F(GrallocAllocatorTest, DestroyingUnmappedBufferOnlyFrees) {
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    Record();
    EXPECT_EQ(fb->UnMap(), 0);
    fb.reset();
    EXPECT_EQ(recorder_.calls, Strings({"free"}));
}

TEST_F(GrallocAllocatorTest, AllocateFailure) {
    marlo_test::LogCapture logs;
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_ALLOCATE);
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    FrameBuffer* sentinel = reinterpret_cast<FrameBuffer*>(0x1);
    FrameBuffer* fb = sentinel;
    EXPECT_EQ(allocator_.Allocate(info, &fb), -2);
    EXPECT_EQ(fb, sentinel);
    EXPECT_EQ(info.type, 0u);
    EXPECT_EQ(info.stride, 0u);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to allocate buffer")) << logs.dump();
}

TEST_F(GrallocAllocatorTest, FormatWithoutHalCodeFailsAllocation) {
    marlo_test::LogCapture logs;
    // BGR3 is in the table, but as "no HAL format", which gralloc refuses.
    FrameBufferInfo info = Info(FOURCC_BGR3, 32, 32);
    FrameBuffer* fb = nullptr;
    EXPECT_EQ(allocator_.Allocate(info, &fb), -2);
    EXPECT_EQ(fb, nullptr);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to allocate buffer"));
}

TEST_F(GrallocAllocatorTest, FormatOutsideHalTableIsRejected) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = Info(FOURCC_BA24, 32, 32);
    FrameBuffer* fb = nullptr;
    Record();
    EXPECT_EQ(allocator_.Allocate(info, &fb), -4);
    EXPECT_EQ(fb, nullptr);
    EXPECT_TRUE(recorder_.calls.empty());
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag,
                              "Allocate: format 0x34324142 has no graphics format"))
        << logs.dump();
    info.fourcc = FOURCC_AB24;
    EXPECT_EQ(allocator_.Allocate(info, nullptr), -4);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Allocate: no output buffer pointer"));
    EXPECT_TRUE(recorder_.calls.empty());
}

TEST_F(GrallocAllocatorTest, AllocationSizeFailureLeavesSizeZero) {
    marlo_test::LogCapture logs;
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_ALLOCATION_SIZE);
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    info.size = 77;
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(info.size, 0u);
    auto* gralloc = static_cast<GrallocFrameBuffer*>(fb.get());
    EXPECT_TRUE(logs.contains(
        ANDROID_LOG_ERROR, kTag,
        Formatted("Allocate: allocation size of buffer %p unknown", gralloc->handle())))
        << logs.dump();
}

TEST_F(GrallocAllocatorTest, MetadataErrorStillCreatesBufferWithoutFd) {
    marlo_test::LogCapture logs;
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_METADATA);
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(fb->planes()[0].fd.get(), -1);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to get plane_fds. err : -22"))
        << logs.dump();
}

TEST_F(GrallocAllocatorTest, MetadataTransportErrorIsReported) {
    marlo_test::LogCapture logs;
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_METADATA_TRANSPORT);
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(fb->planes()[0].fd.get(), -1);
    EXPECT_TRUE(logs.containsText("get_share_fd: graphics mapper get failed: ")) << logs.dump();
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to get plane_fds. err : -32"))
        << logs.dump();
}

TEST_F(GrallocAllocatorTest, NegativePlaneFdCount) {
    marlo_test::LogCapture logs;
    marlo_host_gralloc_set_plane_fd_count(1, -1);
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(fb->planes()[0].fd.get(), -1);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to get plane_fds. err : -22"))
        << logs.dump();
}

TEST_F(GrallocAllocatorTest, EmptyPlaneFdList) {
    marlo_test::LogCapture logs;
    marlo_host_gralloc_set_plane_fd_count(1, 0);
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);
    EXPECT_EQ(fb->planes()[0].fd.get(), -1);
    auto* gralloc = static_cast<GrallocFrameBuffer*>(fb.get());
    EXPECT_TRUE(
        logs.contains(ANDROID_LOG_ERROR, kTag,
                      Formatted("get_share_fd: buffer %p lists no plane fds", gralloc->handle())))
        << logs.dump();
    EXPECT_FALSE(logs.containsText("Failed to get plane_fds"));
}

TEST_F(GrallocAllocatorTest, CountBeyondBlobUsesFdsPresent) {
    marlo_test::LogCapture logs;
    marlo_host_gralloc_set_plane_fd_count(1, 3);
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    ASSERT_NE(fb, nullptr);
    auto* gralloc = static_cast<GrallocFrameBuffer*>(fb.get());
    EXPECT_TRUE(SameFile(fb->planes()[0].fd.get(), gralloc->handle()->data[0]));
    EXPECT_TRUE(
        logs.contains(ANDROID_LOG_WARN, kTag, "decodeArmPlaneFds: blob holds 1 of 3 plane fds"))
        << logs.dump();
}

TEST_F(GrallocAllocatorTest, NullArguments) {
    marlo_test::LogCapture logs;
    Record();
    EXPECT_EQ(allocator_.Free(nullptr), -4);
    EXPECT_EQ(allocator_.UnMap(nullptr), -4);
    EXPECT_EQ(allocator_.Map(nullptr), nullptr);
    EXPECT_EQ(allocator_.FreeRawHandle(nullptr), 0);
    EXPECT_TRUE(recorder_.calls.empty());
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Freeing null buffer"));
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "UnMapping null buffer"));
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Mapping null buffer"));
    EXPECT_EQ(logs.records().size(), 3u) << logs.dump();
}

TEST_F(GrallocAllocatorTest, WrongBufferKindIsRejected) {
    marlo_test::LogCapture logs;
    V4l2FrameBufferAllocator v4l2;
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    V4l2FrameBuffer other(&v4l2, info);
    EXPECT_EQ(allocator_.Free(&other), -4);
    EXPECT_EQ(allocator_.Map(&other), nullptr);
    EXPECT_EQ(allocator_.UnMap(&other), -4);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag,
                              Formatted("Free: buffer %p is not a gralloc buffer", &other)))
        << logs.dump();
}

TEST_F(GrallocAllocatorTest, LockRectangleIsClamped) {
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto allocated = Allocate(info);
    auto* gralloc = static_cast<GrallocFrameBuffer*>(allocated.get());

    // A second view of the same handle whose description exceeds int32.
    FrameBufferInfo huge = info;
    huge.width = 3000000000u;
    huge.height = 2147483648u;
    const native_handle* handle = gralloc->handle();
    {
        struct NoFree : GrallocFrameBufferAllocator {
            int Free(FrameBuffer*) override { return 0; }
        } viewAllocator;
        GrallocFrameBuffer view(&viewAllocator, huge, handle);
        EXPECT_NE(viewAllocator.Map(&view), nullptr);
        marlo_host_gralloc_lock_record lock;
        ASSERT_EQ(marlo_host_gralloc_last_lock(&lock), 0);
        EXPECT_EQ(lock.right, 2147483647);
        EXPECT_EQ(lock.bottom, 2147483647);
        EXPECT_EQ(viewAllocator.UnMap(&view), 0);
    }
}

TEST_F(GrallocAllocatorTest, LockFailure) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_LOCK);
    Record();
    EXPECT_EQ(fb->Map(), nullptr);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to map buffer")) << logs.dump();
    // The null result is not kept: the next Map asks again and succeeds.
    marlo_host_gralloc_set_failures(0);
    EXPECT_NE(fb->Map(), nullptr);
    EXPECT_EQ(recorder_.calls, Strings({"lock", "lock"}));
}

TEST_F(GrallocAllocatorTest, UnlockFailure) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    ASSERT_NE(fb->Map(), nullptr);
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_UNLOCK);
    EXPECT_EQ(fb->UnMap(), -2);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to unmap buffer")) << logs.dump();
    marlo_host_gralloc_set_failures(0);
    // The cache was cleared; the emulation still holds the lock, which free drops.
    EXPECT_EQ(fb->UnMap(), 0);
}

TEST_F(GrallocAllocatorTest, FreeFailureKeepsTheHandle) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    const native_handle* handle = static_cast<GrallocFrameBuffer*>(fb.get())->handle();
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_FREE);
    fb.reset();
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to free buffer")) << logs.dump();
    EXPECT_EQ(marlo_host_gralloc_live_buffers(), liveBefore_ + 1);
    marlo_host_gralloc_set_failures(0);
    EXPECT_EQ(android::GraphicBufferAllocator::get().free(handle), android::NO_ERROR);
}

TEST_F(GrallocAllocatorTest, SecondFreeFindsNoHandle) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto fb = Allocate(info);
    EXPECT_EQ(allocator_.Free(fb.get()), 0);
    EXPECT_EQ(static_cast<GrallocFrameBuffer*>(fb.get())->handle(), nullptr);
    FrameBuffer* address = fb.get();
    Record();
    EXPECT_EQ(fb->Map(), nullptr);
    EXPECT_EQ(allocator_.UnMap(fb.get()), -4);
    fb.reset();  // the destructor's Free finds nothing left to free
    EXPECT_TRUE(recorder_.calls.empty());
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag,
                              Formatted("Free: buffer %p holds no handle", address)))
        << logs.dump();
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag,
                              Formatted("Map: buffer %p holds no handle", address)));
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag,
                              Formatted("UnMap: buffer %p holds no handle", address)));
}

TEST_F(GrallocAllocatorTest, ImportWrapsOwnCopyOfHandle) {
    FrameBufferInfo info = Info(FOURCC_NV12, 64, 48);
    auto source = Allocate(info);
    const native_handle* allocated = static_cast<GrallocFrameBuffer*>(source.get())->handle();
    native_handle_t* raw = native_handle_clone(allocated);
    ASSERT_NE(raw, nullptr);

    FrameBufferInfo importInfo = info;
    importInfo.type = 2;
    importInfo.size = 1234;
    FrameBuffer* imported = nullptr;
    marlo_test::LogCapture logs;
    ASSERT_EQ(allocator_.ImportBuffer(importInfo, raw, &imported), 0);
    std::unique_ptr<FrameBuffer> fb(imported);
    EXPECT_EQ(importInfo.type, 2u);  // the client's description is used as given
    EXPECT_EQ(importInfo.size, 1234u);
    EXPECT_EQ(fb->info().type, 2u);

    auto* gralloc = static_cast<GrallocFrameBuffer*>(fb.get());
    EXPECT_NE(gralloc->handle(), raw);
    // The share fd is looked up on the imported handle, not the raw one.
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, Formatted(" buffer:%p", gralloc->handle())))
        << logs.dump();
    EXPECT_TRUE(SameFile(fb->planes()[0].fd.get(), raw->data[0]));

    // The raw handle stays the caller's.
    int rawFd = raw->data[0];
    EXPECT_EQ(allocator_.FreeRawHandle(raw), 0);
    EXPECT_FALSE(FdIsOpen(rawFd));
    EXPECT_NE(fb->Map(), nullptr);
}

TEST_F(GrallocAllocatorTest, ImportFailure) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto source = Allocate(info);
    const native_handle* handle = static_cast<GrallocFrameBuffer*>(source.get())->handle();
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_IMPORT);
    FrameBuffer* fb = nullptr;
    EXPECT_EQ(allocator_.ImportBuffer(info, handle, &fb), -2);
    EXPECT_EQ(fb, nullptr);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to import buffer")) << logs.dump();

    marlo_host_gralloc_set_failures(0);
    // A null handle goes to the mapper, which refuses it.
    logs.clear();
    Record();
    EXPECT_EQ(allocator_.ImportBuffer(info, nullptr, &fb), -2);
    EXPECT_EQ(recorder_.calls, Strings({"import"}));
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag, "Failed to import buffer")) << logs.dump();
    marlo_host_gralloc_set_hook(nullptr, nullptr);
    FrameBufferInfo noHal = info;
    noHal.fourcc = FOURCC_XR24;
    EXPECT_EQ(allocator_.ImportBuffer(noHal, handle, &fb), -4);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag,
                              "ImportBuffer: format 0x34325258 has no graphics format"));
    EXPECT_EQ(allocator_.ImportBuffer(info, handle, nullptr), -4);
    FrameBufferInfo wrongStride = info;
    wrongStride.stride = info.stride + 16;
    EXPECT_EQ(allocator_.ImportBuffer(wrongStride, handle, &fb), -2);
    EXPECT_EQ(fb, nullptr);
}

TEST_F(GrallocAllocatorTest, FreeRawHandleFailure) {
    marlo_test::LogCapture logs;
    FrameBufferInfo info = Info(FOURCC_AB24, 32, 32);
    auto source = Allocate(info);
    native_handle_t* raw =
        native_handle_clone(static_cast<GrallocFrameBuffer*>(source.get())->handle());
    ASSERT_NE(raw, nullptr);
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_FREE);
    EXPECT_EQ(allocator_.FreeRawHandle(raw), -2);
    EXPECT_TRUE(logs.contains(ANDROID_LOG_ERROR, kTag,
                              Formatted("FreeRawHandle: Failed to free raw handle %p", raw)))
        << logs.dump();
    marlo_host_gralloc_set_failures(0);
    EXPECT_EQ(allocator_.FreeRawHandle(raw), 0);
}

TEST_F(GrallocAllocatorTest, BuffersFromManyThreads) {
    // Clients may allocate and map from several threads at once; the
    // allocator keeps no state and the platform calls serialise themselves.
    std::vector<std::thread> threads;
    std::vector<int> failures(4, 0);
    for (size_t t = 0; t < failures.size(); t++) {
        threads.emplace_back([this, t, &failures] {
            for (int i = 0; i < 20; i++) {
                FrameBufferInfo info = Info(FOURCC_NV12, 64, 32);
                FrameBuffer* raw = nullptr;
                if (allocator_.Allocate(info, &raw) != 0 || raw == nullptr) {
                    failures[t]++;
                    continue;
                }
                std::unique_ptr<FrameBuffer> fb(raw);
                auto* data = static_cast<unsigned char*>(fb->Map());
                if (data == nullptr || fb->planes()[0].fd.get() < 0) {
                    failures[t]++;
                    continue;
                }
                data[0] = static_cast<unsigned char>(t);
                unsigned char back = 0xFF;
                if (pread(fb->planes()[0].fd.get(), &back, 1, 0) != 1 || back != t)
                    failures[t]++;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(failures, std::vector<int>(4, 0));
}

TEST(DecodeArmPlaneFdsTest, CountAndFds) {
    std::vector<uint8_t> bytes(8 * 3);
    int64_t values[3] = {2, 17, 42};
    memcpy(bytes.data(), values, sizeof(values));
    std::vector<int64_t> fds;
    EXPECT_EQ(detail::decodeArmPlaneFds(hidl_vec<uint8_t>(bytes), &fds), 0);
    EXPECT_EQ(fds, (std::vector<int64_t>{17, 42}));
}

TEST(DecodeArmPlaneFdsTest, NegativeCount) {
    std::vector<uint8_t> bytes(16);
    int64_t values[2] = {-1, 5};
    memcpy(bytes.data(), values, sizeof(values));
    std::vector<int64_t> fds = {9};
    EXPECT_EQ(detail::decodeArmPlaneFds(hidl_vec<uint8_t>(bytes), &fds), -22);
}

TEST(DecodeArmPlaneFdsTest, ZeroCountGivesEmptyList) {
    std::vector<uint8_t> bytes(8, 0);
    std::vector<int64_t> fds = {9, 10};
    EXPECT_EQ(detail::decodeArmPlaneFds(hidl_vec<uint8_t>(bytes), &fds), 0);
    EXPECT_TRUE(fds.empty());
}

TEST(DecodeArmPlaneFdsTest, ExtraBytesAreIgnored) {
    std::vector<uint8_t> bytes(8 * 4);
    int64_t values[4] = {1, 7, 8, 9};
    memcpy(bytes.data(), values, sizeof(values));
    std::vector<int64_t> fds;
    EXPECT_EQ(detail::decodeArmPlaneFds(hidl_vec<uint8_t>(bytes), &fds), 0);
    EXPECT_EQ(fds, (std::vector<int64_t>{7}));
}

TEST(DecodeArmPlaneFdsTest, BlobTooShortForCount) {
    marlo_test::LogCapture logs;
    std::vector<int64_t> fds;
    EXPECT_EQ(detail::decodeArmPlaneFds(hidl_vec<uint8_t>(std::vector<uint8_t>(4)), &fds), -22);
    EXPECT_TRUE(
        logs.contains(ANDROID_LOG_ERROR, kTag, "decodeArmPlaneFds: blob of 4 bytes holds no count"))
        << logs.dump();
}

TEST(PlaceholderAllocatorTest, V4l2DoesNothing) {
    V4l2FrameBufferAllocator allocator;
    FrameBufferInfo info = Info(FOURCC_NV12, 32, 32);
    FrameBuffer* sentinel = reinterpret_cast<FrameBuffer*>(0x10);
    FrameBuffer* out = sentinel;
    EXPECT_EQ(allocator.Allocate(info, &out), 0);
    EXPECT_EQ(out, sentinel);
    EXPECT_EQ(info.type, 0u);
    EXPECT_EQ(allocator.Free(nullptr), 0);
    EXPECT_EQ(allocator.Map(nullptr), nullptr);
    EXPECT_EQ(allocator.UnMap(nullptr), 0);
}

TEST(PlaceholderAllocatorTest, DrmDoesNothing) {
    DrmFrameBufferAllocator allocator;
    FrameBufferInfo info = Info(FOURCC_NV12, 32, 32);
    FrameBuffer* sentinel = reinterpret_cast<FrameBuffer*>(0x10);
    FrameBuffer* out = sentinel;
    EXPECT_EQ(allocator.Allocate(info, &out), 0);
    EXPECT_EQ(out, sentinel);
    EXPECT_EQ(allocator.Free(nullptr), 0);
    EXPECT_EQ(allocator.Map(nullptr), nullptr);
    EXPECT_EQ(allocator.UnMap(nullptr), 0);
}
