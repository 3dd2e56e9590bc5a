/*
 * Call sequences of the stream interface from two client threads over the
 * fake V4L2 kernel: open, lend, start, return, stop, close, queries, event
 * listeners and frame rates, on two capture devices that deliver frames all
 * along and are now and then unplugged and plugged in again, or refuse a
 * request.
 *
 * The input is split in two halves, one per client thread; each byte pair
 * picks an operation and its argument. Each thread drives two streams of
 * its own (a stream's calls come from one thread, as the interface asks)
 * with client ids it shares with the other thread, so clients of one device
 * meet, replace each other and race. After both threads closed their streams:
 * no camera may stay registered, no descriptor of a device stay open, no
 * buffer stay mapped, and the process must have the descriptors and
 * threads it had before the input. A broken rule aborts like a crash.
 */
#include <dirent.h>
#include <linux/videodev2.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <deque>
#include <limits>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "fake_v4l2.h"
#include "fuzz_support.h"
#include "marlo/buffer/frame_buffer.h"
#include "marlo/stream/v4l2_stream.h"
#include "stream/stream_registry_access.h"

using tessaro::marlo::FrameBuffer;
using tessaro::marlo::StreamEvent;
using tessaro::marlo::V4l2Stream;
using Registry = tessaro::marlo::detail::StreamRegistryAccess;
using FrameSet = std::vector<std::shared_ptr<FrameBuffer>>;

namespace {

using namespace std::chrono_literals;

constexpr char kDevices[2][24] = {"/dev/video-fuzz0", "/dev/video-fuzz1"};
constexpr int kWidth = 64;
constexpr int kHeight = 48;
constexpr size_t kNv12Size = kWidth * kHeight * 3 / 2;
/* Operations per thread; longer inputs add nothing but time. */
constexpr size_t kMaxOperations = 48;
constexpr size_t kStreamsPerThread = 2;
constexpr size_t kSetsPerThread = 4;
/* How long the end of an input may take to settle (closes finish on their own thread). */
constexpr auto kSettle = 5s;

void Check(bool ok, const char* what) {
    if (!ok) {
        fprintf(stderr, "stream_fuzzer: %s\n", what);
        abort();
    }
}

size_t CountEntries(const char* dir) {
    size_t n = 0;
    if (DIR* d = opendir(dir)) {
        while (dirent* entry = readdir(d))
            n += entry->d_name[0] != '.';
        closedir(d);
    }
    return n;
}

template <typename F>
bool WaitUntil(F done) {
    const auto end = std::chrono::steady_clock::now() + kSettle;
    while (!done()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(1ms);
    }
    return true;
}

/* A 64x48 NV12 client buffer in a memory file. */
std::shared_ptr<FrameBuffer> MakeBuffer(uint64_t cookies) {
    int fd = memfd_create("fuzz-client-frame", MFD_CLOEXEC);
    Check(fd >= 0 && ftruncate(fd, kNv12Size) == 0, "client buffer");
    tessaro::marlo::FrameBufferInfo info;
    info.fourcc = tessaro::marlo::FOURCC_NV12;
    info.width = kWidth;
    info.height = kHeight;
    info.stride = kWidth;
    info.size = kNv12Size;
    auto buffer = std::make_shared<tessaro::marlo::DmaFrameBuffer>(nullptr, info, fd);
    buffer->SetCookies(cookies);
    return buffer;
}

/* The two fake devices, plugged in and unplugged by either thread. */
class Devices {
  public:
    void plugAll() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (size_t i = 0; i < nodes_.size(); ++i)
            plugLocked(i);
    }
    /* Unplugs device \a i if it is there, else plugs it in again. */
    void toggle(size_t i) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (nodes_[i]) {
            nodes_[i]->Disconnect();
            marlo_fake::RemoveNode(kDevices[i]);
            nodes_[i]->StopFrames();
            nodes_[i].reset();
        } else {
            plugLocked(i);
        }
    }
    /* The next \a request of device \a i fails with \a err, if it is there. */
    void refuse(size_t i, unsigned long request, int err, int after) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (nodes_[i])
            nodes_[i]->InjectError(request, err, 1, after);
    }
    bool idle() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const auto& node : nodes_)
            if (node && (node->OpenDescriptors() != 0 || node->LiveMappings() != 0))
                return false;
        return true;
    }
    /* Fresh nodes for the next input: no injection left over. */
    void reset() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& node : nodes_) {
            if (node)
                node->StopFrames();
            node.reset();
        }
        marlo_fake::Reset();
    }

  private:
    void plugLocked(size_t i) {
        if (nodes_[i])
            return;
        nodes_[i] = marlo_fake::AddVideoNode(kDevices[i]);
        nodes_[i]->StartFrames(1ms);
    }

    std::mutex mutex_;
    std::array<std::shared_ptr<marlo_fake::FakeVideoNode>, 2> nodes_;
};

