/*
 * The whole frame path through the client interface: clients open one
 * capture node of the fake V4L2 kernel with V4l2Stream, lend their buffer
 * sets, and receive every captured frame converted into their buffers;
 * each callback hands its set straight back, as a client does.
 *
 * Benchmarks (one frame per iteration, produced only once the previous one
 * was fully handled and its capture buffer queued again):
 *   Library/clients:C, Library/buffers:B
 *             with a 2D engine that does nothing (--engine=null): the
 *             library's own cost per frame, against the number of clients
 *             (one buffer per set) and of buffers per set (one client)
 *   Fanout/<format>/clients:C/sets:S
 *             with the software engine: full-HD NV12 frames converted into
 *             C clients' full-HD NV12 or RGBA buffers, S sets lent by each
 *   FirstFrame/<format>/cold, FirstFrame/<format>/warm
 *             one client lends one set and starts; the time from the
 *             frame's capture to its callback, with buffers the engine
 *             never saw (cold) or that it converted into before (warm)
 *
 * Per frame: wall time from the capture to the last callback (the manual
 * time of the benchmark), the camera IO thread's CPU time (io_cpu_us,
 * read in the callbacks, which run on that thread) and the process's CPU
 * time (cpu_us, every thread: the engine's workers included), each the
 * median over the measured frames.
 *
 * The engine: --engine=null or --engine=software (default), or a path to a
 * libnax.so; it is loaded before the library looks for "libnax.so", which
 * then finds it by its name.
 */
#include <dlfcn.h>
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "fake_v4l2.h"
#include "marlo/buffer/frame_buffer.h"
#include "marlo/stream/v4l2_stream.h"

#include "bench_clock.h"

using tessaro::marlo::DmaFrameBuffer;
using tessaro::marlo::FourccFormat;
using tessaro::marlo::FrameBuffer;
using tessaro::marlo::FrameBufferInfo;
using tessaro::marlo::V4l2Stream;
using FrameSet = std::vector<std::shared_ptr<FrameBuffer>>;

using bench::Median;
using bench::ProcessCpuMicros;
using bench::ThreadCpuMicros;
using bench::WallMicros;

namespace {

constexpr char kNode[] = "/dev/video-bench0";
constexpr int kWidth = 1920;
constexpr int kHeight = 1080;
constexpr unsigned kCaptureBuffers = 3; /* the camera's capture ring */
constexpr auto kWait = std::chrono::seconds(30);

size_t FrameBytes(uint32_t fourcc, int w, int h) {
    return fourcc == V4L2_PIX_FMT_NV12 ? static_cast<size_t>(w) * h * 3 / 2
                                       : static_cast<size_t>(w) * h * 4;
}

/* A client buffer in a memory file, as a gralloc or dma-buf buffer: the
 * client never touched it, so its pages come with the first write. */
std::shared_ptr<FrameBuffer> ClientBuffer(uint32_t fourcc, int w, int h) {
    const size_t size = FrameBytes(fourcc, w, h);
    int fd = memfd_create("bench-client", MFD_CLOEXEC);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) {
        perror("client buffer");
        abort();
    }
    FrameBufferInfo info;
    info.fourcc = static_cast<FourccFormat>(fourcc);
    info.sourceCrop = {0, 0, static_cast<uint32_t>(kWidth), static_cast<uint32_t>(kHeight)};
    info.width = static_cast<uint32_t>(w);
    info.height = static_cast<uint32_t>(h);
    info.stride = static_cast<uint32_t>(w);
    info.size = static_cast<uint32_t>(size);
    /* The descriptor passes to the buffer. */
    return std::make_shared<DmaFrameBuffer>(nullptr, info, fd);
}

/* The capture "hardware" fills nothing: the driver's thread is not measured
 * and the frame content does not change the conversions' cost. */
marlo_fake::FrameContent EmptyFrame() {
    marlo_fake::FrameContent content = marlo_fake::Frame();
    content.writer = [](uint32_t, uint8_t*, size_t) {};
    return content;
}

