/*
 * The software 2D engine on full-HD camera frames, beside a plain memcpy
 * of the destination size and the same work called on libyuv directly.
 *
 * Variants per case:
 *   Memcpy    memcpy of as many bytes as the destination holds
 *   Libyuv    the libyuv calls that do the job, on the same memory
 *   Engine    nax_process on handles imported once
 *   Operator  NaxImageOperator::process with the handle cache off, as the
 *             camera runs it: import, job and release of both buffers at
 *             every frame
 *   Paired    libyuv, engine and operator timed in turns in one loop
 *   Threads   the engine's job on one thread and on two, in turns
 * Throughput is destination bytes per second of CPU time: the machines
 * these run on are shared, and CPU time is what waiting for a core does
 * not inflate. The engine runs every job on its calling thread alone here
 * (nax_sw_set_job_threads(1)), as libyuv does, except in Threads, which
 * compares wall times.
 *
 * Beside the cases:
 *   Import    one import and release, beside a fresh mapping per import
 *   Cycle     jobs into N full-HD client buffers in turn, as a camera with
 *             N lent buffers runs them, with and without a hold on each
 *   First     the first job into a buffer the engine never saw, with and
 *             without a hold taken beforehand, beside a later job; and
 *             libyuv alone into a fresh buffer faulted in beforehand,
 *             beside a later one: the memory's own part of a first job
 */
#include <linux/videodev2.h>
#include <sys/mman.h>
#include <unistd.h>

#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <libyuv.h>
#include <nax/nax.h>
#include <nax/nax_sw.h>

#include "marlo/imgproc/nax_image_operator.h"

#include "bench_clock.h"

using tessaro::marlo::ImageBuffer;
using tessaro::marlo::ImageRect;
using tessaro::marlo::NaxBufferHold;
using tessaro::marlo::NaxImageOperator;

using bench::Median;
using bench::ProcessCpuMicros;
using bench::ThreadCpuMicros;
using bench::WallMicros;

namespace {

/* Set when a variant could not be measured, so that a smoke run fails. */
bool g_failed = false;

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 /* Linux 5.14 */
#endif

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

/* An image in a memory file, as the camera's dma-bufs hold them. */
class Frame {
  public:
    /* Without `fill`, the memory is never mapped or touched here. */
    Frame(int w, int h, int naxFormat, uint32_t fourcc, size_t size, bool fill = true)
        : w_(w), h_(h), naxFormat_(naxFormat), fourcc_(fourcc), size_(size) {
        fd_ = memfd_create("nax_bench", MFD_CLOEXEC);
        if (fd_ < 0 || ftruncate(fd_, static_cast<off_t>(size)) != 0)
            abort();
        if (!fill)
            return;
        void* p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        if (p == MAP_FAILED)
            abort();
        data_ = static_cast<uint8_t*>(p);
        for (size_t i = 0; i < size; i++)
            data_[i] = static_cast<uint8_t>(i * 131 + (i >> 12));
    }
    ~Frame() {
        if (data_)
            munmap(data_, size_);
        close(fd_);
    }
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;

    /* Maps the memory of a frame made without `fill` and faults it in for
     * writing, as an engine hold does, without writing a byte. */
    void MapFaultedIn() {
        void* p = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_, 0);
        if (p == MAP_FAILED || madvise(p, size_, MADV_POPULATE_WRITE) != 0)
            abort();
        data_ = static_cast<uint8_t*>(p);
    }

    uint8_t* data() const { return data_; }
    size_t size() const { return size_; }
    int fd() const { return fd_; }
    int width() const { return w_; }
    int height() const { return h_; }
    int naxFormat() const { return naxFormat_; }
    ImageBuffer image() const {
        return ImageBuffer{0, 0, 0, fd_, w_, h_, w_, h_, static_cast<int32_t>(fourcc_)};
    }

