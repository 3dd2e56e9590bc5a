/*
 * The interposed C library calls. An executable's own definitions come first
 * in symbol lookup, so the library under test (and the sanitizer runtime)
 * reach these; everything that is not a fake node is forwarded to the next
 * definition (the sanitizer's interceptor or the C library).
 */
#undef _FORTIFY_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "fake_v4l2_internal.h"
#include "support/ioctl_request.h"

namespace marlo_fake::detail {

namespace {

template <typename Fn>
Fn Next(const char* name) {
    static_assert(sizeof(Fn) == sizeof(void*));
    void* sym = dlsym(RTLD_NEXT, name);
    Fn fn;
    __builtin_memcpy(&fn, &sym, sizeof(fn));
    return fn;
}

using OpenatFn = int (*)(int, const char*, int, ...);
using CloseFn = int (*)(int);
using IoctlFn = int (*)(int, marlo_ioctl_request_t, ...);
using MmapFn = void* (*)(void*, size_t, int, int, int, off_t);
using MunmapFn = int (*)(void*, size_t);

/* Re-entry guard: dlsym itself must not be routed back into a lookup. */
thread_local bool t_resolving = false;

template <typename Fn>
Fn Resolve(std::atomic<Fn>& slot, const char* name) {
    Fn fn = slot.load(std::memory_order_acquire);
    if (fn != nullptr || t_resolving)
        return fn;
    t_resolving = true;
    fn = Next<Fn>(name);
    t_resolving = false;
    slot.store(fn, std::memory_order_release);
    return fn;
}

std::atomic<OpenatFn> g_openat{nullptr};
std::atomic<CloseFn> g_close{nullptr};
std::atomic<IoctlFn> g_ioctl{nullptr};
std::atomic<MmapFn> g_mmap{nullptr};
std::atomic<MunmapFn> g_munmap{nullptr};

/*
 * Resolved once at load: a lazy first lookup may otherwise happen inside a
 * sanitizer's report (its symbolizer opens files), where dlsym's own
 * allocations break the runtime and the report hangs instead of failing.
 */
__attribute__((constructor)) void ResolveAll() {
    Resolve(g_openat, "openat");
    Resolve(g_close, "close");
    Resolve(g_ioctl, "ioctl");
    Resolve(g_mmap, "mmap");
    Resolve(g_munmap, "munmap");
}

}  // namespace

int RealOpenat(int dirfd, const char* path, int flags, mode_t mode) {
    if (OpenatFn fn = Resolve(g_openat, "openat"))
        return fn(dirfd, path, flags, mode);
    return static_cast<int>(syscall(SYS_openat, dirfd, path, flags, mode));
}

int RealClose(int fd) {
    if (CloseFn fn = Resolve(g_close, "close"))
        return fn(fd);
    return static_cast<int>(syscall(SYS_close, fd));
}

int RealIoctl(int fd, unsigned long request, void* arg) {
    if (IoctlFn fn = Resolve(g_ioctl, "ioctl"))
        return fn(fd, static_cast<marlo_ioctl_request_t>(request), arg);
    return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
}

void* RealMmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    if (MmapFn fn = Resolve(g_mmap, "mmap"))
        return fn(addr, length, prot, flags, fd, offset);
    return reinterpret_cast<void*>(syscall(SYS_mmap, addr, length, prot, flags, fd, offset));
}

int RealMunmap(void* addr, size_t length) {
    if (MunmapFn fn = Resolve(g_munmap, "munmap"))
        return fn(addr, length);
    return static_cast<int>(syscall(SYS_munmap, addr, length));
}

void InterposerAnchor() {}

namespace {

int OpenCommon(int dirfd, const char* path, int flags, mode_t mode) {
    if (path != nullptr && !t_resolving) {
        if (auto node = NodeForPath(path)) {
            int fd = node->HandleOpen(flags, mode);
            if (fd >= 0)
                BindFd(fd, node);
            return fd;
        }
    }
    return RealOpenat(dirfd, path, flags, mode);
}

mode_t ModeArg(int flags, va_list args) {
    if ((flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE)
        return static_cast<mode_t>(va_arg(args, int));
    return 0;
}

}  // namespace

}  // namespace marlo_fake::detail

using namespace marlo_fake::detail;

extern "C" {

int open(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = ModeArg(flags, args);
    va_end(args);
    return OpenCommon(AT_FDCWD, path, flags, mode);
}

int open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = ModeArg(flags, args);
    va_end(args);
    return OpenCommon(AT_FDCWD, path, flags, mode);
}

int __open_2(const char* path, int flags) {
    return OpenCommon(AT_FDCWD, path, flags, 0);
}

int __open64_2(const char* path, int flags) {
    return OpenCommon(AT_FDCWD, path, flags, 0);
}

int openat(int dirfd, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = ModeArg(flags, args);
    va_end(args);
    return OpenCommon(dirfd, path, flags, mode);
}

int openat64(int dirfd, const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    mode_t mode = ModeArg(flags, args);
    va_end(args);
    return OpenCommon(dirfd, path, flags, mode);
}

int close(int fd) {
    int err = 0;
    if (auto node = UnbindFd(fd))
        err = node->HandleClose(fd);
    int ret = RealClose(fd);
    if (ret == 0 && err != 0) {
        errno = err;
        return -1;
    }
    return ret;
}

int ioctl(int fd, marlo_ioctl_request_t request, ...) {
    va_list args;
    va_start(args, request);
    void* arg = va_arg(args, void*);
    va_end(args);
    const unsigned long command = marlo_ioctl_command(request);
    if (auto node = marlo_fake::NodeForFd(fd))
        return node->HandleIoctl(fd, command, arg);
    return RealIoctl(fd, command, arg);
}

void* mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    if (fd >= 0) {
        if (auto node = marlo_fake::NodeForFd(fd))
            return node->HandleMmap(addr, length, prot, flags, fd, offset);
    }
    return RealMmap(addr, length, prot, flags, fd, offset);
}

void* mmap64(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
    return mmap(addr, length, prot, flags, fd, offset);
}

int munmap(void* addr, size_t length) {
    if (auto node = UnbindMapping(addr))
        node->ForgetMapping(addr, length);
    return RealMunmap(addr, length);
}

}  // extern "C"
