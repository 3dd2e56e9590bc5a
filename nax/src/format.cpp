/*
 * Memory layouts of the engine's formats.
 */
#include "format.h"

#include <algorithm>
#include <iterator>

namespace nax {

namespace {

/*
 * Names follow V4L2's names of the same formats; the comments give the
 * bytes of a pixel in memory order (V4L2 names ABGR, XBGR, BGRA and BGRX by
 * their little-endian word). The byte shuffles themselves are in convert.cpp.
 */
const FormatInfo kFormats[] = {
    {NAX_FORMAT_RGBA_8888, "RGBA_8888", Kind::Rgb, 4, false, {0, 0, 0, 0}}, /* R,G,B,A */
    {NAX_FORMAT_RGBX_8888, "RGBX_8888", Kind::Rgb, 4, false, {0, 0, 0, 0}}, /* R,G,B,X */
    {NAX_FORMAT_RGB_888, "RGB_888", Kind::Rgb, 3, false, {0, 0, 0, 0}},     /* R,G,B */
    {NAX_FORMAT_BGRA_8888, "BGRA_8888", Kind::Rgb, 4, false, {0, 0, 0, 0}}, /* A,B,G,R */
    {NAX_FORMAT_RGB_565, "RGB_565", Kind::Rgb, 2, false, {0, 0, 0, 0}},
    {NAX_FORMAT_BGR_888, "BGR_888", Kind::Rgb, 3, false, {0, 0, 0, 0}}, /* B,G,R */
    {NAX_FORMAT_YCbCr_422_SP, "YCbCr_422_SP", Kind::Semi422, 1, false, {0, 0, 0, 0}},
    {NAX_FORMAT_YCbCr_420_SP, "YCbCr_420_SP", Kind::Semi420, 1, false, {0, 0, 0, 0}},
    {NAX_FORMAT_YCbCr_420_P, "YCbCr_420_P", Kind::Planar420, 1, false, {0, 0, 0, 0}},
    {NAX_FORMAT_YCrCb_422_SP, "YCrCb_422_SP", Kind::Semi422, 1, true, {0, 0, 0, 0}},
    {NAX_FORMAT_YCrCb_420_SP, "YCrCb_420_SP", Kind::Semi420, 1, true, {0, 0, 0, 0}},
    {NAX_FORMAT_YCrCb_420_P, "YCrCb_420_P", Kind::Planar420, 1, true, {0, 0, 0, 0}},
    {NAX_FORMAT_Y4, "Y4", Kind::Grey, 1, false, {0, 0, 0, 0}},
    {NAX_FORMAT_Y8, "Y8", Kind::Grey, 1, false, {0, 0, 0, 0}},
    {NAX_FORMAT_BGRX_8888, "BGRX_8888", Kind::Rgb, 4, false, {0, 0, 0, 0}}, /* X,B,G,R */
    {NAX_FORMAT_YVYU_422, "YVYU_422", Kind::Packed422, 2, false, {0, 3, 2, 1}},
    {NAX_FORMAT_VYUY_422, "VYUY_422", Kind::Packed422, 2, false, {1, 2, 3, 0}},
    {NAX_FORMAT_YUYV_422, "YUYV_422", Kind::Packed422, 2, false, {0, 1, 2, 3}},
    {NAX_FORMAT_UYVY_422, "UYVY_422", Kind::Packed422, 2, false, {1, 0, 3, 2}},
    {NAX_FORMAT_ARGB_8888, "ARGB_8888", Kind::Rgb, 4, false, {0, 0, 0, 0}}, /* A,R,G,B */
    {NAX_FORMAT_XRGB_8888, "XRGB_8888", Kind::Rgb, 4, false, {0, 0, 0, 0}}, /* X,R,G,B */
    {NAX_FORMAT_ABGR_8888, "ABGR_8888", Kind::Rgb, 4, false, {0, 0, 0, 0}}, /* B,G,R,A */
    {NAX_FORMAT_XBGR_8888, "XBGR_8888", Kind::Rgb, 4, false, {0, 0, 0, 0}}, /* B,G,R,X */
};

const FormatInfo* const kFormatList[] = {
    &kFormats[0],  &kFormats[1],  &kFormats[2],  &kFormats[3],  &kFormats[4],  &kFormats[5],
    &kFormats[6],  &kFormats[7],  &kFormats[8],  &kFormats[9],  &kFormats[10], &kFormats[11],
    &kFormats[12], &kFormats[13], &kFormats[14], &kFormats[15], &kFormats[16], &kFormats[17],
    &kFormats[18], &kFormats[19], &kFormats[20], &kFormats[21], &kFormats[22],
};
static_assert(std::size(kFormatList) == std::size(kFormats));

/* Row pitch in bytes and row count of each plane. */
struct Layout {
    int planes;
    uint64_t pitch[3];
    uint64_t rows[3];
};

Layout LayoutOf(const FormatInfo* f, int wstride, int hstride) {
    const uint64_t ws = static_cast<uint64_t>(wstride);
    const uint64_t hs = static_cast<uint64_t>(hstride);
    const uint64_t evenWs = (ws + 1) & ~uint64_t{1};
    switch (f->kind) {
        case Kind::Rgb:
        case Kind::Grey:
            return {1, {ws * f->bpp, 0, 0}, {hs, 0, 0}};
        case Kind::Packed422:
            return {1, {evenWs * 2, 0, 0}, {hs, 0, 0}};
        case Kind::Semi420:
            return {2, {ws, evenWs, 0}, {hs, (hs + 1) / 2, 0}};
        case Kind::Semi422:
            return {2, {ws, evenWs, 0}, {hs, hs, 0}};
        case Kind::Planar420:
            return {3, {ws, (ws + 1) / 2, (ws + 1) / 2}, {hs, (hs + 1) / 2, (hs + 1) / 2}};
    }
    return {0, {0, 0, 0}, {0, 0, 0}};
}

}  // namespace

const FormatInfo* FindFormat(int code) {
    for (const FormatInfo& f : kFormats) {
        if (f.code == code)
            return &f;
    }
    return nullptr;
}

const FormatInfo* const* AllFormats(size_t* count) {
    *count = std::size(kFormatList);
    return kFormatList;
}

uint64_t SurfaceBytes(const FormatInfo* fmt, int wstride, int hstride) {
    if (wstride <= 0 || hstride <= 0)
        return 0;
    const Layout l = LayoutOf(fmt, wstride, hstride);
    uint64_t total = 0;
    for (int i = 0; i < l.planes; i++)
        total += l.pitch[i] * l.rows[i];
    /* Strides are at most 2^31 each, so the sum cannot wrap in 64 bits. */
    return total;
}

Planes PlanesAt(const Surface& s, int x, int y) {
    const Layout l = LayoutOf(s.fmt, s.wstride, s.hstride);
    Planes out;
    uint64_t offset = 0;
    for (int i = 0; i < l.planes; i++) {
        out.stride[i] = static_cast<int>(l.pitch[i]);
        uint64_t px = 0;
        uint64_t py = static_cast<uint64_t>(y);
        if (i == 0) {
            switch (s.fmt->kind) {
                case Kind::Rgb:
                    px = static_cast<uint64_t>(x) * s.fmt->bpp;
                    break;
                case Kind::Packed422:
                    px = static_cast<uint64_t>(x) * 2;
                    break;
                default:
                    px = static_cast<uint64_t>(x);
                    break;
            }
        } else {
            /* Chroma planes: semi-planar rows hold Cb,Cr pairs. */
            const uint64_t cx = static_cast<uint64_t>(x) >> 1;
            px = s.fmt->kind == Kind::Planar420 ? cx : cx * 2;
            py = static_cast<uint64_t>(y) >> ChromaShiftY(s.fmt);
        }
        out.p[i] = s.base + offset + py * l.pitch[i] + px;
        offset += l.pitch[i] * l.rows[i];
    }
    return out;
}

Rect AlignToChroma(const FormatInfo* fmt, const Rect& r, int width, int height) {
    const int mx = (1 << ChromaShiftX(fmt)) - 1;
    const int my = (1 << ChromaShiftY(fmt)) - 1;
    const int x0 = r.x & ~mx;
    const int y0 = r.y & ~my;
    const int x1 = std::min((r.x + r.w + mx) & ~mx, width);
    const int y1 = std::min((r.y + r.h + my) & ~my, height);
    return {x0, y0, x1 - x0, y1 - y0};
}

}  // namespace nax
