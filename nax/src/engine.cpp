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
 */
#include "engine.h"

#include <errno.h>

#include <memory>

#include <libyuv.h>

#include "argb_scale.h"
#include "convert.h"
#include "log.h"

namespace nax {

namespace {

int Half(int n) {
    return (n + 1) / 2;
}

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

/* Same format, same size: a copy of each plane. */
void CopyPlanes(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr) {
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

/* Direct conversions without scaling or transform; -1 when there is none. */
int DirectConvert(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr) {
    const Planes s = PlanesAt(src, sr.x, sr.y);
    const Planes d = PlanesAt(dst, dr.x, dr.y);
    const int w = sr.w;
    const int h = sr.h;
    const int sc = src.fmt->code;
    const int dc = dst.fmt->code;
    /* Bytes R,G,B,A are libyuv's ABGR; bytes B,G,R,A (ABGR_8888 and
     * XBGR_8888, named as V4L2 names them) are libyuv's ARGB. */
    const bool toRgba = dc == NAX_FORMAT_RGBA_8888 || dc == NAX_FORMAT_RGBX_8888;
    const bool toBgra = dc == NAX_FORMAT_ABGR_8888 || dc == NAX_FORMAT_XBGR_8888;
    if (sc == NAX_FORMAT_YCbCr_420_SP && toRgba)
        return libyuv::NV12ToABGR(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], w,
                                  h);
    if (sc == NAX_FORMAT_YCbCr_420_SP && toBgra)
        return libyuv::NV12ToARGB(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], w,
                                  h);
    if (sc == NAX_FORMAT_YCrCb_420_SP && toRgba)
        return libyuv::NV21ToABGR(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], w,
                                  h);
    if (sc == NAX_FORMAT_YCrCb_420_SP && toBgra)
        return libyuv::NV21ToARGB(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0], w,
                                  h);
    if (sc == NAX_FORMAT_UYVY_422 && dc == NAX_FORMAT_YCbCr_420_SP)
        return libyuv::UYVYToNV12(s.p[0], s.stride[0], d.p[0], d.stride[0], d.p[1], d.stride[1], w,
                                  h);
    if (sc == NAX_FORMAT_YUYV_422 && dc == NAX_FORMAT_YCbCr_420_SP)
        return libyuv::YUY2ToNV12(s.p[0], s.stride[0], d.p[0], d.stride[0], d.p[1], d.stride[1], w,
                                  h);
    if (sc == NAX_FORMAT_UYVY_422 && toBgra)
        return libyuv::UYVYToARGB(s.p[0], s.stride[0], d.p[0], d.stride[0], w, h);
    if (sc == NAX_FORMAT_YUYV_422 && toBgra)
        return libyuv::YUY2ToARGB(s.p[0], s.stride[0], d.p[0], d.stride[0], w, h);
    if (sc == NAX_FORMAT_YCbCr_420_SP && dc == NAX_FORMAT_YCbCr_420_P)
        return libyuv::NV12ToI420(s.p[0], s.stride[0], s.p[1], s.stride[1], d.p[0], d.stride[0],
                                  d.p[1], d.stride[1], d.p[2], d.stride[2], w, h);
    if (sc == NAX_FORMAT_YCbCr_420_P && dc == NAX_FORMAT_YCbCr_420_SP)
        return libyuv::I420ToNV12(s.p[0], s.stride[0], s.p[1], s.stride[1], s.p[2], s.stride[2],
                                  d.p[0], d.stride[0], d.p[1], d.stride[1], w, h);
    return -1;
}

/* Same-format scaling without transform; -1 when there is none. */
int DirectScale(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr,
                Filter filter) {
    const Planes s = PlanesAt(src, sr.x, sr.y);
    const Planes d = PlanesAt(dst, dr.x, dr.y);
    const libyuv::FilterMode fm = ToLibyuv(filter);
    const FormatInfo* f = src.fmt;
    if (f->kind == Kind::Semi420)
        return libyuv::NV12Scale(s.p[0], s.stride[0], s.p[1], s.stride[1], sr.w, sr.h, d.p[0],
                                 d.stride[0], d.p[1], d.stride[1], dr.w, dr.h, fm);
    if (f->kind == Kind::Planar420)
        return libyuv::I420Scale(s.p[0], s.stride[0], s.p[1], s.stride[1], s.p[2], s.stride[2],
                                 sr.w, sr.h, d.p[0], d.stride[0], d.p[1], d.stride[1], d.p[2],
                                 d.stride[2], dr.w, dr.h, fm);
    if (IsArgbLike(f)) {
        ScaleArgbRows(s.p[0], s.stride[0], sr.w, sr.h, d.p[0], d.stride[0], dr.w, dr.h, filter, 0,
                      dr.h);
        return 0;
    }
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
int DirectRotate(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr,
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

std::unique_ptr<WorkImage> Scale(const View& in, int w, int h, Filter filter) {
    auto out = std::make_unique<WorkImage>(in.mid, w, h);
    const View& o = out->view();
    const libyuv::FilterMode fm = ToLibyuv(filter);
    if (in.mid == Mid::Argb)
        ScaleArgbRows(in.p[0], in.stride[0], in.w, in.h, o.p[0], o.stride[0], w, h, filter, 0, h);
    else
        libyuv::I420Scale(in.p[0], in.stride[0], in.p[1], in.stride[1], in.p[2], in.stride[2], in.w,
                          in.h, o.p[0], o.stride[0], o.p[1], o.stride[1], o.p[2], o.stride[2], w, h,
                          fm);
    return out;
}

std::unique_ptr<WorkImage> Rotate(const View& in, libyuv::RotationMode mode) {
    const bool swap = mode == libyuv::kRotate90 || mode == libyuv::kRotate270;
    auto out = std::make_unique<WorkImage>(in.mid, swap ? in.h : in.w, swap ? in.w : in.h);
    const View& o = out->view();
    if (in.mid == Mid::Argb)
        libyuv::ARGBRotate(in.p[0], in.stride[0], o.p[0], o.stride[0], in.w, in.h, mode);
    else
        libyuv::I420Rotate(in.p[0], in.stride[0], in.p[1], in.stride[1], in.p[2], in.stride[2],
                           o.p[0], o.stride[0], o.p[1], o.stride[1], o.p[2], o.stride[2], in.w,
                           in.h, mode);
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
    libyuv::I420ToARGB(in.p[0], in.stride[0], in.p[1], in.stride[1], in.p[2], in.stride[2], o.p[0],
                       o.stride[0], in.w, in.h);
    return out;
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
    int rc = Decode(src, sa, decoded.view());
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
        return Encode(v, dst, dr);
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
        const int rc = DirectConvert(src, sr, dst, dr);
        if (rc >= 0)
            return rc == 0 ? 0 : -EINVAL;
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
