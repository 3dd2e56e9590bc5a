/*
 * Test hooks of the graphics buffer emulation (allocator, mapper and mapper
 * metadata). Host only; the library's own code never calls them.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Calls made to fail while their bit is set. */
enum marlo_host_gralloc_failure {
    MARLO_HOST_GRALLOC_FAIL_ALLOCATE = 1u << 0, /* allocate: NO_MEMORY */
    MARLO_HOST_GRALLOC_FAIL_IMPORT = 1u << 1,   /* importBuffer: BAD_VALUE */
    MARLO_HOST_GRALLOC_FAIL_FREE = 1u << 2,     /* free, freeBuffer: BAD_VALUE, nothing freed */
    MARLO_HOST_GRALLOC_FAIL_LOCK = 1u << 3,     /* lock: BAD_VALUE */
    MARLO_HOST_GRALLOC_FAIL_UNLOCK = 1u << 4,   /* unlock: BAD_VALUE, stays locked */
    MARLO_HOST_GRALLOC_FAIL_METADATA = 1u << 5, /* IMapper::get: Error::BAD_BUFFER */
    MARLO_HOST_GRALLOC_FAIL_METADATA_TRANSPORT = 1u << 6, /* IMapper::get: transport error */
    MARLO_HOST_GRALLOC_FAIL_ALLOCATION_SIZE = 1u << 7,    /* getAllocationSize: BAD_VALUE */
};

void marlo_host_gralloc_set_failures(uint32_t mask);

/*
 * Makes the Arm plane-fd blob report \a count fds (enabled non-zero) instead
 * of the one it holds. The blob still carries at most the one real fd, so a
 * count above 1 describes a blob shorter than its count.
 */
void marlo_host_gralloc_set_plane_fd_count(int enabled, int64_t count);

/* Called after every emulated call with its name ("allocate", "free", ...). */
typedef void (*marlo_host_gralloc_hook)(const char* call, const void* handle, void* ctx);
void marlo_host_gralloc_set_hook(marlo_host_gralloc_hook hook, void* ctx);

struct marlo_host_gralloc_lock_record {
    uint32_t usage;
    int32_t left;
    int32_t top;
    int32_t right;
    int32_t bottom;
};

/* The arguments of the last lock call; 0 if there was one, -1 otherwise. */
int marlo_host_gralloc_last_lock(struct marlo_host_gralloc_lock_record* record);

/* Number of handles allocated or imported and not yet freed. */
size_t marlo_host_gralloc_live_buffers(void);

/* Clears failures, the count override, the hook and the lock record. */
void marlo_host_gralloc_reset(void);

#ifdef __cplusplus
}
#endif
