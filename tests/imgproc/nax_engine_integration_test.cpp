/*
 * The operator driving the software engine library of this repository, the
 * way the camera uses it: handle cache off, every job importing and
 * releasing its buffers again.
 */
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "marlo/base/error.h"
#include "marlo/base/unique_fd.h"
#include "marlo/imgproc/nax_image_operator.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;

namespace {

/* An image in a memory file, as a dma-buf would hold it. */
class MemImage {
  public:
    MemImage(int width, int height, int format, size_t size)
        : fd_(memfd_create("nax-image", MFD_CLOEXEC)), size_(size) {
        buffer_ = ImageBuffer{0, 0, 0, -1, width, height, width, height, format};
        if (!fd_ || ftruncate(fd_.get(), static_cast<off_t>(size)) != 0)
            return;
        void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(), 0);
        if (map == MAP_FAILED)
            return;
        data_ = static_cast<uint8_t*>(map);
        buffer_.fd = fd_.get();
    }
    ~MemImage() {
        if (data_)
            munmap(data_, size_);
    }
    MemImage(const MemImage&) = delete;
    MemImage& operator=(const MemImage&) = delete;

    bool valid() const { return data_ != nullptr; }
    uint8_t* data() { return data_; }
    ImageBuffer& buffer() { return buffer_; }

  private:
    UniqueFd fd_;
    size_t size_;
    uint8_t* data_ = nullptr;
    ImageBuffer buffer_;
};

constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr size_t kNv12Size = kWidth * kHeight * 3 / 2;

void FillNv12(MemImage& image) {
    uint8_t* y = image.data();
    for (int row = 0; row < kHeight; ++row)
        for (int col = 0; col < kWidth; ++col)
            y[row * kWidth + col] = static_cast<uint8_t>(16 + (row * 3 + col) % 200);
    memset(y + kWidth * kHeight, 128, kWidth * kHeight / 2);
}

class NaxEngineTest : public ::testing::Test {
  protected:
    void SetUp() override {
        bool off = false;
        ASSERT_EQ(op_.control("SetCacheHandle", &off), ERR_NOT_IMPLEMENTED);
        ASSERT_TRUE(src_.valid());
        FillNv12(src_);
    }

    NaxImageOperator op_;
    MemImage src_{kWidth, kHeight, V4L2_PIX_FMT_NV12, kNv12Size};
    ImageBuffer noPattern_{0, 0, 0, -1, 0, 0, 0, 0, 0};
    ImageRect whole_{0, 0, 0, 0};
};

TEST_F(NaxEngineTest, EngineIsLoadedWithEveryEntry) {
    marlo_test::LogCapture log;
    NaxImageOperator another;
    int fence = -1;
    MemImage dst(kWidth, kHeight, V4L2_PIX_FMT_NV12, kNv12Size);
    ASSERT_TRUE(dst.valid());
    EXPECT_EQ(another.copy(src_.buffer(), dst.buffer(), 1, &fence), OK);
    EXPECT_FALSE(log.containsText("Not implemented")) << log.dump();
    EXPECT_FALSE(log.containsText("Failed to")) << log.dump();
}

TEST_F(NaxEngineTest, ProcessCopiesAFrameSynchronously) {
    MemImage dst(kWidth, kHeight, V4L2_PIX_FMT_NV12, kNv12Size);
    ASSERT_TRUE(dst.valid());
    int fence = -1;
    EXPECT_EQ(
        op_.process(src_.buffer(), dst.buffer(), noPattern_, whole_, whole_, whole_, 1, &fence, 0),
        OK);
    EXPECT_EQ(memcmp(src_.data(), dst.data(), kNv12Size), 0);
}

TEST_F(NaxEngineTest, AsynchronousProcessIsWaitedForWithSync) {
    MemImage dst(kWidth, kHeight, V4L2_PIX_FMT_NV12, kNv12Size);
    ASSERT_TRUE(dst.valid());
    int fence = -1;
    EXPECT_EQ(
        op_.process(src_.buffer(), dst.buffer(), noPattern_, whole_, whole_, whole_, 0, &fence, 0),
        OK);
    EXPECT_EQ(op_.sync(fence), OK);
    EXPECT_EQ(memcmp(src_.data(), dst.data(), kNv12Size), 0);
}

