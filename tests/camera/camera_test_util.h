/*
 * Shared pieces of the camera-sharing suites: the system root whose board
 * configuration names the fake capture nodes (so the debug helper keeps a
 * table entry for each), a fixture with a shared camera over a fake node,
 * client frame buffers in memory files, a frame sink for callbacks, and
 * exact matching of the camera log lines.
 */
#pragma once

#include <android/log.h>
#include <dirent.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <marlo_host/hooks.h>
#include "config/board_configs_access.h"
#include "config/temp_sysroot.h"
#include "fake_v4l2.h"
#include "marlo/buffer/frame_buffer.h"
#include "marlo/camera/hal_camera.h"
#include "marlo/camera/virtual_camera.h"
#include "marlo/debug/debug_helper.h"
#include "support/fake_node_test.h"
#include "support/log_capture.h"
#include "support/scoped_property.h"

namespace camera_test {

using namespace std::chrono_literals;
using tessaro::marlo::FrameBuffer;
using FrameSet = std::vector<std::shared_ptr<FrameBuffer>>;

constexpr char kTag[] = "marlo_stream";
/* Fake capture nodes; the first two are known to the debug helper. */
constexpr char kNode0[] = "/dev/video-share0";
constexpr char kNode1[] = "/dev/video-share1";
constexpr char kUnlisted[] = "/dev/video-share9";
/* Every wait on the IO thread is bounded by this (never a timing assertion). */
constexpr auto kWait = 10s;
/* How long without a frame makes a stall; set very long for every test but the stall ones. */
constexpr char kStallProperty[] = "persist.vendor.tessaro.marlo.stall.timeout_ms";

constexpr char kBoard[] = R"(<?xml version="1.0"?>
<CameraConfig><board name="Sharing">
  <cameras>
    <camera id="0"><channels>
      <channel id="0" dev="/dev/video-share0"><cameraModel>m</cameraModel></channel>
    </channels></camera>
    <camera id="1"><channels>
      <channel id="0" dev="/dev/video-share1"><cameraModel>m</cameraModel></channel>
    </channels></camera>
  </cameras>
  <inputMapping>
    <inputMap camId="0"><inputSrc cameraId="0" channelId="0" streamId="0"/></inputMap>
    <inputMap camId="1"><inputSrc cameraId="1" channelId="0" streamId="0"/></inputMap>
  </inputMapping>
</board></CameraConfig>
)";

/*
 * Builds the process's debug helper over the board above, before any test
 * runs, and keeps the system root (the report is written there) to the end.
 */
class SysrootEnvironment : public ::testing::Environment {
  public:
    void SetUp() override {
        sysroot_ = std::make_unique<marlo_test::TempSysroot>();
        tessaro::marlo::detail::BoardConfigsAccess::Clear();
        sysroot_->writeDefaultConfig(kBoard);
        std::filesystem::create_directories(sysroot_->path("/data/vendor/camera"));
        /* The helper's tables only follow updates while dumping is on. */
        dumping_ = std::make_unique<marlo_test::ScopedProperty>(
            "persist.vendor.tessaro.marlo.dbgfile.on", "true");
        /*
         * Tests hand frames in at their own pace, slowly on a sanitizer or an
         * emulated machine: no stall is called unless a test asks for it.
         */
        stall_ = std::make_unique<marlo_test::ScopedProperty>(kStallProperty, "600000");
        tessaro::marlo::DebugHelper::getInstance();
    }
    void TearDown() override {
        tessaro::marlo::detail::BoardConfigsAccess::Clear();
        stall_.reset();
        dumping_.reset();
        sysroot_.reset();
    }

  private:
    std::unique_ptr<marlo_test::TempSysroot> sysroot_;
    std::unique_ptr<marlo_test::ScopedProperty> dumping_;
    std::unique_ptr<marlo_test::ScopedProperty> stall_;
};

inline ::testing::Environment* const kSysrootEnvironment =
    ::testing::AddGlobalTestEnvironment(new SysrootEnvironment);

inline std::string CameraState(const std::string& node) {
    auto infos = tessaro::marlo::DebugHelper::getInstance().cameraInfos();
    auto it = infos.find(node);
    return it == infos.end() ? std::string("<none>") : it->second.state;
}

