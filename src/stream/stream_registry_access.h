/*
 * Internal view of the process-wide camera registry of V4l2Stream, for tests
 * and tools that check which devices are held.
 */
#pragma once

#include <stddef.h>

#include <memory>
#include <string>

#include <marlo/stream/v4l2_stream.h>

namespace tessaro::marlo::detail {

struct StreamRegistryAccess {
    /* Number of registered devices. */
    static size_t Size();
    /* The registered camera of \a deviceId, or null. */
    static std::shared_ptr<HalCamera> Find(const std::string& deviceId);
    static float MaxLoadFactor();
};

}  // namespace tessaro::marlo::detail
