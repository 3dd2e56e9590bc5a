/*
 * The engine's one job: crop, scale, convert, rotate and mirror.
 */
#pragma once

#include "format.h"

namespace nax {

enum class Filter { Nearest, Bilinear, Box };

/*
 * Reads rectangle sr of src, scales it so that after the transform (bits of
 * NAX_TRANSFORM_MASK: clockwise rotation first, then mirroring) it fills
 * rectangle dr of dst, converting src's format to dst's. Rectangles and
 * surfaces are already validated. Returns 0 or a negative errno value.
 */
int RunJob(const Surface& src, const Rect& sr, const Surface& dst, const Rect& dr, int transform,
           Filter filter);

}  // namespace nax
