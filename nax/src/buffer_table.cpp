/*
 * Imported buffers: the handle table and the mappings behind fd imports.
 */
#include "buffer_table.h"

#include <errno.h>
#include <pthread.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <exception>
#include <new>

#include "log.h"

#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23 /* Linux 5.14 */
#endif

namespace nax {

Mapping::Mapping(dev_t dev, ino_t ino, uint8_t* addr, size_t size, bool writable)
    : dev_(dev), ino_(ino), addr_(addr), size_(size), writable_(writable) {}

Mapping::~Mapping() {
    if (munmap(addr_, size_) != 0)
        NAX_LOGE("munmap of %zu bytes failed: %s", size_, strerror(errno));
}

BufferTable& BufferTable::Instance() {
    /* Never destroyed: jobs may still run in other threads at exit. */
    static BufferTable* table = [] {
        auto* t = new BufferTable();
        pthread_atfork([] { Instance().BeforeFork(); }, [] { Instance().AfterForkInParent(); },
                       [] { Instance().AfterForkInChild(); });
        return t;
    }();
    return *table;
}

namespace {

/* The size of the memory behind fd: regular files and memfds report it in
 * st_size, dma-bufs answer a seek to the end. */
uint64_t FileSize(int fd, const struct stat& st) {
    if (st.st_size > 0)
        return static_cast<uint64_t>(st.st_size);
    const off_t end = lseek(fd, 0, SEEK_END);
    if (end <= 0)
        return 0;
    lseek(fd, 0, SEEK_SET);
    return static_cast<uint64_t>(end);
}

}  // namespace

namespace {

/*
 * Faults every page of a new mapping in here, at import, rather than in
 * the first job: a buffer imported when it is lent then costs its first
 * frame no more than any later one. A writable mapping is faulted in for
 * writing (a read fault would leave each page to be made writable and
 * dirty at its first write, which costs as much again); where the kernel
 * cannot (before Linux 5.14, or memory that refuses it), the mapping is
 * made again with MAP_POPULATE, which faults it in for reading.
 */
void* MapPopulated(int fd, uint64_t size, bool writable) {
    const int prot = writable ? PROT_READ | PROT_WRITE : PROT_READ;
    if (!writable)
        return mmap(nullptr, size, prot, MAP_SHARED | MAP_POPULATE, fd, 0);
    void* addr = mmap(nullptr, size, prot, MAP_SHARED, fd, 0);
    if (addr == MAP_FAILED || madvise(addr, size, MADV_POPULATE_WRITE) == 0)
        return addr;
    munmap(addr, size);
    return mmap(nullptr, size, prot, MAP_SHARED | MAP_POPULATE, fd, 0);
}

}  // namespace

std::shared_ptr<Mapping> BufferTable::MapFile(int fd, Key key, uint64_t size) {
    bool writable = true;
    void* addr = MapPopulated(fd, size, true);
    if (addr == MAP_FAILED && (errno == EACCES || errno == EPERM)) {
        /* Read-only memory (a read-only descriptor, a sealed memfd) can
         * still be a source. */
        writable = false;
        addr = MapPopulated(fd, size, false);
    }
    if (addr == MAP_FAILED) {
        NAX_LOGE("import fd %d: mmap of %llu bytes failed: %s", fd,
                 static_cast<unsigned long long>(size), strerror(errno));
        return nullptr;
    }
    return std::make_shared<Mapping>(key.first, key.second, static_cast<uint8_t*>(addr),
                                     static_cast<size_t>(size), writable);
}

uint32_t BufferTable::ImportFd(int fd) {
    if (fd < 0) {
        NAX_LOGE("import fd %d: not a descriptor", fd);
        return 0;
    }
    struct stat st;
    if (fstat(fd, &st) != 0) {
        NAX_LOGE("import fd %d: fstat failed: %s", fd, strerror(errno));
        return 0;
    }
    const uint64_t size = FileSize(fd, st);
    if (size == 0 || size > SIZE_MAX / 2) {
        NAX_LOGE("import fd %d: no usable size (%llu bytes)", fd,
                 static_cast<unsigned long long>(size));
        return 0;
    }
    const Key key{st.st_dev, st.st_ino};
    std::list<std::shared_ptr<Mapping>> dropped;
    uint32_t handle = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = mappings_.find(key);
        if (it != mappings_.end() && it->second.mapping->size() != size) {
            /* Same file, new size: handles still using the old mapping
             * keep it alive through their references. */
            if (it->second.handles == 0)
                idle_.remove(key);
            dropped.push_back(std::move(it->second.mapping));
            mappings_.erase(it);
            it = mappings_.end();
        }
        if (it == mappings_.end()) {
            std::shared_ptr<Mapping> mapping = MapFile(fd, key, size);
            if (!mapping)
                return 0;
            it = mappings_.emplace(key, CacheEntry{std::move(mapping), 0, {}}).first;
        } else if (it->second.handles == 0) {
            idle_.remove(key);
        }
        CacheEntry& entry = it->second;
        BufferRef ref{entry.mapping, entry.mapping->addr(), entry.mapping->size(),
                      entry.mapping->writable()};
        handle = AddHandle(std::move(ref));
        if (handle != 0)
            entry.handles++;
        else if (entry.handles == 0)
            MakeIdle(key, &entry);
        TrimIdle(Clock::now(), &dropped);
    }
    return handle;
}

