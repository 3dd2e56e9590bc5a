#include <marlo/buffer/frame_buffer_allocator.h>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>
#include <marlo/base/mutex.h>

#include <android/hardware/graphics/mapper/4.0/IMapper.h>
#include <cutils/native_handle.h>
#include <errno.h>
#include <inttypes.h>
#include <string.h>
#include <ui/GraphicBufferAllocator.h>
#include <ui/GraphicBufferMapper.h>
#include <ui/Rect.h>
#include <unistd.h>

#include <algorithm>
#include <limits>

#include "buffer/gralloc_metadata.h"
#include "buffer/pixel_format_tables.h"

namespace tessaro::marlo {

namespace {

using android::GraphicBufferAllocator;
using android::GraphicBufferMapper;
using android::hardware::hidl_vec;
using android::hardware::graphics::mapper::V4_0::Error;
using android::hardware::graphics::mapper::V4_0::IMapper;

constexpr char kTag[] = "marlo_buf";
constexpr uint32_t kGrallocType = 5;
constexpr char kRequestorName[] = "marlo";

/* The Arm gralloc's list of plane fds. */
const IMapper::MetadataType kArmPlaneFdsType = {"arm.graphics.ArmMetadataType", 1};

android::sp<IMapper> MapperService() {
    // Obtained once and kept for the life of the process.
    static const android::sp<IMapper> service = IMapper::getService("default");
    return service;
}

/* Leaves \a fd unchanged when the share fd cannot be found. */
void get_share_fd(const native_handle* handle, int* fd) {
    marlo_log(MARLO_LOG_ERROR, kTag, " buffer:%p", handle);

    // Scope guard only: each call has its own mutex, so it excludes nothing.
    Mutex mutex;
    MutexLocker guard(mutex);

    android::sp<IMapper> mapper = MapperService();
    if (!mapper) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: graphics mapper 4.0 service unavailable", __func__);
        return;
    }

    std::vector<int64_t> fds;
    int result = -EPIPE;  // stays when the callback never runs
    auto ret = mapper->get(const_cast<native_handle*>(handle), kArmPlaneFdsType,
                           [&](Error error, const hidl_vec<uint8_t>& metadata) {
                               if (error != Error::NONE)
                                   result = -EINVAL;
                               else
                                   result = detail::decodeArmPlaneFds(metadata, &fds);
                           });
    if (!ret.isOk())
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: graphics mapper get failed: %s", __func__,
                  ret.description().c_str());

    if (result != 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to get plane_fds. err : %d", result);
        return;
    }
    if (fds.empty()) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: buffer %p lists no plane fds", __func__, handle);
        return;
    }
    *fd = static_cast<int>(fds[0]);
}

/* Plane 0 gets a private duplicate; the share fd stays with the handle. */
void SetPlaneFd(FrameBuffer* fb, int shareFd) {
    fb->planes()[0].fd.reset(shareFd >= 0 ? dup(shareFd) : -1);
}

GrallocFrameBuffer* AsGralloc(FrameBuffer* fb, const char* operation) {
    auto* gralloc = dynamic_cast<GrallocFrameBuffer*>(fb);
    if (gralloc == nullptr)
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: buffer %p is not a gralloc buffer", operation, fb);
    return gralloc;
}

/* A buffer whose handle was freed already has nothing left to give back. */
bool HasHandle(const GrallocFrameBuffer* fb, const char* operation) {
    if (fb->handle() != nullptr)
        return true;
    marlo_log(MARLO_LOG_ERROR, kTag, "%s: buffer %p holds no handle", operation,
              static_cast<const void*>(fb));
    return false;
}

/*
 * Formats outside the HAL table would terminate the forward conversion, so
 * they are refused here, as is a missing output pointer.
 */
bool CheckRequest(const FrameBufferInfo& info, FrameBuffer** out, const char* operation) {
    if (out == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: no output buffer pointer", operation);
        return false;
    }
    if (!detail::HasHalFormat(info.fourcc)) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: format 0x%08x has no graphics format", operation,
                  static_cast<unsigned int>(info.fourcc));
        return false;
    }
    return true;
}

}  // namespace

namespace detail {

int decodeArmPlaneFds(const hidl_vec<uint8_t>& blob, std::vector<int64_t>* fds) {
    int64_t count;
    if (blob.size() < sizeof(count)) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: blob of %zu bytes holds no count", __func__,
                  blob.size());
        return -EINVAL;
    }
    memcpy(&count, blob.data(), sizeof(count));
    if (count < 0)
        return -EINVAL;

    // The mapper made the blob, so the count is trusted; still never read
    // past its end.
    size_t available = (blob.size() - sizeof(count)) / sizeof(int64_t);
    size_t entries = static_cast<size_t>(count);
    if (entries > available) {
        marlo_log(MARLO_LOG_WARN, kTag, "%s: blob holds %zu of %" PRId64 " plane fds", __func__,
                  available, count);
        entries = available;
    }
    fds->assign(entries, 0);
    if (entries > 0)
        memcpy(fds->data(), blob.data() + sizeof(count), entries * sizeof(int64_t));
    return 0;
}

}  // namespace detail