Devices* g_devices = nullptr;

/* One stream of a client thread with what its callback keeps. */
struct Slot {
    std::mutex mutex;
    std::deque<FrameSet> held; /* delivered, not given back yet */
    bool giveBack = true;      /* the callback returns each set at once */
    std::atomic<size_t> events{0};
    V4l2Stream stream; /* last: it goes first, before what its callback uses */
};

class ClientThread {
  public:
    ClientThread(const uint8_t* data, size_t size, uint64_t seed) : input_(data, size) {
        for (size_t i = 0; i < kSetsPerThread; ++i)
            sets_.push_back({MakeBuffer(seed * 16 + i)});
        for (auto& slot : slots_)
            slot = std::make_unique<Slot>();
    }

    void run() {
        for (size_t op = 0; op < kMaxOperations && input_.remaining_bytes() > 0; ++op)
            step();
        for (auto& slot : slots_)
            slot->stream.CloseCamera();
        for (auto& slot : slots_) {
            /* Sets still held go back to the client; the slot's callback is gone. */
            std::lock_guard<std::mutex> lock(slot->mutex);
            slot->held.clear();
        }
    }

  private:
    static V4l2Stream::FrameCallback Callback(Slot* slot) {
        return [slot](FrameSet frames) {
            std::lock_guard<std::mutex> lock(slot->mutex);
            if (slot->giveBack)
                slot->stream.ClientReturnFrame(frames);
            else if (slot->held.size() < 8)
                slot->held.push_back(std::move(frames));
        };
    }