uint32_t BufferTable::ImportVaddr(uintptr_t vaddr) {
    if (vaddr == 0) {
        NAX_LOGE("import vaddr: null address");
        return 0;
    }
    std::lock_guard<std::mutex> lock(mutex_);
    return AddHandle(BufferRef{nullptr, reinterpret_cast<uint8_t*>(vaddr), UINT64_MAX, true});
}

uint32_t BufferTable::AddHandle(BufferRef ref) {
    if (handles_.size() >= UINT32_MAX - 1) {
        NAX_LOGE("import: no free handle");
        return 0;
    }
    while (nextHandle_ == 0 || handles_.count(nextHandle_) != 0)
        nextHandle_++;
    const uint32_t handle = nextHandle_++;
    handles_.emplace(handle, std::move(ref));
    return handle;
}

int BufferTable::Release(uint32_t handle) {
    std::list<std::shared_ptr<Mapping>> dropped;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = handles_.find(handle);
    if (it == handles_.end()) {
        NAX_LOGE("release: handle %u is not imported", handle);
        return -EINVAL;
    }
    std::shared_ptr<Mapping> mapping = std::move(it->second.mapping);
    handles_.erase(it);
    const Clock::time_point now = Clock::now();
    if (mapping) {
        const Key key{mapping->dev(), mapping->ino()};
        auto entry = mappings_.find(key);
        /* A handle of a replaced mapping does not count for the new one. */
        if (entry != mappings_.end() && entry->second.mapping == mapping &&
            --entry->second.handles == 0)
            MakeIdle(key, &entry->second);
        dropped.push_back(std::move(mapping));
    }
    TrimIdle(now, &dropped);
    return 0;
}

void BufferTable::MakeIdle(const Key& key, CacheEntry* entry) {
    entry->idleSince = Clock::now();
    idle_.push_back(key);
    if (reaperRunning_ || reaperStopped_)
        return;
    /* A reaper that ended no longer takes the mutex: joining it here is
     * quick. */
    if (reaper_)
        reaper_->join();
    reaper_.reset();
    try {
        reaper_ = std::make_unique<std::thread>(&BufferTable::ReaperLoop, this);
        reaperRunning_ = true;
    } catch (const std::exception& e) {
        NAX_LOGW("no thread to drop idle mappings (%s): they go at later imports", e.what());
    }
}

void BufferTable::ReaperLoop() {
    /* A new thread inherits its starter's name (a client's IO thread, say): without one of its
     * own, top -H and per-thread CPU figures would count its unmapping as the client's. */
    pthread_setname_np(pthread_self(), "nax_reaper");
    std::unique_lock<std::mutex> lock(mutex_);
    while (!reaperStopped_ && !idle_.empty()) {
        /* The front of idle_ turned idle first. */
        auto entry = mappings_.find(idle_.front());
        if (entry != mappings_.end())
            reaperWake_.wait_until(lock, entry->second.idleSince + kIdleLifetime,
                                   [this] { return reaperStopped_ || idle_.size() > kMaxIdle; });
        std::list<std::shared_ptr<Mapping>> dropped;
        DropIdle(Clock::now(), &dropped);
        lock.unlock();
        dropped.clear(); /* unmapped without the lock */
        lock.lock();
    }
    reaperRunning_ = false;
}

void BufferTable::StopReaper() {
    std::unique_ptr<std::thread> reaper;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        reaperStopped_ = true;
        reaper = std::move(reaper_);
    }
    reaperWake_.notify_all();
    if (reaper)
        reaper->join();
}

void BufferTable::BeforeFork() {
    mutex_.lock();
}

void BufferTable::AfterForkInParent() {
    mutex_.unlock();
}

void BufferTable::AfterForkInChild() {
    /* The parent's thread does not exist here: forget it without joining
     * or destroying it (either would act on a thread that is not there),
     * and let the next idle mapping start a reaper of the child's own. */
    forkedReaper_ = reaper_.release();
    reaperRunning_ = false;
    /* Nor may its wait linger in the condition variable. */
    new (&reaperWake_) std::condition_variable();
    mutex_.unlock();
}

namespace {

/* The reaper runs this library's code: it must end before the library is
 * unmapped. */
struct ReaperStop {
    ~ReaperStop() { BufferTable::Instance().StopReaper(); }
} reaperStop;

}  // namespace

void BufferTable::DropIdle(Clock::time_point now, std::list<std::shared_ptr<Mapping>>* out) {
    while (!idle_.empty()) {
        auto entry = mappings_.find(idle_.front());
        const bool expired = entry == mappings_.end() ||
                             now - entry->second.idleSince >= kIdleLifetime ||
                             idle_.size() > kMaxIdle;
        if (!expired)
            break;
        if (entry != mappings_.end()) {
            out->push_back(std::move(entry->second.mapping));
            mappings_.erase(entry);
        }
        idle_.pop_front();
    }
}

void BufferTable::TrimIdle(Clock::time_point now, std::list<std::shared_ptr<Mapping>>* out) {
    if (!reaperRunning_) {
        DropIdle(now, out);
        return;
    }
    if (idle_.size() > kMaxIdle)
        reaperWake_.notify_one();
}

bool BufferTable::Lookup(uint32_t handle, BufferRef* ref) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = handles_.find(handle);
    if (it == handles_.end())
        return false;
    *ref = it->second;
    return true;
}

}  // namespace nax
