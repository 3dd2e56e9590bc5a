/*
 * The whole stream road on real drivers: three clients of one vivid camera
 * lend DmaFrameBuffers over vgem PRIME buffers in different formats, sizes,
 * crops and rotations; every buffer they receive is checked against vivid's
 * colour bars; then they stop and close, and no descriptor is left.
 */
#include <android/sync.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <nax/nax.h>
#include <string.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <marlo/base/unique_fd.h>
#include <marlo/buffer/drm_device.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/buffer/pixel_format.h>
#include <marlo/stream/v4l2_stream.h>

#include "support/colour_bars.h"
#include "support/drm_cards.h"
#include "support/fd_count.h"
#include "support/vivid.h"

using namespace tessaro::marlo;
using marlo_vm::Vivid;
using FrameSet = std::vector<std::shared_ptr<FrameBuffer>>;

namespace {

constexpr uint32_t kWidth = 640;
constexpr uint32_t kHeight = 480;
constexpr int kFrames = 8;

/* One buffer of a client's set: its size, format and what it shows of the frame. */
struct BufferLayout {
    uint32_t width;
    uint32_t height;
    FourccFormat fourcc;
    /* Bits of one plane-0 sample, as the dumb buffer is asked for. */
    unsigned bpp;
    FrameBufferRect crop;
    uint32_t transform;
};

/* A client of the camera that keeps the last set it received and hands back the one before. */
class RoadClient {
  public:
    RoadClient(int id, std::vector<BufferLayout> layouts) : id_(id), layouts_(std::move(layouts)) {}

    int id() const { return id_; }
    const std::vector<BufferLayout>& layouts() const { return layouts_; }
    V4l2Stream& stream() { return stream_; }

    /* Two sets of vgem buffers, the first lent, the second returned behind it. */
    bool Lend(DrmDevice& vgem) {
        for (int set = 0; set < 2; ++set) {
            FrameSet buffers;
            for (size_t b = 0; b < layouts_.size(); ++b) {
                std::shared_ptr<FrameBuffer> buffer = MakeBuffer(vgem, layouts_[b]);
                if (!buffer)
                    return false;
                buffer->SetCookies(static_cast<unsigned long>(id_ * 100 + set * 10 + b));
                buffers.push_back(buffer);
            }
            sets_.push_back(buffers);
        }
        return stream_.ClientSetBufferInfo(sets_[0]) == 0 &&
               stream_.ClientReturnFrame(sets_[1]) == 0;
    }

    int Start() {
        return stream_.ClientStartStream([this](FrameSet set) { OnFrame(std::move(set)); });
    }

    bool WaitForFrames(int count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, std::chrono::seconds(60), [&] { return frames_ >= count; });
    }

    /* After the stop: the set kept last, the sequences and timestamps seen. */
    FrameSet kept() {
        std::lock_guard<std::mutex> lock(mutex_);
        return kept_;
    }
    std::vector<uint32_t> sequences() {
        std::lock_guard<std::mutex> lock(mutex_);
        return sequences_;
    }
    std::vector<uint64_t> timestamps() {
        std::lock_guard<std::mutex> lock(mutex_);
        return timestamps_;
    }

    void ForgetBuffers() {
        std::lock_guard<std::mutex> lock(mutex_);
        kept_.clear();
        sets_.clear();
    }

  private:
    static std::shared_ptr<FrameBuffer> MakeBuffer(DrmDevice& vgem, const BufferLayout& layout) {
        DrmDumbObject object =
            vgem.CreateDumbObject(layout.width, layout.height, layout.fourcc, layout.bpp);
        if (object.handle == 0 || object.fd <= 0)
            return nullptr;
        FrameBufferInfo info;
        info.fourcc = layout.fourcc;
        info.width = layout.width;
        info.height = layout.height;
        info.stride = object.pitch * 8 / layout.bpp;
        info.size = static_cast<uint32_t>(object.size);
        info.sourceCrop = layout.crop;
        info.transform = layout.transform;
        auto buffer = std::make_shared<DmaFrameBuffer>(nullptr, info, object.fd);
        /* The dma-buf keeps the memory; the handle is not needed any more. */
        vgem.DestroyDumbObject(object.handle);
        return buffer;
    }

    void OnFrame(FrameSet set) {
        if (set.empty())
            return;
        FrameSet previous;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            sequences_.push_back(set[0]->sequence());
            timestamps_.push_back(set[0]->timestamp());
            previous = std::move(kept_);
            kept_ = std::move(set);
            ++frames_;
        }
        cond_.notify_all();
        if (!previous.empty())
            stream_.ClientReturnFrame(previous);
    }

    int id_;
    std::vector<BufferLayout> layouts_;
    std::vector<FrameSet> sets_;
    std::mutex mutex_;
    std::condition_variable cond_;
    int frames_ = 0;
    FrameSet kept_;
    std::vector<uint32_t> sequences_;
    std::vector<uint64_t> timestamps_;
    /* Last: closed before the buffers go. */
    V4l2Stream stream_;
};

