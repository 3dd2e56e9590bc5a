/*
 * Checks images against vivid's 75% colour bars: eight vertical bars of
 * equal width (white, yellow, cyan, green, magenta, red, blue, black), each
 * channel at 0 or 75% of full scale. An image converted from the bars with
 * a crop, scaling, rotation or mirroring is checked by mapping each sampled
 * pixel back to the column of the captured frame it came from.
 */
#pragma once

#include <stdint.h>

#include <string>

namespace marlo_vm {

struct Rgb {
    int r;
    int g;
    int b;
};

/* Full-range colour of bar \a index (0 to 7) as the camera shows it. */
Rgb BarColour(int index);

/* How a buffer was made from the captured frame. */
struct Geometry {
    /* Captured frame width. */
    uint32_t sourceWidth;
    /* Crop of the captured frame, x and width; width 0 means the whole frame. */
    int32_t cropX;
    int32_t cropWidth;
    /* The 2D engine's transform bits (NAX_TRANSFORM_*). */
    uint32_t transform;
};

/* An image in memory: the library's fourcc, size and row stride in pixels. */
struct Image {
    const uint8_t* data;
    uint32_t fourcc;
    uint32_t width;
    uint32_t height;
    uint32_t stride;
};

/* The colour of pixel (x, y) of \a image in full-range RGB (YUV as BT.601 limited range). */
Rgb PixelAt(const Image& image, uint32_t x, uint32_t y);

/*
 * Samples a grid of pixels away from bar edges and compares each with the
 * bar it maps to. Returns "" when every sample is within \a tolerance per
 * channel, else a description of the first mismatches.
 */
std::string CheckColourBars(const Image& image, const Geometry& geometry, int tolerance = 28);

}  // namespace marlo_vm
