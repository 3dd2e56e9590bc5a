/*
 * The request parameter of ioctl() for interposers of it: glibc declares it
 * unsigned long, bionic int. The kernel reads 32 bits of it (unsigned int
 * cmd), so a request that a caller keeps in an int, which reaches an
 * unsigned long sign-extended when its top bit is set (every _IOR request),
 * is still the same request. Interposers compare the command as the kernel
 * does.
 */
#pragma once

#include <stdint.h>

#if defined(__BIONIC__)
typedef int marlo_ioctl_request_t;
#else
typedef unsigned long marlo_ioctl_request_t;
#endif

static inline unsigned long marlo_ioctl_command(marlo_ioctl_request_t request) {
    return (uint32_t)request;
}