  private:
    int w_;
    int h_;
    int naxFormat_;
    uint32_t fourcc_;
    size_t size_;
    int fd_ = -1;
    uint8_t* data_ = nullptr;
};

size_t Nv12Size(int w, int h) {
    return static_cast<size_t>(w) * h * 3 / 2;
}

struct Case {
    const char* name;
    int srcW, srcH, srcNax;
    uint32_t srcFourcc;
    size_t srcSize;
    int dstW, dstH, dstNax;
    uint32_t dstFourcc;
    size_t dstSize;
    int transform;
    /* The job on libyuv directly. */
    void (*libyuv)(const Frame& src, const Frame& dst);
};

void Nv12Copy(const Frame& s, const Frame& d) {
    const int w = s.width(), h = s.height();
    libyuv::NV12Copy(s.data(), w, s.data() + w * h, w, d.data(), w, d.data() + w * h, w, w, h);
}

void Nv12ToRgba(const Frame& s, const Frame& d) {
    const int w = s.width(), h = s.height();
    libyuv::NV12ToABGR(s.data(), w, s.data() + w * h, w, d.data(), w * 4, w, h);
}

void Nv12Scale(const Frame& s, const Frame& d) {
    const int w = s.width(), h = s.height(), dw = d.width(), dh = d.height();
    libyuv::NV12Scale(s.data(), w, s.data() + w * h, w, w, h, d.data(), dw, d.data() + dw * dh, dw,
                      dw, dh, libyuv::kFilterBilinear);
}

void UyvyToNv12(const Frame& s, const Frame& d) {
    const int w = s.width(), h = s.height();
    libyuv::UYVYToNV12(s.data(), w * 2, d.data(), w, d.data() + w * h, w, w, h);
}

/* libyuv has no NV12-to-NV12 rotation: luma turns as a plane, the chroma
 * pairs split into two turned planes that merge again. */
void Nv12Rotate90(const Frame& s, const Frame& d) {
    static std::vector<uint8_t> scratch(static_cast<size_t>(kWidth) * kHeight / 2);
    const int w = s.width(), h = s.height();
    const int cw = w / 2, ch = h / 2;
    uint8_t* u = scratch.data();
    uint8_t* v = u + cw * ch;
    libyuv::RotatePlane(s.data(), w, d.data(), h, w, h, libyuv::kRotate90);
    libyuv::SplitRotateUV(s.data() + w * h, w, u, ch, v, ch, cw, ch, libyuv::kRotate90);
    libyuv::MergeUVPlane(u, ch, v, ch, d.data() + w * h, h, ch, cw);
}

const Case kCases[] = {
    {"Nv12Copy", kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
     Nv12Size(kWidth, kHeight), kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
     Nv12Size(kWidth, kHeight), 0, Nv12Copy},
    {"Nv12ToRgba", kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
     Nv12Size(kWidth, kHeight), kWidth, kHeight, NAX_FORMAT_RGBA_8888, V4L2_PIX_FMT_RGBA32,
     static_cast<size_t>(kWidth) * kHeight * 4, 0, Nv12ToRgba},
    {"Nv12Scale640x360", kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
     Nv12Size(kWidth, kHeight), 640, 360, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
     Nv12Size(640, 360), 0, Nv12Scale},
    {"UyvyToNv12", kWidth, kHeight, NAX_FORMAT_UYVY_422, V4L2_PIX_FMT_UYVY,
     static_cast<size_t>(kWidth) * kHeight * 2, kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP,
     V4L2_PIX_FMT_NV12, Nv12Size(kWidth, kHeight), 0, UyvyToNv12},
    {"Nv12Rotate90", kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
     Nv12Size(kWidth, kHeight), kHeight, kWidth, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
     Nv12Size(kWidth, kHeight), NAX_TRANSFORM_ROT_90, Nv12Rotate90},
};

struct Pair {
    std::unique_ptr<Frame> src;
    std::unique_ptr<Frame> dst;
};

