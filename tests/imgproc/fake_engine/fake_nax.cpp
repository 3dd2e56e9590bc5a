/*
 * A recording stand-in for the 2D engine library. Each entry point records
 * its arguments; results are set by the test. FAKE_NAX_OMIT_<ENTRY> leaves
 * an entry out, so that one source builds the partial engines as well.
 */
#include "fake_nax.h"

#include <fcntl.h>
#include <string.h>

#include <mutex>
#include <set>
#include <vector>

namespace {

struct State {
    std::mutex mutex;
    std::vector<fake_nax_call> calls;
    std::set<uint32_t> live;
    int64_t importResult = -1;
    uint32_t nextHandle = 1;
    int opResult = 0;
    int releaseFence = -1;
    /* Hand out a duplicate of releaseFence per call, so each caller owns its own. */
    bool duplicateFence = false;
};

State& state() {
    static State s;
    return s;
}

fake_nax_call NewCall(const char* name) {
    fake_nax_call call;
    memset(&call, 0, sizeof(call));
    strncpy(call.name, name, sizeof(call.name) - 1);
    return call;
}

[[maybe_unused]] int Record(const fake_nax_call& call, int* releaseFence) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.calls.push_back(call);
    if (releaseFence)
        *releaseFence = s.duplicateFence && s.releaseFence >= 0
                            ? fcntl(s.releaseFence, F_DUPFD_CLOEXEC, 0)
                            : s.releaseFence;
    return s.opResult;
}

[[maybe_unused]] uint32_t Import(fake_nax_call call) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.calls.push_back(call);
    uint32_t handle = s.importResult < 0 ? s.nextHandle++ : static_cast<uint32_t>(s.importResult);
    if (handle)
        s.live.insert(handle);
    return handle;
}

[[maybe_unused]] nax_buffer_t Wrap(fake_nax_call call) {
    {
        State& s = state();
        std::lock_guard<std::mutex> lock(s.mutex);
        s.calls.push_back(call);
    }
    nax_buffer_t buffer;
    memset(&buffer, 0, sizeof(buffer));
    buffer.handle = static_cast<uint32_t>(call.address);
    buffer.width = call.width;
    buffer.height = call.height;
    buffer.wstride = call.wstride;
    buffer.hstride = call.hstride;
    buffer.format = call.format;
    /* Marks descriptors made here, so tests tell them from zeroed ones. */
    buffer.reserved[0] = 0xfa4e;
    return buffer;
}

[[maybe_unused]] fake_nax_call WrapCall(const char* name, uint64_t address, int width, int height,
                                        int wstride, int hstride, int format) {
    fake_nax_call call = NewCall(name);
    call.address = address;
    call.width = width;
    call.height = height;
    call.wstride = wstride;
    call.hstride = hstride;
    call.format = format;
    return call;
}

[[maybe_unused]] fake_nax_call ImportCall(const char* name, uint64_t address,
                                          nax_import_param_t* param) {
    fake_nax_call call = NewCall(name);
    call.address = address;
    if (param) {
        call.hasParam = 1;
        call.param = *param;
    }
    return call;
}

}  // namespace

#ifndef FAKE_NAX_OMIT_RESIZE
int nax_resize(nax_buffer_t src, nax_buffer_t dst, double fx, double fy, int interpolation,
               int sync, int* releaseFence) {
    fake_nax_call call = NewCall("nax_resize");
    call.src = src;
    call.dst = dst;
    call.fx = fx;
    call.fy = fy;
    call.interpolation = interpolation;
    call.sync = sync;
    call.releaseFence = releaseFence;
    return Record(call, releaseFence);
}
#endif

#ifndef FAKE_NAX_OMIT_CROP
int nax_crop(nax_buffer_t src, nax_buffer_t dst, nax_rect rect, int sync, int* releaseFence) {
    fake_nax_call call = NewCall("nax_crop");
    call.src = src;
    call.dst = dst;
    call.rect = rect;
    call.sync = sync;
    call.releaseFence = releaseFence;
    return Record(call, releaseFence);
}
#endif

#ifndef FAKE_NAX_OMIT_CVTCOLOR
int nax_cvtcolor(nax_buffer_t src, nax_buffer_t dst, int srcFormat, int dstFormat, int mode,
                 int sync, int* releaseFence) {
    fake_nax_call call = NewCall("nax_cvtcolor");
    call.src = src;
    call.dst = dst;
    call.srcFormat = srcFormat;
    call.dstFormat = dstFormat;
    call.mode = mode;
    call.sync = sync;
    call.releaseFence = releaseFence;
    return Record(call, releaseFence);
}
#endif

#ifndef FAKE_NAX_OMIT_ROTATE
int nax_rotate(nax_buffer_t src, nax_buffer_t dst, int rotation, int sync, int* releaseFence) {
    fake_nax_call call = NewCall("nax_rotate");
    call.src = src;
    call.dst = dst;
    call.rotation = rotation;
    call.sync = sync;
    call.releaseFence = releaseFence;
    return Record(call, releaseFence);
}
#endif

