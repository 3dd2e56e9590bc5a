/* The Arm gralloc's plane-fd metadata, as the graphics mapper encodes it. */
#pragma once

#include <stdint.h>

#include <vector>

#include <hidl/HidlSupport.h>

namespace tessaro::marlo::detail {

/*
 * Decodes a blob of a signed 64-bit count followed by that many 64-bit fds,
 * in host byte order. -22 for a negative count or a blob too short to hold
 * the count; 0 otherwise.
 */
int decodeArmPlaneFds(const android::hardware::hidl_vec<uint8_t>& blob, std::vector<int64_t>* fds);

}  // namespace tessaro::marlo::detail
