/*
 * Trace sections for a development machine: enabled tags come from the
 * property Android's tracing uses; sections go to a hook for tests and tools.
 */
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <marlo_host/hooks.h>

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
    return static_cast<uint64_t>(property_get_int64("debug.atrace.tags.enableflags", 0));
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
