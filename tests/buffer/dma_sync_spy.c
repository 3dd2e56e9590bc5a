#define _GNU_SOURCE
#include "dma_sync_spy.h"

#include <dlfcn.h>
#include <linux/dma-buf.h>
#include <stdarg.h>
#include <stddef.h>
#include <sys/ioctl.h>

#include "support/ioctl_request.h"

#define MAX_RECORDS 64

static struct dma_sync_record records[MAX_RECORDS];
static int record_count;
static int succeed_sync;

void dma_sync_spy_reset(void) {
    record_count = 0;
    succeed_sync = 0;
}

void dma_sync_spy_set_succeed(int succeed) {
    succeed_sync = succeed;
}

int dma_sync_spy_count(void) {
    return record_count;
}

struct dma_sync_record dma_sync_spy_record(int index) {
    struct dma_sync_record none = {-1, ~(uint64_t)0};
    if (index < 0 || index >= record_count || index >= MAX_RECORDS)
        return none;
    return records[index];
}

int ioctl(int fd, marlo_ioctl_request_t request, ...) {
    typedef int (*ioctl_fn)(int, marlo_ioctl_request_t, ...);
    static ioctl_fn real_ioctl;
    va_list args;
    void* arg;

    va_start(args, request);
    arg = va_arg(args, void*);
    va_end(args);

    if (marlo_ioctl_command(request) == DMA_BUF_IOCTL_SYNC) {
        const struct dma_buf_sync* sync = (const struct dma_buf_sync*)arg;
        if (record_count < MAX_RECORDS) {
            records[record_count].fd = fd;
            records[record_count].flags = sync ? sync->flags : ~(uint64_t)0;
        }
        record_count++;
        if (succeed_sync)
            return 0;
    }

    if (real_ioctl == NULL)
        real_ioctl = (ioctl_fn)dlsym(RTLD_NEXT, "ioctl");
    return real_ioctl(fd, request, arg);
}
