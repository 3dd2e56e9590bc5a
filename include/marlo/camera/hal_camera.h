/*
 * HalCamera: one physical capture device shared by every client that opened
 * its device id. It owns the capture camera, the IO thread that waits for
 * captured frames, the 2D-engine operator that copies each frame into the
 * clients' buffers, and a list of weak references to the clients'
 * VirtualCameras. Capture runs while at least one client streams.
 *
 * Locks: the camera mutex serialises open, start, end and close; the client
 * list has its own mutex, which the frame fan-out on the IO thread holds for
 * a whole frame. The fan-out never takes the camera mutex, because ending
 * the last stream stops the IO thread while holding it.
 *
 * While capture runs, the capture camera belongs to the IO thread: when the
 * device is lost, stalls or refuses to stream, the IO thread releases it,
 * tells the clients and opens the node again in the background until frames
 * flow (see CaptureSupervisor); client calls touch the capture camera only
 * while capture is stopped.
 */
#pragma once

#include <stdint.h>

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include <marlo/base/io_thread.h>
#include <marlo/base/mutex.h>
#include <marlo/camera/safe_list.h>
#include <marlo/camera/stream_event.h>
#include <marlo/imgproc/nax_image_operator.h>
#include <marlo/v4l2/v4l2_camera.h>

namespace tessaro::marlo {

class FrameBuffer;
class VirtualCamera;

namespace detail {
class CaptureSupervisor;
class FenceBackend;
class FrameFanOut;
}  // namespace detail

class HalCamera : public std::enable_shared_from_this<HalCamera> {
  public:
    /* Nothing is opened here. Create it with std::make_shared. */
    explicit HalCamera(const std::string& deviceId);
    /* Closes through clientStreamclosing(), then releases the members. */
    virtual ~HalCamera();

    HalCamera(const HalCamera&) = delete;
    HalCamera& operator=(const HalCamera&) = delete;

    /*
     * Records the geometry (a later opener's values replace an earlier
     * one's) and opens the device on first use. True when the device is
     * open, also when it was open before and kept its first geometry.
     */
    bool clientStreamOpening(int width, int height, int format);
    /*
     * Counts a streaming client; the first one starts the IO thread and the
     * capture. Only the first starter sees the capture's status.
     */
    int clientStreamStarting();
    /*
     * The same for \a starter, which is told how its start went: started,
     * or refused by the device (the capture is then retried in the
     * background). A granted format the 2D engine cannot convert fails.
     */
    int clientStreamStarting(VirtualCamera* starter);
    /* Counts a client out; the last one stops the capture and the IO thread. */
    void clientStreamEnding();
    /* Shuts the device when no client is left (see the source for the condition). */
    void clientStreamclosing();

    /*
     * The frame rate to ask the device for at its next start (0: the
     * driver's own). A rate from the board configuration applies when no
     * client asked for one.
     */
    void setFrameRate(float fps);

    bool OwnVirtualCamera(std::shared_ptr<VirtualCamera>& vc);
    /* A new client camera for client \a id, or null. Needs a shared_ptr owner. */
    std::shared_ptr<VirtualCamera> MakeVirtualCamera(int id);
    void DisownVirtualCamera(std::shared_ptr<VirtualCamera>& vc);

    const std::string& deviceId() const { return device_id_; }
    /* Number of client entries, read under the list's mutex. */
    size_t clientCount() const { return clients_.size(); }
    /* Returns once a frame being fanned out now has been delivered. */
    void waitForFrameFanOut() const { clients_.barrier(); }

    /* 0 stopped, 1 running (read under the camera mutex); 2 while a stop waits for the IO thread.
     */
    int32_t captureState();
    int32_t streamingClients() const { return streaming_clients_.load(); }
    /* The geometry last given to clientStreamOpening. */
    int32_t width() const { return width_.load(); }
    int32_t height() const { return height_.load(); }
    int32_t format() const { return format_.load(); }
    /* The capture camera: null before the first clientStreamOpening, unopened after a loss. */
    V4l2Camera* hwCamera() const { return hw_camera_.get(); }
    /* Whether capture runs without a working device and is being retried. */
    bool recovering() const;
    /* Whether the calling thread is this camera's IO thread (a frame callback runs on it). */
    bool onIoThread() const;

