#include "camera/fence_backend.h"

#include <android/sync.h>

namespace tessaro::marlo::detail {

namespace {

class PlatformFenceBackend : public FenceBackend {
  public:
    int merge(const char* name, int fd1, int fd2) override { return sync_merge(name, fd1, fd2); }
    int wait(int fd, int timeoutMs) override { return sync_wait(fd, timeoutMs); }
};

}  // namespace

FenceBackend::~FenceBackend() = default;

FenceBackend& PlatformFences() {
    /* An IO thread may still merge while static objects are destroyed at exit. */
    static FenceBackend* const platform = new PlatformFenceBackend();
    return *platform;
}

}  // namespace tessaro::marlo::detail
