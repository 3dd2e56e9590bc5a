/*
 * V4l2Stream: the object a client holds for one stream of one camera. It
 * attaches to the process-wide HalCamera of a device id (made on first use),
 * owns the client's VirtualCamera, starts and stops the stream, hands
 * captured buffer sets to the client's callback and takes them back.
 *
 * Also the client vocabulary of the parameter queries: marlo_param_t,
 * marlo_param_value_t, marlo_color_fmt_t, marlo_location_t and
 * marlo_lens_facing_t.
 */
#pragma once

#include <stdint.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include <marlo/base/mutex.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/camera/stream_event.h>

/* Parameter ids answered by V4l2Stream::ClientGetParams; any other id is refused. */
typedef enum marlo_param : int32_t {
    MARLO_PARAM_COLOR_FORMAT = 3,
    MARLO_PARAM_RESOLUTION = 4,
    MARLO_PARAM_LOCATION = 6,
    MARLO_PARAM_LENS_FACING = 7,
} marlo_param_t;

/* Colour formats a client receives; the values are the V4L2 fourcc codes. */
typedef enum marlo_color_fmt : uint32_t {
    MARLO_COLOR_FMT_RGB3 = 0x33424752,
    MARLO_COLOR_FMT_UYVY = 0x59565955,
    MARLO_COLOR_FMT_YUYV = 0x56595559,
    MARLO_COLOR_FMT_YVYU = 0x55595659,
    MARLO_COLOR_FMT_VYUY = 0x59555956,
    MARLO_COLOR_FMT_NV12 = 0x3231564E,
    MARLO_COLOR_FMT_NV21 = 0x3132564E,
    MARLO_COLOR_FMT_NV16 = 0x3631564E,
    MARLO_COLOR_FMT_NV61 = 0x3136564E,
    MARLO_COLOR_FMT_YU12 = 0x32315559,
    MARLO_COLOR_FMT_YV12 = 0x32315659,
    MARLO_COLOR_FMT_AB24 = 0x34324241,
} marlo_color_fmt_t;

/* Where a camera sits. No configuration text yields MARLO_LOCATION_EXTRA_REAR. */
typedef enum marlo_location : int32_t {
    MARLO_LOCATION_INTERIOR = 0,
    MARLO_LOCATION_EXTERIOR_OTHER = 1,
    MARLO_LOCATION_EXTERIOR_FRONT = 2,
    MARLO_LOCATION_EXTERIOR_REAR = 3,
    MARLO_LOCATION_EXTERIOR_LEFT = 4,
    MARLO_LOCATION_EXTERIOR_RIGHT = 5,
    MARLO_LOCATION_EXTRA_OTHER = 6,
    MARLO_LOCATION_EXTRA_FRONT = 7,
    MARLO_LOCATION_EXTRA_REAR = 8,
    MARLO_LOCATION_EXTRA_LEFT = 9,
    MARLO_LOCATION_EXTRA_RIGHT = 10,
} marlo_location_t;

/*
 * Which way a camera looks. No configuration text yields
 * MARLO_LENS_FACING_INTERIOR_SEAT_ROW_2_CENTER.
 */
typedef enum marlo_lens_facing : int32_t {
    MARLO_LENS_FACING_EXTERIOR_OTHER = 0,
    MARLO_LENS_FACING_EXTERIOR_FRONT = 1,
    MARLO_LENS_FACING_EXTERIOR_REAR = 2,
    MARLO_LENS_FACING_EXTERIOR_LEFT = 3,
    MARLO_LENS_FACING_EXTERIOR_RIGHT = 4,
    MARLO_LENS_FACING_INTERIOR_OTHER = 5,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_1_LEFT = 6,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_1_CENTER = 7,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_1_RIGHT = 8,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_2_LEFT = 9,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_2_CENTER = 10,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_2_RIGHT = 11,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_3_LEFT = 12,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_3_CENTER = 13,
    MARLO_LENS_FACING_INTERIOR_SEAT_ROW_3_RIGHT = 14,
} marlo_lens_facing_t;

/* Resolution answer: three 32-bit words. */
typedef struct marlo_resolution {
    int32_t width;
    int32_t height;
    float frame_rate;
} marlo_resolution_t;

/*
 * The answer of one query. Each id writes only its own words, from the start
 * of the record; the rest keeps what the caller put there.
 */
typedef union marlo_param_value {
    marlo_color_fmt_t color_format;
    marlo_resolution_t resolution;
    marlo_location_t location;
    marlo_lens_facing_t lens_facing;
    uint32_t words[3];
} marlo_param_value_t;

namespace tessaro::marlo {

class HalCamera;
class VirtualCamera;

namespace detail {
class EventListenerSlot;
struct StreamRegistryAccess;
struct DeviceUses;
}  // namespace detail

class V4l2Stream {
  public:
    using FrameCallback = std::function<void(std::vector<std::shared_ptr<FrameBuffer>>)>;

