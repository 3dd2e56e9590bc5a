/* Android's pixel format type of the ui library. */
#pragma once

#include <stdint.h>

#include <system/graphics.h>

namespace android {

typedef int32_t PixelFormat;

}  // namespace android
