/*
 * The V4L2 layer on the kernel's vivid driver, single- and multi-planar:
 * capabilities, formats and frame sizes, buffers and their exported
 * dma-bufs, streaming with the driver's sequence numbers and timestamps,
 * and V4l2Camera's run states.
 */
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <memory>
#include <set>
#include <string>
#include <vector>

#include <marlo/base/unique_fd.h>
#include <marlo/buffer/pixel_format.h>
#include <marlo/v4l2/v4l2_camera.h>
#include <marlo/v4l2/v4l2_video_device.h>

#include "support/colour_bars.h"
#include "support/fd_count.h"
#include "support/kernel_modules.h"
#include "support/log_capture.h"
#include "support/vivid.h"

using namespace tessaro::marlo;
using marlo_test::FdLeakCheck;
using marlo_test::LogCapture;
using marlo_vm::Vivid;

namespace {

constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 480;

uint64_t MonotonicNs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + now.tv_nsec;
}

class VividTest : public testing::TestWithParam<Vivid> {
  protected:
    void SetUp() override {
        node_ = marlo_vm::VividCaptureNode(GetParam());
        ASSERT_FALSE(node_.empty()) << "no vivid capture node for " << VividName();
        ASSERT_TRUE(marlo_vm::ShowPlainColourBars(node_)) << strerror(errno);
        /* vivid's webcam starts slow; the tests want frames quickly. */
        ASSERT_GT(marlo_vm::SetFrameRate(node_, 30), 0.0);
    }

    const char* VividName() const { return marlo_vm::VividName(GetParam()); }
    bool MultiPlanar() const { return GetParam() == Vivid::kMultiPlanar; }

    /* Open, QueryCap, SetFormat, ReqBuffer, QueryBuffer, ExportBuffers. */
    void Prepare(V4l2VideoDevice& device, uint32_t fourcc, unsigned count = 3) {
        ASSERT_EQ(device.Open(true), 0);
        ASSERT_EQ(device.QueryCap(), 0);
        ASSERT_EQ(device.SetFormat(kWidth, kHeight, fourcc), 0);
        ASSERT_EQ(device.ReqBuffer(count, V4L2_MEMORY_MMAP), static_cast<int>(count));
        ASSERT_EQ(device.QueryBuffer(), 0);
        ASSERT_EQ(device.ExportBuffers(), 0);
    }

    std::string node_;
};

TEST_P(VividTest, CapabilitiesChooseTheBufferType) {
    V4l2VideoDevice device(node_);
    ASSERT_EQ(device.Open(true), 0);
    ASSERT_EQ(device.QueryCap(), 0);
    EXPECT_STREQ(reinterpret_cast<const char*>(device.Capabilities().driver), "vivid");
    EXPECT_EQ(device.BufferType(),
              MultiPlanar() ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE : V4L2_BUF_TYPE_VIDEO_CAPTURE);
}

TEST_P(VividTest, FormatsAndFrameSizesOfTheWebcam) {
    V4l2VideoDevice device(node_);
    ASSERT_EQ(device.Open(true), 0);
    ASSERT_EQ(device.QueryCap(), 0);
    std::set<uint32_t> formats;
    for (const v4l2_fmtdesc& format : device.EnumFormats())
        formats.insert(format.pixelformat);
    EXPECT_TRUE(formats.count(V4L2_PIX_FMT_YUYV));
    EXPECT_TRUE(formats.count(V4L2_PIX_FMT_NV12));
    EXPECT_GE(formats.size(), 10u);

    /* The webcam input offers a few discrete sizes, 640x480 among them. */
    bool found = false;
    std::list<v4l2_frmsizeenum> sizes = device.EnumFrameSizes(V4L2_PIX_FMT_YUYV);
    ASSERT_FALSE(sizes.empty());
    for (const v4l2_frmsizeenum& size : sizes) {
        EXPECT_EQ(size.type, V4L2_FRMSIZE_TYPE_DISCRETE);
        found |= size.discrete.width == kWidth && size.discrete.height == kHeight;
    }
    EXPECT_TRUE(found);
    V4l2FrameSizeRange range = {};
    ASSERT_EQ(device.GetFrameSizeRange(V4L2_PIX_FMT_YUYV, range), 0);
    EXPECT_EQ(range.minWidth, sizes.front().discrete.width);
    EXPECT_EQ(range.maxWidth, range.minWidth);
    EXPECT_EQ(range.minHeight, sizes.front().discrete.height);
    EXPECT_EQ(range.stepWidth, 0u);
}

