#include "support/colour_bars.h"

#include <nax/nax.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <sstream>

#include <marlo/buffer/pixel_format.h>

namespace marlo_vm {

namespace {

using namespace tessaro::marlo;

constexpr int k75 = 191;

int Clamp(double value) {
    return std::clamp(static_cast<int>(std::lround(value)), 0, 255);
}

/* BT.601, limited range, as the 2D engine and vivid's default encoding use it. */
Rgb FromYuv(int y, int u, int v) {
    double c = 1.164 * (y - 16);
    return {Clamp(c + 1.596 * (v - 128)), Clamp(c - 0.813 * (v - 128) - 0.391 * (u - 128)),
            Clamp(c + 2.018 * (u - 128))};
}

/* Column of the unrotated, unmirrored image that pixel (x, y) of a width x height buffer shows. */
double UnrotatedColumn(const Geometry& geometry, uint32_t width, uint32_t height, uint32_t x,
                       uint32_t y, uint32_t* unrotatedWidth) {
    double dx = x;
    if (geometry.transform & NAX_TRANSFORM_FLIP_H)
        dx = width - 1 - dx;
    double dy = y;
    if (geometry.transform & NAX_TRANSFORM_FLIP_V)
        dy = height - 1 - dy;
    if (geometry.transform & NAX_TRANSFORM_ROT_90) {
        *unrotatedWidth = height;
        return dy;
    }
    if (geometry.transform & NAX_TRANSFORM_ROT_270) {
        *unrotatedWidth = height;
        return height - 1 - dy;
    }
    *unrotatedWidth = width;
    if (geometry.transform & NAX_TRANSFORM_ROT_180)
        return width - 1 - dx;
    return dx;
}

}  // namespace

Rgb BarColour(int index) {
    static const Rgb bars[8] = {
        {k75, k75, k75}, {k75, k75, 0}, {0, k75, k75}, {0, k75, 0},
        {k75, 0, k75},   {k75, 0, 0},   {0, 0, k75},   {0, 0, 0},
    };
    return bars[index & 7];
}

Rgb PixelAt(const Image& image, uint32_t x, uint32_t y) {
    const uint8_t* d = image.data;
    size_t s = image.stride;
    switch (image.fourcc) {
        case FOURCC_NV12:
        case FOURCC_NV21: {
            const uint8_t* uv = d + s * image.height + s * (y / 2) + (x & ~1u);
            int u = image.fourcc == FOURCC_NV12 ? uv[0] : uv[1];
            int v = image.fourcc == FOURCC_NV12 ? uv[1] : uv[0];
            return FromYuv(d[s * y + x], u, v);
        }
        case FOURCC_YUYV: {
            const uint8_t* pair = d + s * 2 * y + (x & ~1u) * 2;
            return FromYuv(pair[(x & 1) * 2], pair[1], pair[3]);
        }
        case FOURCC_UYVY: {
            const uint8_t* pair = d + s * 2 * y + (x & ~1u) * 2;
            return FromYuv(pair[1 + (x & 1) * 2], pair[0], pair[2]);
        }
        case FOURCC_AB24:
        case FOURCC_XB24: {
            const uint8_t* p = d + s * 4 * y + x * 4;
            return {p[0], p[1], p[2]};
        }
        case FOURCC_AR24: {
            const uint8_t* p = d + s * 4 * y + x * 4;
            return {p[2], p[1], p[0]};
        }
        case FOURCC_RGB3: {
            const uint8_t* p = d + s * 3 * y + x * 3;
            return {p[0], p[1], p[2]};
        }
        default:
            return {-1, -1, -1};
    }
}

std::string CheckColourBars(const Image& image, const Geometry& geometry, int tolerance) {
    std::ostringstream problems;
    int mismatches = 0;
    int checked = 0;
    double cropX = geometry.cropWidth > 0 ? geometry.cropX : 0;
    double cropWidth = geometry.cropWidth > 0 ? geometry.cropWidth : geometry.sourceWidth;
    double barWidth = geometry.sourceWidth / 8.0;
    /* A grid fine in both directions: rotated images have their bars across the rows. */
    constexpr uint32_t kGrid = 48;
    for (uint32_t gy = 0; gy < kGrid; ++gy) {
        uint32_t y = (image.height * (2 * gy + 1)) / (2 * kGrid);
        for (uint32_t gx = 0; gx < kGrid; ++gx) {
            uint32_t x = (image.width * (2 * gx + 1)) / (2 * kGrid);
            uint32_t unrotatedWidth = 0;
            double column =
                UnrotatedColumn(geometry, image.width, image.height, x, y, &unrotatedWidth);
            double source = cropX + (column + 0.5) * cropWidth / unrotatedWidth;
            double inBar = std::fmod(source, barWidth);
            /* Scaling and chroma subsampling blur the edges; sample the middle of a bar. */
            if (inBar < barWidth * 0.25 || inBar > barWidth * 0.75)
                continue;
            int bar = static_cast<int>(source / barWidth);
            Rgb want = BarColour(bar);
            Rgb got = PixelAt(image, x, y);
            ++checked;
            if (std::abs(got.r - want.r) > tolerance || std::abs(got.g - want.g) > tolerance ||
                std::abs(got.b - want.b) > tolerance) {
                if (++mismatches <= 4)
                    problems << " (" << x << "," << y << ") bar " << bar << " want " << want.r
                             << "/" << want.g << "/" << want.b << " got " << got.r << "/" << got.g
                             << "/" << got.b << ";";
            }
        }
    }
    if (checked == 0)
        return "no pixel could be checked";
    if (mismatches == 0)
        return "";
    std::ostringstream out;
    out << mismatches << " of " << checked << " samples off the colour bars:" << problems.str();
    return out.str();
}

}  // namespace marlo_vm
