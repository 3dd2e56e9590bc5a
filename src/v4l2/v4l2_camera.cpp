#include <marlo/v4l2/v4l2_camera.h>

#include <vector>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>

namespace tessaro::marlo {

namespace {

/* The capture camera reports under the client stream tag. */
constexpr char kTag[] = "marlo_stream";

/* Exactly this many buffers, or the open fails. */
constexpr unsigned kBufferCount = 3;

}  // namespace

/*
 * Every line carries the node, the function and a fixed number. Log tooling
 * matches on those numbers, so they stay as they are whatever line of this
 * file logs them.
 */
#define CAM_LOG(severity, func, line, fmt, ...) \
    marlo_log(severity, kTag, "V4LCAM(%s) %s:%d " fmt, name_.c_str(), func, line, ##__VA_ARGS__)

V4l2Camera::V4l2Camera(const std::string& path) : V4l2VideoDevice(path) {}

V4l2Camera::~V4l2Camera() {
    Close();
}

bool V4l2Camera::OpenInternal(int width, int height, int fourcc) {
    int ret = Open(true);
    if (ret < 0) {
        CAM_LOG(MARLO_LOG_ERROR, "OpenInternal", 99, "failed to open a v4l2 video device %d", ret);
        return false;
    }
    ret = QueryCap();
    if (ret < 0) {
        CAM_LOG(MARLO_LOG_ERROR, "OpenInternal", 106, "QueryCap failed %d", ret);
        return false;
    }
    /*
     * A negative size goes to the driver as the large unsigned value it
     * converts to; the driver clamps it, and the granted format tells.
     */
    ret = SetFormat(static_cast<unsigned>(width), static_cast<unsigned>(height),
                    static_cast<unsigned>(fourcc));
    if (ret < 0) {
        CAM_LOG(MARLO_LOG_ERROR, "OpenInternal", 113, "set format %dx%d failed %d", width, height,
                ret);
        return false;
    }
    ret = ReqBuffer(kBufferCount, V4L2_MEMORY_MMAP);
    if (ret != static_cast<int>(kBufferCount)) {
        CAM_LOG(MARLO_LOG_ERROR, "OpenInternal", 120, "request buffer failed %d", ret);
        return false;
    }
    ret = QueryBuffer();
    if (ret < 0) {
        CAM_LOG(MARLO_LOG_ERROR, "OpenInternal", 127, "query buffer failed %d", ret);
        return false;
    }
    ret = ExportBuffers();
    if (ret < 0) {
        CAM_LOG(MARLO_LOG_ERROR, "OpenInternal", 133, "export buffer failed %d", ret);
        return false;
    }
    state_.store(0);
    return true;
}

bool V4l2Camera::OpenCamera(int width, int height, int fourcc) {
    if (!OpenInternal(width, height, fourcc)) {
        CAM_LOG(MARLO_LOG_ERROR, "OpenCamera", 146, "Failed to open a video deivce");
        return false;
    }
    return true;
}

int V4l2Camera::StartVideoStream() {
    uint32_t previous = state_.fetch_or(kRunning);
    if (previous & kRunning) {
        CAM_LOG(MARLO_LOG_ERROR, "StartVideoStream", 182,
                "Already in RUN state, so we can't start a new streaming thread");
        return ERR_FAILED;
    }

    /*
     * Take every free buffer before queuing any. A refused buffer goes back
     * to the free list, so queuing straight from it would hand the same
     * buffer over for as long as the driver refuses it (a closed node refuses
     * them all). This way each buffer is offered once per start; a refused
     * one waits in the free list for the next start.
     */
    std::vector<std::unique_ptr<V4l2Buffer>> buffers;
    while (std::unique_ptr<V4l2Buffer> buffer = GetBuffer())
        buffers.push_back(std::move(buffer));
    for (std::unique_ptr<V4l2Buffer>& buffer : buffers)
        QueueBuffer(std::move(buffer));

    int ret = StreamOn();
    stream_on_status_ = OK;
    stream_on_error_ = 0;
    if (ret < 0) {
        int err = errno;
        /* The caller sees success and the state stays running; the status tells the truth. */
        CAM_LOG(MARLO_LOG_ERROR, "StartVideoStream", 197, "stream on failed %d", ret);
        stream_on_error_ = err;
        stream_on_status_ = ret;
    }
    return OK;
}

void V4l2Camera::StopVideoStream() {
    uint32_t previous = state_.fetch_or(kStopping);
    if (previous == 0) {
        state_.store(0);
        return;
    }
    if (previous & kStopping) {
        CAM_LOG(MARLO_LOG_ERROR, "StopVideoStream", 162,
                "stopStream called while stream is already stopping.");
        return;
    }

    int ret = StreamOff();
    CAM_LOG(MARLO_LOG_INFO, "StopVideoStream", 166, "stream off");
    if (ret == 0) {
        state_.store(0);
        return;
    }
    /* Both bits stay set: only a new open clears a failed stop. */
    CAM_LOG(MARLO_LOG_ERROR, "StopVideoStream", 168, "stream off failed %d", ret);
}

std::unique_ptr<V4l2Buffer> V4l2Camera::CollectFrames() {
    return DequeBuffer();
}

int V4l2Camera::ReturnFrame(std::unique_ptr<V4l2Buffer> buffer) {
    return QueueBuffer(std::move(buffer));
}

void V4l2Camera::shutdown() {
    Close();
}

}  // namespace tessaro::marlo
