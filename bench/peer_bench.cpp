/*
 * The software 2D engine against the converters a Linux camera pipeline
 * would otherwise use, in one process on the same full-HD frames: libyuv
 * (which the engine calls), GStreamer's video converter (GstVideoConverter
 * of gst-plugins-base, as videoconvert and videoscale run it) and ffmpeg's
 * swscale.
 *
 * Peers/<case> times the four in turns within one loop (the order rotates
 * every iteration), each on one thread (the engine with
 * nax_sw_set_job_threads(1), GStreamer with one converter thread, swscale
 * as it comes), and reports the median thread CPU time of each and the
 * peers' times over the engine's. Before timing, every output is compared
 * with libyuv's: the largest difference of any byte and the mean
 * difference, per peer.
 *
 * All read BT.601 limited-range YUV and scale bilinearly.
 */
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <gst/gst.h>
#include <gst/video/video.h>
#include <libyuv.h>
#include <nax/nax.h>
#include <nax/nax_sw.h>

extern "C" {
#include <libavutil/pixfmt.h>
#include <libswscale/swscale.h>

#include "bench_clock.h"
}

using bench::Median;
using bench::ThreadCpuMicros;

namespace {

bool g_failed = false;

struct Case {
    const char* name;
    int sw, sh;
    int dw, dh;
    int srcNax, dstNax;
    GstVideoFormat srcGst, dstGst;
    AVPixelFormat srcAv, dstAv;
};

const Case kCases[] = {
    {"Nv12ToRgba", 1920, 1080, 1920, 1080, NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_RGBA_8888,
     GST_VIDEO_FORMAT_NV12, GST_VIDEO_FORMAT_RGBA, AV_PIX_FMT_NV12, AV_PIX_FMT_RGBA},
    {"Nv12Scale640x360", 1920, 1080, 640, 360, NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_YCbCr_420_SP,
     GST_VIDEO_FORMAT_NV12, GST_VIDEO_FORMAT_NV12, AV_PIX_FMT_NV12, AV_PIX_FMT_NV12},
    {"UyvyToNv12", 1920, 1080, 1920, 1080, NAX_FORMAT_UYVY_422, NAX_FORMAT_YCbCr_420_SP,
     GST_VIDEO_FORMAT_UYVY, GST_VIDEO_FORMAT_NV12, AV_PIX_FMT_UYVY422, AV_PIX_FMT_NV12},
};

size_t Bytes(int nax, int w, int h) {
    switch (nax) {
        case NAX_FORMAT_RGBA_8888:
            return static_cast<size_t>(w) * h * 4;
        case NAX_FORMAT_UYVY_422:
            return static_cast<size_t>(w) * h * 2;
        default:
            return static_cast<size_t>(w) * h * 3 / 2;
    }
}

/* Plane pointers and pitches of the packed layouts used here. */
struct Layout {
    uint8_t* p[2];
    int stride[2];
};

Layout LayoutOf(std::vector<uint8_t>& mem, int nax, int w, int h) {
    switch (nax) {
        case NAX_FORMAT_RGBA_8888:
            return Layout{{mem.data(), nullptr}, {w * 4, 0}};
        case NAX_FORMAT_UYVY_422:
            return Layout{{mem.data(), nullptr}, {w * 2, 0}};
        default:
            return Layout{{mem.data(), mem.data() + static_cast<size_t>(w) * h}, {w, w}};
    }
}

void RunLibyuv(const Case& c, std::vector<uint8_t>& src, std::vector<uint8_t>& dst) {
    const Layout s = LayoutOf(src, c.srcNax, c.sw, c.sh);
    const Layout d = LayoutOf(dst, c.dstNax, c.dw, c.dh);
    if (c.dstNax == NAX_FORMAT_RGBA_8888)
        libyuv::NV12ToABGR(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], c.sw,
                           c.sh);
    else if (c.srcNax == NAX_FORMAT_UYVY_422)
        libyuv::UYVYToNV12(s.p[0], s.stride[0], d.p[0], d.stride[0], d.p[1], d.stride[1], c.sw,
                           c.sh);
    else
        libyuv::NV12Scale(s.p[0], s.stride[0], s.p[1], s.stride[1], c.sw, c.sh, d.p[0], d.stride[0],
                          d.p[1], d.stride[1], c.dw, c.dh, libyuv::kFilterBilinear);
}

