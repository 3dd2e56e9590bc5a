/* Small helpers shared by the frame-buffer suites. */
#pragma once

#include <fcntl.h>
#include <stddef.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace marlo_buffer_test {

/* A memory file of \a size bytes standing in for a dma-buf; -1 on failure. */
inline int MakeMemfd(size_t size) {
    int fd = memfd_create("marlo-test-buffer", MFD_CLOEXEC);
    if (fd >= 0 && ftruncate(fd, static_cast<off_t>(size)) < 0) {
        close(fd);
        return -1;
    }
    return fd;
}

inline bool FdIsOpen(int fd) {
    return fd >= 0 && fcntl(fd, F_GETFD) != -1;
}

/* Whether two descriptors refer to the same open file. */
inline bool SameFile(int a, int b) {
    struct stat sa, sb;
    if (fstat(a, &sa) < 0 || fstat(b, &sb) < 0)
        return false;
    return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

/* Whether the page at \a address is mapped in this process. */
inline bool IsMapped(void* address) {
    long page = sysconf(_SC_PAGESIZE);
    auto base = reinterpret_cast<uintptr_t>(address) & ~static_cast<uintptr_t>(page - 1);
    return msync(reinterpret_cast<void*>(base), static_cast<size_t>(page), MS_ASYNC) == 0;
}

inline std::string FdTarget(int fd) {
    char path[64];
    char target[256];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    ssize_t n = readlink(path, target, sizeof(target) - 1);
    if (n < 0)
        return {};
    return std::string(target, static_cast<size_t>(n));
}

}  // namespace marlo_buffer_test
