#include "base/cached_property.h"

namespace tessaro::marlo::detail {

CachedProperty::CachedProperty(const char* name, Reader reader) : name_(name), reader_(reader) {}

uint32_t CachedProperty::currentSerial(const prop_info* info) const {
    /* Until the property exists, only the area serial tells that it appeared. */
    return info != nullptr ? __system_property_serial(info) : __system_property_area_serial();
}

int32_t CachedProperty::get() {
    if (valid_.load(std::memory_order_acquire)) {
        const uint64_t cached = cached_.load(std::memory_order_acquire);
        if (static_cast<uint32_t>(cached >> 32) ==
            currentSerial(info_.load(std::memory_order_acquire)))
            return static_cast<int32_t>(static_cast<uint32_t>(cached));
    }
    return refresh();
}

int32_t CachedProperty::refresh() {
    MutexLocker lock(refreshMutex_);
    const prop_info* info = info_.load(std::memory_order_acquire);
    if (info == nullptr) {
        info = __system_property_find(name_);
        if (info != nullptr)
            info_.store(info, std::memory_order_release);
    }
    /* The serial is taken before the value: a change in between makes the
     * next read refresh again rather than keep a stale value. */
    const uint32_t serial = currentSerial(info);
    const int32_t value = reader_(name_);
    cached_.store(Pack(serial, value), std::memory_order_release);
    valid_.store(true, std::memory_order_release);
    return value;
}

}  // namespace tessaro::marlo::detail
