/*
 * Allocators create, free and map FrameBuffers of one memory kind. The
 * gralloc allocator is the working one; the V4L2 and DRM allocators are
 * placeholders of the same interface.
 */
#pragma once

#include <marlo/buffer/frame_buffer.h>

/* Android's native handle (<cutils/native_handle.h>), opaque to clients. */
struct native_handle;

namespace tessaro::marlo {

class FrameBufferAllocator {
  public:
    virtual ~FrameBufferAllocator() = default;

    /* Creates a buffer described by \a info into \a out; 0 or a negative code. */
    virtual int Allocate(FrameBufferInfo& info, FrameBuffer** out) = 0;
    /* Gives back the memory of \a fb; its destructor calls this. */
    virtual int Free(FrameBuffer* fb) = 0;
    /* CPU address of \a fb, null on failure. */
    virtual void* Map(FrameBuffer* fb) = 0;
    virtual int UnMap(FrameBuffer* fb) = 0;
};

/*
 * Android graphics buffers, through the process-wide graphics allocator and
 * mapper. Plane 0 of each buffer holds a duplicate of the buffer's dma-buf,
 * found through the Arm gralloc's plane-fd metadata.
 */
class GrallocFrameBufferAllocator : public FrameBufferAllocator {
  public:
    /* Fills info.type (5), info.stride and info.size on success. */
    int Allocate(FrameBufferInfo& info, FrameBuffer** out) override;
    int Free(FrameBuffer* fb) override;
    void* Map(FrameBuffer* fb) override;
    int UnMap(FrameBuffer* fb) override;

    /*
     * Wraps a handle received from elsewhere; the buffer holds its own
     * imported copy, and \a handle stays the caller's (see FreeRawHandle).
     * \a info is used as given.
     */
    int ImportBuffer(FrameBufferInfo& info, const native_handle* handle, FrameBuffer** out);
    /* Frees a raw handle through the graphics allocator; null is accepted. */
    int FreeRawHandle(native_handle* handle);
};

/* Placeholder: every operation does nothing and succeeds; Map gives null. */
class InertFrameBufferAllocator : public FrameBufferAllocator {
  public:
    int Allocate(FrameBufferInfo& info, FrameBuffer** out) override;
    int Free(FrameBuffer* fb) override;
    void* Map(FrameBuffer* fb) override;
    int UnMap(FrameBuffer* fb) override;
};

/* The allocator of V4L2 buffers: a placeholder for now. */
class V4l2FrameBufferAllocator : public InertFrameBufferAllocator {};

/* The allocator of DRM buffers: a placeholder for now. */
class DrmFrameBufferAllocator : public InertFrameBufferAllocator {};

}  // namespace tessaro::marlo