/* The engine on CPU-address imports of the same memory. */
class Engine {
  public:
    Engine(const Case& c, std::vector<uint8_t>& src, std::vector<uint8_t>& dst) {
        hs_ = nax_import_vaddr(reinterpret_cast<uintptr_t>(src.data()), nullptr);
        hd_ = nax_import_vaddr(reinterpret_cast<uintptr_t>(dst.data()), nullptr);
        s_ = nax_wrap_handle(hs_, c.sw, c.sh, c.sw, c.sh, c.srcNax);
        d_ = nax_wrap_handle(hd_, c.dw, c.dh, c.dw, c.dh, c.dstNax);
    }
    ~Engine() {
        nax_release_handle(hs_);
        nax_release_handle(hd_);
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    int Run() {
        int fence = -1;
        return nax_process(s_, d_, nax_buffer_t{}, nax_rect{}, nax_rect{}, nax_rect{}, -1, &fence,
                           nullptr, NAX_USAGE_SYNC);
    }

  private:
    uint32_t hs_ = 0;
    uint32_t hd_ = 0;
    nax_buffer_t s_;
    nax_buffer_t d_;
};

/* GStreamer's converter on one thread, frames wrapping the same memory. */
class Gst {
  public:
    Gst(const Case& c, std::vector<uint8_t>& src, std::vector<uint8_t>& dst) {
        gst_video_info_set_format(&in_, c.srcGst, c.sw, c.sh);
        gst_video_info_set_format(&out_, c.dstGst, c.dw, c.dh);
        /* BT.601 limited range on the YUV side, as the engine reads it. */
        gst_video_colorimetry_from_string(&in_.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
        if (GST_VIDEO_INFO_IS_YUV(&out_))
            gst_video_colorimetry_from_string(&out_.colorimetry, GST_VIDEO_COLORIMETRY_BT601);
        GstStructure* config = gst_structure_new(
            "GstVideoConverter", GST_VIDEO_CONVERTER_OPT_THREADS, G_TYPE_UINT, 1,
            GST_VIDEO_CONVERTER_OPT_RESAMPLER_METHOD, GST_TYPE_VIDEO_RESAMPLER_METHOD,
            GST_VIDEO_RESAMPLER_METHOD_LINEAR, nullptr);
        converter_ = gst_video_converter_new(&in_, &out_, config);
        srcBuf_ = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, src.data(), src.size(), 0,
                                              src.size(), nullptr, nullptr);
        dstBuf_ = gst_buffer_new_wrapped_full(static_cast<GstMemoryFlags>(0), dst.data(),
                                              dst.size(), 0, dst.size(), nullptr, nullptr);
        ok_ = converter_ && gst_video_frame_map(&inFrame_, &in_, srcBuf_, GST_MAP_READ) &&
              gst_video_frame_map(&outFrame_, &out_, dstBuf_, GST_MAP_WRITE);
    }
    ~Gst() {
        if (ok_) {
            gst_video_frame_unmap(&inFrame_);
            gst_video_frame_unmap(&outFrame_);
        }
        gst_buffer_unref(srcBuf_);
        gst_buffer_unref(dstBuf_);
        if (converter_)
            gst_video_converter_free(converter_);
    }
    Gst(const Gst&) = delete;
    Gst& operator=(const Gst&) = delete;

    bool ok() const { return ok_; }
    void Run() { gst_video_converter_frame(converter_, &inFrame_, &outFrame_); }

  private:
    GstVideoInfo in_;
    GstVideoInfo out_;
    GstVideoConverter* converter_ = nullptr;
    GstBuffer* srcBuf_ = nullptr;
    GstBuffer* dstBuf_ = nullptr;
    GstVideoFrame inFrame_;
    GstVideoFrame outFrame_;
    bool ok_ = false;
};

/* swscale, bilinear, BT.601 limited range (its default matrix). */
class Swscale {
  public:
    Swscale(const Case& c, std::vector<uint8_t>& src, std::vector<uint8_t>& dst) : c_(c) {
        context_ = sws_getContext(c.sw, c.sh, c.srcAv, c.dw, c.dh, c.dstAv, SWS_BILINEAR, nullptr,
                                  nullptr, nullptr);
        const Layout s = LayoutOf(src, c.srcNax, c.sw, c.sh);
        const Layout d = LayoutOf(dst, c.dstNax, c.dw, c.dh);
        for (int i = 0; i < 2; i++) {
            srcP_[i] = s.p[i];
            srcS_[i] = s.stride[i];
            dstP_[i] = d.p[i];
            dstS_[i] = d.stride[i];
        }
    }
    ~Swscale() { sws_freeContext(context_); }
    Swscale(const Swscale&) = delete;
    Swscale& operator=(const Swscale&) = delete;

    bool ok() const { return context_ != nullptr; }
    void Run() { sws_scale(context_, srcP_, srcS_, 0, c_.sh, dstP_, dstS_); }

