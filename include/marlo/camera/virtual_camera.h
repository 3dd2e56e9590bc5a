/*
 * VirtualCamera: one client's view of a shared HalCamera. It keeps the
 * client's frame callback, its stream state and a queue of free buffer sets.
 * A set is a vector of FrameBuffers that all receive the same captured frame,
 * each converted to its own format, size and crop; the client lends sets,
 * the frame fan-out fills and forwards them, and the client returns them.
 */
#pragma once

#include <stdint.h>

#include <atomic>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include <marlo/base/mutex.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/camera/stream_event.h>
#include <marlo/imgproc/nax_image_operator.h>

namespace tessaro::marlo {

class HalCamera;

namespace detail {
class EventListenerSlot;
}  // namespace detail

class VirtualCamera {
  public:
    using FrameSet = std::vector<std::shared_ptr<FrameBuffer>>;
    using FrameCallback = std::function<void(std::vector<std::shared_ptr<FrameBuffer>>)>;

    static constexpr int32_t kStopped = 0;
    static constexpr int32_t kRunning = 1;
    static constexpr int32_t kStopping = 2;

    VirtualCamera(int id, const std::shared_ptr<HalCamera>& halCamera);
    virtual ~VirtualCamera();

    VirtualCamera(const VirtualCamera&) = delete;
    VirtualCamera& operator=(const VirtualCamera&) = delete;

    /* Every camera of this client still alive, in map order. */
    std::vector<std::shared_ptr<HalCamera>> getHalCameras();
    /* Opens the cameras; answers true whatever they report. */
    bool openVideoStream(int width, int height, int format);
    /* Stores \a callback and starts the cameras. 0, or -2 when a camera failed. */
    int startVideoStream(FrameCallback callback);
    /* Stops the cameras, drops the callback and forgets every lent set. */
    void stopVideoStream();
    /* Replaces the free queue with \a buffers as one set. Always 0. */
    int setFrameInfo(std::vector<std::shared_ptr<FrameBuffer>>& buffers);
    /* Takes the oldest free set, or an empty one when none is free. */
    std::vector<std::shared_ptr<FrameBuffer>> getAvailableFrames();
    /* Hands a filled set to the client's callback, on the calling thread. */
    void forwardFrame(std::vector<std::shared_ptr<FrameBuffer>> frames);

    /*
     * Brackets the fan-out's serving of one frame to this client (no lock is
     * held meanwhile): false when the client does not run, and a stop from
     * another thread returns only after a delivery that began has ended.
     */
    bool beginDelivery();
    void endDelivery();
    /* Queues a set the client gives back (or lends anew). */
    void doneWithFrame(std::vector<std::shared_ptr<FrameBuffer>> frames);

    int32_t id() const { return id_; }
    /* 0 stopped, 1 running, 2 stopping. */
    int32_t state() const { return state_.load(); }
    /* Number of queued free sets (read under the queue mutex). */
    size_t freeSetCount();
    /* Number of lent buffers whose engine import is held. */
    size_t heldBufferCount();

    /* Where this client's stream events go; null drops them. */
    void setEventListener(std::shared_ptr<detail::EventListenerSlot> slot);
    /* Queues \a event, stamped with this client's id, for the client's listener. */
    void postEvent(StreamEvent event);

  private:
    /* A lent buffer and the 2D engine's import of it, kept while it is lent. */
    struct HeldBuffer {
        std::weak_ptr<FrameBuffer> buffer;
        NaxBufferHold hold;
    };

    void setCallback(FrameCallback callback);
    /*
     * Returns once no delivery to this client is under way, except one on
     * the calling thread (a callback stopping its own stream).
     */
    void waitForDeliveries();
    /* Holds every buffer of \a frames not held yet; the imports run without a lock. */
    void holdBuffers(const FrameSet& frames);
    /* Drops the holds of buffers not in \a kept (all of them for an empty set). */
    void dropHoldsExcept(const FrameSet& kept);
    /* Ends every camera before \a end in the map: a start that failed half-way. */
    void endStartedBefore(std::unordered_map<std::string, std::weak_ptr<HalCamera>>::iterator end);

    std::unordered_map<std::string, std::weak_ptr<HalCamera>> hal_cameras_;
    std::atomic<int32_t> state_{kStopped};
    /*
     * Serialises open, start and stop. Lock order: stream_mutex_, then a
     * HalCamera's camera_mutex_ (the start and stop call into it), then any
     * of the leaf locks below; no two leaf locks are held together.
     */
    Mutex stream_mutex_;
    /* A leaf lock: the state leaves running under it, so no delivery begins after. */
    Mutex delivery_mutex_ MARLO_ACQUIRED_AFTER(stream_mutex_);
    ConditionVariable delivery_done_;
    int deliveries_ MARLO_GUARDED_BY(delivery_mutex_) = 0;
    std::thread::id deliverer_ MARLO_GUARDED_BY(delivery_mutex_);
    /*
     * Replaced by a start while frames flow, read by forwardFrame on the IO
     * thread: callback_mutex_ guards the swap and the copy forwardFrame
     * calls, never the call itself.
     */
    Mutex callback_mutex_ MARLO_ACQUIRED_AFTER(stream_mutex_);
    FrameCallback callback_ MARLO_GUARDED_BY(callback_mutex_);
    /* Kept for layout compatibility; nothing fills them. */
    std::vector<std::shared_ptr<FrameBuffer>> spare_;
    ImageBuffer spare_images_[10];
    Mutex queue_mutex_ MARLO_ACQUIRED_AFTER(stream_mutex_);
    std::deque<FrameSet> free_sets_ MARLO_GUARDED_BY(queue_mutex_);
    int32_t id_;
    /*
     * The engine's imports of the buffers lent now, by buffer address (the
     * weak pointer tells a freed buffer from a new one at the same address).
     * A leaf lock; imports and releases run outside it.
     */
    Mutex holds_mutex_ MARLO_ACQUIRED_AFTER(stream_mutex_);
    std::map<const FrameBuffer*, HeldBuffer> holds_ MARLO_GUARDED_BY(holds_mutex_);
    /* Posted to from client threads and the IO thread; a leaf lock. */
    Mutex events_mutex_ MARLO_ACQUIRED_AFTER(stream_mutex_);
    std::shared_ptr<detail::EventListenerSlot> events_ MARLO_GUARDED_BY(events_mutex_);
};

}  // namespace tessaro::marlo