inline unsigned int CameraDrops(const std::string& node) {
    auto infos = tessaro::marlo::DebugHelper::getInstance().cameraInfos();
    auto it = infos.find(node);
    return it == infos.end() ? 0u : it->second.dropCount;
}

/*
 * Whether \a message is "<head> <func>:<line> <text>" for some line number:
 * the line is the source line of the log call, which tests do not pin.
 */
inline bool MatchesLine(const std::string& message, const std::string& head,
                        const std::string& func, const std::string& text) {
    std::string start = head + " " + func + ":";
    if (message.compare(0, start.size(), start) != 0)
        return false;
    size_t pos = start.size();
    size_t digits = 0;
    while (pos < message.size() && isdigit(static_cast<unsigned char>(message[pos]))) {
        ++pos;
        ++digits;
    }
    if (digits == 0 || pos >= message.size() || message[pos] != ' ')
        return false;
    return message.compare(pos + 1, std::string::npos, text) == 0;
}

/* Number of records with this priority, tag "marlo_stream" and line. */
inline size_t CountLines(const marlo_test::LogCapture& log, int priority, const std::string& head,
                         const std::string& func, const std::string& text) {
    size_t n = 0;
    for (const auto& record : log.records())
        n += record.priority == priority && record.tag == kTag &&
             MatchesLine(record.message, head, func, text);
    return n;
}

inline std::string Cam(const std::string& id) {
    return "CAM(" + id + ")";
}
inline std::string Vcam(int id) {
    return "VCAM(" + std::to_string(id) + ")";
}

/*
 * A shared hardware camera over a fresh fake capture node at kNode0 that
 * offers Grey and NV12. The camera goes before the node, and the fake kernel
 * is reset, after each test.
 */
class HalCameraFixture : public marlo_test::FakeVideoNodeTest {
  protected:
    void SetUp() override {
        marlo_fake::VideoNodeConfig config;
        config.formats = {{V4L2_PIX_FMT_GREY, "Grey"}, {V4L2_PIX_FMT_NV12, "NV12"}};
        AddNode(kNode0, config);
        camera_ = std::make_shared<tessaro::marlo::HalCamera>(kNode0);
    }
    void TearDown() override {
        camera_.reset();
        FakeVideoNodeTest::TearDown();
    }

    /* A new client of the camera that opened its stream with this geometry. */
    std::shared_ptr<tessaro::marlo::VirtualCamera> Client(int id, int width = 64, int height = 48,
                                                          int format = V4L2_PIX_FMT_GREY) {
        std::shared_ptr<tessaro::marlo::VirtualCamera> vc = camera_->MakeVirtualCamera(id);
        EXPECT_TRUE(vc->openVideoStream(width, height, format));
        return vc;
    }

    /* Lines of the camera at kNode0 with this priority, member and text. */
    static size_t Count(const marlo_test::LogCapture& log, int priority, const std::string& func,
                        const std::string& text) {
        return CountLines(log, priority, Cam(kNode0), func, text);
    }

    std::shared_ptr<tessaro::marlo::HalCamera> camera_;
};

/* A client buffer over a memory file, with a mapping kept for the test. */
class MemFrame {
  public:
    MemFrame(uint32_t width, uint32_t height, uint32_t fourcc, size_t size,
             tessaro::marlo::FrameBufferRect crop = {}, uint32_t transform = 0,
             uint64_t cookies = 0)
        : size_(size) {
        int fd = memfd_create("client-frame", MFD_CLOEXEC);
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
        memset(data_, 0xee, size);
        tessaro::marlo::FrameBufferInfo info;
        info.fourcc = static_cast<tessaro::marlo::FourccFormat>(fourcc);
        info.sourceCrop = crop;
        info.transform = transform;
        info.width = width;
        info.height = height;
        info.stride = width;
        info.size = static_cast<uint32_t>(size);
        /* The descriptor passes to the buffer. */
        buffer_ = std::make_shared<tessaro::marlo::DmaFrameBuffer>(nullptr, info, fd);
        buffer_->SetCookies(cookies);
    }
    ~MemFrame() {
        if (data_)
            munmap(data_, size_);
    }
    MemFrame(const MemFrame&) = delete;
    MemFrame& operator=(const MemFrame&) = delete;

