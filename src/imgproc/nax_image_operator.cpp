/*
 * The 2D raster engine operator.
 */
#include "marlo/imgproc/nax_image_operator.h"
#include <marlo/base/mutex.h>

#include <dlfcn.h>

#include <utility>

#include "imgproc/nax_ops.h"
#include "marlo/base/error.h"
#include "marlo/base/logger.h"

namespace tessaro::marlo {

namespace {

constexpr const char* kTag = "marlo_imgproc";
constexpr const char* kHdlTag = "marlo_hdl";

static_assert(sizeof(ImageRect) == sizeof(nax_rect), "ImageRect must match nax_rect");

constexpr int Fourcc(char a, char b, char c, char d) {
    return static_cast<int>(static_cast<uint32_t>(static_cast<uint8_t>(a)) |
                            static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8 |
                            static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16 |
                            static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24);
}

nax_rect ToNaxRect(const ImageRect& rect) {
    return nax_rect{rect.x, rect.y, rect.width, rect.height};
}

/*
 * Adds the engine's mode bit for \a sync (1 synchronous, 0 asynchronous,
 * nothing otherwise) to \a usage. It is an addition, not an or: a usage that
 * already carries the bit gets the carry, as this call always did. The sum
 * wraps instead of overflowing.
 */
int AddModeBit(int usage, int sync) {
    uint32_t bit = 0;
    if (sync == 1)
        bit = NAX_USAGE_SYNC;
    else if (sync == 0)
        bit = NAX_USAGE_ASYNC;
    return static_cast<int>(static_cast<uint32_t>(usage) + bit);
}

int NotImplemented(const char* name) {
    marlo_log(MARLO_LOG_ERROR, kTag, "%s : Not implemented", name);
    return ERR_NOT_IMPLEMENTED;
}

/*
 * Looks one symbol up. A missing symbol is logged and left null: the engine
 * may offer only part of the interface, and each operation checks its entry.
 */
template <typename Entry>
void Resolve(void* library, const char* symbol, Entry* entry, const char* failure) {
    dlerror();
    *entry = reinterpret_cast<Entry>(dlsym(library, symbol));
    const char* error = dlerror();
    if (error)
        marlo_log(MARLO_LOG_ERROR, kTag, failure, error);
}

uint32_t MissingImport(const char* entry) {
    marlo_log(MARLO_LOG_ERROR, kHdlTag, "%s : Not implemented", entry);
    return 0;
}

/*
 * The fd wins over the physical address, which wins over the CPU address. A
 * missing entry is reported by name and imports nothing (handle 0).
 */
uint32_t ImportHandle(const NaxOps& ops, const ImageBuffer& buffer, nax_import_param_t* param) {
    if (buffer.fd >= 0)
        return ops.importFd ? ops.importFd(buffer.fd, param) : MissingImport("nax_import_fd");
    if (buffer.phyAddr != 0)
        return ops.importPaddr ? ops.importPaddr(buffer.phyAddr, param)
                               : MissingImport("nax_import_paddr");
    return ops.importVaddr ? ops.importVaddr(buffer.virAddr, param)
                           : MissingImport("nax_import_vaddr");
}

}  // namespace

NaxOps::~NaxOps() {
    if (library)
        dlclose(library);
}

std::unique_ptr<NaxOps> NaxImageOperator::nax_ops_;
Mutex NaxImageOperator::mutex_;

bool operator<(const ImageBuffer& a, const ImageBuffer& b) {
    /*
     * Addresses are unsigned, so the sums are compared unsigned: a high
     * (tagged) CPU address sorts after low ones, and fd -1 alone sorts last.
     */
    const uint64_t sumA = a.virAddr + a.phyAddr + static_cast<uint64_t>(int64_t{a.fd});
    const uint64_t sumB = b.virAddr + b.phyAddr + static_cast<uint64_t>(int64_t{b.fd});
    return sumA < sumB;
}

/*
 * The operator's own engine format table, in its list order. It repeats RGB3
 * and BGR3 on purpose; the first match wins, as in a map filled first-wins.
 * It is read at every import of every frame, so it is a constant table
 * walked in place rather than a map built per call.
 */
constexpr std::pair<int, int> kWrapFormats[] = {
    {Fourcc('Y', '0', '4', ' '), 0x1400}, {Fourcc('G', 'R', 'E', 'Y'), 0x1500},
    {Fourcc('N', 'V', '1', '2'), 0xA00},  {Fourcc('N', 'V', '2', '1'), 0xE00},
    {Fourcc('N', 'V', '1', '6'), 0x800},  {Fourcc('N', 'V', '6', '1'), 0xC00},
    {Fourcc('Y', 'V', 'Y', 'U'), 0x1800}, {Fourcc('Y', 'V', '1', '2'), 0xF00},
    {Fourcc('Y', 'U', '1', '2'), 0xB00},  {Fourcc('Y', 'U', 'Y', 'V'), 0x1C00},
    {Fourcc('U', 'Y', 'V', 'Y'), 0x1E00}, {Fourcc('A', 'B', '2', '4'), 0x0},
    {Fourcc('R', 'A', '2', '4'), 0x300},  {Fourcc('B', 'A', '2', '4'), 0x2800},
    {Fourcc('A', 'R', '2', '4'), 0x2C00}, {Fourcc('R', 'G', 'B', '3'), 0x200},
    {Fourcc('B', 'G', 'R', '3'), 0x700},  {Fourcc('R', 'G', 'B', '3'), 0x200},
    {Fourcc('B', 'G', 'R', '3'), 0x700},
};

int WrapFormat(int fourcc) {
    for (const auto& [code, naxFormat] : kWrapFormats) {
        if (code == fourcc)
            return naxFormat;
    }
    return ERR_FAILED;
}

uint64_t hash_(const char* str) {
    uint64_t hash = 0xcbf29ce484222325ULL;
    if (!str) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s : no string, hashed as empty", __func__);
        return hash;
    }
    for (; *str; ++str) {
        hash ^= static_cast<uint8_t>(*str);
        hash *= 0x100000001b3ULL;
    }
    return hash;
}

