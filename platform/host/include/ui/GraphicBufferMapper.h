/* Android's process-wide graphics buffer mapper. */
#pragma once

#include <stdint.h>

#include <cutils/native_handle.h>
#include <ui/PixelFormat.h>
#include <ui/Rect.h>
#include <utils/Errors.h>

namespace android {

class GraphicBufferMapper {
  public:
    static GraphicBufferMapper& getInstance();
    static inline GraphicBufferMapper& get() { return getInstance(); }

    /* Imports a raw handle; the new handle is freed with freeBuffer(). */
    status_t importBuffer(buffer_handle_t rawHandle, uint32_t width, uint32_t height,
                          uint32_t layerCount, PixelFormat format, uint64_t usage, uint32_t stride,
                          buffer_handle_t* outHandle);

    status_t freeBuffer(buffer_handle_t handle);

    status_t getAllocationSize(buffer_handle_t bufferHandle, uint64_t* outAllocationSize);

    status_t lock(buffer_handle_t handle, uint32_t usage, const Rect& bounds, void** vaddr,
                  int32_t* outBytesPerPixel = nullptr, int32_t* outBytesPerStride = nullptr);

    status_t unlock(buffer_handle_t handle);

  private:
    GraphicBufferMapper();
    ~GraphicBufferMapper();
};

}  // namespace android
