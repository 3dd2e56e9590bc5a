/* The host's graphics buffer emulation, on which the gralloc allocator runs. */
#include <android/hardware/graphics/mapper/4.0/IMapper.h>
#include <cutils/native_handle.h>
#include <marlo_host/graphics.h>
#include <string.h>
#include <sys/stat.h>
#include <ui/GraphicBufferAllocator.h>
#include <ui/GraphicBufferMapper.h>

#include <gtest/gtest.h>

#include <vector>

#include "buffer/buffer_test_util.h"
#include "support/fd_count.h"

using android::BAD_VALUE;
using android::GraphicBufferAllocator;
using android::GraphicBufferMapper;
using android::NO_ERROR;
using android::Rect;
using android::hardware::hidl_vec;
using android::hardware::graphics::mapper::V4_0::Error;
using android::hardware::graphics::mapper::V4_0::IMapper;
using marlo_buffer_test::FdIsOpen;
using marlo_buffer_test::SameFile;

namespace {

class GraphicsEmulationTest : public ::testing::Test {
  protected:
    void SetUp() override { marlo_host_gralloc_reset(); }
    void TearDown() override {
        marlo_host_gralloc_reset();
        EXPECT_EQ(marlo_host_gralloc_live_buffers(), 0u);
        EXPECT_TRUE(leaks_.unchanged());
    }

    buffer_handle_t Allocate(uint32_t w, uint32_t h, int format, uint32_t* stride) {
        buffer_handle_t handle = nullptr;
        EXPECT_EQ(
            GraphicBufferAllocator::get().allocate(w, h, format, 1, 0, &handle, stride, 0, "test"),
            NO_ERROR);
        return handle;
    }

    marlo_test::FdLeakCheck leaks_;
};

}  // namespace

TEST_F(GraphicsEmulationTest, NativeHandleCloneDuplicates) {
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    native_handle_t* h = native_handle_create(2, 3);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->version, static_cast<int>(sizeof(native_handle_t)));
    h->data[0] = fds[0];
    h->data[1] = fds[1];
    h->data[2] = 7;
    h->data[3] = 8;
    h->data[4] = 9;
    native_handle_t* clone = native_handle_clone(h);
    ASSERT_NE(clone, nullptr);
    EXPECT_NE(clone->data[0], fds[0]);
    EXPECT_TRUE(SameFile(clone->data[0], fds[0]));
    EXPECT_EQ(clone->data[4], 9);
    EXPECT_EQ(native_handle_close(clone), 0);
    EXPECT_EQ(native_handle_delete(clone), 0);
    EXPECT_EQ(native_handle_close(h), 0);
    EXPECT_FALSE(FdIsOpen(fds[0]));
    EXPECT_EQ(native_handle_delete(h), 0);
    EXPECT_EQ(native_handle_create(-1, 0), nullptr);
}

TEST_F(GraphicsEmulationTest, AllocateRejectsBadRequests) {
    buffer_handle_t handle = nullptr;
    uint32_t stride = 0;
    auto& allocator = GraphicBufferAllocator::get();
    EXPECT_EQ(
        allocator.allocate(40000, 16, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0, &handle, &stride, 0, "t"),
        BAD_VALUE);
    EXPECT_EQ(
        allocator.allocate(16, 16, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0, nullptr, &stride, 0, "t"),
        BAD_VALUE);
    EXPECT_EQ(allocator.allocate(16, 16, -1, 1, 0, &handle, &stride, 0, "t"), BAD_VALUE);
    EXPECT_EQ(allocator.allocate(16, 16, 0x23, 1, 0, &handle, &stride, 0, "t"), BAD_VALUE);
    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_ALLOCATE);
    EXPECT_EQ(
        allocator.allocate(16, 16, HAL_PIXEL_FORMAT_RGBA_8888, 1, 0, &handle, &stride, 0, "t"),
        android::NO_MEMORY);
    EXPECT_EQ(handle, nullptr);
}

