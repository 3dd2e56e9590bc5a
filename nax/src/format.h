/*
 * Memory layouts of the engine's formats.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <nax/nax.h>

namespace nax {

enum class Kind {
    Rgb,       /* one plane of bpp-byte pixels */
    Grey,      /* one plane of one-byte pixels (Y8, Y4) */
    Packed422, /* one plane of 4-byte macropixels, two pixels each */
    Semi420,   /* Y plane, interleaved chroma at half width and height */
    Semi422,   /* Y plane, interleaved chroma at half width, full height */
    Planar420, /* Y plane, two chroma planes at half width and height */
};

struct FormatInfo {
    int code;
    const char* name;
    Kind kind;
    int bpp;         /* bytes per pixel of Rgb and Grey */
    bool swapUV;     /* Cr before Cb (NV21, NV61, YV12) */
    int8_t order[4]; /* Packed422: byte offsets of Y0, Cb, Y1, Cr */
};

/* The format's description, or nullptr for a code the engine lacks. */
const FormatInfo* FindFormat(int code);
/* Every format of the engine's table, in code order. */
const FormatInfo* const* AllFormats(size_t* count);

inline bool IsYuv(const FormatInfo* f) {
    return f->kind != Kind::Rgb;
}
inline int ChromaShiftX(const FormatInfo* f) {
    return f->kind == Kind::Rgb || f->kind == Kind::Grey ? 0 : 1;
}
inline int ChromaShiftY(const FormatInfo* f) {
    return f->kind == Kind::Semi420 || f->kind == Kind::Planar420 ? 1 : 0;
}

/* Samples of a half-resolution chroma line or column for n luma ones (rounded up). */
inline int Half(int n) {
    return (n + 1) / 2;
}

/* A rectangle of pixels inside an image. */
struct Rect {
    int x;
    int y;
    int w;
    int h;
    bool operator==(const Rect& o) const { return x == o.x && y == o.y && w == o.w && h == o.h; }
    bool operator!=(const Rect& o) const { return !(*this == o); }
};

/* An image in CPU memory with its geometry. */
struct Surface {
    const FormatInfo* fmt = nullptr;
    uint8_t* base = nullptr;
    int width = 0;
    int height = 0;
    int wstride = 0;
    int hstride = 0;
};

/* Pointers to pixel (x, y) of each plane and the planes' row pitches. */
struct Planes {
    uint8_t* p[3] = {nullptr, nullptr, nullptr};
    int stride[3] = {0, 0, 0};
};

/* Bytes a surface of this geometry spans; 0 when it overflows. */
uint64_t SurfaceBytes(const FormatInfo* fmt, int wstride, int hstride);

/*
 * Plane pointers at (x, y); x and y must lie on the chroma grid of
 * subsampled formats (pixel pairs of 4:2:x, row pairs of 4:2:0).
 */
Planes PlanesAt(const Surface& s, int x, int y);

/*
 * The smallest rectangle containing r whose corners lie on the chroma grid,
 * clipped to the image (an odd image edge is a valid end).
 */
Rect AlignToChroma(const FormatInfo* fmt, const Rect& r, int width, int height);

}  // namespace nax
