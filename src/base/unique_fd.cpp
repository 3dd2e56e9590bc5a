#include <marlo/base/unique_fd.h>

#include <android/fdsan.h>

#include <utility>

namespace tessaro::marlo {

UniqueFd::UniqueFd(int fd) {
    adopt(fd);
}

UniqueFd::~UniqueFd() {
    close();
}

UniqueFd::UniqueFd(UniqueFd&& other) noexcept {
    adopt(other.release());
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other)
        reset(other.release());
    return *this;
}

void UniqueFd::reset(int fd) {
    if (fd == fd_)
        return;
    close();
    adopt(fd);
}

int UniqueFd::release() {
    int fd = fd_;
    if (fd >= 0)
        android_fdsan_exchange_owner_tag(fd, ownerTag(), 0);
    fd_ = -1;
    return fd;
}

uint64_t UniqueFd::ownerTag() const {
    return android_fdsan_create_owner_tag(ANDROID_FDSAN_OWNER_TYPE_UNIQUE_FD,
                                          reinterpret_cast<uint64_t>(this));
}

void UniqueFd::adopt(int fd) {
    fd_ = fd < 0 ? -1 : fd;
    if (fd_ >= 0)
        android_fdsan_exchange_owner_tag(fd_, 0, ownerTag());
}

void UniqueFd::close() {
    if (fd_ >= 0)
        android_fdsan_close_with_tag(fd_, ownerTag());
    fd_ = -1;
}

}  // namespace tessaro::marlo
