/*
 * The engine's one job: crop, scale, convert, rotate and mirror.
 *
 * The common cases of a camera pipeline take one direct libyuv call
 * straight between the buffers. Everything else passes through a working
 * image: I420 when the source is 4:2:0, grey, YUYV or UYVY and the
 * destination 4:2:0 or grey (luma is carried exactly, chroma is not sent
 * through RGB and back, and a third of the bytes move), or when a 4:2:0 or
 * grey source shrinks into any other format (converted to ARGB at the
 * small size, at the end); ARGB throughout otherwise.
 *
 * A destination rectangle that does not lie on its format's chroma grid is
 * read back first, so the pixels beside it that share its chroma samples
 * keep their luma.
 *
 * Large jobs are shared with the worker pool: each step is cut into bands
 * of rows (strips for rotations, planes for planar scaling) that the step
 * computes exactly as it computes the whole, so the result is the same
 * byte for byte whatever the number of threads. Steps whose libyuv call
 * resamples across rows as a whole (4:2:2 chroma to and from 4:2:0, and
 * mirroring) stay whole.
 */
#include "engine.h"

#include <errno.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <memory>

#include <libyuv.h>

#include "argb_scale.h"
#include "convert.h"
#include "log.h"
#include "worker_pool.h"

namespace nax {

namespace {

libyuv::FilterMode ToLibyuv(Filter f) {
    switch (f) {
        case Filter::Nearest:
            return libyuv::kFilterNone;
        case Filter::Bilinear:
            return libyuv::kFilterBilinear;
        case Filter::Box:
            return libyuv::kFilterBox;
    }
    return libyuv::kFilterBilinear;
}

libyuv::RotationMode Rotation(int transform) {
    if (transform & NAX_TRANSFORM_ROT_90)
        return libyuv::kRotate90;
    if (transform & NAX_TRANSFORM_ROT_180)
        return libyuv::kRotate180;
    if (transform & NAX_TRANSFORM_ROT_270)
        return libyuv::kRotate270;
    return libyuv::kRotate0;
}

bool IsArgbLike(const FormatInfo* f) {
    return f->kind == Kind::Rgb && f->bpp == 4;
}

/* Formats an I420 working image carries without resampling chroma; libyuv
 * resamples between 4:2:0 and 4:2:2 with a scaler, which blurs and shifts
 * chroma edges, so 4:2:2 passes through ARGB instead. */
bool Is420(const FormatInfo* f) {
    return f->kind == Kind::Semi420 || f->kind == Kind::Planar420 || f->kind == Kind::Grey;
}

/* Sources an I420 working image reads without loss for a 4:2:0
 * destination: libyuv averages the chroma rows of YUYV and UYVY in pairs.
 * (The other 4:2:2 formats would need its scaler, which blends rows across
 * an odd last row.) */
bool ReadsAs420(const FormatInfo* f) {
    return Is420(f) || f->code == NAX_FORMAT_YUYV_422 || f->code == NAX_FORMAT_UYVY_422;
}

/* Jobs smaller than this run on the calling thread alone: waking a worker
 * costs more than it saves. (A 640x480 frame is 307200 pixels.) */
constexpr int64_t kParallelPixels = 300000;
/* Bands per thread, so that a late worker leaves more to the others. */
constexpr int kBandsPerThread = 4;
constexpr int kMinBandRows = 16;

int64_t Pixels(const Rect& r) {
    return static_cast<int64_t>(r.w) * r.h;
}

/* Threads for a job of this size: 1 below the threshold. */
int WidthFor(int64_t pixels) {
    return pixels < kParallelPixels ? 1 : WorkerPool::Instance().Width();
}

/*
 * Runs band(y0, y1) over [0, rows), cut at multiples of 2 (the chroma row
 * pairs of 4:2:0), on `width` threads; one band covering everything when
 * width is 1. Returns 0 or the first failure.
 */
int ForRowBands(int width, int rows, const std::function<int(int, int)>& band) {
    const int pairs = (rows + 1) / 2;
    const int count = width <= 1 ? 1 : std::min(width * kBandsPerThread, pairs * 2 / kMinBandRows);
    if (count <= 1)
        return band(0, rows);
    return WorkerPool::Instance().Run(count, width, [&](int k) {
        const int y0 = std::min(rows, static_cast<int>(int64_t{pairs} * k / count) * 2);
        const int y1 = std::min(rows, static_cast<int>(int64_t{pairs} * (k + 1) / count) * 2);
        return band(y0, y1);
    });
}

/* Rows [y0, y1) of a rectangle. */
Rect RowsOf(const Rect& r, int y0, int y1) {
    return Rect{r.x, r.y + y0, r.w, y1 - y0};
}

/* Same format, same size: a copy of each plane. */
void CopyOnce(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr) {
    const Planes s = PlanesAt(src, sr.x, sr.y);
    const Planes d = PlanesAt(dst, dr.x, dr.y);
    const FormatInfo* f = src.fmt;
    const int w = sr.w;
    const int h = sr.h;
    switch (f->kind) {
        case Kind::Rgb:
        case Kind::Grey:
            libyuv::CopyPlane(s.p[0], s.stride[0], d.p[0], d.stride[0], w * f->bpp, h);
            break;
        case Kind::Packed422:
            libyuv::CopyPlane(s.p[0], s.stride[0], d.p[0], d.stride[0], Half(w) * 4, h);
            break;
        case Kind::Semi420:
        case Kind::Semi422: {
            libyuv::CopyPlane(s.p[0], s.stride[0], d.p[0], d.stride[0], w, h);
            const int ch = f->kind == Kind::Semi420 ? Half(h) : h;
            libyuv::CopyPlane(s.p[1], s.stride[1], d.p[1], d.stride[1], Half(w) * 2, ch);
            break;
        }
        case Kind::Planar420:
            libyuv::I420Copy(s.p[0], s.stride[0], s.p[1], s.stride[1], s.p[2], s.stride[2], d.p[0],
                             d.stride[0], d.p[1], d.stride[1], d.p[2], d.stride[2], w, h);
            break;
    }
}

void CopyPlanes(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr) {
    ForRowBands(WidthFor(Pixels(sr)), sr.h, [&](int y0, int y1) {
        CopyOnce(src, RowsOf(sr, y0, y1), dst, RowsOf(dr, y0, y1));
        return 0;
    });
}

/* A direct libyuv conversion between two buffers, planes at the first pixel. */
using DirectFn = int (*)(const Planes& s, const Planes& d, int w, int h);

struct DirectConversion {
    int src;
    int dst;
    DirectFn run;
};

/*
 * Conversions without scaling or transform that take one libyuv call.
 * Bytes R,G,B,A are libyuv's ABGR; bytes B,G,R,A (ABGR_8888 and XBGR_8888,
 * named as V4L2 names them) are libyuv's ARGB. Each works on rows or row
 * pairs alone, so bands of rows convert as the whole does.
 */
int Nv12ToAbgr(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::NV12ToABGR(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], w, h);
}
int Nv12ToArgb(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::NV12ToARGB(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], w, h);
}
int Nv21ToAbgr(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::NV21ToABGR(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], w, h);
}
int Nv21ToArgb(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::NV21ToARGB(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], w, h);
}
int UyvyToNv12(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::UYVYToNV12(s.p[0], s.stride[0], d.p[0], d.stride[0], d.p[1], d.stride[1], w, h);
}
int YuyvToNv12(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::YUY2ToNV12(s.p[0], s.stride[0], d.p[0], d.stride[0], d.p[1], d.stride[1], w, h);
}
int UyvyToArgb(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::UYVYToARGB(s.p[0], s.stride[0], d.p[0], d.stride[0], w, h);
}
int YuyvToArgb(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::YUY2ToARGB(s.p[0], s.stride[0], d.p[0], d.stride[0], w, h);
}
int Nv12ToI420(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::NV12ToI420(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], d.p[1],
                              d.stride[1], d.p[2], d.stride[2], w, h);
}
int I420ToNv12(const Planes& s, const Planes& d, int w, int h) {
    return libyuv::I420ToNV12(s.p[0], s.stride[0], s.p[1], s.stride[1], s.p[2], s.stride[2], d.p[0],
                              d.stride[0], d.p[1], d.stride[1], w, h);
}

