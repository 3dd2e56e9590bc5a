/*
 * The kernel's software sync timeline (debugfs, CONFIG_SW_SYNC): real
 * sync_file fences for tests. Machines without it cannot open the timeline;
 * tests then skip with the reason.
 */
#pragma once

#include <linux/types.h>
#include <string.h>
#include <sys/ioctl.h>

namespace marlo_test {

struct sw_sync_create_fence_data {
    __u32 value;
    char name[32];
    __s32 fence;
};
#define SW_SYNC_IOC_CREATE_FENCE _IOWR('W', 0, struct marlo_test::sw_sync_create_fence_data)
#define SW_SYNC_IOC_INC _IOW('W', 1, __u32)

constexpr char kSwSync[] = "/sys/kernel/debug/sync/sw_sync";

/* A fence on \a timeline that signals when the timeline reaches \a value; -1 on failure. */
inline int CreateFence(int timeline, __u32 value) {
    struct sw_sync_create_fence_data data = {};
    data.value = value;
    strncpy(data.name, "marlo_test", sizeof(data.name) - 1);
    if (ioctl(timeline, SW_SYNC_IOC_CREATE_FENCE, &data) != 0)
        return -1;
    return data.fence;
}

}  // namespace marlo_test