TEST_F(GraphicsEmulationTest, EmptyRequestGivesOnePixelBuffer) {
    uint32_t stride = 0;
    buffer_handle_t handle = nullptr;
    auto& allocator = GraphicBufferAllocator::get();
    ASSERT_EQ(allocator.allocate(0, 16, HAL_PIXEL_FORMAT_RGBA_8888, 0, 0, &handle, &stride, 0, "t"),
              NO_ERROR);
    EXPECT_EQ(stride, 16u);
    uint64_t size = 0;
    EXPECT_EQ(GraphicBufferMapper::get().getAllocationSize(handle, &size), NO_ERROR);
    EXPECT_EQ(size, 4096u);
    // The buffer is 1x1 with one layer, and imports only as such.
    buffer_handle_t imported = nullptr;
    EXPECT_EQ(GraphicBufferMapper::get().importBuffer(handle, 1, 1, 1, HAL_PIXEL_FORMAT_RGBA_8888,
                                                      0, stride, &imported),
              NO_ERROR);
    EXPECT_EQ(GraphicBufferMapper::get().freeBuffer(imported), NO_ERROR);
    EXPECT_EQ(allocator.free(handle), NO_ERROR);
}

TEST_F(GraphicsEmulationTest, LayersMultiplyTheSize) {
    uint32_t stride = 0;
    buffer_handle_t handle = nullptr;
    auto& allocator = GraphicBufferAllocator::get();
    ASSERT_EQ(
        allocator.allocate(64, 64, HAL_PIXEL_FORMAT_RGBA_8888, 3, 0, &handle, &stride, 0, "t"),
        NO_ERROR);
    uint64_t size = 0;
    EXPECT_EQ(GraphicBufferMapper::get().getAllocationSize(handle, &size), NO_ERROR);
    EXPECT_EQ(size, 3u * 64 * 64 * 4);
    EXPECT_EQ(allocator.free(handle), NO_ERROR);
}

TEST_F(GraphicsEmulationTest, SizesPerFormat) {
    // 100 pixels pad to a 112-pixel stride; sizes round up to whole pages.
    struct Case {
        int format;
        uint64_t bytes;
    } cases[] = {
        {HAL_PIXEL_FORMAT_RGBA_8888, 112 * 30 * 4},
        {HAL_PIXEL_FORMAT_RGBX_8888, 112 * 30 * 4},
        {HAL_PIXEL_FORMAT_BGRA_8888, 112 * 30 * 4},
        {HAL_PIXEL_FORMAT_RGB_888, 112 * 30 * 3},
        {HAL_PIXEL_FORMAT_RGB_565, 112 * 30 * 2},
        {HAL_PIXEL_FORMAT_YCBCR_422_I, 112 * 30 * 2},
        {HAL_PIXEL_FORMAT_YCBCR_422_SP, 112 * 30 * 2},
        {HAL_PIXEL_FORMAT_YCRCB_420_SP, 112 * 30 + 112 * 15},
        {HAL_PIXEL_FORMAT_YV12, 112 * 30 + 2 * 64 * 15},
    };
    for (const Case& c : cases) {
        uint32_t stride = 0;
        buffer_handle_t handle = Allocate(100, 30, c.format, &stride);
        ASSERT_NE(handle, nullptr) << c.format;
        EXPECT_EQ(stride, 112u) << c.format;
        uint64_t size = 0;
        EXPECT_EQ(GraphicBufferMapper::get().getAllocationSize(handle, &size), NO_ERROR);
        EXPECT_EQ(size, (c.bytes + 4095) / 4096 * 4096) << c.format;
        struct stat st;
        ASSERT_EQ(fstat(handle->data[0], &st), 0);
        EXPECT_EQ(static_cast<uint64_t>(st.st_size), size) << c.format;
        EXPECT_EQ(GraphicBufferAllocator::get().free(handle), NO_ERROR);
    }
}

TEST_F(GraphicsEmulationTest, Yv12ChromaRowsAreAligned) {
    uint32_t stride = 0;
    buffer_handle_t handle = Allocate(100, 10, HAL_PIXEL_FORMAT_YV12, &stride);
    ASSERT_NE(handle, nullptr);
    EXPECT_EQ(stride, 112u);
    uint64_t size = 0;
    EXPECT_EQ(GraphicBufferMapper::get().getAllocationSize(handle, &size), NO_ERROR);
    EXPECT_EQ(size, 4096u);  // 112*10 + 2*64*5 rounded to a page
    EXPECT_EQ(GraphicBufferAllocator::get().free(handle), NO_ERROR);
}

