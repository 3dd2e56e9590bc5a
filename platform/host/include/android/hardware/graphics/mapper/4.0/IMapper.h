/*
 * The android.hardware.graphics.mapper@4.0 service interface (the metadata
 * query this platform needs).
 */
#pragma once

#include <stdint.h>

#include <functional>
#include <string>

#include <android/hardware/graphics/mapper/4.0/types.h>
#include <hidl/HidlSupport.h>
#include <hidl/Status.h>
#include <utils/RefBase.h>
#include <utils/StrongPointer.h>

namespace android {
namespace hardware {
namespace graphics {
namespace mapper {
namespace V4_0 {

struct IMapper : virtual public ::android::RefBase {
    struct MetadataType {
        ::android::hardware::hidl_string name;
        int64_t value;
    };

    using get_cb = std::function<void(::android::hardware::graphics::mapper::V4_0::Error error,
                                      const ::android::hardware::hidl_vec<uint8_t>& metadata)>;

    /* Reads one metadata value of an imported buffer. */
    virtual ::android::hardware::Return<void> get(void* buffer, const MetadataType& metadataType,
                                                  get_cb _hidl_cb) = 0;

    static ::android::sp<IMapper> getService(const std::string& serviceName = "default",
                                             bool getStub = false);
};

}  // namespace V4_0
}  // namespace mapper
}  // namespace graphics
}  // namespace hardware
}  // namespace android