    V4l2Stream();
    /* Closes a stream still open: the IO thread must never call into a destroyed stream. */
    ~V4l2Stream();

    V4l2Stream(const V4l2Stream&) = delete;
    V4l2Stream& operator=(const V4l2Stream&) = delete;

    /* Attaches to the camera of \a deviceId as client \a clientId. 0 or -2. */
    int OpenCamera(int clientId, std::string deviceId, int width, int height, int format);
    /* Stops and detaches; the last client of a device drops its camera. */
    void CloseCamera();
    /*
     * Opens the hardware on first use and starts the stream; frames reach
     * \a callback on the camera's IO thread, with no library lock held: it
     * may return sets, query parameters, and open, start, stop or close
     * streams, its own included. 0 or -2.
     */
    int ClientStartStream(std::function<void(std::vector<std::shared_ptr<FrameBuffer>>)> callback);
    void ClientStopStream();
    /* Called by the library on the IO thread: hands \a frames to the callback. */
    void ClientDeliverFrame(std::vector<std::shared_ptr<FrameBuffer>> frames);
    /* Gives a delivered set back (or lends another one). 0 or -2. */
    int ClientReturnFrame(std::vector<std::shared_ptr<FrameBuffer>> frames);
    /* Lends the first buffer set, replacing any queued ones. 0 or -2. */
    int ClientSetBufferInfo(std::vector<std::shared_ptr<FrameBuffer>>& buffers);
    /* Both do nothing and return 0. */
    int ClientPauseStream();
    int ClientResumeStream();
    /*
     * Answers MARLO_PARAM_* ids into \a value: 0, or -2 for a refused id, a
     * null \a value, or a location or lens facing asked for a client id the
     * configuration places nowhere.
     */
    int ClientGetParams(marlo_param_t id, marlo_param_value_t* value);
    /* Accepts nothing: logs and returns 0. */
    int ClientSetParams(marlo_param_t id, marlo_param_value_t* value);

    /*
     * Registers \a listener for this stream's events (see stream_event.h),
     * replacing any earlier one; an empty listener removes it. It may be
     * called before OpenCamera and stays across CloseCamera and a later
     * OpenCamera. Events are delivered in order on the library's event
     * thread, never under a library lock; the listener may call any member
     * of any stream. When this returns, no call of the old listener is
     * running (unless this is called from within it) and the events still
     * queued for it are dropped; the same holds when the stream is
     * destroyed. Always 0.
     */
    int ClientSetEventListener(StreamEventListener listener);
    /*
     * Asks the capture device for \a fps frames per second at its next
     * start (before the first client starts it; a device that already
     * streams keeps its rate, as it keeps the first client's geometry).
     * Without it, the rate of the board configuration's stream applies, if
     * any, else the driver's own. 0, ERR_INVALID_ARGUMENT for a rate that is
     * not positive, or -2 before OpenCamera.
     */
    int ClientSetFrameRate(float fps);

    /* 0 not streaming, 1 streaming. */
    uint32_t state() const { return state_.load(); }
    /* The id given to OpenCamera; -1 after CloseCamera. */
    int32_t clientId() const { return client_id_; }
    const std::string& deviceId() const { return device_id_; }

  private:
    friend struct detail::StreamRegistryAccess;
    friend struct detail::DeviceUses;

    /*
     * Destroys a camera that left the registry (after short holds of other
     * threads) and lets opens of its device go on. False when another
     * holder kept it longer; it goes with that holder then.
     */
    static bool RetireCamera(std::shared_ptr<HalCamera>& hal);

    std::atomic<uint32_t> state_{0};
    std::string device_id_;
    std::shared_ptr<VirtualCamera> virtual_camera_;
    /* Shared with a call under way, so a replacement never destroys a running callback. */
    std::shared_ptr<FrameCallback> frame_callback_ MARLO_GUARDED_BY(callback_mutex_);
    int32_t width_ = 0;
    int32_t height_ = 0;
    int32_t format_ = 0;
    int32_t client_id_ = -1;
    /* Guards frame_callback_; never held while the callback runs. */
    Mutex callback_mutex_;
    /* The client's event listener; handed to every virtual camera this stream opens. */
    std::shared_ptr<detail::EventListenerSlot> events_;

    /*
     * The registry lock; a leaf lock: no camera or client lock is taken
     * under it, and it is not taken under one.
     */
    static Mutex active_cameras_mutex_;
    static std::unordered_map<std::string, std::shared_ptr<HalCamera>> active_cameras_
        MARLO_GUARDED_BY(active_cameras_mutex_);
};

}  // namespace tessaro::marlo