TEST_F(GraphicsEmulationTest, LockUnlockAndFree) {
    uint32_t stride = 0;
    buffer_handle_t handle = Allocate(16, 16, HAL_PIXEL_FORMAT_RGB_565, &stride);
    auto& mapper = GraphicBufferMapper::get();
    void* first = nullptr;
    void* second = nullptr;
    EXPECT_EQ(mapper.unlock(handle), BAD_VALUE);  // not locked
    EXPECT_EQ(mapper.lock(handle, 3, Rect(16, 16), &first), NO_ERROR);
    EXPECT_EQ(mapper.lock(handle, 3, Rect(16, 16), &second), NO_ERROR);
    EXPECT_EQ(first, second);
    EXPECT_EQ(mapper.unlock(handle), NO_ERROR);
    EXPECT_EQ(mapper.unlock(handle), NO_ERROR);
    EXPECT_EQ(mapper.lock(handle, 3, Rect(-1, 0, 4, 4), &first), BAD_VALUE);
    EXPECT_EQ(mapper.lock(nullptr, 3, Rect(4, 4), &first), BAD_VALUE);
    EXPECT_EQ(GraphicBufferAllocator::get().free(handle), NO_ERROR);
    EXPECT_EQ(GraphicBufferAllocator::get().free(nullptr), BAD_VALUE);
}

TEST_F(GraphicsEmulationTest, ImportChecksTheDescription) {
    uint32_t stride = 0;
    buffer_handle_t handle = Allocate(32, 8, HAL_PIXEL_FORMAT_RGBA_8888, &stride);
    auto& mapper = GraphicBufferMapper::get();
    buffer_handle_t imported = nullptr;
    EXPECT_EQ(
        mapper.importBuffer(handle, 64, 8, 1, HAL_PIXEL_FORMAT_RGBA_8888, 0, stride, &imported),
        BAD_VALUE);
    EXPECT_EQ(mapper.importBuffer(handle, 32, 8, 1, HAL_PIXEL_FORMAT_RGB_565, 0, stride, &imported),
              BAD_VALUE);
    EXPECT_EQ(
        mapper.importBuffer(handle, 32, 8, 1, HAL_PIXEL_FORMAT_RGBA_8888, 0, stride, &imported),
        NO_ERROR);
    ASSERT_NE(imported, nullptr);
    EXPECT_NE(imported, handle);
    EXPECT_EQ(marlo_host_gralloc_live_buffers(), 2u);
    EXPECT_EQ(mapper.freeBuffer(imported), NO_ERROR);
    EXPECT_EQ(GraphicBufferAllocator::get().free(handle), NO_ERROR);
}

TEST_F(GraphicsEmulationTest, MetadataQueries) {
    android::sp<IMapper> mapper = IMapper::getService("default");
    ASSERT_TRUE(mapper);
    EXPECT_FALSE(IMapper::getService("other"));

    uint32_t stride = 0;
    buffer_handle_t handle = Allocate(16, 16, HAL_PIXEL_FORMAT_RGBA_8888, &stride);
    Error error = Error::BAD_VALUE;
    std::vector<uint8_t> blob;
    auto read = [&](Error e, const hidl_vec<uint8_t>& data) {
        error = e;
        blob = data;
    };

    const IMapper::MetadataType planeFds = {"arm.graphics.ArmMetadataType", 1};
    ASSERT_TRUE(mapper->get(const_cast<native_handle_t*>(handle), planeFds, read).isOk());
    EXPECT_EQ(error, Error::NONE);
    ASSERT_EQ(blob.size(), 16u);
    int64_t values[2];
    memcpy(values, blob.data(), sizeof(values));
    EXPECT_EQ(values[0], 1);
    EXPECT_EQ(values[1], handle->data[0]);

    const IMapper::MetadataType other = {"android.hardware.graphics.common.StandardMetadataType",
                                         1};
    ASSERT_TRUE(mapper->get(const_cast<native_handle_t*>(handle), other, read).isOk());
    EXPECT_EQ(error, Error::UNSUPPORTED);

    native_handle_t* raw = native_handle_clone(handle);
    ASSERT_TRUE(mapper->get(raw, planeFds, read).isOk());
    EXPECT_EQ(error, Error::BAD_BUFFER);  // never imported

    marlo_host_gralloc_set_failures(MARLO_HOST_GRALLOC_FAIL_METADATA_TRANSPORT);
    error = Error::NONE;
    EXPECT_FALSE(mapper->get(const_cast<native_handle_t*>(handle), planeFds, read).isOk());
    marlo_host_gralloc_set_failures(0);

    EXPECT_EQ(GraphicBufferAllocator::get().free(raw), NO_ERROR);
    EXPECT_EQ(GraphicBufferAllocator::get().free(handle), NO_ERROR);
}