TEST_P(VividTest, SetFormatIsGrantedAsAskedForAnOfferedSize) {
    V4l2VideoDevice device(node_);
    ASSERT_EQ(device.Open(true), 0);
    ASSERT_EQ(device.QueryCap(), 0);
    for (uint32_t fourcc : {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_YUYV}) {
        ASSERT_EQ(device.SetFormat(kWidth, kHeight, fourcc), 0);
        V4l2Format format = {};
        format.planesCount = 99;
        ASSERT_EQ(device.GetFormat(format), 0);
        EXPECT_EQ(format.fourcc, fourcc);
        EXPECT_EQ(format.width, kWidth);
        EXPECT_EQ(format.height, kHeight);
        EXPECT_EQ(format.planes[0].bpl, fourcc == V4L2_PIX_FMT_YUYV ? kWidth * 2 : kWidth);
        EXPECT_EQ(format.colorSpace, static_cast<uint32_t>(V4L2_COLORSPACE_SRGB));
        /* Single-planar reads leave the plane count alone. */
        EXPECT_EQ(format.planesCount, MultiPlanar() ? 1u : 99u);
    }
}

TEST_P(VividTest, AnUnofferedSizeIsReplacedByTheDriver) {
    V4l2VideoDevice device(node_);
    ASSERT_EQ(device.Open(true), 0);
    ASSERT_EQ(device.QueryCap(), 0);
    /* The request succeeds; only reading the format back shows what the driver chose. */
    ASSERT_EQ(device.SetFormat(800, 600, V4L2_PIX_FMT_YUYV), 0);
    V4l2Format format = {};
    ASSERT_EQ(device.GetFormat(format), 0);
    EXPECT_EQ(format.width, kWidth);
    EXPECT_EQ(format.height, kHeight);
}