const DirectConversion kDirectConversions[] = {
    {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_RGBA_8888, Nv12ToAbgr},
    {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_RGBX_8888, Nv12ToAbgr},
    {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_ABGR_8888, Nv12ToArgb},
    {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_XBGR_8888, Nv12ToArgb},
    {NAX_FORMAT_YCrCb_420_SP, NAX_FORMAT_RGBA_8888, Nv21ToAbgr},
    {NAX_FORMAT_YCrCb_420_SP, NAX_FORMAT_RGBX_8888, Nv21ToAbgr},
    {NAX_FORMAT_YCrCb_420_SP, NAX_FORMAT_ABGR_8888, Nv21ToArgb},
    {NAX_FORMAT_YCrCb_420_SP, NAX_FORMAT_XBGR_8888, Nv21ToArgb},
    {NAX_FORMAT_UYVY_422, NAX_FORMAT_YCbCr_420_SP, UyvyToNv12},
    {NAX_FORMAT_YUYV_422, NAX_FORMAT_YCbCr_420_SP, YuyvToNv12},
    {NAX_FORMAT_UYVY_422, NAX_FORMAT_ABGR_8888, UyvyToArgb},
    {NAX_FORMAT_UYVY_422, NAX_FORMAT_XBGR_8888, UyvyToArgb},
    {NAX_FORMAT_YUYV_422, NAX_FORMAT_ABGR_8888, YuyvToArgb},
    {NAX_FORMAT_YUYV_422, NAX_FORMAT_XBGR_8888, YuyvToArgb},
    {NAX_FORMAT_YCbCr_420_SP, NAX_FORMAT_YCbCr_420_P, Nv12ToI420},
    {NAX_FORMAT_YCbCr_420_P, NAX_FORMAT_YCbCr_420_SP, I420ToNv12},
};

