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
 * Policy: a mapping with handles stays. A caller that keeps one handle of
 * a buffer for as long as the buffer is in use (the operator's
 * NaxBufferHold, taken when a client lends the buffer) therefore keeps it
 * mapped at any number of buffers, and every import of it in between is a
 * lookup. New mappings are faulted in at once (for writing where they are
 * writable), so the pages are present and writable from the import on.
 *
 * When the last handle of a mapping goes it turns idle, because the next
 * frame will most likely import the same memory again (a caller that holds
 * nothing imports and releases every buffer at every frame).
 * Whether anybody else still holds the memory cannot be read from the file
 * (memfds have no links, dma-bufs always one, and the mapping itself holds
 * a reference), so "the file is gone" is approximated by age: an idle
 * mapping is dropped once idle for kIdleLifetime, and beyond kMaxIdle idle
 * mappings the least recently used go first.
 *
 * kIdleLifetime (2 s) is longer than one turn of any buffer ring a camera
 * cycles through (16 buffers at 8 frames a second), so streaming never
 * maps a buffer twice; it is also the longest a buffer freed by its client
 * stays pinned by this engine. A background thread, started when the first
 * mapping turns idle and ending when none is left, drops them on time even
 * when no other engine call follows (a stream that stopped), and drops the
 * ones past kMaxIdle too, so that a job never unmaps a buffer somebody
 * forgot (a client that lends fresh sets often). kMaxIdle
 * (128) bounds the cycle of buffers a caller that holds nothing can go
 * through without mapping them again: beyond it every import misses, so
 * callers with more buffers than that hold them.
 *
 * A file whose size changed is mapped afresh at its next import.
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
#include <condition_variable>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

/* The fork handlers take the table's lock in one call and release it in
 * another, which clang's -Wthread-safety cannot follow. */
#if defined(__clang__)
#define NAX_NO_THREAD_SAFETY_ANALYSIS __attribute__((no_thread_safety_analysis))
#else
#define NAX_NO_THREAD_SAFETY_ANALYSIS
#endif

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
    static constexpr size_t kMaxIdle = 128;
    static constexpr std::chrono::milliseconds kIdleLifetime{2000};

    static BufferTable& Instance();

    /* Each returns a new handle, or 0 after logging why. */
    uint32_t ImportFd(int fd);
    uint32_t ImportVaddr(uintptr_t vaddr);
    /* 0 or -EINVAL for a handle that is not imported. */
    int Release(uint32_t handle);
    /* The buffer behind a handle; false when there is none. */
    bool Lookup(uint32_t handle, BufferRef* ref);
    /* Stops and joins the thread that drops idle mappings; called when the
     * library is unloaded. Idle mappings then go at imports and releases. */
    void StopReaper();
    /* fork() handlers: the child has no reaper thread and must not join
     * the parent's. */
    void BeforeFork() NAX_NO_THREAD_SAFETY_ANALYSIS;
    void AfterForkInParent() NAX_NO_THREAD_SAFETY_ANALYSIS;
    void AfterForkInChild() NAX_NO_THREAD_SAFETY_ANALYSIS;

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
    /* DropIdle for an import or a release: while the reaper runs it does
     * the unmapping, so that no job pays for unmapping another buffer. */
    void TrimIdle(Clock::time_point now, std::list<std::shared_ptr<Mapping>>* out);
    /* Marks a mapping idle now; mutex_ held. */
    void MakeIdle(const Key& key, CacheEntry* entry);
    void ReaperLoop();

    std::condition_variable reaperWake_;
    /* Held by pointer so that a fork child can forget the parent's. */
    std::unique_ptr<std::thread> reaper_;
    std::thread* forkedReaper_ = nullptr; /* the parent's, kept, never used */
    bool reaperRunning_ = false;
    bool reaperStopped_ = false;

    std::mutex mutex_;
    uint32_t nextHandle_ = 1;
    std::map<uint32_t, BufferRef> handles_;
    std::map<Key, CacheEntry> mappings_;
    std::list<Key> idle_; /* least recently used first */
};

}  // namespace nax
