/*
 * Test and tooling hooks of the host platform library. They exist only on a
 * development machine; the library's own code never calls them.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/*
 * Called for every log message, with the message as the caller formatted it,
 * on the logging thread and outside any lock of the log. Setting a hook (or
 * NULL) returns once no call of the previous hook is still running; it must
 * not be done from within a hook.
 */
typedef void (*marlo_host_log_hook)(int prio, const char* tag, const char* message, void* ctx);
void marlo_host_set_log_hook(marlo_host_log_hook hook, void* ctx);

/* Whether log messages are also written to standard error (default: yes). */
void marlo_host_set_log_to_stderr(int enabled);

/* Drops every property, so the next read seeds the store again. */
void marlo_host_properties_reset(void);

/*
 * Called for every trace section begin (name) and end (name NULL), with the
 * same guarantees as the log hook.
 */
typedef void (*marlo_host_trace_hook)(const char* name, void* ctx);
void marlo_host_set_trace_hook(marlo_host_trace_hook hook, void* ctx);

#ifdef __cplusplus
}
#endif