TEST_F(NaxEngineTest, ProcessToGreyKeepsTheLumaPlane) {
    MemImage dst(kWidth, kHeight, V4L2_PIX_FMT_GREY, kWidth * kHeight);
    ASSERT_TRUE(dst.valid());
    int fence = -1;
    EXPECT_EQ(
        op_.process(src_.buffer(), dst.buffer(), noPattern_, whole_, whole_, whole_, 1, &fence, 0),
        OK);
    EXPECT_EQ(memcmp(src_.data(), dst.data(), kWidth * kHeight), 0);
}

TEST_F(NaxEngineTest, RepeatedFramesLeakNoDescriptorAndNoHandle) {
    MemImage dst(kWidth, kHeight, V4L2_PIX_FMT_NV12, kNv12Size);
    ASSERT_TRUE(dst.valid());
    marlo_test::LogCapture log;
    marlo_test::FdLeakCheck fds;
    for (int frame = 0; frame < 50; ++frame) {
        src_.data()[0] = static_cast<uint8_t>(frame);
        int fence = -1;
        ASSERT_EQ(op_.process(src_.buffer(), dst.buffer(), noPattern_, whole_, whole_, whole_, 0,
                              &fence, 0),
                  OK);
        ASSERT_EQ(op_.sync(fence), OK);
        ASSERT_EQ(dst.data()[0], static_cast<uint8_t>(frame));
    }
    EXPECT_TRUE(fds.unchanged());
    EXPECT_FALSE(log.containsText("import NAX handle failed")) << log.dump();
}

/*
 * 32-bit clients get the bytes V4L2 defines for their format: "AR24"
 * (ABGR32) is B,G,R,A and "RA24" (BGRA32) is A,B,G,R in memory. (The
 * operator has no engine format for the X variants.)
 */
struct ClientLayout {
    uint32_t fourcc;
    const char* bytes;
};

const ClientLayout kClientLayouts[] = {
    {V4L2_PIX_FMT_ABGR32, "BGRA"},
    {V4L2_PIX_FMT_BGRA32, "ABGR"},
    {V4L2_PIX_FMT_RGBA32, "RGBA"},
};

constexpr size_t kRgb32Size = kWidth * kHeight * 4;

/* The channel of an R,G,B,A pixel that byte i of a layout holds; -1 for X. */
int ChannelAt(const char* bytes, int i) {
    switch (bytes[i]) {
        case 'R':
            return 0;
        case 'G':
            return 1;
        case 'B':
            return 2;
        case 'A':
            return 3;
        default:
            return -1;
    }
}

std::string FourccName(uint32_t fourcc) {
    return std::string{static_cast<char>(fourcc & 0xFF), static_cast<char>((fourcc >> 8) & 0xFF),
                       static_cast<char>((fourcc >> 16) & 0xFF),
                       static_cast<char>((fourcc >> 24) & 0xFF)};
}

TEST_F(NaxEngineTest, RgbaFrameReachesEachClientInItsByteOrder) {
    MemImage rgba(kWidth, kHeight, V4L2_PIX_FMT_RGBA32, kRgb32Size);
    ASSERT_TRUE(rgba.valid());
    const uint8_t pixel[4] = {0x11, 0x22, 0x33, 0x44}; /* R, G, B, A */
    for (size_t i = 0; i < kRgb32Size; i += 4)
        memcpy(rgba.data() + i, pixel, 4);
    for (const ClientLayout& l : kClientLayouts) {
        SCOPED_TRACE(FourccName(l.fourcc));
        MemImage dst(kWidth, kHeight, static_cast<int>(l.fourcc), kRgb32Size);
        ASSERT_TRUE(dst.valid());
        memset(dst.data(), 0, kRgb32Size);
        int fence = -1;
        ASSERT_EQ(op_.process(rgba.buffer(), dst.buffer(), noPattern_, whole_, whole_, whole_, 1,
                              &fence, 0),
                  OK);
        for (size_t p = 0; p < kRgb32Size; p += 4) {
            for (int i = 0; i < 4; ++i) {
                const int c = ChannelAt(l.bytes, i);
                if (c >= 0) {
                    ASSERT_EQ(pixel[c], dst.data()[p + i]) << "pixel " << p / 4 << " byte " << i;
                }
            }
        }
    }
}

