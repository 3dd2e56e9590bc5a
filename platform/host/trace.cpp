/*
 * Trace sections for a development machine: enabled tags come from the
 * property Android's tracing uses; sections go to a hook for tests and tools.
 */
#include <cutils/properties.h>
#include <cutils/trace.h>
#include <marlo_host/hooks.h>

#include <mutex>

namespace {

std::mutex g_trace_mutex;
marlo_host_trace_hook g_trace_hook = nullptr;
void* g_trace_ctx = nullptr;

void Emit(const char* name) {
    std::lock_guard<std::mutex> lock(g_trace_mutex);
    if (g_trace_hook != nullptr)
        g_trace_hook(name, g_trace_ctx);
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
    std::lock_guard<std::mutex> lock(g_trace_mutex);
    g_trace_hook = hook;
    g_trace_ctx = ctx;
}

}  // extern "C"
