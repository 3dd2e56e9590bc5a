/*
 * A capture device that disappears and comes back, on vivid: its
 * "Disconnect" control (as v4l2-compliance unplugs it; vivid connects again
 * when the last user of the instance closes), an unbind and bind of the
 * device, a module reload; a size the driver adjusts; the frame interval
 * the library asks for. Each test prints what it measured.
 */
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <marlo/base/unique_fd.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/buffer/pixel_format.h>
#include <marlo/stream/v4l2_stream.h>

#include "demo_common.h"
#include "support/colour_bars.h"
#include "support/fd_count.h"
#include "support/kernel_modules.h"
#include "support/process_stats.h"
#include "support/stream_event_log.h"
#include "support/vivid.h"

using namespace tessaro::marlo;
using marlo_test::StreamEventLog;
using marlo_vm::Vivid;
using Clock = std::chrono::steady_clock;
using FrameSet = std::vector<std::shared_ptr<FrameBuffer>>;
using namespace std::chrono_literals;

namespace {

constexpr int kWidth = 640;
constexpr int kHeight = 480;
constexpr char kPlatformDevice[] = "vivid.0";

double Ms(Clock::duration duration) {
    return std::chrono::duration<double, std::milli>(duration).count();
}

size_t ThreadCount() {
    size_t count = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir))
            count += entry->d_name[0] != '.';
        closedir(dir);
    }
    return count;
}

/* Waits until the process has no more than \a threads threads: a joined one leaves /proc a moment
 * later. */
bool WaitThreads(size_t threads) {
    auto deadline = Clock::now() + 10s;
    while (ThreadCount() > threads) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

/* A client buffer over a memory file, mapped for the checks. */
class MemoryBuffer {
  public:
    MemoryBuffer(uint32_t width, uint32_t height, FourccFormat fourcc, size_t size) : size_(size) {
        int fd = memfd_create("vm-client", MFD_CLOEXEC);
        if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
            if (fd >= 0)
                close(fd);
            return;
        }
        void* map = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (map == MAP_FAILED) {
            close(fd);
            return;
        }
        data_ = static_cast<uint8_t*>(map);
        FrameBufferInfo info;
        info.fourcc = fourcc;
        info.width = width;
        info.height = height;
        info.stride = width;
        info.size = static_cast<uint32_t>(size);
        buffer_ = std::make_shared<DmaFrameBuffer>(nullptr, info, fd);
    }
    ~MemoryBuffer() {
        if (data_)
            munmap(data_, size_);
    }
    MemoryBuffer(const MemoryBuffer&) = delete;
    MemoryBuffer& operator=(const MemoryBuffer&) = delete;

    const std::shared_ptr<FrameBuffer>& buffer() const { return buffer_; }
    const uint8_t* data() const { return data_; }

  private:
    size_t size_;
    uint8_t* data_ = nullptr;
    std::shared_ptr<FrameBuffer> buffer_;
};

/*
 * One client: two sets of one 320x240 NV12 buffer each, handed straight
 * back, with frame times for the rate. Its stream is declared last, so that
 * it closes before what its callbacks use goes.
 */
class LossClient {
  public:
    explicit LossClient(int id) : id_(id) {
        for (int i = 0; i < 2; ++i)
            buffers_.push_back(
                std::make_unique<MemoryBuffer>(320, 240, FOURCC_NV12, 320 * 240 * 3 / 2));
    }

    /* Opens the camera at \a width x \a height YUYV, lends both sets and starts. */
    bool Start(const std::string& node, float fps = 30.0f, int width = kWidth,
               int height = kHeight) {
        stream_.ClientSetEventListener(events.listener());
        if (stream_.OpenCamera(id_, node, width, height, FOURCC_YUYV) != 0)
            return false;
        if (fps > 0 && stream_.ClientSetFrameRate(fps) != 0)
            return false;
        FrameSet first{buffers_[0]->buffer()};
        FrameSet second{buffers_[1]->buffer()};
        return stream_.ClientSetBufferInfo(first) == 0 && stream_.ClientReturnFrame(second) == 0 &&
               stream_.ClientStartStream([this](FrameSet set) { OnFrame(std::move(set)); }) == 0;
    }