  private:
    const Case& c_;
    SwsContext* context_ = nullptr;
    const uint8_t* srcP_[4] = {};
    int srcS_[4] = {};
    uint8_t* dstP_[4] = {};
    int dstS_[4] = {};
};

/*
 * A camera-like picture inside the limited range: smooth luma ramps with a
 * soft pattern and slowly turning chroma, so that the converters' filters
 * and rounding, not aliasing of noise, make the differences.
 */
uint8_t SceneY(int x, int y) {
    const double v = 16 + 180.0 * (x + y) / 3000.0 + 20 * std::sin(x / 37.0) * std::cos(y / 29.0);
    return static_cast<uint8_t>(std::clamp(v, 16.0, 235.0));
}
uint8_t SceneU(int x, int y) {
    return static_cast<uint8_t>(128 + 70 * std::sin(x / 211.0 + y / 307.0));
}
uint8_t SceneV(int x, int y) {
    return static_cast<uint8_t>(128 + 70 * std::cos(x / 173.0 - y / 251.0));
}

void WriteScene(const Case& c, std::vector<uint8_t>& src) {
    const Layout l = LayoutOf(src, c.srcNax, c.sw, c.sh);
    for (int y = 0; y < c.sh; y++) {
        for (int x = 0; x < c.sw; x += 2) {
            if (c.srcNax == NAX_FORMAT_UYVY_422) {
                uint8_t* p = l.p[0] + static_cast<size_t>(y) * l.stride[0] + x * 2;
                p[0] = SceneU(x, y);
                p[1] = SceneY(x, y);
                p[2] = SceneV(x, y);
                p[3] = SceneY(x + 1, y);
                continue;
            }
            uint8_t* row = l.p[0] + static_cast<size_t>(y) * l.stride[0];
            row[x] = SceneY(x, y);
            row[x + 1] = SceneY(x + 1, y);
            if (y % 2 == 0) {
                uint8_t* uv = l.p[1] + static_cast<size_t>(y / 2) * l.stride[1] + x;
                uv[0] = SceneU(x, y);
                uv[1] = SceneV(x, y);
            }
        }
    }
}

/* Largest and mean difference of every byte from the reference. */
void Compare(benchmark::State& state, const char* who, const std::vector<uint8_t>& ref,
             const std::vector<uint8_t>& out) {
    int worst = 0;
    double sum = 0;
    for (size_t i = 0; i < ref.size(); i++) {
        const int d = std::abs(static_cast<int>(ref[i]) - static_cast<int>(out[i]));
        worst = std::max(worst, d);
        sum += d;
    }
    state.counters[std::string(who) + "_max_diff"] = worst;
    state.counters[std::string(who) + "_mean_diff"] = sum / static_cast<double>(ref.size());
}

void BM_Peers(benchmark::State& state, const Case& c) {
    std::vector<uint8_t> src(Bytes(c.srcNax, c.sw, c.sh));
    WriteScene(c, src);
    const size_t outBytes = Bytes(c.dstNax, c.dw, c.dh);
    std::vector<uint8_t> ref(outBytes), eng(outBytes), gst(outBytes), sws(outBytes);

    Engine engine(c, src, eng);
    Gst gstreamer(c, src, gst);
    Swscale swscale(c, src, sws);
    if (!gstreamer.ok() || !swscale.ok()) {
        state.SkipWithError("a peer could not be set up");
        g_failed = true;
        return;
    }
    RunLibyuv(c, src, ref);
    if (engine.Run() != 0 || eng != ref) {
        state.SkipWithError("the engine does not match libyuv");
        g_failed = true;
        return;
    }
    gstreamer.Run();
    swscale.Run();
    Compare(state, "gst", ref, gst);
    Compare(state, "sws", ref, sws);

    std::vector<double> times[4];
    uint64_t turn = 0;
    for (auto _ : state) {
        for (int k = 0; k < 4; k++) {
            const int which = static_cast<int>((turn + k) % 4);
            const double t0 = ThreadCpuMicros();
            switch (which) {
                case 0:
                    RunLibyuv(c, src, ref);
                    break;
                case 1:
                    engine.Run();
                    break;
                case 2:
                    gstreamer.Run();
                    break;
                default:
                    swscale.Run();
                    break;
            }
            times[which].push_back(ThreadCpuMicros() - t0);
            benchmark::ClobberMemory();
        }
        turn++;
    }
    const double lib = Median(times[0]);
    const double e = Median(times[1]);
    state.counters["libyuv_us"] = lib;
    state.counters["engine_us"] = e;
    state.counters["gst_us"] = Median(times[2]);
    state.counters["sws_us"] = Median(times[3]);
    state.counters["engine_vs_libyuv"] = lib / e;
    state.counters["engine_vs_gst"] = Median(times[2]) / e;
    state.counters["engine_vs_sws"] = Median(times[3]) / e;
}

}  // namespace

int main(int argc, char** argv) {
    gst_init(nullptr, nullptr);
    nax_sw_set_job_threads(1);
    for (const Case& c : kCases)
        benchmark::RegisterBenchmark((std::string("Peers/") + c.name).c_str(), BM_Peers, c)
            ->Unit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return g_failed ? 1 : 0;
}
