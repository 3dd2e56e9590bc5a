/*
 * V4l2Camera: one capture node as the shared hardware camera sees it,
 * opened at a size and pixel format with three memory-mapped, exported
 * buffers, with an atomic run state that refuses double starts and
 * overlapping stops. It has no thread: its owner waits on Fd() and calls
 * CollectFrames() when the descriptor is readable.
 */
#pragma once

#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>

#include <marlo/v4l2/v4l2_video_device.h>

namespace tessaro::marlo {

class V4l2Camera : public V4l2VideoDevice {
  public:
    static constexpr uint32_t kRunning = 1;
    static constexpr uint32_t kStopping = 2;

    explicit V4l2Camera(const std::string& path);
    virtual ~V4l2Camera();

    bool OpenCamera(int width, int height, int fourcc);
    bool OpenInternal(int width, int height, int fourcc);

    int StartVideoStream();
    void StopVideoStream();

    /* The next filled frame, or null. */
    std::unique_ptr<V4l2Buffer> CollectFrames();
    int ReturnFrame(std::unique_ptr<V4l2Buffer> buffer);

    /* Closes the descriptor; buffers and state stay. */
    void shutdown();

    uint32_t State() const { return state_.load(); }

  private:
    std::atomic<uint32_t> state_{0};
};

}  // namespace tessaro::marlo
