#include <marlo/camera/hal_camera.h>

#include <sys/epoll.h>

#include <cmath>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>
#include <marlo/camera/virtual_camera.h>
#include <marlo/config/config.h>
#include <marlo/debug/debug_helper.h>
#include <marlo/v4l2/v4l2_format.h>

#include "camera/camera_hooks.h"
#include "camera/capture_supervisor.h"
#include "camera/event_dispatcher.h"
#include "camera/fence_backend.h"
#include "camera/frame_fan_out.h"

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_stream";

/* The capture descriptor is watched for readability only. */
constexpr uint32_t kCaptureEvents = EPOLLIN;

std::string FormatName(uint32_t fourcc) {
    return V4l2PixelFormat(fourcc).ToString();
}

}  // namespace

/* Inside a list predicate __func__ is "operator()", which is what log tooling expects. */
#define CAM_LOG(severity, fmt, ...)                                                         \
    marlo_log(severity, kTag, "CAM(%s) %s:%d " fmt, device_id_.c_str(), __func__, __LINE__, \
              ##__VA_ARGS__)

HalCamera::HalCamera(const std::string& deviceId)
    : device_id_(deviceId),
      src_image_(),
      supervisor_(std::make_unique<detail::CaptureSupervisor>(*this)),
      fences_(&detail::PlatformFences()) {
    src_image_.fd = -1;
}

HalCamera::~HalCamera() {
    /* A loop stopped by a frame callback (its client closed the last stream) ends first. */
    io_thread_.JoinStopped();
    clientStreamclosing();
    /*
     * Capture still running here means a client never stopped. The IO thread
     * must not run the fan-out while the members it uses go away, so the
     * capture is stopped first.
     */
    MutexLocker lock(camera_mutex_);
    if (capture_state_ == kCaptureRunning) {
        CAM_LOG(MARLO_LOG_WARN, "destroyed with %d streaming clients, stopping capture",
                streaming_clients_.load());
        stopCapture(false);
    }
}

bool HalCamera::clientStreamOpening(int width, int height, int format) {
    MutexLocker lock(camera_mutex_);
    /* Later openers overwrite the geometry even though the device keeps the first one. */
    width_ = width;
    height_ = height;
    format_ = format;

    /* While capture runs the capture camera is the IO thread's, even when it is being reopened. */
    if (capture_state_ != kCaptureStopped) {
        CAM_LOG(MARLO_LOG_WARN, "already in streaming");
        return true;
    }

    if (!hw_camera_) {
        hw_camera_ = std::make_unique<V4l2Camera>(device_id_);
        /* Handle cache off: client buffers come and go, so no handle outlives its job. */
        int cacheHandle = 0;
        nax_operator_.control("SetCacheHandle", &cacheHandle);
        if (!hw_camera_) {
            CAM_LOG(MARLO_LOG_ERROR, "no found a hw camera device");
            return false;
        }
    }

    if (hw_camera_->Fd() >= 0) {
        CAM_LOG(MARLO_LOG_WARN, "already in streaming");
        return true;
    }

    /* Recovery opens the node again with this geometry. */
    asked_ = {width, height, format};
    if (hw_camera_->OpenCamera(width, height, format)) {
        format_convertible_ = acceptGrantedFormat(*hw_camera_);
        return true;
    }
    CAM_LOG(MARLO_LOG_ERROR, "Failed to open a hw camera");
    /*
     * A node refused halfway (buffers not queried or not exported) stays
     * open: started as it is, it would give no frame or unconverted ones.
     * An unopened camera takes its place, so that the next opener or a
     * start's background retries open it whole.
     */
    if (hw_camera_->Fd() >= 0) {
        CAM_LOG(MARLO_LOG_WARN, "releasing the half-opened node, it is opened again whole");
        hw_camera_ = std::make_unique<V4l2Camera>(device_id_);
    }
    return false;
}

int HalCamera::clientStreamStarting() {
    return clientStreamStarting(nullptr);
}

int HalCamera::clientStreamStarting(VirtualCamera* starter) {
    MutexLocker lock(camera_mutex_);
    int count = ++streaming_clients_;
    if (count < 1 || capture_state_ != kCaptureStopped) {
        /* Joining a running capture; a device being retried is told at once. */
        if (starter) {
            starter->postEvent(makeEvent(StreamEventType::kStreamStarted));
            if (supervisor_->recovering()) {
                StreamEvent lost = makeEvent(StreamEventType::kDeviceLost);
                lost.status = supervisor_->lostStatus();
                lost.systemError = supervisor_->lostError();
                starter->postEvent(lost);
            }
        }
        return 0;
    }
    if (!hw_camera_) {
        /* Started without a successful opening: there is nothing to capture from. */
        CAM_LOG(MARLO_LOG_ERROR, "no hw camera to start, open it first");
        --streaming_clients_;
        return -2;
    }
    if (hw_camera_->Fd() >= 0 && !format_convertible_) {
        /* Unwritten sets delivered as frames would look like a frozen picture. */
        CAM_LOG(MARLO_LOG_ERROR, "granted format %s cannot be converted, capture not started",
                FormatName(static_cast<uint32_t>(granted_format_.load())).c_str());
        --streaming_clients_;
        if (starter) {
            StreamEvent failed = makeEvent(StreamEventType::kStartFailed);
            failed.status = ERR_NOT_IMPLEMENTED;
            failed.asked = {asked_.width, asked_.height, static_cast<uint32_t>(asked_.format)};
            failed.granted = {granted_width_.load(), granted_height_.load(),
                              static_cast<uint32_t>(granted_format_.load())};
            starter->postEvent(failed);
        }
        return ERR_FAILED;
    }
    return startCapture(starter);
}

int HalCamera::startCapture(VirtualCamera* starter) {
    /* A loop stopped by a frame callback ends before anything it used changes. */
    io_thread_.JoinStopped();
    if (!hw_camera_) {
        CAM_LOG(MARLO_LOG_ERROR, "no capture camera to restart for the clients started meanwhile");
        return -2;
    }

    /*
     * The stream is on before the IO thread runs: a capture node that does
     * not stream yet reports an error, which the loop would take for a
     * lost device.
     */
    int result = 0;
    int status = ERR_FAILED;
    int error = 0;
    bool streaming = false;
    if (hw_camera_->Fd() >= 0) {
        applyFrameRate(*hw_camera_);
        capture_fd_ = hw_camera_->Fd();
        io_thread_.AddHandler(
            capture_fd_, detail::FrameFanOut(this, *fences_), kCaptureEvents,
            [this](int, unsigned int events) { supervisor_->onDeviceError(events); });
    } else {
        CAM_LOG(MARLO_LOG_ERROR, "capture device not open, retrying in the background");
    }
    result = hw_camera_->StartVideoStream();
    if (capture_fd_ >= 0) {
        error = hw_camera_->StreamOnError();
        streaming = result == OK && hw_camera_->StreamOnStatus() == OK;
        if (!streaming && error != 0)
            status = MapSystemError(error);
    }
    supervisor_->begin(streaming, status, error);
    io_thread_.Start();
    /* Recorded as running even when the start failed: clientStreamEnding undoes it. */
    capture_state_ = kCaptureRunning;
    DebugHelper::getInstance().updateCameraState(device_id_, "RUNNING");

    if (starter) {
        StreamEvent event =
            makeEvent(streaming ? StreamEventType::kStreamStarted : StreamEventType::kStartFailed);
        if (!streaming) {
            event.status = status;
            event.systemError = error;
        }
        starter->postEvent(event);
    }
    return result;
}

void HalCamera::clientStreamEnding() {
    MutexLocker lock(camera_mutex_);
    if (streaming_clients_ >= 1)
        --streaming_clients_;
    if (streaming_clients_ == 0 && capture_state_ == kCaptureRunning)
        stopCapture(true);
}

void HalCamera::stopCapture(bool mayRestart) {
    /* A retry that has not begun yet does not begin: the stop is not held up by it. */
    supervisor_->requestStop();
    if (io_thread_.isCurrentThread()) {
        /* A frame callback stopped the last stream: its loop ends after this frame. */
        io_thread_.Stop();
    } else {
        /*
         * The loop is waited for without the camera mutex: a frame callback
         * running now may start or stop streams of this camera, and takes it.
         */
        capture_state_ = kCaptureStopping;
        camera_mutex_.unlock();
        io_thread_.Stop();
        camera_mutex_.lock();
    }
    supervisor_->end();
    if (capture_fd_ >= 0) {
        io_thread_.RemoveHandler(capture_fd_);
        capture_fd_ = -1;
    }
    if (hw_camera_)
        hw_camera_->StopVideoStream();
    capture_state_ = kCaptureStopped;
    DebugHelper::getInstance().updateCameraState(device_id_, "STOPPED");

    if (mayRestart && streaming_clients_ > 0) {
        /* A callback started a stream while the loop ended: capture goes on for it. */
        CAM_LOG(MARLO_LOG_INFO, "a client started while capture stopped, starting again");
        startCapture(nullptr);
    }
}

bool HalCamera::acceptGrantedFormat(V4l2Camera& hw) {
    V4l2Format granted = {};
    if (hw.GrantedFormat(granted) != OK) {
        adjusted_ = false;
        return true;
    }
    const Geometry asked = asked_;
    const bool differs = static_cast<int32_t>(granted.width) != asked.width ||
                         static_cast<int32_t>(granted.height) != asked.height ||
                         granted.fourcc != static_cast<uint32_t>(asked.format);
    const bool news =
        differs && (!adjusted_ || granted_width_ != static_cast<int32_t>(granted.width) ||
                    granted_height_ != static_cast<int32_t>(granted.height) ||
                    granted_format_ != static_cast<int32_t>(granted.fourcc));
    granted_width_ = static_cast<int32_t>(granted.width);
    granted_height_ = static_cast<int32_t>(granted.height);
    granted_format_ = static_cast<int32_t>(granted.fourcc);
    adjusted_ = differs;

    if (news) {
        CAM_LOG(MARLO_LOG_WARN,
                "driver adjusted the format: asked %dx%d %s, granted %ux%u %s; frames are "
                "described as granted",
                asked.width, asked.height, FormatName(static_cast<uint32_t>(asked.format)).c_str(),
                granted.width, granted.height, FormatName(granted.fourcc).c_str());
        StreamEvent event = makeEvent(StreamEventType::kFormatAdjusted);
        event.asked = {asked.width, asked.height, static_cast<uint32_t>(asked.format)};
        event.granted = {static_cast<int32_t>(granted.width), static_cast<int32_t>(granted.height),
                         granted.fourcc};
        postToClients(event);
    }
    if (WrapFormat(static_cast<int>(granted.fourcc)) == ERR_FAILED) {
        CAM_LOG(MARLO_LOG_ERROR, "the 2D engine cannot convert the granted format %s",
                FormatName(granted.fourcc).c_str());
        return false;
    }
    return true;
}

float HalCamera::wantedFrameRate() {
    if (frame_rate_ > 0)
        return frame_rate_;
    /* The board's rate for this node: its stream of the opened geometry, else its first with one.
     */
    GlobalCameraConfig::BoardConfig board = GlobalCameraConfig::Creat();
    float fallback = 0;
    for (const auto& camera : board.cameras) {
        for (const auto& channel : camera.channels) {
            if (channel.dev != device_id_)
                continue;
            for (const auto& stream : channel.streams) {
                if (stream.fps <= 0)
                    continue;
                if (stream.width == asked_.width && stream.height == asked_.height &&
                    stream.format == static_cast<uint32_t>(asked_.format))
                    return stream.fps;
                if (fallback <= 0)
                    fallback = stream.fps;
            }
        }
    }
    return fallback;
}

void HalCamera::applyFrameRate(V4l2Camera& hw) {
    const float fps = wantedFrameRate();
    v4l2_fract interval = {0, 0};
    if (fps > 0) {
        interval = {1000, static_cast<uint32_t>(std::lround(fps * 1000.0f))};
        if (hw.SetFrameInterval(interval) != OK)
            interval = {0, 0};
    } else if (hw.GetFrameInterval(interval) != OK) {
        interval = {0, 0};
    }
    uint32_t us = 0;
    if (interval.numerator != 0 && interval.denominator != 0)
        us = static_cast<uint32_t>(static_cast<uint64_t>(interval.numerator) * 1000000u /
                                   interval.denominator);
    frame_interval_us_ = us;
    if (fps <= 0)
        return;

    double granted = us != 0 ? 1e6 / us : 0.0;
    CAM_LOG(MARLO_LOG_INFO, "frame rate asked %.2f fps, granted %.2f fps", fps, granted);
    char line[160];
    snprintf(line, sizeof(line), "%s: frame rate asked %.2f fps, granted %.2f fps",
             device_id_.c_str(), fps, granted);
    DebugHelper::getInstance().updateCache(line);
}

void HalCamera::setFrameRate(float fps) {
    MutexLocker lock(camera_mutex_);
    frame_rate_ = fps > 0 ? fps : 0;
}

bool HalCamera::onIoThread() const {
    return io_thread_.isCurrentThread();
}

bool HalCamera::recovering() const {
    return supervisor_->recovering();
}

NaxBufferHold HalCamera::holdClientBuffer(const std::shared_ptr<FrameBuffer>& buffer) const {
    ImageBuffer image = detail::DestinationImage(buffer);
    /* fd 0 counts as no buffer, as in the fan-out. */
    if (image.fd < 1)
        return NaxBufferHold();
    return nax_operator_.holdBuffer(image);
}

StreamEvent HalCamera::makeEvent(StreamEventType type) const {
    return detail::MakeStreamEvent(type, device_id_);
}

void HalCamera::postToClients(StreamEvent event) {
    clients_.forEach([&event](const std::weak_ptr<VirtualCamera>& entry) {
        if (std::shared_ptr<VirtualCamera> client = entry.lock())
            client->postEvent(event);
    });
}

void HalCamera::clientStreamclosing() {
    MutexLocker lock(camera_mutex_);
    size_t clients = clients_.size();
    int streaming = streaming_clients_.load();
    CAM_LOG(MARLO_LOG_INFO, "Clients(%d) Streaming(%d) State(%d)", static_cast<int>(clients),
            streaming, capture_state_);
    /* Exactly this condition, the non-zero streaming count included, as log tooling knows it. */
    if (clients == 0 && streaming != 0 && capture_state_ == kCaptureStopped && hw_camera_)
        hw_camera_->shutdown();
}

bool HalCamera::OwnVirtualCamera(std::shared_ptr<VirtualCamera>& vc) {
    if (!vc) {
        CAM_LOG(MARLO_LOG_ERROR, "Failed to create virtualCamera camera object");
        return false;
    }
    clients_.push_back(vc);
    CAM_LOG(MARLO_LOG_INFO, "CAM(%s) add virtual camera, size %d \n", device_id_.c_str(),
            static_cast<int>(clients_.size()));
    return true;
}

std::shared_ptr<VirtualCamera> HalCamera::MakeVirtualCamera(int id) {
    /*
     * The holder is overwritten by every entry examined, so after the walk it
     * still holds a duplicate only when that was the last entry.
     */
    std::shared_ptr<VirtualCamera> holder;
    clients_.remove([this, id, &holder](const std::weak_ptr<VirtualCamera>& entry) {
        holder = entry.lock();
        if (!holder) {
            CAM_LOG(MARLO_LOG_ERROR, "WARNING! deleting orphan virtual camera!");
            return true;
        }
        if (holder->id() == id) {
            CAM_LOG(MARLO_LOG_ERROR, "WARNING! Adding virtual camera already exits!!!!!");
            return true;
        }
        holder.reset();
        return false;
    });

    if (holder) {
        CAM_LOG(MARLO_LOG_ERROR, "WARNING! virtual camera %d in wrong state %d", holder->id(),
                holder->state() == VirtualCamera::kRunning ? 1 : 0);
        holder->stopVideoStream();
        holder.reset();
    }

    std::shared_ptr<HalCamera> self = shared_from_this();
    std::shared_ptr<VirtualCamera> vc = std::make_shared<VirtualCamera>(id, self);
    if (!vc) {
        CAM_LOG(MARLO_LOG_ERROR, "Failed to create client camera %d object", id);
        return nullptr;
    }
    if (!detail::CameraHooks::Current().ownVirtualCamera(*this, vc)) {
        CAM_LOG(MARLO_LOG_ERROR, "Failed to own a client camera %d object\n", id);
        return nullptr;
    }
    return vc;
}

void HalCamera::DisownVirtualCamera(std::shared_ptr<VirtualCamera>& vc) {
    if (!vc) {
        CAM_LOG(MARLO_LOG_ERROR, "Ignoring disownVirtualCamera call with null pointer");
        return;
    }
    /*
     * Only this client camera's own entry goes. Another entry with the same
     * id is the client that replaced this one: it stays and keeps streaming.
     */
    const VirtualCamera* own = vc.get();
    clients_.remove([this, own](const std::weak_ptr<VirtualCamera>& entry) {
        std::shared_ptr<VirtualCamera> client = entry.lock();
        if (!client) {
            CAM_LOG(MARLO_LOG_WARN, "WARNING! deleting orphan virtual camera!");
            return true;
        }
        return client.get() == own;
    });
    int id = vc->id();
    CAM_LOG(MARLO_LOG_INFO, "remove virtual camera %d, size %d\n", id,
            static_cast<int>(clients_.size()));
}

int32_t HalCamera::captureState() {
    MutexLocker lock(camera_mutex_);
    return capture_state_;
}

}  // namespace tessaro::marlo