class StreamRoadTest : public testing::TestWithParam<Vivid> {};

TEST_P(StreamRoadTest, ThreeClientsOverVgemBuffersSeeTheColourBars) {
    std::string node = marlo_vm::VividCaptureNode(GetParam());
    ASSERT_FALSE(node.empty());
    ASSERT_TRUE(marlo_vm::ShowPlainColourBars(node));
    /* The library leaves the frame interval alone; ask for 30 fps before it starts. */
    ASSERT_GT(marlo_vm::SetFrameRate(node, 30), 0.0);

    marlo_test::FdLeakCheck leaks;
    {
        DrmDevice vgem(marlo_vm::OpenDrmCard("vgem"));
        ASSERT_GE(vgem.fd(), 0) << "no vgem card";
        const FrameBufferRect whole = {0, 0, 0, 0};
        const FrameBufferRect middle = {160, 120, 320, 240};
        std::vector<std::unique_ptr<RoadClient>> clients;
        clients.push_back(std::make_unique<RoadClient>(
            10, std::vector<BufferLayout>{
                    {kWidth, kHeight, FOURCC_NV12, 8, whole, 0},
                    {320, 240, FOURCC_YUYV, 8, whole, NAX_TRANSFORM_ROT_180},
                }));
        clients.push_back(std::make_unique<RoadClient>(
            11, std::vector<BufferLayout>{
                    {320, 240, FOURCC_AR24, 32, middle, 0},
                    {160, 120, FOURCC_NV12, 8, middle, NAX_TRANSFORM_FLIP_H},
                }));
        clients.push_back(std::make_unique<RoadClient>(
            12, std::vector<BufferLayout>{
                    {240, 320, FOURCC_AB24, 32, whole, NAX_TRANSFORM_ROT_90},
                    {120, 160, FOURCC_NV12, 8, whole, NAX_TRANSFORM_ROT_270},
                }));

        for (auto& client : clients) {
            ASSERT_EQ(client->stream().OpenCamera(client->id(), node, kWidth, kHeight, FOURCC_YUYV),
                      0);
            ASSERT_TRUE(client->Lend(vgem)) << "client " << client->id();
        }
        for (auto& client : clients)
            ASSERT_EQ(client->Start(), 0);
        for (auto& client : clients)
            EXPECT_TRUE(client->WaitForFrames(kFrames)) << "client " << client->id();
        for (auto& client : clients)
            client->stream().ClientStopStream();

        for (auto& client : clients) {
            SCOPED_TRACE("client " + std::to_string(client->id()));
            std::vector<uint32_t> sequences = client->sequences();
            std::vector<uint64_t> timestamps = client->timestamps();
            ASSERT_GE(sequences.size(), static_cast<size_t>(kFrames));
            std::string seen;
            for (size_t i = 0; i < sequences.size(); ++i)
                seen += " " + std::to_string(sequences[i]) + "@" + std::to_string(timestamps[i]);
            /*
             * In order, one set per frame. Under emulation vivid's capture
             * thread may wake before its next frame is due and number two
             * frames alike, so equal neighbours are allowed.
             */
            for (size_t i = 1; i < sequences.size(); ++i) {
                EXPECT_GE(sequences[i], sequences[i - 1]) << seen;
                EXPECT_GE(timestamps[i], timestamps[i - 1]) << seen;
            }
            EXPECT_GT(sequences.back(), sequences.front()) << seen;
            FrameSet set = client->kept();
            ASSERT_EQ(set.size(), client->layouts().size());
            for (size_t b = 0; b < set.size(); ++b) {
                const BufferLayout& layout = client->layouts()[b];
                FrameBuffer& buffer = *set[b];
                SCOPED_TRACE("buffer " + std::to_string(b));
                EXPECT_EQ(buffer.sequence(), sequences.back());
                EXPECT_EQ(buffer.timestamp(), timestamps.back());
                if (buffer.fence() >= 0) {
                    ASSERT_EQ(sync_wait(buffer.fence(), 1000), 0);
                }
                void* address = buffer.Map();
                ASSERT_NE(address, nullptr);
                marlo_vm::Image image{static_cast<const uint8_t*>(address), layout.fourcc,
                                      layout.width, layout.height, buffer.stride()};
                marlo_vm::Geometry geometry{kWidth, layout.crop.x, layout.crop.width,
                                            layout.transform};
                EXPECT_EQ(marlo_vm::CheckColourBars(image, geometry), "");
                buffer.UnMap();
            }
        }
        for (auto& client : clients) {
            client->stream().CloseCamera();
            client->ForgetBuffers();
        }
    }
    EXPECT_TRUE(leaks.unchanged());
}

INSTANTIATE_TEST_SUITE_P(Vivid, StreamRoadTest,
                         testing::Values(Vivid::kSinglePlanar, Vivid::kMultiPlanar),
                         [](const testing::TestParamInfo<Vivid>& info) {
                             return info.param == Vivid::kSinglePlanar ? "SinglePlanar"
                                                                       : "MultiPlanar";
                         });

}  // namespace
