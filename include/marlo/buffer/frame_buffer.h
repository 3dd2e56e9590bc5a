/*
 * Client image buffers into which the library writes converted frames: the
 * description record, the plane holders, the abstract FrameBuffer and its
 * four kinds, which differ in where the memory comes from and how the CPU
 * maps it.
 */
#pragma once

#include <marlo/base/unique_fd.h>
#include <marlo/buffer/pixel_format.h>

#include <stdint.h>

#include <array>
#include <memory>

/* Android's native handle (<cutils/native_handle.h>), opaque to clients. */
struct native_handle;

namespace tessaro::marlo {

class DmaBuffer;
class FrameBufferAllocator;
class GrallocFrameBufferAllocator;
class V4l2FrameBufferAllocator;
class DrmFrameBufferAllocator;

struct FrameBufferRect {
    int32_t x;
    int32_t y;
    int32_t width;
    int32_t height;
};

/* Plain description of a buffer; the layout is fixed, reserved fields included. */
struct FrameBufferInfo {
    /* Memory kind; the gralloc allocator writes 5, other values are the client's. */
    uint32_t type = 0;
    uint32_t reserved0 = 0;
    FourccFormat fourcc = static_cast<FourccFormat>(0);
    uint8_t reserved1[28] = {};
    /* Region of the captured frame converted into this buffer. */
    FrameBufferRect sourceCrop = {};
    /* 2D-engine transform bits (rotation, mirroring). */
    uint32_t transform = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    /* Row stride in pixels. */
    uint32_t stride = 0;
    /* Byte size of the whole buffer. */
    uint32_t size = 0;
    uint32_t reserved2 = 0;
    /* Usage flags; gralloc usage bits for gralloc buffers. */
    uint64_t flags = 0;
};

/*
 * One plane. Only plane 0's fd is used by the library: a private duplicate
 * of the buffer's dma-buf. The other fields are carried for the client.
 */
struct FrameBufferPlane {
    UniqueFd fd;
    uint32_t stride = 0;
    uint64_t offset = 0;
    uint64_t length = 0;
};

class FrameBuffer {
  public:
    explicit FrameBuffer(const FrameBufferInfo& info);
    /* Closes the plane fds 3, 2, 1, 0, then the fence. */
    virtual ~FrameBuffer();

    FrameBuffer(const FrameBuffer&) = delete;
    FrameBuffer& operator=(const FrameBuffer&) = delete;

    /* CPU address of the buffer, null on failure. */
    virtual void* Map() = 0;
    /* 0 on success. */
    virtual int UnMap() = 0;

    FrameBufferInfo info() const { return info_; }
    FrameBufferRect sourceCrop() const { return info_.sourceCrop; }
    uint32_t transform() const { return info_.transform; }
    uint32_t width() const { return info_.width; }
    uint32_t height() const { return info_.height; }
    uint32_t stride() const { return info_.stride; }
    FourccFormat fourcc() const { return info_.fourcc; }
    uint32_t size() const { return info_.size; }
    uint64_t flags() const { return info_.flags; }

    uint64_t cookies() const { return cookies_; }
    void SetCookies(unsigned long cookies) { cookies_ = cookies; }

    /* The fence stays owned by the buffer. */
    int fence() const { return fence_.get(); }
    /*
     * Takes ownership of \a fd and closes the fence held before, unless it
     * is the same descriptor. -1 closes the held fence.
     */
    void SetFence(int fd) { fence_.reset(fd); }

    uint32_t sequence() const { return sequence_; }
    void SetSequence(unsigned int sequence) { sequence_ = sequence; }
    uint64_t timestamp() const { return timestamp_; }
    void SetTimestamp(unsigned long timestamp) { timestamp_ = timestamp; }

    std::array<FrameBufferPlane, 4>& planes() { return planes_; }
    const std::array<FrameBufferPlane, 4>& planes() const { return planes_; }

  protected:
    /* The map, unmap and release steps shared by the allocator-backed kinds. */
    void* MapThrough(FrameBufferAllocator* allocator);
    int UnMapThrough(FrameBufferAllocator* allocator);
    void ReleaseThrough(FrameBufferAllocator* allocator);

  private:
    FrameBufferInfo info_;
    UniqueFd fence_;
    std::array<FrameBufferPlane, 4> planes_;
    void* mapped_ = nullptr;
    uint64_t cookies_ = ~uint64_t{0};
    uint32_t sequence_ = 0;
    uint64_t timestamp_ = 0;
};

/* A graphics buffer allocated or imported by GrallocFrameBufferAllocator. */
class GrallocFrameBuffer : public FrameBuffer {
  public:
    GrallocFrameBuffer(GrallocFrameBufferAllocator* allocator, FrameBufferInfo& info,
                       const native_handle*& handle);
    /* Unlocks a locked buffer, then gives it back to its allocator. */
    ~GrallocFrameBuffer() override;

    void* Map() override;
    int UnMap() override;

    const native_handle* handle() const { return handle_; }

  private:
    friend class GrallocFrameBufferAllocator;

    GrallocFrameBufferAllocator* allocator_;
    const native_handle* handle_;
};

class V4l2FrameBuffer : public FrameBuffer {
  public:
    V4l2FrameBuffer(V4l2FrameBufferAllocator* allocator, FrameBufferInfo& info);
    ~V4l2FrameBuffer() override;

    void* Map() override;
    int UnMap() override;

  private:
    V4l2FrameBufferAllocator* allocator_;
};

class DrmFrameBuffer : public FrameBuffer {
  public:
    DrmFrameBuffer(DrmFrameBufferAllocator* allocator, FrameBufferInfo& info);
    ~DrmFrameBuffer() override;

    void* Map() override;
    int UnMap() override;

  private:
    DrmFrameBufferAllocator* allocator_;
};

/*
 * A buffer over a client's dma-buf descriptor. The descriptor passes to the
 * buffer (do not close it); plane 0 holds a private duplicate. No allocator
 * is kept: the argument exists for interface symmetry and is ignored.
 */
class DmaFrameBuffer : public FrameBuffer {
  public:
    DmaFrameBuffer(FrameBufferAllocator* allocator, FrameBufferInfo& info, int fd);
    ~DmaFrameBuffer() override;

    void* Map() override;
    /* Always 0, whatever the unmap met. */
    int UnMap() override;

  private:
    std::unique_ptr<DmaBuffer> dmaBuffer_;
};

}  // namespace tessaro::marlo
