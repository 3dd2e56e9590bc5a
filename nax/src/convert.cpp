/*
 * Conversions between the engine's formats and the working layouts.
 *
 * libyuv covers most formats directly. Written here is only what it lacks:
 * the 4:2:2 semi-planar formats (split to or merged from I422), the packed
 * orders YVYU and VYUY (unpacked to or packed from I422), 4-bit grey, and
 * the alpha of formats whose fourth byte is padding.
 */
#include "convert.h"

#include <errno.h>

#include <libyuv.h>

#include "log.h"

namespace nax {

namespace {

/* Planar 4:2:2 scratch planes. */
struct I422 {
    I422(int w, int h)
        : cw(Half(w)), data(static_cast<size_t>(w) * h + 2 * static_cast<size_t>(cw) * h) {
        y = data.get();
        u = y + static_cast<size_t>(w) * h;
        v = u + static_cast<size_t>(cw) * h;
        sy = w;
    }
    int cw;
    Scratch data;
    uint8_t* y;
    uint8_t* u;
    uint8_t* v;
    int sy;
};

void UnpackPacked(const FormatInfo* f, const uint8_t* src, int stride, I422* out, int w, int h) {
    const int8_t* o = f->order;
    for (int row = 0; row < h; row++) {
        const uint8_t* s = src + static_cast<size_t>(row) * stride;
        uint8_t* y = out->y + static_cast<size_t>(row) * out->sy;
        uint8_t* u = out->u + static_cast<size_t>(row) * out->cw;
        uint8_t* v = out->v + static_cast<size_t>(row) * out->cw;
        for (int i = 0; i < out->cw; i++, s += 4) {
            y[2 * i] = s[o[0]];
            if (2 * i + 1 < w)
                y[2 * i + 1] = s[o[2]];
            u[i] = s[o[1]];
            v[i] = s[o[3]];
        }
    }
}

void PackPacked(const FormatInfo* f, const I422& in, uint8_t* dst, int stride, int w, int h) {
    const int8_t* o = f->order;
    for (int row = 0; row < h; row++) {
        uint8_t* d = dst + static_cast<size_t>(row) * stride;
        const uint8_t* y = in.y + static_cast<size_t>(row) * in.sy;
        const uint8_t* u = in.u + static_cast<size_t>(row) * in.cw;
        const uint8_t* v = in.v + static_cast<size_t>(row) * in.cw;
        for (int i = 0; i < in.cw; i++, d += 4) {
            d[o[0]] = y[2 * i];
            /* An odd width repeats the last luma, as libyuv does. */
            d[o[2]] = 2 * i + 1 < w ? y[2 * i + 1] : y[2 * i];
            d[o[1]] = u[i];
            d[o[3]] = v[i];
        }
    }
}

/* Y4 keeps a pixel in the high nibble; expanding repeats it in the low one
 * so that 0xF0 becomes white, and packing rounds to the nearest level. */
void ExpandY4(const uint8_t* src, int sstride, uint8_t* dst, int dstride, int w, int h) {
    for (int row = 0; row < h; row++) {
        const uint8_t* s = src + static_cast<size_t>(row) * sstride;
        uint8_t* d = dst + static_cast<size_t>(row) * dstride;
        for (int i = 0; i < w; i++)
            d[i] = static_cast<uint8_t>((s[i] & 0xF0) | (s[i] >> 4));
    }
}

void PackY4(const uint8_t* src, int sstride, uint8_t* dst, int dstride, int w, int h) {
    for (int row = 0; row < h; row++) {
        const uint8_t* s = src + static_cast<size_t>(row) * sstride;
        uint8_t* d = dst + static_cast<size_t>(row) * dstride;
        for (int i = 0; i < w; i++) {
            /* Level n stands for n * 17; pick the nearest. */
            const int level = (s[i] * 15 + 127) / 255;
            d[i] = static_cast<uint8_t>(level << 4);
        }
    }
}

void OpaqueAlpha(const View& v) {
    for (int row = 0; row < v.h; row++) {
        uint8_t* p = v.p[0] + static_cast<size_t>(row) * v.stride[0];
        for (int i = 0; i < v.w; i++)
            p[4 * i + 3] = 0xFF;
    }
}

int Result(int rc, const char* what, const FormatInfo* f) {
    if (rc == 0)
        return 0;
    NAX_LOGE("%s %s failed (%d)", what, f->name, rc);
    return -EINVAL;
}

int DecodeArgb(const Surface& s, const Rect& r, const View& out) {
    const FormatInfo* f = s.fmt;
    const Planes pl = PlanesAt(s, r.x, r.y);
    const int w = r.w;
    const int h = r.h;
    uint8_t* d = out.p[0];
    const int ds = out.stride[0];
    int rc = 0;
    switch (f->code) {
        /* libyuv names a 32-bit pixel by its little-endian word, so its
         * names read the bytes backwards. */
        case NAX_FORMAT_RGBA_8888: /* R,G,B,A: libyuv's ABGR */
        case NAX_FORMAT_RGBX_8888:
            rc = libyuv::ABGRToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_ABGR_8888: /* B,G,R,A: libyuv's ARGB */
        case NAX_FORMAT_XBGR_8888:
            rc = libyuv::ARGBCopy(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_ARGB_8888: /* A,R,G,B: libyuv's BGRA */
        case NAX_FORMAT_XRGB_8888:
            rc = libyuv::BGRAToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_BGRA_8888: /* A,B,G,R: libyuv's RGBA */
        case NAX_FORMAT_BGRX_8888:
            rc = libyuv::RGBAToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_RGB_888:
            rc = libyuv::RAWToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_BGR_888:
            rc = libyuv::RGB24ToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_RGB_565:
            rc = libyuv::RGB565ToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_YCbCr_420_SP:
            rc = libyuv::NV12ToARGB(pl.p[0], pl.stride[0], pl.p[1], pl.stride[1], d, ds, w, h);
            break;
        case NAX_FORMAT_YCrCb_420_SP:
            rc = libyuv::NV21ToARGB(pl.p[0], pl.stride[0], pl.p[1], pl.stride[1], d, ds, w, h);
            break;
        case NAX_FORMAT_YCbCr_420_P:
        case NAX_FORMAT_YCrCb_420_P: {
            const int u = f->swapUV ? 2 : 1;
            const int v = f->swapUV ? 1 : 2;
            rc = libyuv::I420ToARGB(pl.p[0], pl.stride[0], pl.p[u], pl.stride[u], pl.p[v],
                                    pl.stride[v], d, ds, w, h);
            break;
        }
        case NAX_FORMAT_YCbCr_422_SP:
        case NAX_FORMAT_YCrCb_422_SP: {
            I422 t(w, h);
            uint8_t* u = f->swapUV ? t.v : t.u;
            uint8_t* v = f->swapUV ? t.u : t.v;
            libyuv::SplitUVPlane(pl.p[1], pl.stride[1], u, t.cw, v, t.cw, t.cw, h);
            rc = libyuv::I422ToARGB(pl.p[0], pl.stride[0], t.u, t.cw, t.v, t.cw, d, ds, w, h);
            break;
        }
        case NAX_FORMAT_YUYV_422:
            rc = libyuv::YUY2ToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_UYVY_422:
            rc = libyuv::UYVYToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_YVYU_422:
        case NAX_FORMAT_VYUY_422: {
            I422 t(w, h);
            UnpackPacked(f, pl.p[0], pl.stride[0], &t, w, h);
            rc = libyuv::I422ToARGB(t.y, t.sy, t.u, t.cw, t.v, t.cw, d, ds, w, h);
            break;
        }
        case NAX_FORMAT_Y8:
            rc = libyuv::I400ToARGB(pl.p[0], pl.stride[0], d, ds, w, h);
            break;
        case NAX_FORMAT_Y4: {
            Scratch y(static_cast<size_t>(w) * h);
            ExpandY4(pl.p[0], pl.stride[0], y.get(), w, w, h);
            rc = libyuv::I400ToARGB(y.get(), w, d, ds, w, h);
            break;
        }
        default:
            return -EINVAL;
    }
    switch (f->code) {
        case NAX_FORMAT_RGBX_8888:
        case NAX_FORMAT_BGRX_8888:
        case NAX_FORMAT_XRGB_8888:
        case NAX_FORMAT_XBGR_8888:
            OpaqueAlpha(out);
            break;
        default:
            break;
    }
    return Result(rc, "decode", f);
}

int EncodeArgb(const View& in, const Surface& s, const Rect& r) {
    const FormatInfo* f = s.fmt;
    const Planes pl = PlanesAt(s, r.x, r.y);
    const int w = r.w;
    const int h = r.h;
    const uint8_t* a = in.p[0];
    const int as = in.stride[0];
    int rc = 0;
    switch (f->code) {
        case NAX_FORMAT_RGBA_8888:
        case NAX_FORMAT_RGBX_8888:
            rc = libyuv::ARGBToABGR(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_ABGR_8888:
        case NAX_FORMAT_XBGR_8888:
            rc = libyuv::ARGBCopy(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_ARGB_8888:
        case NAX_FORMAT_XRGB_8888:
            rc = libyuv::ARGBToBGRA(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_BGRA_8888:
        case NAX_FORMAT_BGRX_8888:
            rc = libyuv::ARGBToRGBA(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_RGB_888:
            rc = libyuv::ARGBToRAW(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_BGR_888:
            rc = libyuv::ARGBToRGB24(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_RGB_565:
            rc = libyuv::ARGBToRGB565(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_YCbCr_420_SP:
            rc = libyuv::ARGBToNV12(a, as, pl.p[0], pl.stride[0], pl.p[1], pl.stride[1], w, h);
            break;
        case NAX_FORMAT_YCrCb_420_SP:
            rc = libyuv::ARGBToNV21(a, as, pl.p[0], pl.stride[0], pl.p[1], pl.stride[1], w, h);
            break;
        case NAX_FORMAT_YCbCr_420_P:
        case NAX_FORMAT_YCrCb_420_P: {
            const int u = f->swapUV ? 2 : 1;
            const int v = f->swapUV ? 1 : 2;
            rc = libyuv::ARGBToI420(a, as, pl.p[0], pl.stride[0], pl.p[u], pl.stride[u], pl.p[v],
                                    pl.stride[v], w, h);
            break;
        }
        case NAX_FORMAT_YCbCr_422_SP:
        case NAX_FORMAT_YCrCb_422_SP: {
            I422 t(w, h);
            rc = libyuv::ARGBToI422(a, as, pl.p[0], pl.stride[0], t.u, t.cw, t.v, t.cw, w, h);
            const uint8_t* u = f->swapUV ? t.v : t.u;
            const uint8_t* v = f->swapUV ? t.u : t.v;
            libyuv::MergeUVPlane(u, t.cw, v, t.cw, pl.p[1], pl.stride[1], t.cw, h);
            break;
        }
        case NAX_FORMAT_YUYV_422:
            rc = libyuv::ARGBToYUY2(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_UYVY_422:
            rc = libyuv::ARGBToUYVY(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_YVYU_422:
        case NAX_FORMAT_VYUY_422: {
            I422 t(w, h);
            rc = libyuv::ARGBToI422(a, as, t.y, t.sy, t.u, t.cw, t.v, t.cw, w, h);
            PackPacked(f, t, pl.p[0], pl.stride[0], w, h);
            break;
        }
        case NAX_FORMAT_Y8:
            rc = libyuv::ARGBToI400(a, as, pl.p[0], pl.stride[0], w, h);
            break;
        case NAX_FORMAT_Y4: {
            Scratch y(static_cast<size_t>(w) * h);
            rc = libyuv::ARGBToI400(a, as, y.get(), w, w, h);
            PackY4(y.get(), w, pl.p[0], pl.stride[0], w, h);
            break;
        }
        default:
            return -EINVAL;
    }
    return Result(rc, "encode", f);
}

int DecodeI420(const Surface& s, const Rect& r, const View& out) {
    const FormatInfo* f = s.fmt;
    const Planes pl = PlanesAt(s, r.x, r.y);
    const int w = r.w;
    const int h = r.h;
    uint8_t* y = out.p[0];
    uint8_t* u = out.p[1];
    uint8_t* v = out.p[2];
    const int sy = out.stride[0];
    const int su = out.stride[1];
    const int sv = out.stride[2];
    int rc = 0;
    switch (f->kind) {
        case Kind::Semi420:
            rc = f->swapUV ? libyuv::NV21ToI420(pl.p[0], pl.stride[0], pl.p[1], pl.stride[1], y, sy,
                                                u, su, v, sv, w, h)
                           : libyuv::NV12ToI420(pl.p[0], pl.stride[0], pl.p[1], pl.stride[1], y, sy,
                                                u, su, v, sv, w, h);
            break;
        case Kind::Planar420: {
            const int iu = f->swapUV ? 2 : 1;
            const int iv = f->swapUV ? 1 : 2;
            rc = libyuv::I420Copy(pl.p[0], pl.stride[0], pl.p[iu], pl.stride[iu], pl.p[iv],
                                  pl.stride[iv], y, sy, u, su, v, sv, w, h);
            break;
        }
        case Kind::Semi422: {
            I422 t(w, h);
            libyuv::SplitUVPlane(pl.p[1], pl.stride[1], f->swapUV ? t.v : t.u, t.cw,
                                 f->swapUV ? t.u : t.v, t.cw, t.cw, h);
            rc = libyuv::I422ToI420(pl.p[0], pl.stride[0], t.u, t.cw, t.v, t.cw, y, sy, u, su, v,
                                    sv, w, h);
            break;
        }
        case Kind::Packed422:
            if (f->code == NAX_FORMAT_YUYV_422) {
                rc = libyuv::YUY2ToI420(pl.p[0], pl.stride[0], y, sy, u, su, v, sv, w, h);
            } else if (f->code == NAX_FORMAT_UYVY_422) {
                rc = libyuv::UYVYToI420(pl.p[0], pl.stride[0], y, sy, u, su, v, sv, w, h);
            } else {
                I422 t(w, h);
                UnpackPacked(f, pl.p[0], pl.stride[0], &t, w, h);
                rc = libyuv::I422ToI420(t.y, t.sy, t.u, t.cw, t.v, t.cw, y, sy, u, su, v, sv, w, h);
            }
            break;
        case Kind::Grey:
            if (f->code == NAX_FORMAT_Y4)
                ExpandY4(pl.p[0], pl.stride[0], y, sy, w, h);
            else
                libyuv::CopyPlane(pl.p[0], pl.stride[0], y, sy, w, h);
            libyuv::SetPlane(u, su, Half(w), Half(h), 128);
            libyuv::SetPlane(v, sv, Half(w), Half(h), 128);
            break;
        case Kind::Rgb:
            return -EINVAL;
    }
    return Result(rc, "decode", f);
}

int EncodeI420(const View& in, const Surface& s, const Rect& r) {
    const FormatInfo* f = s.fmt;
    const Planes pl = PlanesAt(s, r.x, r.y);
    const int w = r.w;
    const int h = r.h;
    const uint8_t* y = in.p[0];
    const uint8_t* u = in.p[1];
    const uint8_t* v = in.p[2];
    const int sy = in.stride[0];
    const int su = in.stride[1];
    const int sv = in.stride[2];
    int rc = 0;
    switch (f->kind) {
        case Kind::Semi420:
            rc = f->swapUV ? libyuv::I420ToNV21(y, sy, u, su, v, sv, pl.p[0], pl.stride[0], pl.p[1],
                                                pl.stride[1], w, h)
                           : libyuv::I420ToNV12(y, sy, u, su, v, sv, pl.p[0], pl.stride[0], pl.p[1],
                                                pl.stride[1], w, h);
            break;
        case Kind::Planar420: {
            const int iu = f->swapUV ? 2 : 1;
            const int iv = f->swapUV ? 1 : 2;
            rc = libyuv::I420Copy(y, sy, u, su, v, sv, pl.p[0], pl.stride[0], pl.p[iu],
                                  pl.stride[iu], pl.p[iv], pl.stride[iv], w, h);
            break;
        }
        case Kind::Semi422: {
            I422 t(w, h);
            rc = libyuv::I420ToI422(y, sy, u, su, v, sv, pl.p[0], pl.stride[0], t.u, t.cw, t.v,
                                    t.cw, w, h);
            libyuv::MergeUVPlane(f->swapUV ? t.v : t.u, t.cw, f->swapUV ? t.u : t.v, t.cw, pl.p[1],
                                 pl.stride[1], t.cw, h);
            break;
        }
        case Kind::Packed422:
            if (f->code == NAX_FORMAT_YUYV_422) {
                rc = libyuv::I420ToYUY2(y, sy, u, su, v, sv, pl.p[0], pl.stride[0], w, h);
            } else if (f->code == NAX_FORMAT_UYVY_422) {
                rc = libyuv::I420ToUYVY(y, sy, u, su, v, sv, pl.p[0], pl.stride[0], w, h);
            } else {
                I422 t(w, h);
                rc = libyuv::I420ToI422(y, sy, u, su, v, sv, t.y, t.sy, t.u, t.cw, t.v, t.cw, w, h);
                PackPacked(f, t, pl.p[0], pl.stride[0], w, h);
            }
            break;
        case Kind::Grey:
            if (f->code == NAX_FORMAT_Y4)
                PackY4(y, sy, pl.p[0], pl.stride[0], w, h);
            else
                libyuv::CopyPlane(y, sy, pl.p[0], pl.stride[0], w, h);
            break;
        case Kind::Rgb:
            return -EINVAL;
    }
    return Result(rc, "encode", f);
}

}  // namespace

WorkImage::WorkImage(Mid mid, int w, int h) {
    view_.mid = mid;
    view_.w = w;
    view_.h = h;
    if (mid == Mid::Argb) {
        data_ = std::make_unique<Scratch>(static_cast<size_t>(w) * h * 4);
        view_.p[0] = data_->get();
        view_.stride[0] = w * 4;
        return;
    }
    const size_t ysize = static_cast<size_t>(w) * h;
    const size_t csize = static_cast<size_t>(Half(w)) * Half(h);
    data_ = std::make_unique<Scratch>(ysize + 2 * csize);
    view_.p[0] = data_->get();
    view_.p[1] = view_.p[0] + ysize;
    view_.p[2] = view_.p[1] + csize;
    view_.stride[0] = w;
    view_.stride[1] = Half(w);
    view_.stride[2] = Half(w);
}

View SubView(const View& v, int dx, int dy, int w, int h) {
    View out = v;
    out.w = w;
    out.h = h;
    if (v.mid == Mid::Argb) {
        out.p[0] += static_cast<size_t>(dy) * v.stride[0] + static_cast<size_t>(dx) * 4;
        return out;
    }
    out.p[0] += static_cast<size_t>(dy) * v.stride[0] + dx;
    for (int i = 1; i < 3; i++)
        out.p[i] += static_cast<size_t>(dy / 2) * v.stride[i] + dx / 2;
    return out;
}

int Decode(const Surface& s, const Rect& r, const View& out) {
    return out.mid == Mid::Argb ? DecodeArgb(s, r, out) : DecodeI420(s, r, out);
}

int Encode(const View& in, const Surface& s, const Rect& r) {
    return in.mid == Mid::Argb ? EncodeArgb(in, s, r) : EncodeI420(in, s, r);
}

}  // namespace nax