Pair MakePair(const Case& c) {
    return Pair{std::make_unique<Frame>(c.srcW, c.srcH, c.srcNax, c.srcFourcc, c.srcSize),
                std::make_unique<Frame>(c.dstW, c.dstH, c.dstNax, c.dstFourcc, c.dstSize)};
}

void Finish(benchmark::State& state, const Case& c) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(c.dstSize));
}

void BM_Memcpy(benchmark::State& state, const Case& c) {
    std::vector<uint8_t> src(c.dstSize, 1);
    std::vector<uint8_t> dst(c.dstSize, 0);
    for (auto _ : state) {
        memcpy(dst.data(), src.data(), c.dstSize);
        benchmark::ClobberMemory();
    }
    Finish(state, c);
}

void BM_Libyuv(benchmark::State& state, const Case& c) {
    Pair p = MakePair(c);
    for (auto _ : state) {
        c.libyuv(*p.src, *p.dst);
        benchmark::ClobberMemory();
    }
    Finish(state, c);
}

/* The engine and the libyuv reference must agree, or the numbers mean
 * nothing. */
bool SameAsLibyuv(const Case& c, const Frame& engineOut, const Frame& src) {
    Frame ref(c.dstW, c.dstH, c.dstNax, c.dstFourcc, c.dstSize);
    c.libyuv(src, ref);
    return memcmp(ref.data(), engineOut.data(), c.dstSize) == 0;
}

void BM_Engine(benchmark::State& state, const Case& c) {
    Pair p = MakePair(c);
    const uint32_t hs = nax_import_fd(p.src->fd(), nullptr);
    const uint32_t hd = nax_import_fd(p.dst->fd(), nullptr);
    const nax_buffer_t s = nax_wrap_handle(hs, c.srcW, c.srcH, c.srcW, c.srcH, c.srcNax);
    const nax_buffer_t d = nax_wrap_handle(hd, c.dstW, c.dstH, c.dstW, c.dstH, c.dstNax);
    auto run = [&] {
        int fence = -1;
        return nax_process(s, d, nax_buffer_t{}, nax_rect{}, nax_rect{}, nax_rect{}, -1, &fence,
                           nullptr, NAX_USAGE_SYNC | c.transform);
    };
    if (run() != 0 || !SameAsLibyuv(c, *p.dst, *p.src)) {
        state.SkipWithError("the engine does not match libyuv");
        g_failed = true;
    }
    for (auto _ : state) {
        run();
        benchmark::ClobberMemory();
    }
    nax_release_handle(hs);
    nax_release_handle(hd);
    Finish(state, c);
}

void BM_Operator(benchmark::State& state, const Case& c) {
    Pair p = MakePair(c);
    NaxImageOperator op;
    bool cache = false;
    op.control("SetCacheHandle", &cache);
    ImageBuffer src = p.src->image();
    ImageBuffer dst = p.dst->image();
    ImageBuffer pat{0, 0, 0, -1, 0, 0, 0, 0, 0};
    auto run = [&] {
        int fence = -1;
        /* As the frame fan-out calls it: the client's source crop (here the
         * whole frame), no destination rectangle, asynchronous. */
        op.process(src, dst, pat, ImageRect{0, 0, c.srcW, c.srcH}, ImageRect{0, 0, 0, 0},
                   ImageRect{0, 0, 0, 0}, 0, &fence, c.transform);
        return fence;
    };
    memset(p.dst->data(), 0, c.dstSize);
    run();
    if (!SameAsLibyuv(c, *p.dst, *p.src)) {
        state.SkipWithError("the operator did not reach the software engine");
        g_failed = true;
    }
    for (auto _ : state) {
        run();
        benchmark::ClobberMemory();
    }
    Finish(state, c);
}

/*
 * libyuv, the engine and the operator cycle measured in turns within one
 * loop, in an order that rotates every iteration, so that the load of a
 * shared machine and cache warmth fall on all three alike. Reports the
 * median CPU time of each and the overheads over libyuv in percent.
 */