bool nax_is_buffer_valid(const ImageBuffer& buffer) {
    return buffer.virAddr != 0 || buffer.phyAddr != 0 || buffer.fd >= 0;
}

nax_buffer_t NaxImportBuffer(const NaxImageOperator* op, const ImageBuffer& buffer,
                             unsigned int* handle) {
    nax_buffer_t desc{};
    if (!handle) {
        marlo_log(MARLO_LOG_ERROR, kHdlTag, "%s : no handle to return", __func__);
        return desc;
    }
    *handle = 0;

    NaxOps* ops = NaxImageOperator::nax_ops_.get();
    if (!ops) {
        marlo_log(MARLO_LOG_ERROR, kHdlTag, "%s : engine library not loaded", __func__);
        return desc;
    }

    NaxImageOperator::HandleCache* cache = op ? op->cache_.get() : nullptr;
    const bool cacheEnabled = cache && cache->enabled;

    unsigned int hdl = 0;
    if (cacheEnabled) {
        auto it = cache->handles.find(buffer);
        if (it != cache->handles.end()) {
            hdl = it->second;
            marlo_log(MARLO_LOG_VERBOSE, kHdlTag, "get new hdl %u", hdl);
        }
    }

    if (!nax_is_buffer_valid(buffer))
        return desc;

    const int format = WrapFormat(buffer.format);

    if (hdl == 0) {
        nax_import_param_t param{static_cast<uint32_t>(buffer.width),
                                 static_cast<uint32_t>(buffer.height),
                                 static_cast<uint32_t>(format)};
        hdl = ImportHandle(*ops, buffer, &param);
        if (hdl == 0) {
            marlo_log(MARLO_LOG_ERROR, kHdlTag, "import NAX handle failed %u", hdl);
            return desc;
        }

        if (cacheEnabled) {
            marlo_log(MARLO_LOG_VERBOSE, kHdlTag, "Add new hdl %u", hdl);
            cache->handles.emplace(buffer, hdl);
        }
    }

    /* Hand the handle back even without a descriptor, so the caller releases it. */
    *handle = hdl;
    if (!ops->wrapHandle) {
        marlo_log(MARLO_LOG_ERROR, kHdlTag, "%s : Not implemented", "nax_wrap_handle");
        return desc;
    }
    return ops->wrapHandle(hdl, buffer.width, buffer.height, buffer.wstride, buffer.hstride,
                           format);
}

NaxImageOperator::NaxImageOperator() {
    MutexLocker lock(mutex_);
    if (!nax_ops_) {
        /* Resolved once per process, even when the library is missing. */
        nax_ops_ = std::make_unique<NaxOps>();
        resolve_symbles();
    }
    cache_ = std::make_unique<HandleCache>();
}

NaxImageOperator::~NaxImageOperator() {
    /*
     * Every handle the cache holds goes back in key order. Handles are only
     * cached while the flag is on, but the flag may have been turned off
     * since; those handles would otherwise stay with the engine for good.
     */
    if (cache_) {
        for (const auto& [buffer, handle] : cache_->handles) {
            if (handle)
                releaseHandle(handle);
        }
    }
    cache_.reset();
}

