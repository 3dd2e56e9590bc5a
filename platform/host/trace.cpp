/*
 * Trace sections for a development machine: enabled tags come from the
 * property Android's tracing uses; sections go to a hook for tests and tools.
 */
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <errno.h>
#include <marlo_host/hooks.h>
#include <stdlib.h>
#include <sys/system_properties.h>

#include <mutex>

#include "hook_slot.h"

namespace {

using TraceHookSlot = marlo_host::HookSlot<marlo_host_trace_hook>;

TraceHookSlot& Hook() {
    static TraceHookSlot* slot = new TraceHookSlot();  // outlives static destructors
    return *slot;
}

void Emit(const char* name) {
    Hook().Call(name);
}

constexpr char kTagsProperty[] = "debug.atrace.tags.enableflags";

// Read as libcutils does: unsigned, any base, so that every one of the 64
// tag bits can be set.
uint64_t ReadTags() {
    char value[PROPERTY_VALUE_MAX];
    if (property_get(kTagsProperty, value, "0") == 0)
        return 0;
    int saved_errno = errno;
    uint64_t tags = strtoull(value, nullptr, 0);
    errno = saved_errno;
    return tags;
}

// Android keeps the enabled tags in memory and reads the property again
// only when it changed; trace points are cheap while tracing is off. The
// same here, by the property's change serial.
class EnabledTags {
  public:
    uint64_t Get() {
        std::lock_guard<std::mutex> lock(mutex_);
        uint32_t serial = Serial();
        if (valid_ && serial == serial_)
            return tags_;
        if (info_ == nullptr) {
            info_ = __system_property_find(kTagsProperty);
            serial = Serial();
        }
        tags_ = ReadTags();
        serial_ = serial;
        valid_ = true;
        return tags_;
    }

  private:
    // Until the property exists, only the area serial tells that it appeared.
    uint32_t Serial() const {
        return info_ != nullptr ? __system_property_serial(info_) : __system_property_area_serial();
    }

    std::mutex mutex_;
    const prop_info* info_ = nullptr;
    uint32_t serial_ = 0;
    uint64_t tags_ = 0;
    bool valid_ = false;
};

}  // namespace

extern "C" {

uint64_t atrace_get_enabled_tags(void) {
    static EnabledTags* tags = new EnabledTags();  // outlives static destructors
    return tags->Get();
}

void atrace_begin_body(const char* name) {
    Emit(name != nullptr ? name : "");
}

void atrace_end_body(void) {
    Emit(nullptr);
}

void marlo_host_set_trace_hook(marlo_host_trace_hook hook, void* ctx) {
    Hook().Set(hook, ctx);
}

}  // extern "C"
