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

    /*
     * Opens the node in blocking mode, sets \a fourcc at the given size and
     * sets up exactly three exported MMAP buffers. A failed step leaves the
     * descriptor open until shutdown() or destruction.
     */
    bool OpenCamera(int width, int height, int fourcc);
    bool OpenInternal(int width, int height, int fourcc);

    /*
     * Queues every free buffer and streams on. -2 while running or stopping;
     * otherwise 0, even when stream-on fails (that is logged, and told by
     * StreamOnStatus()).
     */
    int StartVideoStream();
    /*
     * How the last stream-on of StartVideoStream() went: 0, or ERR_FAILED
     * when the driver refused it, with its errno in StreamOnError().
     */
    int StreamOnStatus() const { return stream_on_status_; }
    int StreamOnError() const { return stream_on_error_; }
    /*
     * Streams off. After a failed stream-off the camera stays stopping:
     * starts are refused until the next successful open.
     */
    void StopVideoStream();

    /* The next filled frame, or null; waits in the kernel for one. */
    std::unique_ptr<V4l2Buffer> CollectFrames();
    /* Hands \a buffer back to the driver; on -2 it waits in the free list. */
    int ReturnFrame(std::unique_ptr<V4l2Buffer> buffer);

    /* Closes the descriptor; buffers and state stay. */
    void shutdown();

    uint32_t State() const { return state_.load(); }

  private:
    std::atomic<uint32_t> state_{0};
    int stream_on_status_ = 0;
    int stream_on_error_ = 0;
};

}  // namespace tessaro::marlo