    void step() {
        Slot& slot = *slots_[input_.ConsumeIntegralInRange<size_t>(0, kStreamsPerThread - 1)];
        V4l2Stream& stream = slot.stream;
        switch (input_.ConsumeIntegralInRange<int>(0, 13)) {
            case 0: {
                const int id = input_.ConsumeIntegralInRange<int>(0, 3);
                const char* device = kDevices[input_.ConsumeBool() ? 1 : 0];
                static constexpr uint32_t kFormats[] = {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_YUYV,
                                                        V4L2_PIX_FMT_SBGGR8, 0};
                const uint32_t format = kFormats[input_.ConsumeIntegralInRange<size_t>(0, 3)];
                const int width =
                    input_.ConsumeBool() ? kWidth : input_.ConsumeIntegralInRange(-8, 800);
                const int height =
                    input_.ConsumeBool() ? kHeight : input_.ConsumeIntegralInRange(-8, 600);
                const int result =
                    stream.OpenCamera(id, device, width, height, static_cast<int>(format));
                Check(result == 0 || result == -2, "open answered an unknown code");
                break;
            }
            case 1: {
                FrameSet set = sets_[input_.ConsumeIntegralInRange<size_t>(0, kSetsPerThread - 1)];
                if (input_.ConsumeBool())
                    set.clear();
                const int result = stream.ClientSetBufferInfo(set);
                Check(result == 0 || result == -2, "lending answered an unknown code");
                break;
            }
            case 2: {
                {
                    std::lock_guard<std::mutex> lock(slot.mutex);
                    slot.giveBack = input_.ConsumeBool();
                }
                const int result = stream.ClientStartStream(Callback(&slot));
                Check(result == 0 || result == -2, "start answered an unknown code");
                break;
            }
            case 3: {
                /* A held set back, or another set lent the way a return lends it. */
                const bool takeHeld = input_.ConsumeBool();
                FrameSet set = sets_[input_.ConsumeIntegralInRange<size_t>(0, kSetsPerThread - 1)];
                {
                    std::lock_guard<std::mutex> lock(slot.mutex);
                    if (takeHeld && !slot.held.empty()) {
                        set = std::move(slot.held.front());
                        slot.held.pop_front();
                    }
                }
                const int result = stream.ClientReturnFrame(set);
                Check(result == 0 || result == -2, "return answered an unknown code");
                break;
            }
            case 4:
                stream.ClientStopStream();
                break;
            case 5:
                stream.CloseCamera();
                break;
            case 6: {
                static constexpr marlo_param_t kIds[] = {
                    MARLO_PARAM_COLOR_FORMAT, MARLO_PARAM_RESOLUTION, MARLO_PARAM_LOCATION,
                    MARLO_PARAM_LENS_FACING, static_cast<marlo_param_t>(0)};
                const marlo_param_t id = kIds[input_.ConsumeIntegralInRange<size_t>(0, 4)];
                marlo_param_value_t value = {};
                const int result =
                    stream.ClientGetParams(id, input_.ConsumeBool() ? &value : nullptr);
                Check(result == 0 || result == -2, "query answered an unknown code");
                break;
            }
            case 7:
                if (input_.ConsumeBool()) {
                    std::atomic<size_t>* events = &slot.events;
                    stream.ClientSetEventListener(
                        [events](const StreamEvent&) { events->fetch_add(1); });
                } else {
                    stream.ClientSetEventListener(nullptr);
                }
                break;
            case 8: {
                static constexpr float kRates[] = {30.0f,
                                                   5.0f,
                                                   0.0f,
                                                   -1.0f,
                                                   1e9f,
                                                   std::numeric_limits<float>::quiet_NaN(),
                                                   std::numeric_limits<float>::infinity()};
                const int result =
                    stream.ClientSetFrameRate(kRates[input_.ConsumeIntegralInRange<size_t>(0, 6)]);
                Check(result <= 0, "frame rate answered a positive code");
                break;
            }
            case 9:
                g_devices->toggle(input_.ConsumeBool() ? 1 : 0);
                break;
            case 10:
                std::this_thread::sleep_for(
                    std::chrono::microseconds(input_.ConsumeIntegralInRange<int>(0, 3000)));
                break;
            case 11: {
                static constexpr unsigned long kRequests[] = {marlo_fake::kOpenRequest,
                                                              VIDIOC_S_FMT,
                                                              VIDIOC_REQBUFS,
                                                              marlo_fake::kMmapRequest,
                                                              VIDIOC_EXPBUF,
                                                              VIDIOC_QBUF,
                                                              VIDIOC_STREAMON,
                                                              VIDIOC_DQBUF,
                                                              VIDIOC_STREAMOFF,
                                                              VIDIOC_S_PARM,
                                                              marlo_fake::kCloseRequest};
                static constexpr int kErrors[] = {EIO,    ENODEV, EINVAL, EBUSY,
                                                  ENOMEM, EAGAIN, EINTR};
                const unsigned long request =
                    kRequests[input_.ConsumeIntegralInRange<size_t>(0, 10)];
                const int err = kErrors[input_.ConsumeIntegralInRange<size_t>(0, 6)];
                g_devices->refuse(input_.ConsumeBool() ? 1 : 0, request, err,
                                  input_.ConsumeIntegralInRange<int>(0, 3));
                break;
            }
            case 12:
                Check(stream.ClientPauseStream() == 0 && stream.ClientResumeStream() == 0,
                      "pause or resume failed");
                break;
            default: {
                marlo_param_value_t value = {};
                Check(stream.ClientSetParams(MARLO_PARAM_RESOLUTION, &value) == 0,
                      "set params failed");
                break;
            }
        }
    }

    FuzzedDataProvider input_;
    std::vector<FrameSet> sets_;
    std::array<std::unique_ptr<Slot>, kStreamsPerThread> slots_;
};

marlo_fuzz::Sysroot* g_sysroot = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    marlo_fuzz::QuietLog();
    g_sysroot = new marlo_fuzz::Sysroot();
    g_devices = new Devices();
    atexit([] {
        g_devices->reset();
        delete g_devices;
        delete g_sysroot;
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    g_devices->plugAll();
    const size_t fds = CountEntries("/proc/self/fd");
    const size_t threads = CountEntries("/proc/self/task");
    {
        const size_t half = size / 2;
        ClientThread first(data, half, 1);
        ClientThread second(data + half, size - half, 2);
        std::thread other(&ClientThread::run, &second);
        first.run();
        other.join();
    }
    Check(WaitUntil([] { return Registry::Size() == 0; }), "a camera stayed registered");
    Check(WaitUntil([] { return g_devices->idle(); }), "a device stayed open or mapped");
    g_devices->reset();
    Check(WaitUntil([&] { return CountEntries("/proc/self/task") <= threads; }),
          "a thread outlived every stream");
    Check(CountEntries("/proc/self/fd") == fds, "a descriptor leaked");
    return 0;
}