    /*
     * Has the 2D engine keep its import of a client's buffer while the
     * returned hold lives: a job's import of a held buffer is a lookup, at
     * any number of lent buffers, and its memory is faulted in now rather
     * than at its first frame. An empty hold for a buffer without memory.
     */
    NaxBufferHold holdClientBuffer(const std::shared_ptr<FrameBuffer>& buffer) const;

  private:
    friend class detail::CaptureSupervisor;
    friend class detail::FrameFanOut;

    struct Geometry {
        int32_t width;
        int32_t height;
        int32_t format;
    };

    static constexpr int32_t kCaptureStopped = 0;
    static constexpr int32_t kCaptureRunning = 1;
    /* Between a stop's decision and the end of the IO thread's loop. */
    static constexpr int32_t kCaptureStopping = 2;

    /* The first start of capture. */
    int startCapture(VirtualCamera* starter) MARLO_REQUIRES(camera_mutex_);
    /*
     * Capture stop shared by clientStreamEnding and the destructor. The
     * camera mutex, held by the caller's locker, is let go while the IO
     * thread is waited for and held again on return. With \a mayRestart, a
     * client that started meanwhile gets capture started again.
     */
    void stopCapture(bool mayRestart) MARLO_REQUIRES(camera_mutex_);
    /*
     * Reads what the driver granted at the open of \a hw, describes the
     * source with it when it differs from what was asked, and tells the
     * clients once. False when the 2D engine cannot convert that format.
     */
    bool acceptGrantedFormat(V4l2Camera& hw);
    /* Asks \a hw for the configured frame rate and learns the interval it runs at. */
    void applyFrameRate(V4l2Camera& hw);
    /* The frame rate to ask for: the client's, else the board configuration's, else 0. */
    float wantedFrameRate();
    /* Queues \a event for every client of the camera that has a listener. */
    void postToClients(StreamEvent event);
    /* An event of this camera, stamped now. */
    StreamEvent makeEvent(StreamEventType type) const;

    std::unique_ptr<V4l2Camera> hw_camera_;
    std::string device_id_;
    /* Kept for layout compatibility; nothing locks it. */
    Mutex spare_mutex_;
    SafeList<std::weak_ptr<VirtualCamera>> clients_;
    int32_t capture_state_ MARLO_GUARDED_BY(camera_mutex_) = 0;
    /* The frame being fanned out; written on the IO thread only. */
    ImageBuffer src_image_;
    /* Atomic: the fan-out reads them without the camera mutex. */
    std::atomic<int32_t> width_{0};
    std::atomic<int32_t> height_{0};
    std::atomic<int32_t> format_{0};
    IoThread io_thread_;
    NaxImageOperator nax_operator_;
    /* Kept for layout compatibility; nothing fills it. */
    std::vector<std::shared_ptr<VirtualCamera>> spare_;
    std::atomic<int32_t> streaming_clients_{0};
    /*
     * Taken by client calls and by frame callbacks through them; a
     * VirtualCamera's stream_mutex_ comes before it, that camera's leaf
     * locks and the client list's lock after it.
     */
    Mutex camera_mutex_;

    /*
     * The geometry the device is opened with; recovery opens it again so.
     * Written under the camera mutex while capture is stopped, read by the
     * IO thread while it runs.
     */
    Geometry asked_ = {0, 0, 0};
    /*
     * What the driver granted, used to describe the source only when it
     * differs from what was asked (the stored geometry is used otherwise).
     */
    std::atomic<bool> adjusted_{false};
    std::atomic<int32_t> granted_width_{0};
    std::atomic<int32_t> granted_height_{0};
    std::atomic<int32_t> granted_format_{0};
    /* Whether the 2D engine converts what the device captures (camera mutex). */
    bool format_convertible_ MARLO_GUARDED_BY(camera_mutex_) = true;
    /* The client's asked frame rate; recovery reads it on the IO thread. */
    std::atomic<float> frame_rate_{0};
    /* The frame interval the device runs at, microseconds (0 unknown). */
    std::atomic<uint32_t> frame_interval_us_{0};
    /*
     * The capture descriptor registered on the IO thread, -1 when none; the
     * IO thread's while capture runs, the camera mutex holder's otherwise.
     */
    int capture_fd_ = -1;
    /* Watchdog and recovery of the running capture, on the IO thread. */
    std::unique_ptr<detail::CaptureSupervisor> supervisor_;
    /* What the fan-out merges and waits conversion fences through (FrameFanOut::UseFences). */
    detail::FenceBackend* fences_ MARLO_GUARDED_BY(camera_mutex_);
};

}  // namespace tessaro::marlo
