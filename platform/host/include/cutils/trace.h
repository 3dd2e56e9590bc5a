/* Android libcutils trace interface (the parts the library uses). */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define ATRACE_TAG_NEVER 0
#define ATRACE_TAG_ALWAYS (1 << 0)
#define ATRACE_TAG_CAMERA (1 << 10)

/* The enabled tag bits, from the property "debug.atrace.tags.enableflags". */
uint64_t atrace_get_enabled_tags(void);
void atrace_begin_body(const char* name);
void atrace_end_body(void);

#ifdef __cplusplus
}
#endif
