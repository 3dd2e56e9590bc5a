#include "sync_recorder.h"

#include <dlfcn.h>
#include <sys/eventfd.h>

#include <mutex>

namespace {

struct Recorder {
    std::mutex mutex;
    bool recording = false;
    bool signalled = true;
    std::vector<sync_recorder::Merge> merges;
};

Recorder& recorder() {
    static Recorder r;
    return r;
}

using MergeFn = int (*)(const char*, int, int);

}  // namespace

namespace sync_recorder {

void Start(bool signalled) {
    Recorder& r = recorder();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.recording = true;
    r.signalled = signalled;
    r.merges.clear();
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

}  // namespace sync_recorder

extern "C" int sync_merge(const char* name, int fd1, int fd2) {
    Recorder& r = recorder();
    {
        std::lock_guard<std::mutex> lock(r.mutex);
        if (r.recording) {
            int fd = eventfd(r.signalled ? 1 : 0, EFD_CLOEXEC);
            r.merges.push_back({name ? name : "", fd1, fd2, fd});
            return fd;
        }
    }
    static MergeFn next = reinterpret_cast<MergeFn>(dlsym(RTLD_NEXT, "sync_merge"));
    return next ? next(name, fd1, fd2) : -1;
}
