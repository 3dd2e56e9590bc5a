/*
 * Imported buffers: the handle table and the mappings behind fd imports.
 *
 * The camera imports and releases every buffer at every frame, so a fresh
 * mmap per import would dominate a small job. Mappings are therefore shared
 * and kept by the identity of the file they map (device and inode), never
 * by descriptor number: the same memory reached through another descriptor,
 * or through a descriptor number reused for other memory, is told apart
 * correctly. A mapping holds a reference to its file, so its identity cannot
 * be reused for another file while the mapping lives.
 *
 * Policy: a mapping with handles stays. When its last handle goes it turns
 * idle, because the next frame will most likely import the same memory
 * again. Whether anybody else still holds the memory cannot be read from
 * the file (memfds have no links, dma-bufs always one, and the mapping
 * itself holds a reference), so idle mappings age out instead: they are
 * dropped once idle for kIdleLifetime (far longer than a frame period),
 * and beyond kMaxIdle of them the least recently used go first. Both are
 * checked at every import and release; an idle mapping thus pins memory a
 * client has freed until the first engine call after kIdleLifetime. A file
 * whose size changed is mapped afresh at its next import.
 *
 * No descriptor is kept, so no DMA_BUF_IOCTL_SYNC brackets the CPU access:
 * this engine is meant for cache-coherent Linux machines without the
 * hardware block, where the CPU sees device writes without it.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#include <chrono>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <utility>

namespace nax {

/* A shared CPU mapping of a whole file. */
class Mapping {
  public:
    Mapping(dev_t dev, ino_t ino, uint8_t* addr, size_t size, bool writable);
    ~Mapping();
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    uint8_t* addr() const { return addr_; }
    size_t size() const { return size_; }
    bool writable() const { return writable_; }
    dev_t dev() const { return dev_; }
    ino_t ino() const { return ino_; }

  private:
    dev_t dev_;
    ino_t ino_;
    uint8_t* addr_;
    size_t size_;
    bool writable_;
};

/* What a handle refers to, as a job sees it. */
struct BufferRef {
    std::shared_ptr<Mapping> mapping; /* null for CPU addresses */
    uint8_t* base = nullptr;
    uint64_t size = 0; /* UINT64_MAX: unknown (CPU address) */
    bool writable = true;
};

class BufferTable {
  public:
    static constexpr size_t kMaxIdle = 32;
    static constexpr std::chrono::milliseconds kIdleLifetime{1000};

    static BufferTable& Instance();

    /* Each returns a new handle, or 0 after logging why. */
    uint32_t ImportFd(int fd);
    uint32_t ImportVaddr(uintptr_t vaddr);
    /* 0 or -EINVAL for a handle that is not imported. */
    int Release(uint32_t handle);
    /* The buffer behind a handle; false when there is none. */
    bool Lookup(uint32_t handle, BufferRef* ref);

  private:
    using Key = std::pair<dev_t, ino_t>;
    using Clock = std::chrono::steady_clock;

    struct CacheEntry {
        std::shared_ptr<Mapping> mapping;
        unsigned handles = 0;
        Clock::time_point idleSince;
    };

    uint32_t AddHandle(BufferRef ref);
    std::shared_ptr<Mapping> MapFile(int fd, Key key, uint64_t size);
    /* Moves the mappings to drop into `out`, to be unmapped unlocked. */
    void DropIdle(Clock::time_point now, std::list<std::shared_ptr<Mapping>>* out);

    std::mutex mutex_;
    uint32_t nextHandle_ = 1;
    std::map<uint32_t, BufferRef> handles_;
    std::map<Key, CacheEntry> mappings_;
    std::list<Key> idle_; /* least recently used first */
};

}  // namespace nax