    /* Waits until \a more frames than now have arrived; false after \a limit. */
    bool MoreFrames(int more, std::chrono::milliseconds limit = 20s) {
        std::unique_lock<std::mutex> lock(mutex_);
        int target = frames_ + more;
        return cond_.wait_for(lock, limit, [&] { return frames_ >= target; });
    }
    /* When the next frame arrives after now. */
    Clock::time_point NextFrameTime(std::chrono::milliseconds limit = 20s) {
        std::unique_lock<std::mutex> lock(mutex_);
        int target = frames_ + 1;
        cond_.wait_for(lock, limit, [&] { return frames_ >= target; });
        return last_arrival_;
    }
    /* Frames per second by the capture timestamps of the last \a count frames. */
    double RateByTimestamps(size_t count) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (timestamps_.size() < count || count < 2)
            return 0;
        uint64_t last = timestamps_.back();
        uint64_t first = timestamps_[timestamps_.size() - count];
        return last > first ? (count - 1) * 1e9 / static_cast<double>(last - first) : 0;
    }

    V4l2Stream& stream() { return stream_; }
    const MemoryBuffer& buffer(size_t index) const { return *buffers_[index]; }
    StreamEventLog events{20s};

  private:
    void OnFrame(FrameSet set) {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!set.empty())
                timestamps_.push_back(set[0]->timestamp());
            ++frames_;
            last_arrival_ = Clock::now();
        }
        cond_.notify_all();
        stream_.ClientReturnFrame(set);
    }

    int id_;
    std::vector<std::unique_ptr<MemoryBuffer>> buffers_;
    std::mutex mutex_;
    std::condition_variable cond_;
    int frames_ = 0;
    Clock::time_point last_arrival_;
    std::vector<uint64_t> timestamps_;
    V4l2Stream stream_;
};

/* vivid's single-planar instance, brought back for the next test when one took it away. */
class VividLossTest : public testing::Test {
  protected:
    void SetUp() override {
        node_ = marlo_vm::VividCaptureNode(Vivid::kSinglePlanar);
        ASSERT_FALSE(node_.empty());
        ASSERT_TRUE(marlo_vm::ShowPlainColourBars(node_));
    }
    void TearDown() override {
        if (!restore_)
            return;
        /* Only a released node lets the module go: this checks the library let go too. */
        EXPECT_TRUE(marlo_vm::ReloadModule("vivid")) << strerror(errno);
        EXPECT_TRUE(WaitForNode());
    }

    /* Waits until vivid's capture node is there again; the path it has is in node_. */
    bool WaitForNode(std::chrono::milliseconds limit = 10s) {
        auto deadline = Clock::now() + limit;
        for (;;) {
            std::string node = marlo_vm::VividCaptureNode(Vivid::kSinglePlanar);
            if (!node.empty() && access(node.c_str(), F_OK) == 0) {
                appeared_ = node;
                return true;
            }
            if (Clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(5ms);
        }
    }

    /*
     * Presses vivid's "Disconnect" button: every node of the instance is
     * unregistered. vivid connects them again once their last user closes;
     * the returned descriptor is such a user, so the device stays gone
     * while the test holds it.
     */
    tessaro::marlo::UniqueFd Unplug() {
        tessaro::marlo::UniqueFd fd(open(node_.c_str(), O_RDWR | O_CLOEXEC));
        EXPECT_TRUE(fd.isValid()) << strerror(errno);
        EXPECT_TRUE(marlo_demo::SetControlByName(fd.get(), "Disconnect", 1)) << strerror(errno);
        return fd;
    }

    /* One short stream: what a first use loads and caches stays out of the counts. */
    void WarmUp() {
        LossClient warm(9);
        ASSERT_TRUE(warm.Start(node_));
        ASSERT_TRUE(warm.MoreFrames(2));
        warm.stream().CloseCamera();
        /* The 2D engine drops idle mappings after two seconds. */
        std::this_thread::sleep_for(2500ms);
    }

    std::string node_;
    std::string appeared_;
    bool restore_ = false;
};

}  // namespace

