/*
 * The display side of the rear-view tool: one connector, its CRTC and
 * primary plane on a DRM card with atomic mode setting, and a set of dumb
 * scan-out buffers that the camera library converts frames into. Each
 * frame is shown with one atomic commit whose completion comes back as a
 * page-flip event; a buffer is written again only once another one has
 * replaced it on screen.
 */
#pragma once

#include <stdint.h>

#include <memory>
#include <string>
#include <vector>

#include <marlo/buffer/drm_device.h>
#include <marlo/buffer/frame_buffer.h>

namespace marlo_demo {

class DrmDisplay {
  public:
    /*
     * Opens \a card ("" for the library's own /dev/dri/card0) and picks the
     * first connected connector, a CRTC its encoder can drive and that
     * CRTC's primary plane, in the mode \a width x \a height (0 x 0: the
     * connector's preferred mode). Null with \a error set on failure.
     */
    static std::unique_ptr<DrmDisplay> Open(const std::string& card, uint32_t width,
                                            uint32_t height, std::string* error);
    /* Turns the display off and frees every buffer. */
    ~DrmDisplay();

    DrmDisplay(const DrmDisplay&) = delete;
    DrmDisplay& operator=(const DrmDisplay&) = delete;

    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    /* "1280x800@60 on Virtual-1 (virtio_gpu, /dev/dri/card0)". */
    const std::string& description() const { return description_; }

    /*
     * Makes \a count scan-out buffers of the mode's size (XRGB8888; to the
     * library they are AR24, bytes B,G,R,A), each showing \a crop of the
     * camera frame. Their cookies are their indices.
     */
    bool AddBuffers(int count, const tessaro::marlo::FrameBufferRect& crop, std::string* error);
    const std::vector<std::shared_ptr<tessaro::marlo::FrameBuffer>>& buffers() const {
        return frameBuffers_;
    }

    /*
     * Queues buffer \a index for the next refresh with an atomic commit that
     * asks for a page-flip event; the first commit also sets the mode. Only
     * one flip may be pending at a time.
     */
    bool Present(int index, std::string* error);
    bool flipPending() const { return pending_ >= 0; }
    /*
     * Waits up to \a timeoutMs for the pending flip. Returns the index now on
     * screen, or -1 when the flip did not complete in time.
     */
    int WaitForFlip(int timeoutMs);
    /* The buffer on screen, -1 before the first flip. */
    int onScreen() const { return onScreen_; }

  private:
    DrmDisplay() = default;
    bool FindPipeline(uint32_t width, uint32_t height, std::string* error);
    uint32_t PropertyId(uint32_t object, uint32_t type, const char* name);
    bool Commit(int index, bool modeset, std::string* error);
    void TurnOff();

    std::unique_ptr<tessaro::marlo::DrmDevice> device_;
    std::string description_;
    uint32_t connector_ = 0;
    uint32_t crtc_ = 0;
    uint32_t plane_ = 0;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    /* The chosen drmModeModeInfo, as the mode blob carries it. */
    std::vector<uint8_t> mode_;
    std::unique_ptr<tessaro::marlo::DrmPropertyBlobMetadata> modeBlob_;
    std::vector<tessaro::marlo::DrmDumbObject> objects_;
    std::vector<uint32_t> framebuffers_;
    std::vector<std::shared_ptr<tessaro::marlo::FrameBuffer>> frameBuffers_;
    bool modeSet_ = false;
    int pending_ = -1;
    int onScreen_ = -1;
};

}  // namespace marlo_demo
