/* Android's graphics HAL pixel formats (the subset this platform emulates). */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    HAL_PIXEL_FORMAT_RGBA_8888 = 1,
    HAL_PIXEL_FORMAT_RGBX_8888 = 2,
    HAL_PIXEL_FORMAT_RGB_888 = 3,
    HAL_PIXEL_FORMAT_RGB_565 = 4,
    HAL_PIXEL_FORMAT_BGRA_8888 = 5,
    HAL_PIXEL_FORMAT_YCBCR_422_SP = 16, /* NV16 */
    HAL_PIXEL_FORMAT_YCRCB_420_SP = 17, /* NV21 */
    HAL_PIXEL_FORMAT_YCBCR_422_I = 20,  /* YUY2 */
    HAL_PIXEL_FORMAT_YV12 = 842094169,  /* 'YV12' */
} android_pixel_format_t;

#ifdef __cplusplus
}
#endif