int NaxImageOperator::resolve_symbles() {
    NaxOps& ops = *nax_ops_;

    ops.library = dlopen("libnax.so", RTLD_LAZY);
    const char* error = dlerror();
    if (!ops.library) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to dlopen libnax.so : %s",
                  error ? error : "unknown error");
        return ERR_FAILED;
    }

    void* lib = ops.library;
    Resolve(lib, "nax_wrap_vaddr", &ops.wrapVaddr, "Failed to resolve symble nax_wrap_vaddr: %s");
    Resolve(lib, "nax_wrap_paddr", &ops.wrapPaddr, "Failed to resolve symble nax_wrap_paddr: %s");
    Resolve(lib, "nax_wrap_fd", &ops.wrapFd, "Failed to resolve symble nax_wrap_fd : %s");
    Resolve(lib, detail::kNaxResizeSymbol, &ops.resize,
            "Failed to resolve symble nax_reize_t : %s");
    Resolve(lib, detail::kNaxCropSymbol, &ops.crop, "Failed to resolve symble nax_crop_t: %s");
    Resolve(lib, detail::kNaxCvtcolorSymbol, &ops.cvtcolor,
            "Failed to resolve symble nax_cvtcolor_t : %s");
    Resolve(lib, detail::kNaxRotateSymbol, &ops.rotate,
            "Failed to resolve symble nax_rotete_t : %s");
    Resolve(lib, detail::kNaxFlipSymbol, &ops.flip, "Failed to resolve symble nax_flip_t : %s");
    Resolve(lib, detail::kNaxCopySymbol, &ops.copy, "Failed to resolve symble nax_copy_t : %s");
    Resolve(lib, detail::kNaxProcessSymbol, &ops.process,
            "Failed to resolve symble nax_process_t : %s");
    Resolve(lib, "nax_import_fd", &ops.importFd, "Failed to resolve symble nax_import_fd : %s");
    Resolve(lib, "nax_import_paddr", &ops.importPaddr,
            "Failed to resolve symble nax_import_paddr : %s");
    Resolve(lib, "nax_import_vaddr", &ops.importVaddr,
            "Failed to resolve symble nax_import_vaddr : %s");
    Resolve(lib, "nax_wrap_handle", &ops.wrapHandle,
            "Failed to resolve symble nax_wrap_handle : %s");
    Resolve(lib, "nax_release_handle", &ops.releaseHandle,
            "Failed to resolve symble nax_release_handle : %s");
    /* The sync entry reports with the release message; log tooling matches on it. */
    Resolve(lib, "nax_sync", &ops.sync, "Failed to resolve symble nax_release_handle : %s");

    return OK;
}

void NaxImageOperator::releaseHandle(uint32_t handle) const {
    if (!nax_ops_ || !nax_ops_->releaseHandle) {
        marlo_log(MARLO_LOG_ERROR, kHdlTag, "%s : Not implemented, handle %u kept",
                  "nax_release_handle", handle);
        return;
    }
    nax_ops_->releaseHandle(handle);
}

NaxBufferHold NaxImageOperator::holdBuffer(const ImageBuffer& buffer) const {
    NaxOps* ops = nax_ops_.get();
    if (!ops || !ops->releaseHandle) {
        /* An import that cannot be given back is not taken. */
        marlo_log(MARLO_LOG_ERROR, kHdlTag, "%s : Not implemented, fd %d not held", __func__,
                  buffer.fd);
        return NaxBufferHold();
    }
    if (!nax_is_buffer_valid(buffer)) {
        marlo_log(MARLO_LOG_ERROR, kHdlTag, "%s : the buffer names no memory", __func__);
        return NaxBufferHold();
    }
    nax_import_param_t param{static_cast<uint32_t>(buffer.width),
                             static_cast<uint32_t>(buffer.height),
                             static_cast<uint32_t>(WrapFormat(buffer.format))};
    const uint32_t handle = ImportHandle(*ops, buffer, &param);
    if (handle == 0) {
        marlo_log(MARLO_LOG_ERROR, kHdlTag, "%s : import failed, fd %d not held", __func__,
                  buffer.fd);
        return NaxBufferHold();
    }
    return NaxBufferHold(handle);
}

void NaxImageOperator::releaseHeld(uint32_t handle) {
    NaxOps* ops = nax_ops_.get();
    if (ops && ops->releaseHandle)
        ops->releaseHandle(handle);
}

void NaxImageOperator::releaseUncached(uint32_t first, uint32_t second) const {
    /* A cached handle lives until the operator goes; an uncached one only for its job. */
    if (cache_->enabled)
        return;
    if (first)
        releaseHandle(first);
    if (second)
        releaseHandle(second);
}

/*
 * The one sequence every operation runs: refuse when the engine lacks the
 * entry, import both buffers, hand their descriptors to \a job, and release
 * the handles the cache does not keep. Engine results are not reported: the
 * job's outcome shows in the image.
 */