TEST_F(VividLossTest, AnUnplugIsReportedTheIoThreadSleepsAndStopAndCloseArePrompt) {
    WarmUp();
    marlo_test::FdLeakCheck fds;
    size_t mappings = marlo_test::MappingCount();
    size_t threads = ThreadCount();
    tessaro::marlo::UniqueFd holder;
    {
        LossClient a(1), b(2);
        ASSERT_TRUE(a.Start(node_));
        ASSERT_TRUE(b.Start(node_));
        ASSERT_TRUE(a.MoreFrames(5));
        ASSERT_TRUE(b.MoreFrames(5));

        holder = Unplug();
        ASSERT_TRUE(a.events.waitFor(StreamEventType::kDeviceLost)) << a.events.dump();
        ASSERT_TRUE(b.events.waitFor(StreamEventType::kDeviceLost)) << b.events.dump();

        /* The device stays gone: the library retries opening it, and otherwise sleeps. */
        double io = marlo_test::ThreadCpuMs("marlo_io");
        auto from = Clock::now();
        std::this_thread::sleep_for(3s);
        double used = marlo_test::ThreadCpuMs("marlo_io") - io;
        double window = Ms(Clock::now() - from);
        printf(
            "measure: IO thread CPU while the device is gone %.1f ms in %.0f ms (%.2f%% of a "
            "core)\n",
            used, window, 100.0 * used / window);
        EXPECT_LT(used / window, 0.01);
        EXPECT_EQ(a.events.count(StreamEventType::kDeviceRecovered), 0u);

        auto stopped = Clock::now();
        a.stream().ClientStopStream();
        double stopA = Ms(Clock::now() - stopped);
        stopped = Clock::now();
        b.stream().ClientStopStream();
        double stopB = Ms(Clock::now() - stopped);
        auto closed = Clock::now();
        a.stream().CloseCamera();
        double closeA = Ms(Clock::now() - closed);
        closed = Clock::now();
        b.stream().CloseCamera();
        double closeB = Ms(Clock::now() - closed);
        printf("measure: while the device is gone stop %.1f / %.1f ms, close %.1f / %.1f ms\n",
               stopA, stopB, closeA, closeB);
        EXPECT_LT(std::max(stopA, stopB), 100.0);
        EXPECT_LT(std::max(closeA, closeB), 100.0);
    }
    /* Closed last, this lets vivid connect the instance again. */
    holder.reset();
    EXPECT_TRUE(fds.unchanged());
    EXPECT_TRUE(WaitThreads(threads)) << ThreadCount() << " threads, " << threads << " before";
    /* No mapping of the node's buffers or their dma-bufs is left (the 2D engine lets idle ones go).
     */
    auto deadline = Clock::now() + 10s;
    auto captureMappings = [&] {
        return marlo_test::MappingsOf(node_) + marlo_test::MappingsOf("dmabuf");
    };
    while (captureMappings() > 0 && Clock::now() < deadline)
        std::this_thread::sleep_for(100ms);
    EXPECT_EQ(captureMappings(), 0u);
    printf("measure: mappings %zu before, %zu after\n", mappings, marlo_test::MappingCount());
    EXPECT_TRUE(WaitForNode());
}

TEST_F(VividLossTest, WhenTheDeviceComesBackBothClientsResume) {
    LossClient a(1), b(2);
    ASSERT_TRUE(a.Start(node_));
    ASSERT_TRUE(b.Start(node_));
    ASSERT_TRUE(a.MoreFrames(3));
    ASSERT_TRUE(b.MoreFrames(3));
    tessaro::marlo::UniqueFd holder = Unplug();
    ASSERT_TRUE(a.events.waitFor(StreamEventType::kDeviceLost)) << a.events.dump();
    ASSERT_TRUE(b.events.waitFor(StreamEventType::kDeviceLost)) << b.events.dump();
    /* Give the retries time to fail a few times. */
    std::this_thread::sleep_for(1s);
    EXPECT_EQ(a.events.count(StreamEventType::kDeviceRecovered), 0u);

    holder.reset();
    auto back = Clock::now();
    Clock::time_point firstA = a.NextFrameTime();
    Clock::time_point firstB = b.NextFrameTime();
    ASSERT_TRUE(a.events.waitFor(StreamEventType::kDeviceRecovered)) << a.events.dump();
    ASSERT_TRUE(b.events.waitFor(StreamEventType::kDeviceRecovered)) << b.events.dump();
    double resumed = Ms(std::max(firstA, firstB) - back);
    printf("measure: frames again %.0f ms after the device came back\n", resumed);
    EXPECT_LT(resumed, 1000.0);
    EXPECT_TRUE(a.MoreFrames(3));
    EXPECT_TRUE(b.MoreFrames(3));
    a.stream().CloseCamera();
    b.stream().CloseCamera();
}

