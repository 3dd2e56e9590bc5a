#include <marlo/base/logger.h>
#include <marlo/base/version.h>

#include <cutils/properties.h>
#include <stdint.h>

#include <string>

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_base";
constexpr unsigned int kVersion = 2147480003u;
constexpr char kBuildId[] = "eng.qorin.20240709.195241";

// Non-persistent, so that every boot starts counting from nothing.
constexpr char kStartCountProperty[] = "vendor.tessaro.marlo.start.count";
constexpr char kVersionProperty[] = "vendor.tessaro.marlo.version";
constexpr char kBuildIdProperty[] = "vendor.tessaro.marlo.build_id";

}  // namespace

void initVersionInfo() {
    // Failures to publish are of no consequence to the caller.
    int32_t previous = property_get_int32(kStartCountProperty, 0);
    if (previous == INT32_MAX) {
        // The next count does not fit; counting starts again.
        marlo_log(MARLO_LOG_WARN, kTag, "start count %d cannot grow, counting again from 1",
                  previous);
        previous = 0;
    }
    const int count = previous + 1;
    property_set(kStartCountProperty, std::to_string(count).c_str());

    const std::string version = std::to_string(kVersion);
    property_set(kVersionProperty, version.c_str());
    property_set(kBuildIdProperty, kBuildId);

    marlo_log(MARLO_LOG_INFO, kTag, "******** STARTING MARLO VERSION: %s-%s COUNT %d ********",
              version.c_str(), kBuildId, count);
}

}  // namespace tessaro::marlo