/* The direct conversion between two formats, or null. */
DirectFn FindDirectConversion(const FormatInfo* src, const FormatInfo* dst) {
    for (const DirectConversion& c : kDirectConversions) {
        if (c.src == src->code && c.dst == dst->code)
            return c.run;
    }
    return nullptr;
}

int DirectConvert(DirectFn convert, const Surface& src, const Rect& sr, const Surface& dst,
                  const Rect& dr) {
    const int width = WidthFor(Pixels(sr));
    return ForRowBands(width, sr.h, [&](int y0, int y1) {
        const Planes s = PlanesAt(src, sr.x, sr.y + y0);
        const Planes d = PlanesAt(dst, dr.x, dr.y + y0);
        return convert(s, d, sr.w, y1 - y0) == 0 ? 0 : -EINVAL;
    });
}

/* One plane of one-byte samples (or two-byte pairs) to scale. */
struct PlaneScale {
    const uint8_t* src;
    int srcStride;
    int sw, sh;
    uint8_t* dst;
    int dstStride;
    int dw, dh;
    bool pairs; /* interleaved chroma: libyuv's UVScale */
};

/*
 * libyuv's NV12Scale and I420Scale scale each plane on its own (ScalePlane
 * for luma and planar chroma, UVScale for interleaved chroma); so do these
 * tasks, a plane each, which gives the same bytes.
 */
int ScalePlanes(int width, const PlaneScale* planes, int count, libyuv::FilterMode fm) {
    return WorkerPool::Instance().Run(count, width, [&](int i) {
        const PlaneScale& p = planes[i];
        if (p.pairs)
            return libyuv::UVScale(p.src, p.srcStride, p.sw, p.sh, p.dst, p.dstStride, p.dw, p.dh,
                                   fm) == 0
                       ? 0
                       : -EINVAL;
        libyuv::ScalePlane(p.src, p.srcStride, p.sw, p.sh, p.dst, p.dstStride, p.dw, p.dh, fm);
        return 0;
    });
}

/* 32-bit pixels, scaled in bands of output rows. */
int ScaleArgb(int width, const uint8_t* src, int srcStride, int sw, int sh, uint8_t* dst,
              int dstStride, int dw, int dh, Filter filter) {
    return ForRowBands(width, dh, [&](int y0, int y1) {
        ScaleArgbRows(src, srcStride, sw, sh, dst, dstStride, dw, dh, filter, y0, y1);
        return 0;
    });
}