void BM_Paired(benchmark::State& state, const Case& c) {
    Pair p = MakePair(c);
    /* All three write the same memory, so none finds it warmer. */
    const uint32_t hs = nax_import_fd(p.src->fd(), nullptr);
    const uint32_t hd = nax_import_fd(p.dst->fd(), nullptr);
    const nax_buffer_t s = nax_wrap_handle(hs, c.srcW, c.srcH, c.srcW, c.srcH, c.srcNax);
    const nax_buffer_t d = nax_wrap_handle(hd, c.dstW, c.dstH, c.dstW, c.dstH, c.dstNax);
    NaxImageOperator op;
    bool cache = false;
    op.control("SetCacheHandle", &cache);
    ImageBuffer src = p.src->image();
    ImageBuffer dst = p.dst->image();
    ImageBuffer pat{0, 0, 0, -1, 0, 0, 0, 0, 0};

    auto runLibyuv = [&] { c.libyuv(*p.src, *p.dst); };
    auto runEngine = [&] {
        int fence = -1;
        nax_process(s, d, nax_buffer_t{}, nax_rect{}, nax_rect{}, nax_rect{}, -1, &fence, nullptr,
                    NAX_USAGE_SYNC | c.transform);
    };
    auto runOperator = [&] {
        int fence = -1;
        /* As the frame fan-out calls it: the client's source crop (here the
         * whole frame), no destination rectangle, asynchronous. */
        op.process(src, dst, pat, ImageRect{0, 0, c.srcW, c.srcH}, ImageRect{0, 0, 0, 0},
                   ImageRect{0, 0, 0, 0}, 0, &fence, c.transform);
    };
    std::vector<double> times[3];
    uint64_t turn = 0;
    for (auto _ : state) {
        for (int k = 0; k < 3; k++) {
            const int which = static_cast<int>((turn + k) % 3);
            const double t0 = ThreadCpuMicros();
            if (which == 0)
                runLibyuv();
            else if (which == 1)
                runEngine();
            else
                runOperator();
            times[which].push_back(ThreadCpuMicros() - t0);
            benchmark::ClobberMemory();
        }
        turn++;
    }
    nax_release_handle(hs);
    nax_release_handle(hd);
    const double lib = Median(times[0]);
    const double eng = Median(times[1]);
    const double opr = Median(times[2]);
    state.counters["libyuv_us"] = lib;
    state.counters["engine_us"] = eng;
    state.counters["operator_us"] = opr;
    state.counters["engine_overhead_pct"] = (eng / lib - 1) * 100;
    state.counters["operator_overhead_pct"] = (opr / lib - 1) * 100;
}

/* One import and release of a full-HD NV12 dma-buf, as the operator does
 * per buffer per frame, beside the mmap and munmap it would cost without
 * the engine's mapping cache. */
void BM_ImportRelease(benchmark::State& state) {
    Frame f(kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12, Nv12Size(kWidth, kHeight));
    for (auto _ : state) {
        const uint32_t h = nax_import_fd(f.fd(), nullptr);
        benchmark::DoNotOptimize(h);
        nax_release_handle(h);
    }
}

void BM_MmapMunmap(benchmark::State& state) {
    Frame f(kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12, Nv12Size(kWidth, kHeight));
    for (auto _ : state) {
        void* p = mmap(nullptr, f.size(), PROT_READ | PROT_WRITE, MAP_SHARED, f.fd(), 0);
        benchmark::DoNotOptimize(p);
        munmap(p, f.size());
    }
}

/* A fresh mapping also faults in every page on the job's first touch. */
void BM_MmapTouchMunmap(benchmark::State& state) {
    Frame f(kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12, Nv12Size(kWidth, kHeight));
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    for (auto _ : state) {
        void* p = mmap(nullptr, f.size(), PROT_READ | PROT_WRITE, MAP_SHARED, f.fd(), 0);
        const volatile uint8_t* bytes = static_cast<const uint8_t*>(p);
        unsigned sum = 0;
        for (size_t off = 0; off < f.size(); off += page)
            sum += bytes[off];
        benchmark::DoNotOptimize(sum);
        munmap(p, f.size());
    }
}

