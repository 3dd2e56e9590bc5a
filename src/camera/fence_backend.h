/*
 * FenceBackend: how the frame fan-out joins the fences of a frame's
 * conversions and waits for them. The fan-out is given one rather than
 * calling the platform's sync functions itself so that tests can see and
 * answer every merge and wait of one camera (names, descriptors, the
 * bound of the wait, fences that never signal) without replacing those
 * functions for the whole process. Cameras use PlatformFences().
 */
#pragma once

namespace tessaro::marlo::detail {

class FenceBackend {
  public:
    FenceBackend() = default;
    virtual ~FenceBackend();

    FenceBackend(const FenceBackend&) = delete;
    FenceBackend& operator=(const FenceBackend&) = delete;

    /*
     * A new fence named \a name that signals once \a fd1 and \a fd2 have,
     * owned by the caller; -1 when refused. \a fd1 and \a fd2 stay the
     * caller's.
     */
    virtual int merge(const char* name, int fd1, int fd2) = 0;
    /* 0 once \a fd has signalled; otherwise non-zero, after at most \a timeoutMs. */
    virtual int wait(int fd, int timeoutMs) = 0;
};

/* The platform's sync_merge and sync_wait. Never destroyed. */
FenceBackend& PlatformFences();

}  // namespace tessaro::marlo::detail
