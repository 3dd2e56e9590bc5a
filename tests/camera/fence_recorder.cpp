#include "fence_recorder.h"

#include <dirent.h>
#include <linux/kcmp.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

using tessaro::marlo::detail::PlatformFences;

namespace {

bool SameFile(int a, int b) {
    pid_t self = getpid();
    return syscall(SYS_kcmp, self, self, KCMP_FILE, a, b) == 0;
}

/* The descriptors other than \a fd open on the same file. */
std::vector<int> Twins(int fd) {
    std::vector<int> twins;
    DIR* dir = fd >= 0 ? opendir("/proc/self/fd") : nullptr;
    if (!dir)
        return twins;
    int listing = dirfd(dir);
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        int other = atoi(entry->d_name);
        if (other != fd && other != listing && SameFile(fd, other))
            twins.push_back(other);
    }
    closedir(dir);
    return twins;
}

}  // namespace

void FenceRecorder::start(bool signalled) {
    begin(false, signalled);
}

void FenceRecorder::startPassThrough() {
    begin(true, true);
}

void FenceRecorder::begin(bool passThrough, bool signalled) {
    std::lock_guard<std::mutex> lock(mutex_);
    recording_ = true;
    passThrough_ = passThrough;
    signalled_ = signalled;
    merges_.clear();
    waits_.clear();
}

std::vector<FenceRecorder::Merge> FenceRecorder::stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    recording_ = false;
    std::vector<Merge> merges;
    merges.swap(merges_);
    return merges;
}

size_t FenceRecorder::count() {
    std::lock_guard<std::mutex> lock(mutex_);
    return merges_.size();
}

std::vector<FenceRecorder::Wait> FenceRecorder::waits() {
    std::lock_guard<std::mutex> lock(mutex_);
    return waits_;
}

int FenceRecorder::merge(const char* name, int fd1, int fd2) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!recording_)
        return PlatformFences().merge(name, fd1, fd2);
    int fd = passThrough_ ? PlatformFences().merge(name, fd1, fd2)
                          : eventfd(signalled_ ? 1 : 0, EFD_CLOEXEC);
    merges_.push_back({name ? name : "", fd1, fd2, fd, Twins(fd2)});
    return fd;
}

int FenceRecorder::wait(int fd, int timeoutMs) {
    int result = PlatformFences().wait(fd, timeoutMs);
    std::lock_guard<std::mutex> lock(mutex_);
    if (recording_)
        waits_.push_back({fd, timeoutMs, result});
    return result;
}