TEST_F(VividLossTest, AfterAnUnbindAndBindBothClientsResume) {
    LossClient a(1), b(2);
    ASSERT_TRUE(a.Start(node_));
    ASSERT_TRUE(b.Start(node_));
    ASSERT_TRUE(a.MoreFrames(3));
    ASSERT_TRUE(b.MoreFrames(3));

    restore_ = true;
    ASSERT_TRUE(marlo_vm::WriteSysfs("/sys/bus/platform/drivers/vivid/unbind", kPlatformDevice))
        << strerror(errno);
    ASSERT_TRUE(a.events.waitFor(StreamEventType::kDeviceLost)) << a.events.dump();
    ASSERT_TRUE(b.events.waitFor(StreamEventType::kDeviceLost)) << b.events.dump();
    ASSERT_TRUE(marlo_vm::WriteSysfs("/sys/bus/platform/drivers/vivid/bind", kPlatformDevice))
        << strerror(errno);
    auto bound = Clock::now();
    ASSERT_TRUE(WaitForNode());
    EXPECT_EQ(appeared_, node_) << "the node came back under another path";
    ASSERT_TRUE(marlo_vm::ShowPlainColourBars(appeared_));

    Clock::time_point firstA = a.NextFrameTime();
    Clock::time_point firstB = b.NextFrameTime();
    ASSERT_TRUE(a.events.waitFor(StreamEventType::kDeviceRecovered)) << a.events.dump();
    ASSERT_TRUE(b.events.waitFor(StreamEventType::kDeviceRecovered)) << b.events.dump();
    double resumed = Ms(std::max(firstA, firstB) - bound);
    printf("measure: frames again %.0f ms after the bind\n", resumed);
    EXPECT_LT(resumed, 1000.0);
    EXPECT_TRUE(a.MoreFrames(3));
    EXPECT_TRUE(b.MoreFrames(3));
    a.stream().CloseCamera();
    b.stream().CloseCamera();
}

TEST_F(VividLossTest, AfterAnUnplugAndAModuleReloadTheClientResumes) {
    LossClient a(1);
    ASSERT_TRUE(a.Start(node_));
    ASSERT_TRUE(a.MoreFrames(3));
    restore_ = true;
    Unplug();
    ASSERT_TRUE(a.events.waitFor(StreamEventType::kDeviceLost)) << a.events.dump();
    /* The library has let the node go: the module can be removed under the started client. */
    auto released = Clock::now();
    bool unloaded = false;
    while (!(unloaded = marlo_vm::UnloadModule("vivid")) && Clock::now() - released < 5s)
        std::this_thread::sleep_for(20ms);
    ASSERT_TRUE(unloaded) << strerror(errno);
    ASSERT_TRUE(marlo_vm::LoadModule("vivid", marlo_vm::BootOptions("vivid"))) << strerror(errno);
    auto loaded = Clock::now();
    restore_ = false;
    ASSERT_TRUE(WaitForNode());
    EXPECT_EQ(appeared_, node_);
    ASSERT_TRUE(marlo_vm::ShowPlainColourBars(appeared_));
    Clock::time_point first = a.NextFrameTime();
    ASSERT_TRUE(a.events.waitFor(StreamEventType::kDeviceRecovered)) << a.events.dump();
    printf("measure: frames again %.0f ms after the module load\n", Ms(first - loaded));
    EXPECT_LT(Ms(first - loaded), 1000.0);
    a.stream().CloseCamera();
}

TEST_F(VividLossTest, ASizeTheDriverAdjustsIsConvertedFromWhatItCaptures) {
    LossClient a(1);
    ASSERT_TRUE(a.Start(node_, 30.0f, 800, 600));
    ASSERT_TRUE(a.events.waitFor(StreamEventType::kFormatAdjusted)) << a.events.dump();
    StreamEvent adjusted = a.events.first(StreamEventType::kFormatAdjusted);
    printf("measure: asked 800x600, vivid granted %dx%d\n", adjusted.granted.width,
           adjusted.granted.height);
    EXPECT_EQ(adjusted.asked.width, 800);
    EXPECT_EQ(adjusted.asked.height, 600);
    EXPECT_NE(adjusted.granted.width, 800);
    EXPECT_EQ(adjusted.granted.fourcc, static_cast<uint32_t>(FOURCC_YUYV));
    ASSERT_TRUE(a.MoreFrames(3));
    a.stream().ClientStopStream();

    /* Both sets were written since: each shows all eight bars across its width. */
    marlo_vm::Geometry geometry = {static_cast<uint32_t>(adjusted.granted.width), 0, 0, 0};
    for (size_t index = 0; index < 2; ++index) {
        marlo_vm::Image image = {a.buffer(index).data(), FOURCC_NV12, 320, 240, 320};
        EXPECT_EQ(marlo_vm::CheckColourBars(image, geometry), "") << "set " << index;
    }
    a.stream().CloseCamera();
}

TEST_F(VividLossTest, TheAskedFrameRateIsSetOnTheNode) {
    /* vivid's webcam input falls back to a slow rate unless asked. */
    ASSERT_GT(marlo_vm::SetFrameRate(node_, 5), 0.0);
    LossClient a(1);
    ASSERT_TRUE(a.Start(node_, 30.0f));
    ASSERT_TRUE(a.MoreFrames(40));
    double rate = a.RateByTimestamps(30);
    printf("measure: %.1f fps by timestamps with 30 fps asked (the node was at 5)\n", rate);
    EXPECT_GT(rate, 15.0);
    a.stream().CloseCamera();
}
