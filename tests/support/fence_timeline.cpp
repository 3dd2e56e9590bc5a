#include "support/fence_timeline.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/dma-buf.h>
#include <linux/types.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <xf86drm.h>

#include <utility>
#include <vector>

#include <marlo/base/unique_fd.h>

namespace marlo_test {

namespace {

using tessaro::marlo::UniqueFd;

/* The software sync timeline's requests (not in the exported kernel headers). */
struct sw_sync_create_fence_data {
    __u32 value;
    char name[32];
    __s32 fence;
};
#define SW_SYNC_IOC_CREATE_FENCE _IOWR('W', 0, struct sw_sync_create_fence_data)
#define SW_SYNC_IOC_INC _IOW('W', 1, __u32)

constexpr char kSwSync[] = "/sys/kernel/debug/sync/sw_sync";

class SwSyncTimeline : public FenceTimeline {
  public:
    explicit SwSyncTimeline(UniqueFd fd) : fd_(std::move(fd)) {}

    const char* Kind() const override { return "sw_sync"; }

    int CreateFence(unsigned value) override {
        sw_sync_create_fence_data data = {};
        data.value = value;
        strncpy(data.name, "marlo_test", sizeof(data.name) - 1);
        if (ioctl(fd_.get(), SW_SYNC_IOC_CREATE_FENCE, &data) != 0)
            return -1;
        return data.fence;
    }

    bool Advance(unsigned step) override {
        __u32 count = step;
        return ioctl(fd_.get(), SW_SYNC_IOC_INC, &count) == 0;
    }

  private:
    UniqueFd fd_;
};

/* vgem's fence requests (vgem_drm.h is not among the installed headers). */
struct vgem_fence_attach {
    __u32 handle;
    __u32 flags;
    __u32 out_fence;
    __u32 pad;
};
struct vgem_fence_signal {
    __u32 fence;
    __u32 flags;
};
constexpr __u32 kVgemFenceWrite = 0x1;
#define VGEM_IOCTL_FENCE_ATTACH \
    DRM_IOWR(DRM_COMMAND_BASE + 0x1, struct marlo_test::vgem_fence_attach)
#define VGEM_IOCTL_FENCE_SIGNAL \
    DRM_IOW(DRM_COMMAND_BASE + 0x2, struct marlo_test::vgem_fence_signal)

/*
 * Each fence is the write fence of a small vgem buffer of its own (a buffer
 * takes one unsignalled write fence at a time); the sync_file is exported
 * for reading, so it waits for that write. vgem signals a forgotten fence
 * by itself after ten seconds.
 */
class VgemTimeline : public FenceTimeline {
  public:
    explicit VgemTimeline(UniqueFd card) : card_(std::move(card)) {}

    ~VgemTimeline() override {
        for (const Pending& pending : pending_)
            Signal(pending.fence);
    }

    const char* Kind() const override { return "vgem"; }

    int CreateFence(unsigned value) override {
        drm_mode_create_dumb create = {};
        create.width = 64;
        create.height = 1;
        create.bpp = 32;
        if (drmIoctl(card_.get(), DRM_IOCTL_MODE_CREATE_DUMB, &create) != 0)
            return -1;
        int fence = -1;
        int prime = -1;
        vgem_fence_attach attach = {};
        attach.handle = create.handle;
        attach.flags = kVgemFenceWrite;
        if (drmPrimeHandleToFD(card_.get(), create.handle, DRM_CLOEXEC | DRM_RDWR, &prime) == 0 &&
            drmIoctl(card_.get(), VGEM_IOCTL_FENCE_ATTACH, &attach) == 0) {
            dma_buf_export_sync_file exported = {};
            exported.flags = DMA_BUF_SYNC_READ;
            exported.fd = -1;
            if (ioctl(prime, DMA_BUF_IOCTL_EXPORT_SYNC_FILE, &exported) == 0) {
                fence = exported.fd;
                pending_.push_back({value, attach.out_fence});
            } else {
                Signal(attach.out_fence);
            }
        }
        if (prime >= 0)
            close(prime);
        /* The buffer lives on as long as its dma-buf or fence needs it. */
        drm_mode_destroy_dumb destroy = {};
        destroy.handle = create.handle;
        drmIoctl(card_.get(), DRM_IOCTL_MODE_DESTROY_DUMB, &destroy);
        return fence;
    }

    bool Advance(unsigned step) override {
        value_ += step;
        bool ok = true;
        for (auto it = pending_.begin(); it != pending_.end();) {
            if (it->value <= value_) {
                ok = Signal(it->fence) && ok;
                it = pending_.erase(it);
            } else {
                ++it;
            }
        }
        return ok;
    }

  private:
    struct Pending {
        unsigned value;
        __u32 fence;
    };

    bool Signal(__u32 fence) {
        vgem_fence_signal signal = {};
        signal.fence = fence;
        return drmIoctl(card_.get(), VGEM_IOCTL_FENCE_SIGNAL, &signal) == 0;
    }

    UniqueFd card_;
    unsigned value_ = 0;
    std::vector<Pending> pending_;
};

/* The first DRM card whose driver is vgem, or an invalid descriptor. */
UniqueFd OpenVgem() {
    for (int index = 0; index < 16; ++index) {
        std::string path = "/dev/dri/card" + std::to_string(index);
        UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!fd.isValid())
            continue;
        drmVersionPtr version = drmGetVersion(fd.get());
        bool vgem =
            version != nullptr && version->name != nullptr && strcmp(version->name, "vgem") == 0;
        drmFreeVersion(version);
        if (vgem)
            return fd;
    }
    return UniqueFd();
}

}  // namespace

std::unique_ptr<FenceTimeline> FenceTimeline::Open(std::string* reason) {
    UniqueFd swSync(open(kSwSync, O_RDWR | O_CLOEXEC));
    if (swSync.isValid())
        return std::make_unique<SwSyncTimeline>(std::move(swSync));
    std::string swSyncError = strerror(errno);
    UniqueFd vgem = OpenVgem();
    if (vgem.isValid())
        return std::make_unique<VgemTimeline>(std::move(vgem));
    if (reason != nullptr)
        *reason = std::string(kSwSync) + " unavailable (" + swSyncError +
                  ": needs debugfs and CONFIG_SW_SYNC) and no vgem card (modprobe vgem)";
    return nullptr;
}

}  // namespace marlo_test