template <typename Entry, typename Job>
int NaxImageOperator::runJob(Entry entry, const char* name, const ImageBuffer& src,
                             const ImageBuffer& dst, Job&& job) const {
    if (!entry)
        return NotImplemented(name);

    unsigned int srcHandle = 0;
    unsigned int dstHandle = 0;
    nax_buffer_t s = NaxImportBuffer(this, src, &srcHandle);
    nax_buffer_t d = NaxImportBuffer(this, dst, &dstHandle);
    job(s, d);
    releaseUncached(srcHandle, dstHandle);
    return OK;
}

int NaxImageOperator::crop(const ImageBuffer& src, ImageBuffer& dst, ImageRect rect, int sync,
                           int* fence) {
    return runJob(nax_ops_->crop, "crop", src, dst, [&](nax_buffer_t s, nax_buffer_t d) {
        nax_ops_->crop(s, d, ToNaxRect(rect), sync, fence);
    });
}

int NaxImageOperator::resize(const ImageBuffer& src, ImageBuffer& dst, double fx, double fy,
                             int interpolation, int sync, int* fence) {
    runJob(nax_ops_->resize, "resize", src, dst, [&](nax_buffer_t s, nax_buffer_t d) {
        nax_ops_->resize(s, d, fx, fy, interpolation, sync, fence);
    });
    /* Callers rely on resize reporting "not implemented" even after the job ran. */
    return ERR_NOT_IMPLEMENTED;
}

int NaxImageOperator::cvtcolor(ImageBuffer& src, ImageBuffer& dst, int srcFormat, int dstFormat,
                               int mode, int sync, int* fence) {
    return runJob(nax_ops_->cvtcolor, "cvtcolor", src, dst, [&](nax_buffer_t s, nax_buffer_t d) {
        nax_ops_->cvtcolor(s, d, WrapFormat(srcFormat), WrapFormat(dstFormat), mode, sync, fence);
    });
}

int NaxImageOperator::rotate(const ImageBuffer& src, ImageBuffer& dst, int rotation, int sync,
                             int* fence) {
    return runJob(nax_ops_->rotate, "rotate", src, dst, [&](nax_buffer_t s, nax_buffer_t d) {
        nax_ops_->rotate(s, d, rotation, sync, fence);
    });
}

int NaxImageOperator::flip(const ImageBuffer& src, ImageBuffer& dst, int mode, int sync,
                           int* fence) {
    return runJob(nax_ops_->flip, "flip", src, dst,
                  [&](nax_buffer_t s, nax_buffer_t d) { nax_ops_->flip(s, d, mode, sync, fence); });
}

int NaxImageOperator::copy(const ImageBuffer& src, ImageBuffer& dst, int sync, int* fence) {
    return runJob(nax_ops_->copy, "copy", src, dst,
                  [&](nax_buffer_t s, nax_buffer_t d) { nax_ops_->copy(s, d, sync, fence); });
}

int NaxImageOperator::process(const ImageBuffer& src, ImageBuffer& dst, ImageBuffer& pat,
                              ImageRect srect, ImageRect drect, ImageRect prect, int sync,
                              int* fence, int usage) {
    /* Availability is judged by the copy entry: engines offer both or neither. */
    if (!nax_ops_->copy)
        return NotImplemented("process");

    return runJob(nax_ops_->process, "nax_process", src, dst, [&](nax_buffer_t s, nax_buffer_t d) {
        /* The pattern is imported after src and dst; its handle is kept, as before. */
        unsigned int patHandle = 0;
        nax_buffer_t p = NaxImportBuffer(this, pat, &patHandle);
        nax_ops_->process(s, d, p, ToNaxRect(srect), ToNaxRect(drect), ToNaxRect(prect), -1, fence,
                          nullptr, AddModeBit(usage, sync));
    });
}

int NaxImageOperator::control(std::string key, void* value) {
    static const uint64_t kSetCacheHandle = hash_("SetCacheHandle");

    if (hash_(key.c_str()) != kSetCacheHandle) {
        marlo_log(MARLO_LOG_WARN, kTag, "Not supported control value");
        return ERR_FAILED;
    }

    if (!value) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s : SetCacheHandle without a value", __func__);
        return ERR_INVALID_ARGUMENT;
    }

    /*
     * Only the flag changes. Handles cached earlier stay in the map: they are
     * used again if the cache is turned back on, and released when the
     * operator goes.
     */
    cache_->enabled = *static_cast<const bool*>(value);
    /* Existing callers treat this result as success. */
    return ERR_NOT_IMPLEMENTED;
}

int NaxImageOperator::sync(int fence) {
    if (!nax_ops_->sync)
        return NotImplemented("sync");
    nax_ops_->sync(fence);
    return OK;
}

}  // namespace tessaro::marlo
