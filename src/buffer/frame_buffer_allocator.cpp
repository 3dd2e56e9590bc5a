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

/*
 * Wraps \a handle in a buffer of \a allocator. Plane 0 gets a private
 * duplicate of the share fd, which stays with the handle.
 */
FrameBuffer* WrapHandle(GrallocFrameBufferAllocator* allocator, FrameBufferInfo& info,
                        const native_handle* handle) {
    int shareFd = -1;
    get_share_fd(handle, &shareFd);

    auto* fb = new GrallocFrameBuffer(allocator, info, handle);
    fb->planes()[0].fd.reset(shareFd >= 0 ? dup(shareFd) : -1);
    return fb;
}

/* OK for a graphics call that succeeded; otherwise logs \a failure and answers ERR_FAILED. */
int CheckStatus(android::status_t status, const char* failure) {
    if (status == android::NO_ERROR)
        return OK;
    marlo_log(MARLO_LOG_ERROR, kTag, "%s", failure);
    return ERR_FAILED;
}

/*
 * The gralloc buffer \a fb whose handle \a operation may use, or null after
 * logging why not: \a nullMessage for no buffer, else another kind of
 * buffer, or one whose handle was freed already (nothing left to give back).
 */
GrallocFrameBuffer* HandleHolder(FrameBuffer* fb, const char* nullMessage, const char* operation) {
    if (fb == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s", nullMessage);
        return nullptr;
    }
    auto* gralloc = dynamic_cast<GrallocFrameBuffer*>(fb);
    if (gralloc == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: buffer %p is not a gralloc buffer", operation, fb);
        return nullptr;
    }
    if (gralloc->handle() == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: buffer %p holds no handle", operation,
                  static_cast<const void*>(gralloc));
        return nullptr;
    }
    return gralloc;
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
    if (CheckStatus(status, "Failed to allocate buffer") != OK)
        return ERR_FAILED;

    info.type = kGrallocType;
    info.stride = stride;

    uint64_t size = 0;
    if (GraphicBufferMapper::get().getAllocationSize(handle, &size) != android::NO_ERROR)
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: allocation size of buffer %p unknown", __func__,
                  handle);
    info.size = static_cast<uint32_t>(size);

    *out = WrapHandle(this, info, handle);
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
    if (CheckStatus(status, "Failed to import buffer") != OK)
        return ERR_FAILED;

    *out = WrapHandle(this, info, imported);
    return OK;
}

int GrallocFrameBufferAllocator::Free(FrameBuffer* fb) {
    GrallocFrameBuffer* gralloc = HandleHolder(fb, "Freeing null buffer", __func__);
    if (gralloc == nullptr)
        return ERR_INVALID_ARGUMENT;
    int ret =
        CheckStatus(GraphicBufferAllocator::get().free(gralloc->handle_), "Failed to free buffer");
    // The handle is gone; a second Free must not hand it out again.
    if (ret == OK)
        gralloc->handle_ = nullptr;
    return ret;
}

void* GrallocFrameBufferAllocator::Map(FrameBuffer* fb) {
    GrallocFrameBuffer* gralloc = HandleHolder(fb, "Mapping null buffer", __func__);
    if (gralloc == nullptr)
        return nullptr;

    constexpr uint32_t kMaxExtent = std::numeric_limits<int32_t>::max();
    android::Rect bounds(0, 0, static_cast<int32_t>(std::min(fb->width(), kMaxExtent)),
                         static_cast<int32_t>(std::min(fb->height(), kMaxExtent)));
    void* address = nullptr;
    android::status_t status = GraphicBufferMapper::get().lock(
        gralloc->handle_, static_cast<uint32_t>(fb->flags()), bounds, &address);
    return CheckStatus(status, "Failed to map buffer") == OK ? address : nullptr;
}

int GrallocFrameBufferAllocator::UnMap(FrameBuffer* fb) {
    GrallocFrameBuffer* gralloc = HandleHolder(fb, "UnMapping null buffer", __func__);
    if (gralloc == nullptr)
        return ERR_INVALID_ARGUMENT;
    return CheckStatus(GraphicBufferMapper::get().unlock(gralloc->handle_),
                       "Failed to unmap buffer");
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

int InertFrameBufferAllocator::Allocate(FrameBufferInfo& /*info*/, FrameBuffer** /*out*/) {
    return OK;
}

int InertFrameBufferAllocator::Free(FrameBuffer* /*fb*/) {
    return OK;
}

void* InertFrameBufferAllocator::Map(FrameBuffer* /*fb*/) {
    return nullptr;
}

int InertFrameBufferAllocator::UnMap(FrameBuffer* /*fb*/) {
    return OK;
}

}  // namespace tessaro::marlo