TEST_P(VividTest, BuffersAreMappedAndExported) {
    FdLeakCheck leaks;
    {
        V4l2VideoDevice device(node_);
        Prepare(device, V4L2_PIX_FMT_YUYV);
        EXPECT_EQ(device.NumBuffers(), 3u);
        EXPECT_EQ(device.NumPlanes(), 1u);
        std::set<int> fds;
        std::vector<std::unique_ptr<V4l2Buffer>> held;
        while (auto buffer = device.GetBuffer()) {
            EXPECT_NE(buffer->GetPtr(0), nullptr);
            EXPECT_GE(buffer->GetLength(0), size_t{kWidth} * kHeight * 2);
            EXPECT_GE(buffer->GetDmaFd(0), 0);
            fds.insert(buffer->GetDmaFd(0));
            /* The exported dma-buf is the same memory as the node's mapping. */
            void* view = mmap(nullptr, buffer->GetLength(0), PROT_READ | PROT_WRITE, MAP_SHARED,
                              buffer->GetDmaFd(0), 0);
            ASSERT_NE(view, MAP_FAILED) << strerror(errno);
            static_cast<uint8_t*>(buffer->GetPtr(0))[100] = 0xA5;
            EXPECT_EQ(static_cast<uint8_t*>(view)[100], 0xA5);
            munmap(view, buffer->GetLength(0));
            held.push_back(std::move(buffer));
        }
        EXPECT_EQ(held.size(), 3u);
        EXPECT_EQ(fds.size(), 3u);
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST_P(VividTest, ExportNeedsBuffersTheDeviceHolds) {
    V4l2VideoDevice device(node_);
    Prepare(device, V4L2_PIX_FMT_YUYV);
    /* Requesting again discards the exported buffers; without a query nothing is held. */
    ASSERT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 3);
    EXPECT_EQ(device.ExportBuffers(), 0);
    EXPECT_EQ(device.GetBuffer(), nullptr);
    /* Zero buffers frees the driver's queue. */
    EXPECT_EQ(device.ReqBuffer(0, V4L2_MEMORY_MMAP), 0);
    EXPECT_EQ(device.QueryBuffer(), 0);
}

TEST_P(VividTest, StreamingDeliversSequencedTimestampedColourBars) {
    FdLeakCheck leaks;
    {
        V4l2VideoDevice device(node_);
        Prepare(device, V4L2_PIX_FMT_YUYV);
        while (auto buffer = device.GetBuffer())
            ASSERT_EQ(device.QueueBuffer(std::move(buffer)), 0);
        ASSERT_EQ(device.StreamOn(), 0);
        uint64_t started = MonotonicNs();
        uint64_t previous = 0;
        uint32_t sequence = 0;
        for (uint32_t frame = 0; frame < 8; ++frame) {
            std::unique_ptr<V4l2Buffer> buffer = device.DequeBuffer();
            ASSERT_NE(buffer, nullptr);
            /*
             * The driver's count from 0. vivid counts frames by the time
             * since stream-on: a frame its thread was late for on the busy
             * emulated machine, or had no free buffer for, is skipped in
             * the count, never repeated.
             */
            if (frame > 0) {
                EXPECT_GT(buffer->GetSequence(), sequence);
            }
            sequence = buffer->GetSequence();
            uint64_t timestamp = buffer->GetTimestamp();
            /*
             * Monotonic clock stamps near now. vivid stamps a frame with the
             * time its schedule gives it, which may lie a few milliseconds
             * after the moment it is dequeued.
             */
            EXPECT_GT(timestamp, started - 1000000000ull);
            EXPECT_LE(timestamp, MonotonicNs() + 100000000ull);
            EXPECT_GT(timestamp, previous);
            previous = timestamp;
            const v4l2_buffer* record = buffer->GetBuffer();
            /* Multi-planar sizes are in the plane records, which the buffer keeps. */
            if (MultiPlanar()) {
                ASSERT_EQ(record->m.planes, buffer->plane_records);
                ASSERT_EQ(record->length, 1u);
                EXPECT_EQ(record->m.planes[0].bytesused, kWidth * kHeight * 2);
                EXPECT_EQ(record->m.planes[0].length, buffer->GetLength(0));
            } else {
                EXPECT_EQ(record->bytesused, kWidth * kHeight * 2);
            }
            EXPECT_TRUE(record->flags & V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
            if (frame == 7) {
                marlo_vm::Image image{static_cast<const uint8_t*>(buffer->GetPtr(0)), FOURCC_YUYV,
                                      kWidth, kHeight, kWidth};
                EXPECT_EQ(marlo_vm::CheckColourBars(image, {kWidth, 0, 0, 0}), "");
            }
            ASSERT_EQ(device.QueueBuffer(std::move(buffer)), 0);
        }
        EXPECT_LE(sequence, 7u + 4u) << "more than four frames skipped in eight";
        ASSERT_EQ(device.StreamOff(), 0);
        /* Stream off hands every buffer back. */
        int unqueued = 0;
        std::vector<std::unique_ptr<V4l2Buffer>> held;
        while (auto buffer = device.GetBuffer()) {
            EXPECT_FALSE(buffer->IsQueued());
            held.push_back(std::move(buffer));
            ++unqueued;
        }
        EXPECT_EQ(unqueued, 3);
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST_P(VividTest, NonBlockingDequeueWithoutAFrameIsEmpty) {
    V4l2VideoDevice device(node_);
    ASSERT_EQ(device.Open(false), 0);
    ASSERT_EQ(device.QueryCap(), 0);
    ASSERT_EQ(device.SetFormat(kWidth, kHeight, V4L2_PIX_FMT_YUYV), 0);
    ASSERT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 3);
    ASSERT_EQ(device.QueryBuffer(), 0);
    LogCapture log;
    /* Not streaming: vb2 refuses the dequeue at once. */
    EXPECT_EQ(device.DequeBuffer(), nullptr);
    EXPECT_TRUE(log.containsText("deque bufffer ret")) << log.dump();
}

/*
 * What an epoll loop sees from a vb2 capture node: an error while the
 * queue is not streaming, readable once a frame is done. A loop that
 * registers the node before stream-on must not treat the error as a frame.
 */
TEST_P(VividTest, PollReportsAnErrorUntilStreaming) {
    V4l2VideoDevice device(node_);
    Prepare(device, V4L2_PIX_FMT_YUYV);
    tessaro::marlo::UniqueFd epoll(epoll_create1(EPOLL_CLOEXEC));
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = device.Fd();
    ASSERT_EQ(epoll_ctl(epoll.get(), EPOLL_CTL_ADD, device.Fd(), &event), 0);
    epoll_event ready = {};
    ASSERT_EQ(epoll_wait(epoll.get(), &ready, 1, 0), 1);
    EXPECT_TRUE(ready.events & EPOLLERR);
    EXPECT_FALSE(ready.events & EPOLLIN);

    while (auto buffer = device.GetBuffer())
        ASSERT_EQ(device.QueueBuffer(std::move(buffer)), 0);
    ASSERT_EQ(device.StreamOn(), 0);
    ASSERT_EQ(epoll_wait(epoll.get(), &ready, 1, 5000), 1);
    EXPECT_TRUE(ready.events & EPOLLIN);
    EXPECT_FALSE(ready.events & EPOLLERR);
    ASSERT_EQ(device.StreamOff(), 0);
}

TEST_P(VividTest, CameraRunStates) {
    FdLeakCheck leaks;
    {
        V4l2Camera camera(node_);
        EXPECT_EQ(camera.State(), 0u);
        ASSERT_TRUE(camera.OpenCamera(kWidth, kHeight, V4L2_PIX_FMT_NV12));
        EXPECT_EQ(camera.State(), 0u);
        EXPECT_GE(camera.Fd(), 0);

        /* Stop before any start touches nothing. */
        camera.StopVideoStream();
        EXPECT_EQ(camera.State(), 0u);

        ASSERT_EQ(camera.StartVideoStream(), 0);
        EXPECT_EQ(camera.State(), V4l2Camera::kRunning);
        {
            LogCapture log;
            EXPECT_EQ(camera.StartVideoStream(), -2);
            EXPECT_TRUE(log.containsText("Already in RUN state")) << log.dump();
        }
        for (uint32_t frame = 0; frame < 4; ++frame) {
            std::unique_ptr<V4l2Buffer> buffer = camera.CollectFrames();
            ASSERT_NE(buffer, nullptr);
            EXPECT_EQ(buffer->GetSequence(), frame);
            marlo_vm::Image image{static_cast<const uint8_t*>(buffer->GetPtr(0)), FOURCC_NV12,
                                  kWidth, kHeight, kWidth};
            if (frame == 3) {
                EXPECT_EQ(marlo_vm::CheckColourBars(image, {kWidth, 0, 0, 0}), "");
            }
            EXPECT_EQ(camera.ReturnFrame(std::move(buffer)), 0);
        }
        /* A frame held over the stop goes back once returned. */
        std::unique_ptr<V4l2Buffer> held = camera.CollectFrames();
        ASSERT_NE(held, nullptr);
        camera.StopVideoStream();
        EXPECT_EQ(camera.State(), 0u);
        camera.StopVideoStream();
        EXPECT_EQ(camera.State(), 0u);

        /* A second run starts from sequence 0 with the two buffers the camera holds. */
        ASSERT_EQ(camera.StartVideoStream(), 0);
        std::unique_ptr<V4l2Buffer> first = camera.CollectFrames();
        ASSERT_NE(first, nullptr);
        EXPECT_EQ(first->GetSequence(), 0u);
        EXPECT_EQ(camera.ReturnFrame(std::move(held)), 0);
        EXPECT_EQ(camera.ReturnFrame(std::move(first)), 0);
        std::unique_ptr<V4l2Buffer> next = camera.CollectFrames();
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(next->GetSequence(), 1u);
        EXPECT_EQ(camera.ReturnFrame(std::move(next)), 0);
        camera.StopVideoStream();
        camera.shutdown();
        EXPECT_LT(camera.Fd(), 0);
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST_P(VividTest, CameraOpenFailsOnANodeThatIsNotThere) {
    LogCapture log;
    V4l2Camera camera("/dev/video-none");
    EXPECT_FALSE(camera.OpenCamera(kWidth, kHeight, V4L2_PIX_FMT_NV12));
    EXPECT_TRUE(log.containsText("Failed to open a video deivce")) << log.dump();
}

INSTANTIATE_TEST_SUITE_P(Vivid, VividTest,
                         testing::Values(Vivid::kSinglePlanar, Vivid::kMultiPlanar),
                         [](const testing::TestParamInfo<Vivid>& info) {
                             return info.param == Vivid::kSinglePlanar ? "SinglePlanar"
                                                                       : "MultiPlanar";
                         });

/* Two-plane NV12 on the multi-planar instance: each plane's bytesused is the driver's. */
TEST(VividMultiPlanar, EachPlanesBytesUsedIsKeptAfterTheDequeue) {
    std::string node = marlo_vm::VividCaptureNode(Vivid::kMultiPlanar);
    ASSERT_FALSE(node.empty());
    ASSERT_GT(marlo_vm::SetFrameRate(node, 30), 0.0);
    FdLeakCheck leaks;
    {
        V4l2VideoDevice device(node);
        ASSERT_EQ(device.Open(true), 0);
        ASSERT_EQ(device.QueryCap(), 0);
        ASSERT_EQ(device.SetFormat(kWidth, kHeight, V4L2_PIX_FMT_NV12M), 0);
        ASSERT_EQ(device.NumPlanes(), 2u);
        ASSERT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 3);
        ASSERT_EQ(device.QueryBuffer(), 0);
        while (auto buffer = device.GetBuffer())
            ASSERT_EQ(device.QueueBuffer(std::move(buffer)), 0);
        ASSERT_EQ(device.StreamOn(), 0);
        std::vector<std::unique_ptr<V4l2Buffer>> held;
        for (int frame = 0; frame < 2; ++frame) {
            held.push_back(device.DequeBuffer());
            ASSERT_NE(held.back(), nullptr);
        }
        /* Read after a later dequeue: the records are the buffers' own. */
        for (const auto& buffer : held) {
            const v4l2_buffer* record = buffer->GetBuffer();
            ASSERT_EQ(record->m.planes, buffer->plane_records);
            ASSERT_EQ(record->length, 2u);
            EXPECT_EQ(record->m.planes[0].bytesused, kWidth * kHeight);
            EXPECT_EQ(record->m.planes[1].bytesused, kWidth * kHeight / 2);
            EXPECT_EQ(record->m.planes[1].length, buffer->GetLength(1));
        }
        for (auto& buffer : held)
            ASSERT_EQ(device.QueueBuffer(std::move(buffer)), 0);
        ASSERT_EQ(device.StreamOff(), 0);
    }
    EXPECT_TRUE(leaks.unchanged());
}

/* A module reload takes the nodes away and brings fresh ones that stream. */
TEST(VividReload, NodesComeBackAndStream) {
    ASSERT_TRUE(marlo_vm::ReloadModule("vivid")) << strerror(errno);
    std::string node;
    for (int tries = 0; tries < 100 && node.empty(); ++tries) {
        node = marlo_vm::VividCaptureNode(Vivid::kSinglePlanar);
        if (node.empty())
            usleep(20000);
    }
    ASSERT_FALSE(node.empty());
    ASSERT_FALSE(marlo_vm::VividCaptureNode(Vivid::kMultiPlanar).empty());
    ASSERT_TRUE(marlo_vm::ShowPlainColourBars(node));
    ASSERT_GT(marlo_vm::SetFrameRate(node, 30), 0.0);
    V4l2Camera camera(node);
    ASSERT_TRUE(camera.OpenCamera(kWidth, kHeight, V4L2_PIX_FMT_YUYV));
    ASSERT_EQ(camera.StartVideoStream(), 0);
    std::unique_ptr<V4l2Buffer> buffer = camera.CollectFrames();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetSequence(), 0u);
    EXPECT_EQ(camera.ReturnFrame(std::move(buffer)), 0);
    camera.StopVideoStream();
}

}  // namespace
