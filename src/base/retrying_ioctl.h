/*
 * The ioctl that device wrappers issue: a request a signal interrupts is
 * issued again rather than reported as a failure.
 */
#pragma once

namespace tessaro::marlo::detail {

/* ::ioctl's answer for \a request on \a fd, never -1 with EINTR. */
int RetryingIoctl(int fd, unsigned long request, void* arg);

}  // namespace tessaro::marlo::detail
