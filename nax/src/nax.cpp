/*
 * Entry points of the software 2D engine.
 *
 * Every job is finished when the call returns, asynchronous ones included:
 * the release fence is always -1. The calling thread runs it, helped by the
 * worker pool when it is large.
 * Requests are checked in full before a byte is touched: the handle, the
 * format, the geometry against the imported memory and each rectangle
 * against its image.
 */
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <cmath>
#include <new>

#include <nax/nax.h>
#include <nax/nax_sw.h>

#include "buffer_table.h"
#include "engine.h"
#include "format.h"
#include "log.h"
#include "worker_pool.h"

namespace nax {
namespace {

/* Larger images are refused: libyuv takes strides as int, and working
 * images stay within a few GiB (a failed allocation answers -ENOMEM). */
constexpr int kMaxDimension = 16384;
constexpr int kFenceTimeoutMs = 3000;

/* A surface and the reference that keeps its memory mapped for the job. */
struct Image {
    Surface surface;
    BufferRef ref;
};

int ResolveImage(const char* op, const char* role, const nax_buffer_t& b, int format, bool write,
                 Image* out) {
    if (b.handle == 0) {
        NAX_LOGE("%s: %s has no handle", op, role);
        return -EINVAL;
    }
    const FormatInfo* fmt = FindFormat(format);
    if (!fmt) {
        NAX_LOGE("%s: %s format 0x%x is not supported", op, role, format);
        return -EINVAL;
    }
    const int wstride = b.wstride == 0 ? b.width : b.wstride;
    const int hstride = b.hstride == 0 ? b.height : b.hstride;
    if (b.width <= 0 || b.height <= 0 || b.width > kMaxDimension || b.height > kMaxDimension ||
        wstride < b.width || hstride < b.height || wstride > kMaxDimension ||
        hstride > kMaxDimension) {
        NAX_LOGE("%s: %s geometry %dx%d stride %dx%d is invalid", op, role, b.width, b.height,
                 b.wstride, b.hstride);
        return -EINVAL;
    }
    if (!BufferTable::Instance().Lookup(b.handle, &out->ref)) {
        NAX_LOGE("%s: %s handle %u is not imported", op, role, b.handle);
        return -EINVAL;
    }
    const uint64_t bytes = SurfaceBytes(fmt, wstride, hstride);
    if (bytes > out->ref.size) {
        NAX_LOGE("%s: %s %s %dx%d needs %llu bytes, the buffer has %llu", op, role, fmt->name,
                 wstride, hstride, static_cast<unsigned long long>(bytes),
                 static_cast<unsigned long long>(out->ref.size));
        return -EINVAL;
    }
    if (write && !out->ref.writable) {
        NAX_LOGE("%s: %s handle %u is read-only", op, role, b.handle);
        return -EACCES;
    }
    out->surface = Surface{fmt, out->ref.base, b.width, b.height, wstride, hstride};
    return 0;
}

int ResolveRect(const char* op, const char* role, const nax_rect& r, const Surface& s, Rect* out) {
    if (r.x == 0 && r.y == 0 && r.width == 0 && r.height == 0) {
        *out = Rect{0, 0, s.width, s.height};
        return 0;
    }
    if (r.x < 0 || r.y < 0 || r.width <= 0 || r.height <= 0 ||
        static_cast<int64_t>(r.x) + r.width > s.width ||
        static_cast<int64_t>(r.y) + r.height > s.height) {
        NAX_LOGE("%s: %s rectangle (%d,%d %dx%d) is outside %dx%d", op, role, r.x, r.y, r.width,
                 r.height, s.width, s.height);
        return -EINVAL;
    }
    *out = Rect{r.x, r.y, r.width, r.height};
    return 0;
}

int WaitFence(int fence, const char* op) {
    struct pollfd pfd = {fence, POLLIN, 0};
    int rc;
    do {
        rc = poll(&pfd, 1, kFenceTimeoutMs);
    } while (rc < 0 && errno == EINTR);
    if (rc < 0) {
        const int err = errno;
        NAX_LOGE("%s: waiting for fence %d failed: %s", op, fence, strerror(err));
        return -err;
    }
    if (rc == 0) {
        NAX_LOGE("%s: fence %d did not signal within %d ms", op, fence, kFenceTimeoutMs);
        return -ETIME;
    }
    return 0;
}

/* The common path of every operation after its own checks. */
struct Job {
    const char* op;
    nax_buffer_t src;
    nax_buffer_t dst;
    int srcFormat;
    int dstFormat;
    nax_rect srect;
    nax_rect drect;
    int transform;
    Filter filter;
    bool sameFormat; /* single steps do not convert */
    bool sameSize;   /* the rectangles match after the transform */
};

int RunChecked(const Job& job) {
    Image src;
    Image dst;
    int rc = ResolveImage(job.op, "source", job.src, job.srcFormat, false, &src);
    if (rc == 0)
        rc = ResolveImage(job.op, "destination", job.dst, job.dstFormat, true, &dst);
    if (rc != 0)
        return rc;
    Rect sr;
    Rect dr;
    rc = ResolveRect(job.op, "source", job.srect, src.surface, &sr);
    if (rc == 0)
        rc = ResolveRect(job.op, "destination", job.drect, dst.surface, &dr);
    if (rc != 0)
        return rc;
    if (job.sameFormat && src.surface.fmt != dst.surface.fmt) {
        NAX_LOGE("%s: formats differ (%s to %s)", job.op, src.surface.fmt->name,
                 dst.surface.fmt->name);
        return -EINVAL;
    }
    const bool swap = job.transform & (NAX_TRANSFORM_ROT_90 | NAX_TRANSFORM_ROT_270);
    if (job.sameSize && ((swap ? sr.h : sr.w) != dr.w || (swap ? sr.w : sr.h) != dr.h)) {
        NAX_LOGE("%s: %dx%d does not fit %dx%d", job.op, sr.w, sr.h, dr.w, dr.h);
        return -EINVAL;
    }
    return RunJob(src.surface, sr, dst.surface, dr, job.transform, job.filter);
}

/* No exception leaves the library: memory for working images of a large
 * job may run out. */
int Run(const Job& job, int* releaseFence) {
    if (releaseFence)
        *releaseFence = -1;
    try {
        return RunChecked(job);
    } catch (const std::bad_alloc&) {
        NAX_LOGE("%s: out of memory", job.op);
        return -ENOMEM;
    }
}

Job SingleStep(const char* op, const nax_buffer_t& src, const nax_buffer_t& dst) {
    return Job{op,
               src,
               dst,
               src.format,
               dst.format,
               nax_rect{0, 0, 0, 0},
               nax_rect{0, 0, 0, 0},
               0,
               Filter::Bilinear,
               true,
               true};
}

nax_buffer_t Wrap(uint32_t handle, int width, int height, int wstride, int hstride, int format) {
    nax_buffer_t b;
    memset(&b, 0, sizeof(b));
    b.handle = handle;
    b.width = width;
    b.height = height;
    b.wstride = wstride;
    b.hstride = hstride;
    b.format = format;
    return b;
}

}  // namespace
}  // namespace nax