int GrallocFrameBufferAllocator::Allocate(FrameBufferInfo& info, FrameBuffer** out) {
    if (!CheckRequest(info, out, __func__))
        return ERR_INVALID_ARGUMENT;

    buffer_handle_t handle = nullptr;
    uint32_t stride = 0;
    /* A format without HAL code (0xFFFFFFFF) reaches the allocator as -1, which it refuses. */
    auto halFormat = static_cast<android::PixelFormat>(FourccFormatToHalFormat(info.fourcc));
    android::status_t status = GraphicBufferAllocator::get().allocate(
        info.width, info.height, halFormat, 1, info.flags, &handle, &stride, 0, kRequestorName);
    if (status != android::NO_ERROR) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to allocate buffer");
        return ERR_FAILED;
    }

    info.type = kGrallocType;
    info.stride = stride;

    uint64_t size = 0;
    if (GraphicBufferMapper::get().getAllocationSize(handle, &size) != android::NO_ERROR)
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: allocation size of buffer %p unknown", __func__,
                  handle);
    info.size = static_cast<uint32_t>(size);

    int shareFd = -1;
    get_share_fd(handle, &shareFd);

    auto* fb = new GrallocFrameBuffer(this, info, handle);
    SetPlaneFd(fb, shareFd);
    *out = fb;
    return OK;
}

int GrallocFrameBufferAllocator::ImportBuffer(FrameBufferInfo& info, const native_handle* handle,
                                              FrameBuffer** out) {
    // A null handle is the mapper's to refuse, like any other bad handle.
    if (!CheckRequest(info, out, __func__))
        return ERR_INVALID_ARGUMENT;

    buffer_handle_t imported = nullptr;
    android::status_t status = GraphicBufferMapper::get().importBuffer(
        handle, info.width, info.height, 1, FourccFormatToHalFormat(info.fourcc), info.flags,
        info.stride, &imported);
    if (status != android::NO_ERROR) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to import buffer");
        return ERR_FAILED;
    }

    int shareFd = -1;
    get_share_fd(imported, &shareFd);

    auto* fb = new GrallocFrameBuffer(this, info, imported);
    SetPlaneFd(fb, shareFd);
    *out = fb;
    return OK;
}

int GrallocFrameBufferAllocator::Free(FrameBuffer* fb) {
    if (fb == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Freeing null buffer");
        return ERR_INVALID_ARGUMENT;
    }
    GrallocFrameBuffer* gralloc = AsGralloc(fb, __func__);
    if (gralloc == nullptr || !HasHandle(gralloc, __func__))
        return ERR_INVALID_ARGUMENT;
    if (GraphicBufferAllocator::get().free(gralloc->handle_) != android::NO_ERROR) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to free buffer");
        return ERR_FAILED;
    }
    // The handle is gone; a second Free must not hand it out again.
    gralloc->handle_ = nullptr;
    return OK;
}

void* GrallocFrameBufferAllocator::Map(FrameBuffer* fb) {
    if (fb == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Mapping null buffer");
        return nullptr;
    }
    GrallocFrameBuffer* gralloc = AsGralloc(fb, __func__);
    if (gralloc == nullptr || !HasHandle(gralloc, __func__))
        return nullptr;

    constexpr uint32_t kMaxExtent = std::numeric_limits<int32_t>::max();
    android::Rect bounds(0, 0, static_cast<int32_t>(std::min(fb->width(), kMaxExtent)),
                         static_cast<int32_t>(std::min(fb->height(), kMaxExtent)));
    void* address = nullptr;
    android::status_t status = GraphicBufferMapper::get().lock(
        gralloc->handle_, static_cast<uint32_t>(fb->flags()), bounds, &address);
    if (status != android::NO_ERROR) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to map buffer");
        return nullptr;
    }
    return address;
}

int GrallocFrameBufferAllocator::UnMap(FrameBuffer* fb) {
    if (fb == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "UnMapping null buffer");
        return ERR_INVALID_ARGUMENT;
    }
    GrallocFrameBuffer* gralloc = AsGralloc(fb, __func__);
    if (gralloc == nullptr || !HasHandle(gralloc, __func__))
        return ERR_INVALID_ARGUMENT;
    if (GraphicBufferMapper::get().unlock(gralloc->handle_) != android::NO_ERROR) {
        marlo_log(MARLO_LOG_ERROR, kTag, "Failed to unmap buffer");
        return ERR_FAILED;
    }
    return OK;
}

int GrallocFrameBufferAllocator::FreeRawHandle(native_handle* handle) {
    if (handle == nullptr)
        return OK;
    if (GraphicBufferAllocator::get().free(handle) != android::NO_ERROR) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: Failed to free raw handle %p", __func__, handle);
        return ERR_FAILED;
    }
    return OK;
}

int V4l2FrameBufferAllocator::Allocate(FrameBufferInfo& /*info*/, FrameBuffer** /*out*/) {
    return OK;
}

int V4l2FrameBufferAllocator::Free(FrameBuffer* /*fb*/) {
    return OK;
}

void* V4l2FrameBufferAllocator::Map(FrameBuffer* /*fb*/) {
    return nullptr;
}

int V4l2FrameBufferAllocator::UnMap(FrameBuffer* /*fb*/) {
    return OK;
}

int DrmFrameBufferAllocator::Allocate(FrameBufferInfo& /*info*/, FrameBuffer** /*out*/) {
    return OK;
}

int DrmFrameBufferAllocator::Free(FrameBuffer* /*fb*/) {
    return OK;
}

void* DrmFrameBufferAllocator::Map(FrameBuffer* /*fb*/) {
    return nullptr;
}

int DrmFrameBufferAllocator::UnMap(FrameBuffer* /*fb*/) {
    return OK;
}

}  // namespace tessaro::marlo
