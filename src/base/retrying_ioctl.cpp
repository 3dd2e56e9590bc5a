#include "base/retrying_ioctl.h"

#include <errno.h>
#include <sys/ioctl.h>

namespace tessaro::marlo::detail {

int RetryingIoctl(int fd, unsigned long request, void* arg) {
    int ret;
    do {
        ret = ::ioctl(fd, request, arg);
    } while (ret == -1 && errno == EINTR);
    return ret;
}

}  // namespace tessaro::marlo::detail
