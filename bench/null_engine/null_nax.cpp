/*
 * A 2D engine library that does nothing: every import gives a new handle,
 * every job succeeds at once without touching memory. With it, what a
 * frame costs is the camera library's own work.
 */
#include <string.h>

#include <atomic>

#include <nax/nax.h>

namespace {

std::atomic<uint32_t> nextHandle{1};

int Done(int* releaseFence) {
    if (releaseFence)
        *releaseFence = -1;
    return 0;
}

}  // namespace

int nax_resize(nax_buffer_t, nax_buffer_t, double, double, int, int, int* releaseFence) {
    return Done(releaseFence);
}
int nax_crop(nax_buffer_t, nax_buffer_t, nax_rect, int, int* releaseFence) {
    return Done(releaseFence);
}
int nax_cvtcolor(nax_buffer_t, nax_buffer_t, int, int, int, int, int* releaseFence) {
    return Done(releaseFence);
}
int nax_rotate(nax_buffer_t, nax_buffer_t, int, int, int* releaseFence) {
    return Done(releaseFence);
}
int nax_flip(nax_buffer_t, nax_buffer_t, int, int, int* releaseFence) {
    return Done(releaseFence);
}
int nax_copy(nax_buffer_t, nax_buffer_t, int, int* releaseFence) {
    return Done(releaseFence);
}
int nax_process(nax_buffer_t, nax_buffer_t, nax_buffer_t, nax_rect, nax_rect, nax_rect, int,
                int* releaseFence, nax_opt*, int) {
    return Done(releaseFence);
}

extern "C" {

nax_buffer_t nax_wrap_handle(uint32_t handle, int width, int height, int wstride, int hstride,
                             int format) {
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

uint32_t nax_import_fd(int, nax_import_param_t*) {
    return nextHandle++;
}
uint32_t nax_import_paddr(uint64_t, nax_import_param_t*) {
    return nextHandle++;
}
uint32_t nax_import_vaddr(uintptr_t, nax_import_param_t*) {
    return nextHandle++;
}
nax_buffer_t nax_wrap_fd(int fd, int width, int height, int wstride, int hstride, int format) {
    return nax_wrap_handle(nax_import_fd(fd, nullptr), width, height, wstride, hstride, format);
}
nax_buffer_t nax_wrap_paddr(uint64_t paddr, int width, int height, int wstride, int hstride,
                            int format) {
    return nax_wrap_handle(nax_import_paddr(paddr, nullptr), width, height, wstride, hstride,
                           format);
}
nax_buffer_t nax_wrap_vaddr(uintptr_t vaddr, int width, int height, int wstride, int hstride,
                            int format) {
    return nax_wrap_handle(nax_import_vaddr(vaddr, nullptr), width, height, wstride, hstride,
                           format);
}
int nax_release_handle(uint32_t) {
    return 0;
}
int nax_sync(int) {
    return 0;
}

}  // extern "C"