/* Clients of one fake capture node and the frames that reach them. */
class Rig {
  public:
    Rig(int clients, int sets, int buffersPerSet, uint32_t fourcc) : clients_(clients) {
        marlo_fake::VideoNodeConfig config;
        config.width = kWidth;
        config.height = kHeight;
        node_ = marlo_fake::AddVideoNode(kNode, config);
        for (int c = 0; c < clients; c++) {
            auto stream = std::make_unique<V4l2Stream>();
            if (stream->OpenCamera(c + 1, kNode, kWidth, kHeight, V4L2_PIX_FMT_NV12) != 0)
                Fail("OpenCamera");
            for (int s = 0; s < sets; s++) {
                FrameSet set;
                for (int b = 0; b < buffersPerSet; b++)
                    set.push_back(ClientBuffer(fourcc, kWidth, kHeight));
                lent_.push_back(set);
                /* The first set is lent, further ones are returned sets the
                 * client never received. */
                if (s == 0)
                    stream->ClientSetBufferInfo(set);
                else
                    stream->ClientReturnFrame(set);
            }
            streams_.push_back(std::move(stream));
        }
        for (auto& stream : streams_) {
            V4l2Stream* self = stream.get();
            if (self->ClientStartStream([this, self](FrameSet set) { Delivered(self, set); }) != 0)
                Fail("ClientStartStream");
        }
        if (!node_->WaitQueued(kCaptureBuffers,
                               std::chrono::duration_cast<std::chrono::milliseconds>(kWait)))
            Fail("capture ring never queued");
    }

    ~Rig() {
        for (auto& stream : streams_) {
            stream->ClientStopStream();
            stream->CloseCamera();
        }
        streams_.clear();
        node_.reset();
        marlo_fake::Reset();
    }

    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    struct FrameCost {
        double wall; /* capture to last callback */
        double io;   /* IO thread CPU since the previous frame's last callback */
        double cpu;  /* process CPU over the frame */
    };

    /* One frame, captured and delivered to every client. */
    FrameCost Frame() {
        const double cpu0 = ProcessCpuMicros();
        std::unique_lock<std::mutex> lock(mutex_);
        const uint64_t target = ++frame_;
        pending_ = clients_;
        const double start = WallMicros();
        lock.unlock();
        if (node_->ProduceFrame(EmptyFrame()) < 0)
            Fail("ProduceFrame");
        lock.lock();
        if (!done_.wait_for(lock, kWait, [&] { return completed_ >= target; }))
            Fail("a frame never reached every client");
        const double wall = lastDelivery_ - start;
        const double io = lastIoCpu_ - previousIoCpu_;
        lock.unlock();
        /* The frame is done once its capture buffer is queued again. */
        if (!node_->WaitQueued(kCaptureBuffers,
                               std::chrono::duration_cast<std::chrono::milliseconds>(kWait)))
            Fail("capture buffer never came back");
        return FrameCost{wall, io, ProcessCpuMicros() - cpu0};
    }

    /* Stops client 0, lends its sets again and starts it: a restart. */
    void RestartFirst(const std::vector<FrameSet>& sets) {
        V4l2Stream* self = streams_[0].get();
        self->ClientStopStream();
        for (size_t s = 0; s < sets.size(); s++) {
            FrameSet set = sets[s];
            if (s == 0)
                self->ClientSetBufferInfo(set);
            else
                self->ClientReturnFrame(set);
        }
        if (self->ClientStartStream([this, self](FrameSet set) { Delivered(self, set); }) != 0)
            Fail("ClientStartStream");
    }

    const std::vector<FrameSet>& lent() const { return lent_; }

  private:
    static void Fail(const char* what) {
        fprintf(stderr, "fanout_bench: %s failed\n", what);
        abort();
    }

    /* On the camera's IO thread. */
    void Delivered(V4l2Stream* stream, FrameSet set) {
        stream->ClientReturnFrame(set);
        std::lock_guard<std::mutex> lock(mutex_);
        if (--pending_ > 0)
            return;
        previousIoCpu_ = lastIoCpu_;
        lastIoCpu_ = ThreadCpuMicros();
        lastDelivery_ = WallMicros();
        completed_ = frame_;
        done_.notify_all();
    }

    int clients_;
    std::shared_ptr<marlo_fake::FakeVideoNode> node_;
    std::vector<std::unique_ptr<V4l2Stream>> streams_;
    std::vector<FrameSet> lent_;

    std::mutex mutex_;
    std::condition_variable done_;
    uint64_t frame_ = 0;
    uint64_t completed_ = 0;
    int pending_ = 0;
    double lastDelivery_ = 0;
    double lastIoCpu_ = 0;
    double previousIoCpu_ = 0;
};