TEST_F(NaxEngineTest, Nv12FrameReachesEachClientInItsByteOrder) {
    /* BT.601 limited-range red: Y 82, Cb 90, Cr 240 is R 255, G 0, B 0. */
    memset(src_.data(), 82, kWidth * kHeight);
    for (size_t i = 0; i < kWidth * kHeight / 2; i += 2) {
        src_.data()[kWidth * kHeight + i] = 90;
        src_.data()[kWidth * kHeight + i + 1] = 240;
    }
    const int red[4] = {255, 0, 0, 255};
    for (const ClientLayout& l : kClientLayouts) {
        SCOPED_TRACE(FourccName(l.fourcc));
        MemImage dst(kWidth, kHeight, static_cast<int>(l.fourcc), kRgb32Size);
        ASSERT_TRUE(dst.valid());
        memset(dst.data(), 0x80, kRgb32Size);
        int fence = -1;
        ASSERT_EQ(op_.process(src_.buffer(), dst.buffer(), noPattern_, whole_, whole_, whole_, 0,
                              &fence, 0),
                  OK);
        ASSERT_EQ(op_.sync(fence), OK);
        for (size_t p = 0; p < kRgb32Size; p += 4) {
            for (int i = 0; i < 4; ++i) {
                const int c = ChannelAt(l.bytes, i);
                if (c >= 0) {
                    ASSERT_NEAR(red[c], dst.data()[p + i], 3) << "pixel " << p / 4 << " byte " << i;
                }
            }
        }
    }
}

/* A memory file the test never maps: every mapping of its name is the engine's. */
class UnmappedImage {
  public:
    UnmappedImage(const std::string& name, size_t size)
        : name_(name), fd_(memfd_create(name.c_str(), MFD_CLOEXEC)) {
        if (fd_ && ftruncate(fd_.get(), static_cast<off_t>(size)) == 0)
            buffer_ = ImageBuffer{0,         0,       0,
                                  fd_.get(), kWidth,  kHeight,
                                  kWidth,    kHeight, static_cast<int32_t>(V4L2_PIX_FMT_NV12)};
    }
    bool valid() const { return buffer_.fd >= 0; }
    ImageBuffer& buffer() { return buffer_; }
    const std::string& name() const { return name_; }

  private:
    std::string name_;
    UniqueFd fd_;
    ImageBuffer buffer_{0, 0, 0, -1, 0, 0, 0, 0, 0};
};

/* The start addresses of the mappings of a memory file of this name. */
std::vector<std::string> MappingsOf(const std::string& name) {
    std::ifstream maps("/proc/self/maps");
    std::vector<std::string> starts;
    const std::string needle = "/memfd:" + name + " ";
    for (std::string line; std::getline(maps, line);) {
        if (line.find(needle) != std::string::npos)
            starts.push_back(line.substr(0, line.find('-')));
    }
    return starts;
}

/* Resident kilobytes of the one mapping of a memory file of this name. */
long ResidentKilobytesOf(const std::string& name) {
    std::ifstream smaps("/proc/self/smaps");
    const std::string needle = "/memfd:" + name + " ";
    bool inside = false;
    for (std::string line; std::getline(smaps, line);) {
        if (line.find(needle) != std::string::npos) {
            inside = true;
        } else if (inside && line.rfind("Rss:", 0) == 0) {
            std::istringstream fields(line.substr(4));
            long kilobytes = -1;
            fields >> kilobytes;
            return kilobytes;
        }
    }
    return -1;
}

