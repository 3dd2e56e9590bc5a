/* libsync over the Linux sync_file requests, with libsync's contracts. */
#include <android/sync.h>

#include <errno.h>
#include <linux/sync_file.h>
#include <poll.h>
#include <string.h>
#include <sys/ioctl.h>

extern "C" {

int sync_merge(const char* name, int fd1, int fd2) {
    struct sync_merge_data data;
    memset(&data, 0, sizeof(data));
    data.fd2 = fd2;
    if (name != nullptr)
        strncpy(data.name, name, sizeof(data.name) - 1);
    int result;
    do {
        result = ioctl(fd1, SYNC_IOC_MERGE, &data);
    } while (result == -1 && errno == EINTR);
    if (result < 0)
        return -1;
    return data.fence;
}

int sync_wait(int fd, int timeout) {
    struct pollfd fds;
    fds.fd = fd;
    fds.events = POLLIN;
    fds.revents = 0;
    if (fd < 0) {
        errno = EINVAL;
        return -1;
    }
    int result;
    do {
        result = poll(&fds, 1, timeout);
        if (result > 0) {
            if (fds.revents & (POLLERR | POLLNVAL)) {
                errno = EINVAL;
                return -1;
            }
            return 0;
        }
        if (result == 0) {
            errno = ETIME;
            return -1;
        }
    } while (result == -1 && (errno == EINTR || errno == EAGAIN));
    return result;
}

}  // extern "C"
