/* Android's process-wide graphics buffer allocator. */
#pragma once

#include <stdint.h>

#include <string>

#include <cutils/native_handle.h>
#include <ui/PixelFormat.h>
#include <utils/Errors.h>

namespace android {

class GraphicBufferMapper;

class GraphicBufferAllocator {
  public:
    static GraphicBufferAllocator& getInstance();
    static inline GraphicBufferAllocator& get() { return getInstance(); }

    /* Allocates a buffer; the handle returned is already imported. */
    status_t allocate(uint32_t w, uint32_t h, PixelFormat format, uint32_t layerCount,
                      uint64_t usage, buffer_handle_t* handle, uint32_t* stride,
                      uint64_t graphicBufferId, std::string requestorName);

    status_t free(buffer_handle_t handle);

  private:
    GraphicBufferAllocator();
    ~GraphicBufferAllocator();

    GraphicBufferMapper& mMapper;
};

}  // namespace android