/* Same-format scaling without transform; -1 when there is none. */
int DirectScale(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr,
                Filter filter) {
    const Planes s = PlanesAt(src, sr.x, sr.y);
    const Planes d = PlanesAt(dst, dr.x, dr.y);
    const libyuv::FilterMode fm = ToLibyuv(filter);
    const FormatInfo* f = src.fmt;
    const int width = WidthFor(std::max(Pixels(sr), Pixels(dr)));
    if (f->kind == Kind::Semi420) {
        const PlaneScale planes[] = {
            {s.p[0], s.stride[0], sr.w, sr.h, d.p[0], d.stride[0], dr.w, dr.h, false},
            {s.p[1], s.stride[1], Half(sr.w), Half(sr.h), d.p[1], d.stride[1], Half(dr.w),
             Half(dr.h), true},
        };
        return ScalePlanes(width, planes, 2, fm);
    }
    if (f->kind == Kind::Planar420) {
        const PlaneScale planes[] = {
            {s.p[0], s.stride[0], sr.w, sr.h, d.p[0], d.stride[0], dr.w, dr.h, false},
            {s.p[1], s.stride[1], Half(sr.w), Half(sr.h), d.p[1], d.stride[1], Half(dr.w),
             Half(dr.h), false},
            {s.p[2], s.stride[2], Half(sr.w), Half(sr.h), d.p[2], d.stride[2], Half(dr.w),
             Half(dr.h), false},
        };
        return ScalePlanes(width, planes, 3, fm);
    }
    if (IsArgbLike(f))
        return ScaleArgb(width, s.p[0], s.stride[0], sr.w, sr.h, d.p[0], d.stride[0], dr.w, dr.h,
                         filter);
    if (f->code == NAX_FORMAT_Y8) {
        libyuv::ScalePlane(s.p[0], s.stride[0], sr.w, sr.h, d.p[0], d.stride[0], dr.w, dr.h, fm);
        return 0;
    }
    return -1;
}

/*
 * Scratch memory kept per thread for the direct paths a camera runs at
 * every frame, so that they allocate nothing; one user at a time.
 */
uint8_t* ThreadScratch(size_t size) {
    thread_local std::unique_ptr<Scratch> scratch;
    thread_local size_t capacity = 0;
    if (size > capacity) {
        scratch = std::make_unique<Scratch>(size);
        capacity = size;
    }
    return scratch->get();
}

/* Same-format rotation without scaling or mirroring; -1 when there is none. */
int RotateOnce(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr,
               libyuv::RotationMode mode) {
    const Planes s = PlanesAt(src, sr.x, sr.y);
    const Planes d = PlanesAt(dst, dr.x, dr.y);
    const FormatInfo* f = src.fmt;
    const int w = sr.w;
    const int h = sr.h;
    if (f->kind == Kind::Semi420) {
        /* The chroma pairs rotate as two planes and merge again. */
        const int cw = Half(w);
        const int ch = Half(h);
        uint8_t* uv = ThreadScratch(static_cast<size_t>(cw) * ch * 2);
        const bool swap = mode == libyuv::kRotate90 || mode == libyuv::kRotate270;
        const int rw = swap ? ch : cw;
        const int rh = swap ? cw : ch;
        uint8_t* a = uv;
        uint8_t* b = a + static_cast<size_t>(cw) * ch;
        int rc = libyuv::RotatePlane(s.p[0], s.stride[0], d.p[0], d.stride[0], w, h, mode);
        if (rc == 0)
            rc = libyuv::SplitRotateUV(s.p[1], s.stride[1], a, rw, b, rw, cw, ch, mode);
        if (rc == 0)
            libyuv::MergeUVPlane(a, rw, b, rw, d.p[1], d.stride[1], rw, rh);
        return rc;
    }
    if (f->kind == Kind::Planar420)
        return libyuv::I420Rotate(s.p[0], s.stride[0], s.p[1], s.stride[1], s.p[2], s.stride[2],
                                  d.p[0], d.stride[0], d.p[1], d.stride[1], d.p[2], d.stride[2], w,
                                  h, mode);
    if (IsArgbLike(f))
        return libyuv::ARGBRotate(s.p[0], s.stride[0], d.p[0], d.stride[0], w, h, mode);
    if (f->code == NAX_FORMAT_Y8)
        return libyuv::RotatePlane(s.p[0], s.stride[0], d.p[0], d.stride[0], w, h, mode);
    return -1;
}

