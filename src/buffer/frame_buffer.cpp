#include <marlo/buffer/frame_buffer.h>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>
#include <marlo/buffer/dma_buffer.h>
#include <marlo/buffer/frame_buffer_allocator.h>

#include <stddef.h>
#include <unistd.h>

#include <type_traits>

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_buf";

// Clients exchange this record with other processes and tools byte for byte.
static_assert(std::is_standard_layout_v<FrameBufferInfo>);
static_assert(offsetof(FrameBufferInfo, fourcc) == 8);
static_assert(offsetof(FrameBufferInfo, sourceCrop) == 40);
static_assert(offsetof(FrameBufferInfo, transform) == 56);
static_assert(offsetof(FrameBufferInfo, size) == 72);
static_assert(offsetof(FrameBufferInfo, flags) == 80);
static_assert(sizeof(FrameBufferInfo) == 88);

// Nanosecond timestamps, cookies and buffer sizes travel as unsigned long
// (SetTimestamp, SetCookies, DmaBuffer): whole only where long has 64 bits.
static_assert(sizeof(unsigned long) == sizeof(uint64_t),
              "libmarlo is built for 64-bit (LP64) targets only");

}  // namespace

FrameBuffer::FrameBuffer(const FrameBufferInfo& info) : info_(info) {}

FrameBuffer::~FrameBuffer() = default;

void* FrameBuffer::MapThrough(FrameBufferAllocator* allocator) {
    if (mapped_ != nullptr)
        return mapped_;
    if (allocator == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: buffer %p has no allocator", "Map", this);
        return nullptr;
    }
    // A null result is cached as well: the next Map() asks the allocator again.
    mapped_ = allocator->Map(this);
    return mapped_;
}

int FrameBuffer::UnMapThrough(FrameBufferAllocator* allocator) {
    // Only an allocator fills the cache, so a cached address implies one.
    if (mapped_ == nullptr || allocator == nullptr)
        return OK;
    mapped_ = nullptr;
    return allocator->UnMap(this);
}

void FrameBuffer::ReleaseThrough(FrameBufferAllocator* allocator) {
    if (allocator == nullptr) {
        marlo_log(MARLO_LOG_WARN, kTag, "%s: buffer %p has no allocator to return to", "Free",
                  this);
        return;
    }
    // The memory must be unlocked before the allocator takes it back.
    if (mapped_ != nullptr) {
        mapped_ = nullptr;
        allocator->UnMap(this);
    }
    allocator->Free(this);
}

GrallocFrameBuffer::GrallocFrameBuffer(GrallocFrameBufferAllocator* allocator,
                                       FrameBufferInfo& info, const native_handle*& handle)
    : FrameBuffer(info), allocator_(allocator), handle_(handle) {}

GrallocFrameBuffer::~GrallocFrameBuffer() {
    ReleaseThrough(allocator_);
}

void* GrallocFrameBuffer::Map() {
    return MapThrough(allocator_);
}

int GrallocFrameBuffer::UnMap() {
    return UnMapThrough(allocator_);
}

V4l2FrameBuffer::V4l2FrameBuffer(V4l2FrameBufferAllocator* allocator, FrameBufferInfo& info)
    : FrameBuffer(info), allocator_(allocator) {}

V4l2FrameBuffer::~V4l2FrameBuffer() {
    ReleaseThrough(allocator_);
}

void* V4l2FrameBuffer::Map() {
    return MapThrough(allocator_);
}

int V4l2FrameBuffer::UnMap() {
    return UnMapThrough(allocator_);
}

DrmFrameBuffer::DrmFrameBuffer(DrmFrameBufferAllocator* allocator, FrameBufferInfo& info)
    : FrameBuffer(info), allocator_(allocator) {}

DrmFrameBuffer::~DrmFrameBuffer() {
    ReleaseThrough(allocator_);
}

void* DrmFrameBuffer::Map() {
    return MapThrough(allocator_);
}

int DrmFrameBuffer::UnMap() {
    return UnMapThrough(allocator_);
}

DmaFrameBuffer::DmaFrameBuffer(FrameBufferAllocator* /*allocator*/, FrameBufferInfo& info, int fd)
    : FrameBuffer(info) {
    dmaBuffer_ = std::make_unique<DmaBuffer>(fd, info.size, nullptr);
    // A failed dup leaves plane 0 without a descriptor.
    planes()[0].fd.reset(fd >= 0 ? dup(fd) : -1);
}

// Destroying the DmaBuffer unmaps it and closes the descriptor it was given.
DmaFrameBuffer::~DmaFrameBuffer() = default;

void* DmaFrameBuffer::Map() {
    return dmaBuffer_ ? dmaBuffer_->Map() : nullptr;
}

int DmaFrameBuffer::UnMap() {
    if (dmaBuffer_)
        dmaBuffer_->UnMap();
    return OK;
}

}  // namespace tessaro::marlo