/*
 * The engine's job on one thread and on two, in turns within one loop (the
 * order swaps every iteration), by wall time: the speed-up of one job from
 * the second core.
 */
void BM_Threads(benchmark::State& state, const Case& c) {
    Pair p = MakePair(c);
    const uint32_t hs = nax_import_fd(p.src->fd(), nullptr);
    const uint32_t hd = nax_import_fd(p.dst->fd(), nullptr);
    const nax_buffer_t s = nax_wrap_handle(hs, c.srcW, c.srcH, c.srcW, c.srcH, c.srcNax);
    const nax_buffer_t d = nax_wrap_handle(hd, c.dstW, c.dstH, c.dstW, c.dstH, c.dstNax);
    /* CPU time of the calling thread and of the process (the workers'
     * share is the difference) over the two-thread runs. */
    std::vector<double> caller;
    std::vector<double> helpers;
    auto run = [&](int threads) {
        nax_sw_set_job_threads(threads);
        int fence = -1;
        const double cpu0 = ThreadCpuMicros();
        const double all0 = ProcessCpuMicros();
        const double t0 = WallMicros();
        nax_process(s, d, nax_buffer_t{}, nax_rect{}, nax_rect{}, nax_rect{}, -1, &fence, nullptr,
                    NAX_USAGE_SYNC | c.transform);
        const double wall = WallMicros() - t0;
        if (threads == 2) {
            const double own = ThreadCpuMicros() - cpu0;
            caller.push_back(own);
            helpers.push_back(ProcessCpuMicros() - all0 - own);
        }
        return wall;
    };
    run(2);
    if (!SameAsLibyuv(c, *p.dst, *p.src)) {
        state.SkipWithError("the engine on two threads does not match libyuv");
        g_failed = true;
    }
    std::vector<double> times[2];
    uint64_t turn = 0;
    for (auto _ : state) {
        for (int k = 0; k < 2; k++) {
            const int which = static_cast<int>((turn + k) % 2);
            times[which].push_back(run(which + 1));
        }
        turn++;
    }
    nax_sw_set_job_threads(1);
    nax_release_handle(hs);
    nax_release_handle(hd);
    const double one = Median(times[0]);
    const double two = Median(times[1]);
    state.counters["one_thread_us"] = one;
    state.counters["two_threads_us"] = two;
    state.counters["speedup"] = one / two;
    state.counters["caller_cpu_us"] = Median(caller);
    state.counters["helper_cpu_us"] = Median(helpers);
}

/* A full-HD client buffer nobody mapped yet, as a fresh gralloc buffer. */
std::unique_ptr<Frame> ClientFrame(uint32_t fourcc) {
    const bool nv12 = fourcc == V4L2_PIX_FMT_NV12;
    return std::make_unique<Frame>(
        kWidth, kHeight, nv12 ? NAX_FORMAT_YCbCr_420_SP : NAX_FORMAT_RGBA_8888, fourcc,
        nv12 ? Nv12Size(kWidth, kHeight) : static_cast<size_t>(kWidth) * kHeight * 4, false);
}

/* One job of the frame fan-out's shape: full-HD NV12 into a client buffer. */
double FanOutJob(NaxImageOperator& op, ImageBuffer& src, ImageBuffer dst) {
    ImageBuffer pat{0, 0, 0, -1, 0, 0, 0, 0, 0};
    int fence = -1;
    const double t0 = WallMicros();
    op.process(src, dst, pat, ImageRect{0, 0, kWidth, kHeight}, ImageRect{0, 0, 0, 0},
               ImageRect{0, 0, 0, 0}, 0, &fence, 0);
    return WallMicros() - t0;
}