/*
 * Runs strip(source part, destination part) over strips of a w x h image
 * turned by `mode`, in parallel: a quarter turn sends source columns to
 * destination rows, a half turn source rows to destination rows in reverse
 * order. A turn only moves pixels, so strips turn as the whole does. Parts
 * are relative to the image's corner; strips are cut at even offsets, and
 * odd sizes (whose chroma would not split on the grid) stay whole.
 */
int ForRotationStrips(int width, int w, int h, libyuv::RotationMode mode,
                      const std::function<int(const Rect&, const Rect&)>& strip) {
    const bool swap = mode == libyuv::kRotate90 || mode == libyuv::kRotate270;
    if (w % 2 != 0 || h % 2 != 0)
        width = 1;
    return ForRowBands(width, swap ? w : h, [&](int a, int b) {
        const int n = b - a;
        switch (mode) {
            case libyuv::kRotate90:
                return strip(Rect{a, 0, n, h}, Rect{0, a, h, n});
            case libyuv::kRotate270:
                return strip(Rect{a, 0, n, h}, Rect{0, w - b, h, n});
            default:
                return strip(Rect{0, a, w, n}, Rect{0, h - b, w, n});
        }
    });
}

int DirectRotate(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr,
                 libyuv::RotationMode mode) {
    if (!IsArgbLike(src.fmt) && src.fmt->kind != Kind::Semi420 &&
        src.fmt->kind != Kind::Planar420 && src.fmt->code != NAX_FORMAT_Y8)
        return -1;
    const int width = WidthFor(Pixels(sr));
    return ForRotationStrips(width, sr.w, sr.h, mode, [&](const Rect& from, const Rect& to) {
        const Rect s{sr.x + from.x, sr.y + from.y, from.w, from.h};
        const Rect d{dr.x + to.x, dr.y + to.y, to.w, to.h};
        return RotateOnce(src, s, dst, d, mode) == 0 ? 0 : -EINVAL;
    });
}

std::unique_ptr<WorkImage> Scale(const View& in, int w, int h, Filter filter) {
    auto out = std::make_unique<WorkImage>(in.mid, w, h);
    const View& o = out->view();
    const int width =
        WidthFor(std::max(static_cast<int64_t>(in.w) * in.h, static_cast<int64_t>(w) * h));
    if (in.mid == Mid::Argb) {
        ScaleArgb(width, in.p[0], in.stride[0], in.w, in.h, o.p[0], o.stride[0], w, h, filter);
        return out;
    }
    const PlaneScale planes[] = {
        {in.p[0], in.stride[0], in.w, in.h, o.p[0], o.stride[0], w, h, false},
        {in.p[1], in.stride[1], Half(in.w), Half(in.h), o.p[1], o.stride[1], Half(w), Half(h),
         false},
        {in.p[2], in.stride[2], Half(in.w), Half(in.h), o.p[2], o.stride[2], Half(w), Half(h),
         false},
    };
    ScalePlanes(width, planes, 3, ToLibyuv(filter));
    return out;
}

std::unique_ptr<WorkImage> Rotate(const View& in, libyuv::RotationMode mode) {
    const bool swap = mode == libyuv::kRotate90 || mode == libyuv::kRotate270;
    auto out = std::make_unique<WorkImage>(in.mid, swap ? in.h : in.w, swap ? in.w : in.h);
    const View& o = out->view();
    const int width = WidthFor(static_cast<int64_t>(in.w) * in.h);
    ForRotationStrips(width, in.w, in.h, mode, [&](const Rect& from, const Rect& to) {
        const View s = SubView(in, from.x, from.y, from.w, from.h);
        const View d = SubView(o, to.x, to.y, to.w, to.h);
        if (in.mid == Mid::Argb)
            return libyuv::ARGBRotate(s.p[0], s.stride[0], d.p[0], d.stride[0], s.w, s.h, mode);
        return libyuv::I420Rotate(s.p[0], s.stride[0], s.p[1], s.stride[1], s.p[2], s.stride[2],
                                  d.p[0], d.stride[0], d.p[1], d.stride[1], d.p[2], d.stride[2],
                                  s.w, s.h, mode);
    });
    return out;
}

