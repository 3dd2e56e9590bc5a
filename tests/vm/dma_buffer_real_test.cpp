/*
 * DmaBuffer and DmaFrameBuffer on real dma-bufs: vgem's PRIME buffers and
 * the buffers vivid exports, with the kernel's cache synchronisation.
 */
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <memory>
#include <string>

#include <marlo/base/unique_fd.h>
#include <marlo/buffer/dma_buffer.h>
#include <marlo/buffer/drm_device.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/buffer/pixel_format.h>
#include <marlo/v4l2/v4l2_camera.h>

#include "support/colour_bars.h"
#include "support/drm_cards.h"
#include "support/fd_count.h"
#include "support/log_capture.h"
#include "support/vivid.h"

using namespace tessaro::marlo;
using marlo_test::LogCapture;

namespace {

constexpr char kTag[] = "marlo_buf";

class RealDmaBufferTest : public testing::Test {
  protected:
    void SetUp() override {
        vgem_ = std::make_unique<DrmDevice>(marlo_vm::OpenDrmCard("vgem"));
        ASSERT_GE(vgem_->fd(), 0) << "no vgem card";
        object_ = vgem_->CreateDumbObject(256, 64, FOURCC_AB24, 32);
        ASSERT_NE(object_.handle, 0u);
        ASSERT_GT(object_.fd, 0);
    }

    void TearDown() override {
        if (object_.handle != 0)
            vgem_->DestroyDumbObject(object_.handle);
    }

    /* The PRIME descriptor, handed over to whoever takes it. */
    int TakePrime() {
        int fd = object_.fd;
        object_.fd = 0;
        return fd;
    }

    std::unique_ptr<DrmDevice> vgem_;
    DrmDumbObject object_;
};

TEST_F(RealDmaBufferTest, MapSyncsAndSharesTheBuffer) {
    size_t before = marlo_test::OpenFdCount();
    uint64_t size = object_.size;
    int prime = TakePrime();
    {
        DmaBuffer buffer(prime, size, nullptr);
        EXPECT_EQ(buffer.GetFd(), prime);
        LogCapture log;
        void* address = buffer.Map();
        ASSERT_NE(address, nullptr);
        EXPECT_TRUE(buffer.Mapped());
        /* The start of CPU access went through the kernel. */
        EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                                 "start CPU access dir 1 for BO fd " + std::to_string(prime)))
            << log.dump();
        EXPECT_FALSE(log.containsText("ioctl failed")) << log.dump();
        EXPECT_EQ(buffer.Map(), address);
        EXPECT_EQ(log.count("start CPU access dir 1 for BO fd " + std::to_string(prime)), 1u);

        /* The dumb mapping of the device sees what the dma-buf mapping wrote. */
        memset(address, 0x3c, size);
        ASSERT_NE(vgem_->MapDumbObject(object_), nullptr);
        EXPECT_EQ(static_cast<uint8_t*>(object_.address)[size - 1], 0x3c);
        EXPECT_EQ(vgem_->UnMapDumbObject(object_), 0);

        log.clear();
        buffer.UnMap();
        EXPECT_FALSE(buffer.Mapped());
        EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                                 "end CPU access dir 1 for BO fd " + std::to_string(prime)))
            << log.dump();
    }
    /* The buffer closed the descriptor it was given, and nothing else is left open. */
    EXPECT_EQ(fcntl(prime, F_GETFD), -1);
    EXPECT_EQ(marlo_test::OpenFdCount(), before - 1);
}

TEST_F(RealDmaBufferTest, EveryDirectionSyncsOnTheKernel) {
    int prime = TakePrime();
    DmaBuffer buffer(prime, object_.size, nullptr);
    LogCapture log;
    for (DmaBufferDirection dir : {DMA_BUFFER_READ, DMA_BUFFER_WRITE, DMA_BUFFER_READ_WRITE,
                                   static_cast<DmaBufferDirection>(0)}) {
        EXPECT_EQ(buffer.BeginCpuAccess(dir), 0) << dir;
        EXPECT_EQ(buffer.EndCpuAccess(dir), 0) << dir;
        EXPECT_EQ(buffer.Sync(prime, dir, true), 0) << dir;
        EXPECT_EQ(buffer.Sync(prime, dir, false), 0) << dir;
    }
    EXPECT_FALSE(log.containsText("ioctl failed")) << log.dump();
    EXPECT_EQ(log.count("start CPU access dir 2 for BO fd " + std::to_string(prime)), 2u);
}