    bool valid() const { return data_ != nullptr && buffer_ && buffer_->planes()[0].fd.get() > 0; }
    const uint8_t* data() const { return data_; }
    const std::shared_ptr<FrameBuffer>& buffer() const { return buffer_; }
    int fd() const { return buffer_->planes()[0].fd.get(); }

  private:
    size_t size_;
    uint8_t* data_ = nullptr;
    std::shared_ptr<FrameBuffer> buffer_;
};

/* Collects the sets a callback receives; waits for them with a bound. */
class FrameSink {
  public:
    tessaro::marlo::VirtualCamera::FrameCallback callback() {
        return [this](FrameSet frames) { record(std::move(frames)); };
    }
    void record(FrameSet frames) {
        std::lock_guard<std::mutex> lock(mutex_);
        sets_.push_back(std::move(frames));
        cond_.notify_all();
    }
    /* Waits until \a count sets have arrived in all; false when the bound passed. */
    bool waitFor(size_t count) {
        std::unique_lock<std::mutex> lock(mutex_);
        return cond_.wait_for(lock, kWait, [&] { return sets_.size() >= count; });
    }
    size_t count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return sets_.size();
    }
    FrameSet at(size_t index) {
        std::lock_guard<std::mutex> lock(mutex_);
        return index < sets_.size() ? sets_[index] : FrameSet();
    }
    void clear() {
        std::lock_guard<std::mutex> lock(mutex_);
        sets_.clear();
    }

  private:
    std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<FrameSet> sets_;
};

/* Records trace section names while the camera trace tag is on. */
class TraceRecorder {
  public:
    TraceRecorder() : tags_("debug.atrace.tags.enableflags", "0x400") {
        marlo_host_set_trace_hook(&TraceRecorder::Hook, this);
    }
    ~TraceRecorder() { marlo_host_set_trace_hook(nullptr, nullptr); }
    std::vector<std::string> names() {
        std::lock_guard<std::mutex> lock(mutex_);
        return names_;
    }
    size_t ends() {
        std::lock_guard<std::mutex> lock(mutex_);
        return ends_;
    }

  private:
    static void Hook(const char* name, void* ctx) {
        auto* self = static_cast<TraceRecorder*>(ctx);
        std::lock_guard<std::mutex> lock(self->mutex_);
        if (name)
            self->names_.emplace_back(name);
        else
            ++self->ends_;
    }
    marlo_test::ScopedProperty tags_;
    std::mutex mutex_;
    std::vector<std::string> names_;
    size_t ends_ = 0;
};

/* Waits (bounded) until \a done answers true. */
template <typename F>
bool WaitUntil(F done) {
    auto end = std::chrono::steady_clock::now() + kWait;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

/*
 * Threads of this process right now. The first thread a process creates can
 * bring a sanitizer's helper thread with it, so one throwaway thread is run
 * first: counts taken before and after the code under test then differ only
 * by that code's threads. The throwaway thread leaves /proc/self/task a
 * moment after its join (long moments on a slow or emulated machine), so
 * that is waited for too.
 */
inline size_t ThreadCount() {
    static const bool settled = [] {
        pid_t tid = 0;
        std::thread([&tid] { tid = static_cast<pid_t>(syscall(SYS_gettid)); }).join();
        const std::string task = "/proc/self/task/" + std::to_string(tid);
        return WaitUntil([&task] { return access(task.c_str(), F_OK) != 0; });
    }();
    (void)settled;
    size_t n = 0;
    if (DIR* dir = opendir("/proc/self/task")) {
        while (dirent* entry = readdir(dir))
            n += entry->d_name[0] != '.';
        closedir(dir);
    }
    return n;
}

/* Waits (bounded) until the process has \a expected threads: a joined
 * thread leaves /proc/self/task a moment after the join returns. */
inline bool ThreadCountReaches(size_t expected) {
    return WaitUntil([expected] { return ThreadCount() == expected; });
}

}  // namespace camera_test