/* Mirrors left to right and/or top to bottom; a negative height makes
 * libyuv read the rows bottom up. */
std::unique_ptr<WorkImage> Mirror(const View& in, bool horizontal, bool vertical) {
    auto out = std::make_unique<WorkImage>(in.mid, in.w, in.h);
    const View& o = out->view();
    const int h = vertical ? -in.h : in.h;
    if (in.mid == Mid::Argb) {
        if (horizontal)
            libyuv::ARGBMirror(in.p[0], in.stride[0], o.p[0], o.stride[0], in.w, h);
        else
            libyuv::ARGBCopy(in.p[0], in.stride[0], o.p[0], o.stride[0], in.w, h);
    } else {
        if (horizontal)
            libyuv::I420Mirror(in.p[0], in.stride[0], in.p[1], in.stride[1], in.p[2], in.stride[2],
                               o.p[0], o.stride[0], o.p[1], o.stride[1], o.p[2], o.stride[2], in.w,
                               h);
        else
            libyuv::I420Copy(in.p[0], in.stride[0], in.p[1], in.stride[1], in.p[2], in.stride[2],
                             o.p[0], o.stride[0], o.p[1], o.stride[1], o.p[2], o.stride[2], in.w,
                             h);
    }
    return out;
}

std::unique_ptr<WorkImage> ToArgb(const View& in) {
    auto out = std::make_unique<WorkImage>(Mid::Argb, in.w, in.h);
    const View& o = out->view();
    ForRowBands(WidthFor(static_cast<int64_t>(in.w) * in.h), in.h, [&](int y0, int y1) {
        const View s = SubView(in, 0, y0, in.w, y1 - y0);
        const View d = SubView(o, 0, y0, in.w, y1 - y0);
        return libyuv::I420ToARGB(s.p[0], s.stride[0], s.p[1], s.stride[1], s.p[2], s.stride[2],
                                  d.p[0], d.stride[0], s.w, s.h);
    });
    return out;
}

/*
 * Whether decoding s into (or encoding into s from) a working image works
 * on rows or row pairs alone, so that bands of rows give the whole's bytes.
 * libyuv converts 4:2:2 chroma to and from 4:2:0 with its scaler, whose
 * sample positions depend on the whole height.
 */
bool RowLocal(const FormatInfo* f, Mid mid) {
    if (mid == Mid::Argb)
        return true;
    return f->kind != Kind::Semi422 && f->code != NAX_FORMAT_YVYU_422 &&
           f->code != NAX_FORMAT_VYUY_422;
}

/* Decode and Encode of convert.h, in bands of rows where they are row-local. */
int DecodeRows(const Surface& s, const Rect& r, const View& out) {
    const int width = RowLocal(s.fmt, out.mid) ? WidthFor(Pixels(r)) : 1;
    return ForRowBands(width, r.h, [&](int y0, int y1) {
        return Decode(s, RowsOf(r, y0, y1), SubView(out, 0, y0, r.w, y1 - y0));
    });
}

int EncodeRows(const View& in, const Surface& s, const Rect& r) {
    const int width = RowLocal(s.fmt, in.mid) ? WidthFor(Pixels(r)) : 1;
    return ForRowBands(width, r.h, [&](int y0, int y1) {
        return Encode(SubView(in, 0, y0, r.w, y1 - y0), s, RowsOf(r, y0, y1));
    });
}

/* Copies in over the same-sized part of out starting at (dx, dy). */
void Paste(const View& in, const View& out, int dx, int dy) {
    const View d = SubView(out, dx, dy, in.w, in.h);
    if (in.mid == Mid::Argb) {
        libyuv::ARGBCopy(in.p[0], in.stride[0], d.p[0], d.stride[0], in.w, in.h);
        return;
    }
    libyuv::I420Copy(in.p[0], in.stride[0], in.p[1], in.stride[1], in.p[2], in.stride[2], d.p[0],
                     d.stride[0], d.p[1], d.stride[1], d.p[2], d.stride[2], in.w, in.h);
}