using namespace nax;

int nax_resize(nax_buffer_t src, nax_buffer_t dst, double fx, double fy, int interpolation,
               int /* sync: every job finishes before return */, int* releaseFence) {
    Job job = SingleStep("resize", src, dst);
    job.sameSize = false;
    switch (interpolation) {
        case 0:
            job.filter = Filter::Nearest;
            break;
        case 1:
        case 2: /* no bicubic filter: bilinear is the closest */
            job.filter = Filter::Bilinear;
            break;
        case 3:
            job.filter = Filter::Box;
            break;
        default:
            if (releaseFence)
                *releaseFence = -1;
            NAX_LOGE("resize: interpolation %d is not supported", interpolation);
            return -EINVAL;
    }
    /* Scale factors give the size placed at the top left of dst; without
     * them the whole of dst is filled. */
    if (fx > 0 && fy > 0) {
        const double w = std::round(src.width * fx);
        const double h = std::round(src.height * fy);
        if (!(w >= 1 && h >= 1 && w <= dst.width && h <= dst.height)) {
            if (releaseFence)
                *releaseFence = -1;
            NAX_LOGE("resize: %dx%d scaled by %g,%g does not fit %dx%d", src.width, src.height, fx,
                     fy, dst.width, dst.height);
            return -EINVAL;
        }
        job.drect = nax_rect{0, 0, static_cast<int32_t>(w), static_cast<int32_t>(h)};
    }
    return Run(job, releaseFence);
}

int nax_crop(nax_buffer_t src, nax_buffer_t dst, nax_rect rect, int /* sync */, int* releaseFence) {
    /* The rectangle lands at the top left of dst, unscaled. */
    Job job = SingleStep("crop", src, dst);
    job.srect = rect;
    job.drect = nax_rect{0, 0, rect.width, rect.height};
    if (rect.x == 0 && rect.y == 0 && rect.width == 0 && rect.height == 0)
        job.drect = nax_rect{0, 0, src.width, src.height};
    return Run(job, releaseFence);
}

int nax_cvtcolor(nax_buffer_t src, nax_buffer_t dst, int srcFormat, int dstFormat, int mode,
                 int /* sync */, int* releaseFence) {
    if (mode != 0) {
        if (releaseFence)
            *releaseFence = -1;
        NAX_LOGE("cvtcolor: mode %d is not supported (0: BT.601 limited range)", mode);
        return -EOPNOTSUPP;
    }
    /* The format arguments say how to read and write the memory. */
    Job job = SingleStep("cvtcolor", src, dst);
    job.srcFormat = srcFormat;
    job.dstFormat = dstFormat;
    job.sameFormat = false;
    return Run(job, releaseFence);
}

