/*
 * Trace sections for a development machine: enabled tags come from the
 * property Android's tracing uses; sections go to a hook for tests and tools.
 */
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <errno.h>
#include <marlo_host/hooks.h>
#include <stdlib.h>

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

}  // namespace

extern "C" {

uint64_t atrace_get_enabled_tags(void) {
    // Read as libcutils does: unsigned, any base, so that every one of the
    // 64 tag bits can be set.
    char value[PROPERTY_VALUE_MAX];
    if (property_get("debug.atrace.tags.enableflags", value, "0") == 0)
        return 0;
    int saved_errno = errno;
    uint64_t tags = strtoull(value, nullptr, 0);
    errno = saved_errno;
    return tags;
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
