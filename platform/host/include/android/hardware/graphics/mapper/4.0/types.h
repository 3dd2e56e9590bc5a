/* android.hardware.graphics.mapper@4.0 types (the parts this platform needs). */
#pragma once

#include <stdint.h>

namespace android {
namespace hardware {
namespace graphics {
namespace mapper {
namespace V4_0 {

enum class Error : int32_t {
    NONE = 0,
    BAD_DESCRIPTOR = 1,
    BAD_BUFFER = 2,
    BAD_VALUE = 3,
    NO_RESOURCES = 5,
    UNSUPPORTED = 7,
};

}  // namespace V4_0
}  // namespace mapper
}  // namespace graphics
}  // namespace hardware
}  // namespace android