int nax_rotate(nax_buffer_t src, nax_buffer_t dst, int rotation, int /* sync */,
               int* releaseFence) {
    Job job = SingleStep("rotate", src, dst);
    switch (rotation) {
        case 0:
            break;
        case NAX_ROTATE_90:
            job.transform = NAX_TRANSFORM_ROT_90;
            break;
        case NAX_ROTATE_180:
            job.transform = NAX_TRANSFORM_ROT_180;
            break;
        case NAX_ROTATE_270:
            job.transform = NAX_TRANSFORM_ROT_270;
            break;
        default:
            if (releaseFence)
                *releaseFence = -1;
            NAX_LOGE("rotate: rotation %d is not supported", rotation);
            return -EINVAL;
    }
    return Run(job, releaseFence);
}

int nax_flip(nax_buffer_t src, nax_buffer_t dst, int mode, int /* sync */, int* releaseFence) {
    Job job = SingleStep("flip", src, dst);
    if (mode == NAX_FLIP_H) {
        job.transform = NAX_TRANSFORM_FLIP_H;
    } else if (mode == NAX_FLIP_V) {
        job.transform = NAX_TRANSFORM_FLIP_V;
    } else {
        if (releaseFence)
            *releaseFence = -1;
        NAX_LOGE("flip: mode %d is not supported", mode);
        return -EINVAL;
    }
    return Run(job, releaseFence);
}

int nax_copy(nax_buffer_t src, nax_buffer_t dst, int /* sync */, int* releaseFence) {
    return Run(SingleStep("copy", src, dst), releaseFence);
}

int nax_process(nax_buffer_t src, nax_buffer_t dst, nax_buffer_t pat, nax_rect srect,
                nax_rect drect, nax_rect /* prect */, int acquireFence, int* releaseFence,
                nax_opt* /* opt: only meaningful with a pattern */, int usage) {
    if (releaseFence)
        *releaseFence = -1;
    if (pat.handle != 0) {
        NAX_LOGE("process: pattern blending is not supported");
        return -EOPNOTSUPP;
    }
    const int transform = usage & NAX_TRANSFORM_MASK;
    const int rotations = !!(transform & NAX_TRANSFORM_ROT_90) +
                          !!(transform & NAX_TRANSFORM_ROT_180) +
                          !!(transform & NAX_TRANSFORM_ROT_270);
    if (rotations > 1) {
        NAX_LOGE("process: transform 0x%x has more than one rotation", transform);
        return -EINVAL;
    }
    if (acquireFence >= 0) {
        const int rc = WaitFence(acquireFence, "process");
        if (rc != 0)
            return rc;
    }
    Job job{"process",        src,   dst,  src.format, dst.format, srect, drect, transform,
            Filter::Bilinear, false, false};
    return Run(job, releaseFence);
}

extern "C" {

nax_buffer_t nax_wrap_handle(uint32_t handle, int width, int height, int wstride, int hstride,
                             int format) {
    return Wrap(handle, width, height, wstride, hstride, format);
}

nax_buffer_t nax_wrap_fd(int fd, int width, int height, int wstride, int hstride, int format) {
    return Wrap(nax_import_fd(fd, nullptr), width, height, wstride, hstride, format);
}

nax_buffer_t nax_wrap_paddr(uint64_t paddr, int width, int height, int wstride, int hstride,
                            int format) {
    return Wrap(nax_import_paddr(paddr, nullptr), width, height, wstride, hstride, format);
}

nax_buffer_t nax_wrap_vaddr(uintptr_t vaddr, int width, int height, int wstride, int hstride,
                            int format) {
    return Wrap(nax_import_vaddr(vaddr, nullptr), width, height, wstride, hstride, format);
}

/* The import parameters are not needed: the geometry comes with each wrap. */
uint32_t nax_import_fd(int fd, nax_import_param_t* /* param */) {
    try {
        return BufferTable::Instance().ImportFd(fd);
    } catch (const std::bad_alloc&) {
        NAX_LOGE("import fd %d: out of memory", fd);
        return 0;
    }
}

uint32_t nax_import_paddr(uint64_t paddr, nax_import_param_t* /* param */) {
    NAX_LOGE("import paddr 0x%llx: physical addresses are not reachable from the CPU engine",
             static_cast<unsigned long long>(paddr));
    return 0;
}

uint32_t nax_import_vaddr(uintptr_t vaddr, nax_import_param_t* /* param */) {
    try {
        return BufferTable::Instance().ImportVaddr(vaddr);
    } catch (const std::bad_alloc&) {
        NAX_LOGE("import vaddr: out of memory");
        return 0;
    }
}

int nax_release_handle(uint32_t handle) {
    try {
        return BufferTable::Instance().Release(handle);
    } catch (const std::bad_alloc&) {
        NAX_LOGE("release %u: out of memory", handle);
        return -ENOMEM;
    }
}

int nax_sw_set_job_threads(int threads) {
    return WorkerPool::Instance().SetWidth(threads);
}

int nax_sync(int fence) {
    if (fence < 0)
        return 0;
    const int rc = WaitFence(fence, "sync");
    close(fence);
    return rc;
}

}  // extern "C"