#ifndef FAKE_NAX_OMIT_FLIP
int nax_flip(nax_buffer_t src, nax_buffer_t dst, int mode, int sync, int* releaseFence) {
    fake_nax_call call = NewCall("nax_flip");
    call.src = src;
    call.dst = dst;
    call.mode = mode;
    call.sync = sync;
    call.releaseFence = releaseFence;
    return Record(call, releaseFence);
}
#endif

#ifndef FAKE_NAX_OMIT_COPY
int nax_copy(nax_buffer_t src, nax_buffer_t dst, int sync, int* releaseFence) {
    fake_nax_call call = NewCall("nax_copy");
    call.src = src;
    call.dst = dst;
    call.sync = sync;
    call.releaseFence = releaseFence;
    return Record(call, releaseFence);
}
#endif

#ifndef FAKE_NAX_OMIT_PROCESS
int nax_process(nax_buffer_t src, nax_buffer_t dst, nax_buffer_t pat, nax_rect srect,
                nax_rect drect, nax_rect prect, int acquireFence, int* releaseFence, nax_opt* opt,
                int usage) {
    fake_nax_call call = NewCall("nax_process");
    call.src = src;
    call.dst = dst;
    call.pat = pat;
    call.srect = srect;
    call.drect = drect;
    call.prect = prect;
    call.acquireFence = acquireFence;
    call.releaseFence = releaseFence;
    call.opt = opt;
    call.usage = usage;
    return Record(call, releaseFence);
}
#endif

extern "C" {

#ifndef FAKE_NAX_OMIT_WRAP_HANDLE
nax_buffer_t nax_wrap_handle(uint32_t handle, int width, int height, int wstride, int hstride,
                             int format) {
    return Wrap(WrapCall("nax_wrap_handle", handle, width, height, wstride, hstride, format));
}
#endif

#ifndef FAKE_NAX_OMIT_WRAP_FD
nax_buffer_t nax_wrap_fd(int fd, int width, int height, int wstride, int hstride, int format) {
    return Wrap(WrapCall("nax_wrap_fd", static_cast<uint64_t>(fd), width, height, wstride, hstride,
                         format));
}
#endif

#ifndef FAKE_NAX_OMIT_WRAP_PADDR
nax_buffer_t nax_wrap_paddr(uint64_t paddr, int width, int height, int wstride, int hstride,
                            int format) {
    return Wrap(WrapCall("nax_wrap_paddr", paddr, width, height, wstride, hstride, format));
}
#endif

#ifndef FAKE_NAX_OMIT_WRAP_VADDR
nax_buffer_t nax_wrap_vaddr(uintptr_t vaddr, int width, int height, int wstride, int hstride,
                            int format) {
    return Wrap(WrapCall("nax_wrap_vaddr", vaddr, width, height, wstride, hstride, format));
}
#endif

#ifndef FAKE_NAX_OMIT_IMPORT_FD
uint32_t nax_import_fd(int fd, nax_import_param_t* param) {
    return Import(ImportCall("nax_import_fd", static_cast<uint64_t>(fd), param));
}
#endif

#ifndef FAKE_NAX_OMIT_IMPORT_PADDR
uint32_t nax_import_paddr(uint64_t paddr, nax_import_param_t* param) {
    return Import(ImportCall("nax_import_paddr", paddr, param));
}
#endif

#ifndef FAKE_NAX_OMIT_IMPORT_VADDR
uint32_t nax_import_vaddr(uintptr_t vaddr, nax_import_param_t* param) {
    return Import(ImportCall("nax_import_vaddr", vaddr, param));
}
#endif

#ifndef FAKE_NAX_OMIT_RELEASE
int nax_release_handle(uint32_t handle) {
    fake_nax_call call = NewCall("nax_release_handle");
    call.address = handle;
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.calls.push_back(call);
    s.live.erase(handle);
    return s.opResult;
}
#endif

#ifndef FAKE_NAX_OMIT_SYNC
int nax_sync(int fence) {
    fake_nax_call call = NewCall("nax_sync");
    call.address = static_cast<uint64_t>(fence);
    return Record(call, nullptr);
}
#endif

void fake_nax_reset(void) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.calls.clear();
    s.live.clear();
    s.importResult = -1;
    s.nextHandle = 1;
    s.opResult = 0;
    s.releaseFence = -1;
    s.duplicateFence = false;
}

size_t fake_nax_call_count(void) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.calls.size();
}

int fake_nax_get_call(size_t index, fake_nax_call* call) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    if (!call || index >= s.calls.size())
        return -1;
    *call = s.calls[index];
    return 0;
}

void fake_nax_set_import_result(int64_t result) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.importResult = result;
}

void fake_nax_set_op_result(int result) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.opResult = result;
}

void fake_nax_set_release_fence(int fence) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.releaseFence = fence;
}

void fake_nax_set_release_fence_dup(int on) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.duplicateFence = on != 0;
}

size_t fake_nax_live_handles(void) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.mutex);
    return s.live.size();
}

}  // extern "C"