/* More buffers than the engine keeps idle mappings of (128), each imported
 * and released by every job, as the camera does. */
constexpr int kManyBuffers = 160;

std::vector<std::unique_ptr<UnmappedImage>> ManyBuffers(const std::string& prefix) {
    std::vector<std::unique_ptr<UnmappedImage>> images;
    for (int i = 0; i < kManyBuffers; ++i)
        images.push_back(std::make_unique<UnmappedImage>(prefix + std::to_string(i), kNv12Size));
    return images;
}

/* Whether \a name has no mapping left within a second: the engine's own
 * thread unmaps idle mappings past its bound, just after the call that
 * made them too many. */
bool UnmappedSoon(const std::string& name) {
    for (int i = 0; i < 200 && !MappingsOf(name).empty(); i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    return MappingsOf(name).empty();
}

void CopyInto(NaxImageOperator& op, ImageBuffer& src, UnmappedImage& dst) {
    ImageBuffer noPattern{0, 0, 0, -1, 0, 0, 0, 0, 0};
    ImageRect whole{0, 0, 0, 0};
    int fence = -1;
    op.process(src, dst.buffer(), noPattern, whole, whole, whole, 0, &fence, 0);
}

TEST_F(NaxEngineTest, HeldBuffersStayMappedAtAnyNumberOfBuffers) {
    auto images = ManyBuffers("marlo-held-");
    std::vector<NaxBufferHold> holds;
    for (auto& image : images) {
        ASSERT_TRUE(image->valid());
        holds.push_back(op_.holdBuffer(image->buffer()));
        ASSERT_TRUE(holds.back().isValid());
    }
    std::vector<std::vector<std::string>> held;
    for (auto& image : images) {
        held.push_back(MappingsOf(image->name()));
        ASSERT_EQ(held.back().size(), 1u) << image->name();
    }
    for (int round = 0; round < 3; ++round) {
        for (auto& image : images)
            CopyInto(op_, src_.buffer(), *image);
    }
    /* Each still has the one mapping it got when it was held. */
    for (size_t i = 0; i < images.size(); ++i)
        EXPECT_EQ(MappingsOf(images[i]->name()), held[i]) << images[i]->name();
}

TEST_F(NaxEngineTest, WithoutHoldsTheOldestOfManyBuffersAreUnmapped) {
    auto images = ManyBuffers("marlo-unheld-");
    for (auto& image : images) {
        ASSERT_TRUE(image->valid());
        CopyInto(op_, src_.buffer(), *image);
    }
    /* Only the idle cache keeps them: the first ones went for the last. */
    EXPECT_TRUE(UnmappedSoon(images.front()->name()));
    EXPECT_EQ(MappingsOf(images.back()->name()).size(), 1u);
}

TEST_F(NaxEngineTest, AHoldFaultsThePagesInAtOnce) {
    constexpr size_t kSize = 1 << 20;
    UnmappedImage image("marlo-prefault", kSize);
    ASSERT_TRUE(image.valid());
    NaxBufferHold hold = op_.holdBuffer(image.buffer());
    ASSERT_TRUE(hold.isValid());
    EXPECT_EQ(ResidentKilobytesOf("marlo-prefault"), static_cast<long>(kSize / 1024));
}

TEST_F(NaxEngineTest, DroppingTheLastHoldLetsTheEngineDropTheMapping) {
    auto images = ManyBuffers("marlo-dropped-");
    std::vector<NaxBufferHold> holds;
    for (auto& image : images)
        holds.push_back(op_.holdBuffer(image->buffer()));
    ASSERT_EQ(MappingsOf(images.front()->name()).size(), 1u);
    holds.clear();
    /* Idle now, and more of them than the engine keeps idle. */
    EXPECT_TRUE(UnmappedSoon(images.front()->name()));
    /* A job still imports a buffer that is no longer held, as before. */
    CopyInto(op_, src_.buffer(), *images.front());
    EXPECT_EQ(MappingsOf(images.front()->name()).size(), 1u);
}

}  // namespace
