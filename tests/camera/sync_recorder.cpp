#include "sync_recorder.h"

#include <dirent.h>
#include <dlfcn.h>
#include <linux/kcmp.h>
#include <stdlib.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <mutex>

namespace {

struct Recorder {
    std::mutex mutex;
    bool recording = false;
    bool passThrough = false;
    bool signalled = true;
    std::vector<sync_recorder::Merge> merges;
    std::vector<sync_recorder::Wait> waits;
};

Recorder& recorder() {
    static Recorder r;
    return r;
}

using MergeFn = int (*)(const char*, int, int);
using WaitFn = int (*)(int, int);

int PlatformMerge(const char* name, int fd1, int fd2) {
    static MergeFn next = reinterpret_cast<MergeFn>(dlsym(RTLD_NEXT, "sync_merge"));
    return next ? next(name, fd1, fd2) : -1;
}

int PlatformWait(int fd, int timeout) {
    static WaitFn next = reinterpret_cast<WaitFn>(dlsym(RTLD_NEXT, "sync_wait"));
    return next ? next(fd, timeout) : -1;
}

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

void Begin(bool passThrough, bool signalled) {
    Recorder& r = recorder();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.recording = true;
    r.passThrough = passThrough;
    r.signalled = signalled;
    r.merges.clear();
    r.waits.clear();
}

}  // namespace

namespace sync_recorder {

void Start(bool signalled) {
    Begin(false, signalled);
}

void StartPassThrough() {
    Begin(true, true);
}

std::vector<Merge> Stop() {
    Recorder& r = recorder();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.recording = false;
    return std::move(r.merges);
}

size_t Count() {
    Recorder& r = recorder();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.merges.size();
}

std::vector<Wait> Waits() {
    Recorder& r = recorder();
    std::lock_guard<std::mutex> lock(r.mutex);
    return r.waits;
}

}  // namespace sync_recorder

extern "C" int sync_merge(const char* name, int fd1, int fd2) {
    Recorder& r = recorder();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (!r.recording)
        return PlatformMerge(name, fd1, fd2);
    int fd =
        r.passThrough ? PlatformMerge(name, fd1, fd2) : eventfd(r.signalled ? 1 : 0, EFD_CLOEXEC);
    r.merges.push_back({name ? name : "", fd1, fd2, fd, Twins(fd2)});
    return fd;
}

extern "C" int sync_wait(int fd, int timeout) {
    int result = PlatformWait(fd, timeout);
    Recorder& r = recorder();
    std::lock_guard<std::mutex> lock(r.mutex);
    if (r.recording)
        r.waits.push_back({fd, timeout, result});
    return result;
}