/*
 * Jobs into N client buffers in turn, each iteration the next buffer: what
 * a camera with N lent buffers does. Without holds the engine keeps at most
 * 128 idle mappings, so past that every job maps and faults its buffer in;
 * with a hold on each (taken when the buffer is lent) none does.
 */
void BM_Cycle(benchmark::State& state, uint32_t fourcc) {
    const int count = static_cast<int>(state.range(0));
    const bool held = state.range(1) != 0;
    Frame src(kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
              Nv12Size(kWidth, kHeight));
    NaxImageOperator op;
    bool cache = false;
    op.control("SetCacheHandle", &cache);
    std::vector<std::unique_ptr<Frame>> buffers;
    std::vector<NaxBufferHold> holds;
    ImageBuffer source = src.image();
    NaxBufferHold sourceHold;
    if (held)
        sourceHold = op.holdBuffer(source);
    for (int i = 0; i < count; i++) {
        buffers.push_back(ClientFrame(fourcc));
        if (held)
            holds.push_back(op.holdBuffer(buffers.back()->image()));
    }
    /* One turn through them all first: every page exists afterwards. */
    for (auto& b : buffers)
        FanOutJob(op, source, b->image());
    std::vector<double> times;
    size_t next = 0;
    for (auto _ : state) {
        const double t = FanOutJob(op, source, buffers[next]->image());
        state.SetIterationTime(t / 1e6);
        times.push_back(t);
        next = (next + 1) % buffers.size();
    }
    state.counters["job_us"] = Median(times);
    state.counters["lent_buffers"] = count;
}

/*
 * The first job into a fresh client buffer: unheld (the job maps it and
 * faults its pages in), held beforehand (as when it is lent), and a later
 * job into a buffer that has had one (warm). Warm jobs go to four such
 * buffers in turn, as into a client's four sets, so that none is still in
 * the cache from the job before.
 */
void BM_First(benchmark::State& state, uint32_t fourcc, int mode) {
    constexpr size_t kWarmSets = 4;
    Frame src(kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
              Nv12Size(kWidth, kHeight));
    NaxImageOperator op;
    bool cache = false;
    op.control("SetCacheHandle", &cache);
    ImageBuffer source = src.image();
    NaxBufferHold sourceHold = op.holdBuffer(source);
    std::vector<std::unique_ptr<Frame>> warm;
    std::vector<NaxBufferHold> warmHolds;
    for (size_t i = 0; i < kWarmSets; i++) {
        warm.push_back(ClientFrame(fourcc));
        warmHolds.push_back(op.holdBuffer(warm.back()->image()));
        FanOutJob(op, source, warm.back()->image());
    }
    std::vector<double> times;
    size_t next = 0;
    for (auto _ : state) {
        double t;
        if (mode == 2) {
            t = FanOutJob(op, source, warm[next]->image());
            next = (next + 1) % kWarmSets;
        } else {
            std::unique_ptr<Frame> fresh = ClientFrame(fourcc);
            NaxBufferHold hold;
            if (mode == 1)
                hold = op.holdBuffer(fresh->image());
            t = FanOutJob(op, source, fresh->image());
        }
        state.SetIterationTime(t / 1e6);
        times.push_back(t);
    }
    state.counters["job_us"] = Median(times);
}

/* A full-HD client buffer as First/held's, mapped here and faulted in. */
std::unique_ptr<Frame> FaultedInClientFrame(uint32_t fourcc) {
    std::unique_ptr<Frame> frame = ClientFrame(fourcc);
    frame->MapFaultedIn();
    return frame;
}

/* libyuv's NV12 to NV12 or to RGBA, the Paired cases' own call. */
double LibyuvJob(const Frame& src, uint32_t fourcc, const Frame& dst) {
    const double t0 = WallMicros();
    if (fourcc == V4L2_PIX_FMT_NV12)
        Nv12Copy(src, dst);
    else
        Nv12ToRgba(src, dst);
    return WallMicros() - t0;
}