/* Runs frames as iterations and reports the medians. */
void MeasureFrames(benchmark::State& state, Rig& rig, int warmup, double buffersPerFrame) {
    for (int i = 0; i < warmup; i++)
        rig.Frame();
    /* The first measured frame's IO time would span the warm-up's end. */
    std::vector<double> wall, io, cpu;
    for (auto _ : state) {
        const Rig::FrameCost cost = rig.Frame();
        state.SetIterationTime(cost.wall / 1e6);
        wall.push_back(cost.wall);
        io.push_back(cost.io);
        cpu.push_back(cost.cpu);
    }
    state.counters["wall_us"] = Median(wall);
    state.counters["io_cpu_us"] = Median(io);
    state.counters["cpu_us"] = Median(cpu);
    state.counters["buffers_per_frame"] = buffersPerFrame;
}

void BM_LibraryClients(benchmark::State& state) {
    const int clients = static_cast<int>(state.range(0));
    Rig rig(clients, 2, 1, V4L2_PIX_FMT_NV12);
    MeasureFrames(state, rig, 4, clients);
}

void BM_LibraryBuffers(benchmark::State& state) {
    const int buffers = static_cast<int>(state.range(0));
    Rig rig(1, 2, buffers, V4L2_PIX_FMT_NV12);
    MeasureFrames(state, rig, 4, buffers);
}

void BM_Fanout(benchmark::State& state, uint32_t fourcc) {
    const int clients = static_cast<int>(state.range(0));
    const int sets = static_cast<int>(state.range(1));
    Rig rig(clients, sets, 1, fourcc);
    /* Every set has received a frame twice before measuring. */
    MeasureFrames(state, rig, 2 * sets, clients);
    state.counters["lent_buffers"] = clients * sets;
}

/* The first frame of a client that just lent its set and started. */
void BM_FirstFrame(benchmark::State& state, uint32_t fourcc, bool warm) {
    std::vector<double> wall;
    Rig rig(1, 1, 1, fourcc);
    std::vector<FrameSet> sets = rig.lent();
    rig.Frame();
    for (auto _ : state) {
        if (!warm) {
            state.PauseTiming();
            sets = {FrameSet{ClientBuffer(fourcc, kWidth, kHeight)}};
            state.ResumeTiming();
        }
        rig.RestartFirst(sets);
        const Rig::FrameCost cost = rig.Frame();
        state.SetIterationTime(cost.wall / 1e6);
        wall.push_back(cost.wall);
    }
    state.counters["wall_us"] = Median(wall);
}

const char* FormatName(uint32_t fourcc) {
    return fourcc == V4L2_PIX_FMT_NV12 ? "NV12" : "RGBA";
}

void Register() {
    benchmark::RegisterBenchmark("Library/clients", BM_LibraryClients)
        ->ArgName("clients")
        ->RangeMultiplier(2)
        ->Range(1, 64)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
    benchmark::RegisterBenchmark("Library/buffers", BM_LibraryBuffers)
        ->ArgName("buffers")
        ->RangeMultiplier(2)
        ->Range(1, 64)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
    for (uint32_t fourcc : {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_RGBA32}) {
        const std::string name = std::string("Fanout/") + FormatName(fourcc);
        auto* b = benchmark::RegisterBenchmark(name.c_str(), BM_Fanout, fourcc);
        b->ArgNames({"clients", "sets"})->UseManualTime()->Unit(benchmark::kMillisecond);
        for (int clients : {1, 4, 8, 16, 24, 32, 40, 48, 56, 64})
            for (int sets = 1; sets <= 4; sets++)
                b->Args({clients, sets});
        for (bool warm : {false, true}) {
            const std::string first =
                std::string("FirstFrame/") + FormatName(fourcc) + (warm ? "/warm" : "/cold");
            benchmark::RegisterBenchmark(first.c_str(), BM_FirstFrame, fourcc, warm)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
        }
    }
}

/* Loads the chosen engine under the name the library looks for. */
bool LoadEngine(const std::string& choice) {
    std::string path = choice;
    if (choice == "null")
        path = MARLO_NULL_ENGINE;
    else if (choice == "software")
        path = MARLO_SOFTWARE_ENGINE;
    if (!dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL)) {
        fprintf(stderr, "fanout_bench: cannot load the engine %s: %s\n", path.c_str(), dlerror());
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string engine = "software";
    int kept = 1;
    for (int i = 1; i < argc; i++) {
        if (strncmp(argv[i], "--engine=", 9) == 0)
            engine = argv[i] + 9;
        else
            argv[kept++] = argv[i];
    }
    argc = kept;
    if (!LoadEngine(engine))
        return 1;
    Register();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::AddCustomContext("engine", engine);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
