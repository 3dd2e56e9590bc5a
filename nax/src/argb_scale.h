/*
 * Scaling of 32-bit pixels that keeps full values.
 *
 * libyuv's ARGB scaler filters columns with weights that add up to 127/128,
 * so a bilinear scale with a fractional horizontal step leaves every
 * channel, alpha included, about 1/128 short (an opaque 0xFF becomes 0xFD).
 * This one samples where libyuv's bilinear filter samples but weighs both
 * directions to a full sum: rows with libyuv's own row blend (exact), then
 * columns with 7-bit weights that add up to 128 and round. A constant image
 * stays constant, opaque stays opaque.
 */
#pragma once

#include <stdint.h>

#include "engine.h"

namespace nax {

/*
 * Writes rows [row0, row1) of the dw x dh scaled image of the sw x sh
 * image at src into dst (which points at row 0). Rows are independent, so
 * bands written by separate calls equal the whole written by one.
 * Nearest takes the nearest pixel as libyuv does; Bilinear and Box (which
 * libyuv's 32-bit scaler also runs as a bilinear filter) blend.
 */
void ScaleArgbRows(const uint8_t* src, int srcStride, int sw, int sh, uint8_t* dst, int dstStride,
                   int dw, int dh, Filter filter, int row0, int row1);

}  // namespace nax