int RunGeneric(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr,
               int transform, Filter filter) {
    /* Crop, scale and turn in I420 where the source reads as it and the
     * destination is 4:2:0, or is RGB and smaller than the crop: a frame
     * scaled down for an RGB client is converted at its small size. (Scaled
     * up, converting first and scaling ARGB is the cheaper order.) */
    const bool shrinks = static_cast<int64_t>(dr.w) * dr.h < static_cast<int64_t>(sr.w) * sr.h;
    const bool i420 = ReadsAs420(src.fmt) && (Is420(dst.fmt) || (Is420(src.fmt) && shrinks));
    const Mid mid = i420 ? Mid::I420 : Mid::Argb;
    const Mid out = mid == Mid::I420 && Is420(dst.fmt) ? Mid::I420 : Mid::Argb;
    const libyuv::RotationMode rot = Rotation(transform);
    const bool swap = rot == libyuv::kRotate90 || rot == libyuv::kRotate270;
    const int tw = swap ? dr.h : dr.w;
    const int th = swap ? dr.w : dr.h;

    const Rect sa = AlignToChroma(src.fmt, sr, src.width, src.height);
    WorkImage decoded(mid, sa.w, sa.h);
    int rc = DecodeRows(src, sa, decoded.view());
    if (rc != 0)
        return rc;
    View v = SubView(decoded.view(), sr.x - sa.x, sr.y - sa.y, sr.w, sr.h);

    std::unique_ptr<WorkImage> scaled;
    if (v.w != tw || v.h != th) {
        scaled = Scale(v, tw, th, filter);
        v = scaled->view();
    }
    std::unique_ptr<WorkImage> rotated;
    if (rot != libyuv::kRotate0) {
        rotated = Rotate(v, rot);
        v = rotated->view();
    }
    std::unique_ptr<WorkImage> mirrored;
    if (transform & (NAX_TRANSFORM_FLIP_H | NAX_TRANSFORM_FLIP_V)) {
        mirrored = Mirror(v, transform & NAX_TRANSFORM_FLIP_H, transform & NAX_TRANSFORM_FLIP_V);
        v = mirrored->view();
    }
    std::unique_ptr<WorkImage> converted;
    if (out != mid) {
        converted = ToArgb(v);
        v = converted->view();
    }

    const Rect da = AlignToChroma(dst.fmt, dr, dst.width, dst.height);
    if (da == dr)
        return EncodeRows(v, dst, dr);
    WorkImage merged(out, da.w, da.h);
    rc = Decode(dst, da, merged.view());
    if (rc != 0)
        return rc;
    Paste(v, merged.view(), dr.x - da.x, dr.y - da.y);
    return Encode(merged.view(), dst, da);
}

}  // namespace

int RunJob(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr, int transform,
           Filter filter) {
    const bool aligned = AlignToChroma(src.fmt, sr, src.width, src.height) == sr &&
                         AlignToChroma(dst.fmt, dr, dst.width, dst.height) == dr;
    const bool sameSize = sr.w == dr.w && sr.h == dr.h;
    const bool sameFormat = src.fmt == dst.fmt;
    if (aligned && transform == 0 && sameSize) {
        if (sameFormat) {
            CopyPlanes(src, sr, dst, dr);
            return 0;
        }
        const DirectFn convert = FindDirectConversion(src.fmt, dst.fmt);
        if (convert)
            return DirectConvert(convert, src, sr, dst, dr);
    }
    if (aligned && transform == 0 && sameFormat) {
        const int rc = DirectScale(src, sr, dst, dr, filter);
        if (rc >= 0)
            return rc == 0 ? 0 : -EINVAL;
    }
    const libyuv::RotationMode rot = Rotation(transform);
    if (aligned && sameFormat && rot != libyuv::kRotate0 &&
        (transform & ~(NAX_TRANSFORM_ROT_90 | NAX_TRANSFORM_ROT_180 | NAX_TRANSFORM_ROT_270)) ==
            0) {
        const bool swap = rot == libyuv::kRotate90 || rot == libyuv::kRotate270;
        if ((swap ? sr.h : sr.w) == dr.w && (swap ? sr.w : sr.h) == dr.h) {
            const int rc = DirectRotate(src, sr, dst, dr, rot);
            if (rc >= 0)
                return rc == 0 ? 0 : -EINVAL;
        }
    }
    return RunGeneric(src, sr, dst, dr, transform, filter);
}

}  // namespace nax