TEST_F(RealDmaBufferTest, SyncOnADescriptorThatIsNoDmaBufFails) {
    UniqueFd pipeEnd;
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    close(fds[1]);
    pipeEnd.reset(fds[0]);
    DmaBuffer buffer(TakePrime(), object_.size, nullptr);
    LogCapture log;
    EXPECT_EQ(buffer.Sync(pipeEnd.get(), DMA_BUFFER_READ, true), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag,
                             std::string("DMA_BUF_IOCTL_SYNC ioctl failed ") + strerror(ENOTTY)))
        << log.dump();
}

TEST_F(RealDmaBufferTest, MapPastTheEndFailsAndStillStartsAccess) {
    int prime = TakePrime();
    DmaBuffer buffer(prime, object_.size, nullptr);
    buffer.SetOffset(object_.size);
    LogCapture log;
    EXPECT_EQ(buffer.Map(), nullptr);
    EXPECT_FALSE(buffer.Mapped());
    EXPECT_TRUE(log.containsText("map failed " + std::string(strerror(EINVAL)))) << log.dump();
    EXPECT_TRUE(log.containsText("start CPU access dir 1 for BO fd " + std::to_string(prime)))
        << log.dump();
    /* From the start the whole buffer maps. */
    buffer.SetOffset(0);
    EXPECT_NE(buffer.Map(), nullptr);
}

TEST_F(RealDmaBufferTest, ReleaseClosesTheDescriptor) {
    int prime = TakePrime();
    DmaBuffer buffer(prime, object_.size, nullptr);
    EXPECT_EQ(buffer.Release(), prime);
    EXPECT_EQ(buffer.GetFd(), -1);
    EXPECT_EQ(fcntl(prime, F_GETFD), -1);
    EXPECT_EQ(buffer.Release(), -1);
}

TEST_F(RealDmaBufferTest, DmaFrameBufferOwnsThePrimeDescriptor) {
    size_t before = marlo_test::OpenFdCount();
    int prime = object_.fd;
    {
        FrameBufferInfo info;
        info.fourcc = FOURCC_AB24;
        info.width = 256;
        info.height = 64;
        info.stride = object_.pitch / 4;
        info.size = static_cast<uint32_t>(object_.size);
        DmaFrameBuffer buffer(nullptr, info, TakePrime());
        /* Plane 0 holds a private duplicate of the same dma-buf. */
        int plane = buffer.planes()[0].fd.get();
        ASSERT_GE(plane, 0);
        EXPECT_NE(plane, prime);
        EXPECT_EQ(vgem_->BufferFdToHandle(plane), object_.handle);
        void* address = buffer.Map();
        ASSERT_NE(address, nullptr);
        static_cast<uint8_t*>(address)[0] = 0x42;
        EXPECT_EQ(buffer.Map(), address);
        EXPECT_EQ(buffer.UnMap(), 0);
        EXPECT_EQ(buffer.UnMap(), 0);
    }
    /* The buffer closed the PRIME descriptor and its duplicate. */
    EXPECT_EQ(fcntl(prime, F_GETFD), -1);
    EXPECT_EQ(marlo_test::OpenFdCount(), before - 1);
}

/* The dma-bufs vivid exports map and sync like any other. */
TEST(RealDmaBufferCapture, AnExportedCaptureBufferShowsTheFrame) {
    std::string node = marlo_vm::VividCaptureNode(marlo_vm::Vivid::kSinglePlanar);
    ASSERT_FALSE(node.empty());
    ASSERT_TRUE(marlo_vm::ShowPlainColourBars(node));
    ASSERT_GT(marlo_vm::SetFrameRate(node, 30), 0.0);
    V4l2Camera camera(node);
    ASSERT_TRUE(camera.OpenCamera(640, 480, FOURCC_YUYV));
    ASSERT_EQ(camera.StartVideoStream(), 0);
    std::unique_ptr<V4l2Buffer> frame = camera.CollectFrames();
    ASSERT_NE(frame, nullptr);
    {
        LogCapture log;
        DmaBuffer buffer(dup(frame->GetDmaFd(0)), frame->GetLength(0), nullptr);
        void* address = buffer.Map();
        ASSERT_NE(address, nullptr);
        EXPECT_FALSE(log.containsText("ioctl failed")) << log.dump();
        marlo_vm::Image image{static_cast<const uint8_t*>(address), FOURCC_YUYV, 640, 480, 640};
        EXPECT_EQ(marlo_vm::CheckColourBars(image, {640, 0, 0, 0}), "");
    }
    EXPECT_EQ(camera.ReturnFrame(std::move(frame)), 0);
    camera.StopVideoStream();
}

}  // namespace
