/*
 * The 2D raster engine operator: copy, convert, scale, crop, rotate and flip
 * images through the board's engine library libnax.so, which is loaded at
 * run time so that the camera library works (with every operation reporting
 * "Not implemented") on boards that lack it.
 */
#pragma once

#include <stdint.h>

#include <map>
#include <memory>
#include <string>

#include <marlo/base/mutex.h>
#include "marlo/imgproc/nax_buffer_hold.h"

/*
 * The engine's buffer descriptor stays opaque here: clients of the camera
 * library never need its layout, and only code that also includes
 * <nax/nax.h> can call NaxImportBuffer(), which returns it by value. The
 * forward declaration names the same type as the engine header's typedef.
 */
typedef struct nax_buffer nax_buffer_t;

namespace tessaro::marlo {

/* One image as handed to the operator. */
struct ImageBuffer {
    uint64_t cookie;   /* the caller's own value; never read here */
    uintptr_t virAddr; /* CPU address, 0 if none */
    uint64_t phyAddr;  /* physical address, 0 if none */
    int32_t fd;        /* dma-buf descriptor, negative if none */
    int32_t width;     /* pixels */
    int32_t height;    /* rows */
    int32_t wstride;   /* row stride in pixels */
    int32_t hstride;   /* height stride in rows */
    int32_t format;    /* FourccFormat value */
};

/*
 * Orders buffers by the memory they name, not by their geometry: the handle
 * cache keys on this, so two descriptions of the same memory share one
 * engine handle. The key is virAddr + phyAddr + fd as an unsigned 64-bit
 * sum with the fd sign-extended, so an fd of -1 subtracts one and a buffer
 * with nothing but fd -1 sorts after every other.
 */
bool operator<(const ImageBuffer& a, const ImageBuffer& b);

/* A rectangle in pixels, laid out as the engine's own rectangle. */
struct ImageRect {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
};

/* The resolved entry points of the engine library, shared by the process. */
struct NaxOps;

class NaxImageOperator {
  public:
    NaxImageOperator();

    NaxImageOperator(const NaxImageOperator&) = delete;
    NaxImageOperator& operator=(const NaxImageOperator&) = delete;

    /*
     * Each operation imports its buffers, runs one engine job and, unless the
     * handle cache is on, releases the handles again. \a sync is 1 for a job
     * finished on return and 0 for one that may still run, with its release
     * fence stored in \a fence. They answer 0 whatever the engine returns, and
     * ERR_NOT_IMPLEMENTED when the engine lacks the entry point; resize always
     * answers ERR_NOT_IMPLEMENTED, which its callers expect.
     */
    virtual int crop(const ImageBuffer& src, ImageBuffer& dst, ImageRect rect, int sync,
                     int* fence);
    virtual int resize(const ImageBuffer& src, ImageBuffer& dst, double fx, double fy,
                       int interpolation, int sync, int* fence);
    virtual int cvtcolor(ImageBuffer& src, ImageBuffer& dst, int srcFormat, int dstFormat, int mode,
                         int sync, int* fence);
    virtual int rotate(const ImageBuffer& src, ImageBuffer& dst, int rotation, int sync,
                       int* fence);
    virtual int flip(const ImageBuffer& src, ImageBuffer& dst, int mode, int sync, int* fence);
    virtual int copy(const ImageBuffer& src, ImageBuffer& dst, int sync, int* fence);
    /*
     * Crop, scale, convert and transform in one job; \a usage carries the
     * transform bits, and the engine's mode bit for \a sync 1 or 0 is added.
     */
    virtual int process(const ImageBuffer& src, ImageBuffer& dst, ImageBuffer& pat, ImageRect srect,
                        ImageRect drect, ImageRect prect, int sync, int* fence, int usage);
    /*
     * "SetCacheHandle" with a bool* turns the handle cache on or off and
     * answers ERR_NOT_IMPLEMENTED, which callers take as success; other keys
     * answer ERR_FAILED. Turning it off keeps the handles already cached
     * (used again if it is turned back on); the destructor releases them.
     */
    virtual int control(std::string key, void* value);
    /* Waits for the release fence of an asynchronous job. */
    virtual int sync(int fence);
    /*
     * Releases every handle still cached, in key order. Declared last: the
     * engine-facing virtual slots come first.
     */
    virtual ~NaxImageOperator();

    /*
     * Imports \a buffer into the engine (by fd, else physical, else CPU
     * address, as the operations do) and keeps the import until the
     * returned hold is destroyed or reset. While it lives, every job's
     * import of the same memory finds it: with the software engine a
     * lookup, the memory staying mapped with its pages present, whatever
     * the number of held buffers. The first hold of a buffer costs one
     * engine import (the software engine maps the buffer and faults its
     * pages in); destroying the last one lets the engine drop it. Safe from
     * any thread, alongside jobs on others. A hold of nothing (isValid()
     * false) comes back when the buffer names no memory, the engine lacks
     * the import or release entry, or the import fails; each is logged.
     * Drop holds before the process exits.
     */
    NaxBufferHold holdBuffer(const ImageBuffer& buffer) const;

  private:
    struct HandleCache {
        bool enabled = false;
        std::map<ImageBuffer, uint32_t> handles;
    };

    friend nax_buffer_t NaxImportBuffer(const NaxImageOperator* op, const ImageBuffer& buffer,
                                        unsigned int* handle);
    friend class NaxBufferHold;

    /* Gives a held import back, if the engine is still loaded. */
    static void releaseHeld(uint32_t handle);

    static int resolve_symbles() MARLO_REQUIRES(mutex_);
    void releaseHandle(uint32_t handle) const;
    /* Releases the handles of one job unless the cache keeps them. */
    void releaseUncached(uint32_t first, uint32_t second) const;
    /* Checks \a entry, imports both buffers, runs \a job on them and releases them. */
    template <typename Entry, typename Job>
    int runJob(Entry entry, const char* name, const ImageBuffer& src, const ImageBuffer& dst,
               Job&& job) const;

    std::unique_ptr<HandleCache> cache_;

    /*
     * Serialises the one resolve of the engine's symbols: nax_ops_ is set
     * under it by the first operator made and only read after that.
     */
    static Mutex mutex_;
    static std::unique_ptr<NaxOps> nax_ops_;
};

/* The engine's format code of a fourcc, or -2 when the engine lacks it. */
int WrapFormat(int fourcc);

/* 64-bit FNV-1a of a zero-terminated string; null hashes as the empty string. */
uint64_t hash_(const char* str);

/* Whether the buffer names any memory: a CPU or physical address, or an fd. */
bool nax_is_buffer_valid(const ImageBuffer& buffer);

/*
 * Imports \a buffer into the engine (or takes its handle from the operator's
 * cache) and returns the engine's descriptor of it, with the handle through
 * \a handle; a zeroed descriptor and handle 0 when that fails.
 */
nax_buffer_t NaxImportBuffer(const NaxImageOperator* op, const ImageBuffer& buffer,
                             unsigned int* handle);

}  // namespace tessaro::marlo