/* The floor under First/held: what a fresh, faulted-in buffer costs libyuv
 * alone over one it wrote before. */
void BM_FirstLibyuv(benchmark::State& state, uint32_t fourcc, bool fresh) {
    Frame src(kWidth, kHeight, NAX_FORMAT_YCbCr_420_SP, V4L2_PIX_FMT_NV12,
              Nv12Size(kWidth, kHeight));
    std::vector<std::unique_ptr<Frame>> warm;
    for (int i = 0; i < 4; i++) {
        warm.push_back(FaultedInClientFrame(fourcc));
        LibyuvJob(src, fourcc, *warm.back());
    }
    std::vector<double> times;
    size_t next = 0;
    constexpr size_t kEarlier = 128; /* the engine's bound on idle mappings */
    std::deque<std::unique_ptr<Frame>> earlier;
    for (auto _ : state) {
        double t;
        if (fresh) {
            /* Earlier buffers stay for a while, as the engine's idle
             * mappings keep the ones First/held forgot: a fresh buffer's
             * pages are then not those of a buffer freed just now, still
             * in the cache. */
            std::unique_ptr<Frame> dst = FaultedInClientFrame(fourcc);
            t = LibyuvJob(src, fourcc, *dst);
            earlier.push_back(std::move(dst));
            if (earlier.size() > kEarlier)
                earlier.pop_front();
        } else {
            t = LibyuvJob(src, fourcc, *warm[next]);
            next = (next + 1) % warm.size();
        }
        state.SetIterationTime(t / 1e6);
        times.push_back(t);
    }
    state.counters["job_us"] = Median(times);
}

void Register() {
    benchmark::RegisterBenchmark("Import/ImportRelease", BM_ImportRelease);
    benchmark::RegisterBenchmark("Import/MmapMunmap", BM_MmapMunmap);
    benchmark::RegisterBenchmark("Import/MmapTouchMunmap", BM_MmapTouchMunmap);
    for (const Case& c : kCases) {
        const std::string n = c.name;
        benchmark::RegisterBenchmark(("Memcpy/" + n).c_str(), BM_Memcpy, c)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("Libyuv/" + n).c_str(), BM_Libyuv, c)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("Engine/" + n).c_str(), BM_Engine, c)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("Operator/" + n).c_str(), BM_Operator, c)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("Paired/" + n).c_str(), BM_Paired, c)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("Threads/" + n).c_str(), BM_Threads, c)
            ->Unit(benchmark::kMicrosecond);
    }
    for (uint32_t fourcc : {V4L2_PIX_FMT_NV12, V4L2_PIX_FMT_RGBA32}) {
        const std::string f = fourcc == V4L2_PIX_FMT_NV12 ? "NV12" : "RGBA";
        auto* cycle = benchmark::RegisterBenchmark(("Cycle/" + f).c_str(), BM_Cycle, fourcc);
        cycle->ArgNames({"buffers", "held"})->UseManualTime()->Unit(benchmark::kMicrosecond);
        for (int count : {8, 64, 120, 136, 192, 256})
            for (int held : {0, 1})
                cycle->Args({count, held});
        const char* modes[] = {"cold", "held", "warm"};
        for (int mode = 0; mode < 3; mode++)
            benchmark::RegisterBenchmark(("First/" + f + "/" + modes[mode]).c_str(), BM_First,
                                         fourcc, mode)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
        for (bool fresh : {true, false})
            benchmark::RegisterBenchmark(
                ("First/" + f + (fresh ? "/libyuv_fresh" : "/libyuv_warm")).c_str(), BM_FirstLibyuv,
                fourcc, fresh)
                ->UseManualTime()
                ->Unit(benchmark::kMicrosecond);
    }
}

}  // namespace

int main(int argc, char** argv) {
    /* libyuv runs on one thread: so does the engine, but in Threads. */
    nax_sw_set_job_threads(1);
    Register();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return g_failed ? 1 : 0;
}
