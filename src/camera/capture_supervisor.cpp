#include "camera/capture_supervisor.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>

#include <cutils/properties.h>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>
#include <marlo/base/unique_fd.h>
#include <marlo/camera/hal_camera.h>
#include <marlo/debug/debug_helper.h>

#include "camera/frame_fan_out.h"

namespace tessaro::marlo::detail {

namespace {

constexpr char kTag[] = "marlo_stream";

/* Failed retries are logged at the first and then at every this many. */
constexpr int kRetryLogEvery = 10;

/* Errors of a dequeue or queue that mean the device itself is gone or broken. */
bool DeviceGone(int error) {
    switch (error) {
        case ENODEV:
        case ENXIO:
        case EIO:
        case EPIPE:
        case ESHUTDOWN:
            return true;
        default:
            return false;
    }
}

}  // namespace

#define SUP_LOG(severity, fmt, ...)                                                       \
    marlo_log(severity, kTag, "CAM(%s) %s:%d " fmt, camera_.device_id_.c_str(), __func__, \
              __LINE__, ##__VA_ARGS__)

CaptureSupervisor::CaptureSupervisor(HalCamera& camera) : camera_(camera) {}

CaptureSupervisor::~CaptureSupervisor() = default;

void CaptureSupervisor::begin(bool streaming, int status, int error) {
    stop_requested_ = false;
    stall_override_ = std::chrono::milliseconds(std::max(0, property_get_int32(kStallProperty, 0)));
    attempts_ = 0;
    failed_dequeues_ = 0;
    backoff_ = kFirstRetry;
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        /* Capture still runs; only the watchdog and the retries are missing. */
        SUP_LOG(MARLO_LOG_ERROR, "no timer for the capture watchdog: %s", strerror(errno));
    } else {
        timer_.reset(fd);
        camera_.io_thread_.AddHandler(
            fd, [this](int, unsigned int) { onTimer(); }, EPOLLIN);
    }

    last_frame_ = std::chrono::steady_clock::now();
    if (streaming) {
        state_ = State::kStreaming;
        arm(std::max(stallTimeout(), kFirstFrame));
        return;
    }
    SUP_LOG(MARLO_LOG_ERROR, "the device refused to stream (%d), retrying in the background",
            status);
    enterRecovery(status, error);
    armRetry();
}

void CaptureSupervisor::end() {
    if (timer_.isValid()) {
        camera_.io_thread_.RemoveHandler(timer_.get());
        timer_.reset();
    }
    state_ = State::kIdle;
}

void CaptureSupervisor::onFrame() {
    last_frame_ = std::chrono::steady_clock::now();
    failed_dequeues_ = 0;
}

bool CaptureSupervisor::loseIfGone(int error) {
    if (!DeviceGone(error))
        return false;
    lose(StreamEventType::kDeviceLost, MapSystemError(error), error, 0);
    return true;
}

void CaptureSupervisor::onDequeueFailed(int error) {
    if (state_ != State::kStreaming || error == EINTR || loseIfGone(error))
        return;
    /* A node that keeps saying it has a frame and then refuses it would spin the loop. */
    if (++failed_dequeues_ >= kMaxFailedDequeues) {
        SUP_LOG(MARLO_LOG_ERROR, "%d dequeues in a row failed (%d), restarting the device",
                failed_dequeues_, error);
        lose(StreamEventType::kDeviceLost, error != 0 ? MapSystemError(error) : ERR_FAILED, error,
             0);
    }
}

void CaptureSupervisor::onQueueFailed(int error) {
    if (state_ != State::kStreaming || loseIfGone(error))
        return;
    /* The buffer waits in the free list; a starving driver shows as a stall. */
    SUP_LOG(MARLO_LOG_WARN, "the driver refused a buffer back (%d)", error);
}

void CaptureSupervisor::onDeviceError(unsigned int events) {
    if (state_ != State::kStreaming)
        return;
    SUP_LOG(MARLO_LOG_ERROR, "capture node reports error or hang-up (events %x)", events);
    lose(StreamEventType::kDeviceLost, ERR_CONNECTION_CLOSED, 0, 0);
}

void CaptureSupervisor::onTimer() {
    uint64_t expirations = 0;
    if (read(timer_.get(), &expirations, sizeof(expirations)) < 0 && errno == EAGAIN)
        return;  // disarmed or re-armed since it fired
    if (stop_requested_)
        return;

    if (state_ == State::kStreaming) {
        auto now = std::chrono::steady_clock::now();
        auto quiet = std::chrono::duration_cast<std::chrono::milliseconds>(now - last_frame_);
        auto limit = stallTimeout();
        if (quiet < limit) {
            arm(limit - quiet);
            return;
        }
        lose(StreamEventType::kCaptureStalled, 0, 0, static_cast<uint32_t>(quiet.count()));
        return;
    }
    if (state_ != State::kRecovering)
        return;

    if (!reopen()) {
        armRetry();
        return;
    }
    SUP_LOG(MARLO_LOG_WARN, "capture device streams again after %d attempts", attempts_);
    state_ = State::kStreaming;
    lost_status_ = 0;
    lost_error_ = 0;
    attempts_ = 0;
    backoff_ = kFirstRetry;
    failed_dequeues_ = 0;
    last_frame_ = std::chrono::steady_clock::now();
    arm(std::max(stallTimeout(), kFirstFrame));
    DebugHelper::getInstance().updateCameraState(camera_.device_id_, "RUNNING");
    camera_.postToClients(camera_.makeEvent(StreamEventType::kDeviceRecovered));
}

void CaptureSupervisor::lose(StreamEventType type, int status, int error, uint32_t stalledMs) {
    if (state_ != State::kStreaming)
        return;
    if (type == StreamEventType::kCaptureStalled)
        SUP_LOG(MARLO_LOG_ERROR, "no frame for %u ms, restarting the capture device", stalledMs);
    else
        SUP_LOG(MARLO_LOG_ERROR, "capture device lost (%d, %s), releasing it and retrying", status,
                error != 0 ? strerror(error) : "no system error");
    enterRecovery(status, error);
    attempts_ = 0;
    backoff_ = kFirstRetry;
    DebugHelper::getInstance().updateCameraState(camera_.device_id_, "LOST");

    StreamEvent event = camera_.makeEvent(type);
    event.status = status;
    event.systemError = error;
    event.timeoutMs = stalledMs;
    camera_.postToClients(event);
    armRetry();
}

void CaptureSupervisor::enterRecovery(int status, int error) {
    lost_status_ = status;
    lost_error_ = error;
    releaseDevice();
    state_ = State::kRecovering;
}

void CaptureSupervisor::releaseDevice() {
    if (camera_.capture_fd_ >= 0) {
        camera_.io_thread_.RemoveHandler(camera_.capture_fd_);
        camera_.capture_fd_ = -1;
    }
    if (camera_.hw_camera_) {
        camera_.hw_camera_->StopVideoStream();
        /* Closes the node, unmaps and closes its buffers. */
        camera_.hw_camera_.reset();
        /*
         * An unopened camera takes its place: a client that stops and starts
         * again before the device is back starts the retries again, as one
         * started on a device missing at its opening does.
         */
        camera_.hw_camera_ = std::make_unique<V4l2Camera>(camera_.device_id_);
    }
}

/*
 * A device that stays gone is tried every second for as long as clients wait: a bare open of the
 * node first keeps those tries silent and cheap, and only a node that opens again gets the full
 * open with its log.
 */
bool CaptureSupervisor::nodeOpens() const {
    UniqueFd probe(open(camera_.device_id_.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    return probe.isValid();
}

bool CaptureSupervisor::reopen() {
    ++attempts_;
    if (!nodeOpens())
        return false;
    const HalCamera::Geometry asked = camera_.asked_;
    auto fresh = std::make_unique<V4l2Camera>(camera_.device_id_);
    bool ready = fresh->OpenCamera(asked.width, asked.height, asked.format) &&
                 camera_.acceptGrantedFormat(*fresh);
    if (ready) {
        camera_.applyFrameRate(*fresh);
        fresh->StartVideoStream();
        ready = fresh->StreamOnStatus() == OK;
        if (!ready)
            fresh->StopVideoStream();
    }
    if (!ready || stop_requested_)
        return false;

    int fd = fresh->Fd();
    camera_.io_thread_.AddHandler(fd, FrameFanOut(&camera_), EPOLLIN,
                                  [this](int, unsigned int events) { onDeviceError(events); });
    camera_.capture_fd_ = fd;
    camera_.hw_camera_ = std::move(fresh);
    return true;
}

void CaptureSupervisor::armRetry() {
    if (attempts_ == 1 || (attempts_ > 0 && attempts_ % kRetryLogEvery == 0))
        SUP_LOG(MARLO_LOG_WARN, "capture device not back after %d attempts, next in %lld ms",
                attempts_, static_cast<long long>(backoff_.count()));
    arm(backoff_);
    backoff_ = std::min(backoff_ * 2, kMaxRetry);
}

void CaptureSupervisor::arm(std::chrono::milliseconds delay) {
    if (!timer_.isValid())
        return;
    auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(delay).count();
    struct itimerspec expiry = {};
    /* A zero value would disarm the timer: fire at once instead. */
    ns = std::max<long long>(ns, 1);
    expiry.it_value.tv_sec = static_cast<time_t>(ns / 1000000000);
    expiry.it_value.tv_nsec = static_cast<long>(ns % 1000000000);
    if (timerfd_settime(timer_.get(), 0, &expiry, nullptr) != 0)
        SUP_LOG(MARLO_LOG_ERROR, "arming the capture timer failed: %s", strerror(errno));
}

std::chrono::milliseconds CaptureSupervisor::stallTimeout() const {
    if (stall_override_.count() > 0)
        return std::max(stall_override_, kMinStall);
    uint32_t us = camera_.frame_interval_us_.load();
    auto interval = us != 0 ? std::chrono::milliseconds((us + 999) / 1000) : kUnknownInterval;
    return std::max(interval * 3, kMinStall);
}

}  // namespace tessaro::marlo::detail
