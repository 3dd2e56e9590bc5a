/*
 * Records the dma-buf sync requests the library issues. The test executable
 * defines ioctl() itself, so the library's calls reach it first; every other
 * request goes on to the C library.
 */
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct dma_sync_record {
    int fd;
    uint64_t flags;
};

/* Forgets the records and goes back to passing sync requests on. */
void dma_sync_spy_reset(void);
/* While set, sync requests succeed without reaching the kernel. */
void dma_sync_spy_set_succeed(int succeed);
int dma_sync_spy_count(void);
struct dma_sync_record dma_sync_spy_record(int index);

#ifdef __cplusplus
}
#endif
