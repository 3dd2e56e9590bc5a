#include "camera/frame_fan_out.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <string.h>

#include <chrono>
#include <string>

#include <marlo/base/logger.h>
#include <marlo/base/unique_fd.h>
#include <marlo/buffer/frame_buffer.h>
#include <marlo/camera/hal_camera.h>
#include <marlo/camera/virtual_camera.h>
#include <marlo/debug/debug_helper.h>
#include <marlo/v4l2/v4l2_video_device.h>

#include "base/camera_trace.h"
#include "camera/capture_supervisor.h"
#include "camera/fence_backend.h"

namespace tessaro::marlo::detail {

namespace {

constexpr char kTag[] = "marlo_stream";

/* Bound of the one wait shared by all conversions of a frame. */
constexpr int kFenceWaitMs = 100;

/* Readable or priority data: anything else is no captured frame. */
constexpr unsigned int kFrameEvents = 0x1 | 0x2;

}  // namespace

ImageBuffer EmptyImage() {
    ImageBuffer image = {};
    image.fd = -1;
    return image;
}

ImageBuffer DestinationImage(const std::shared_ptr<FrameBuffer>& frame) {
    ImageBuffer image = EmptyImage();
    if (!frame)
        return image;
    FrameBufferInfo info = frame->info();
    image.cookie = frame->cookies();
    image.fd = frame->planes()[0].fd.get();
    image.width = static_cast<int32_t>(info.width);
    image.height = static_cast<int32_t>(info.height);
    image.wstride = static_cast<int32_t>(info.stride);
    image.hstride = static_cast<int32_t>(info.height);
    image.format = static_cast<int32_t>(info.fourcc);
    return image;
}

FrameFanOut::FrameFanOut(HalCamera* camera) : FrameFanOut(camera, PlatformFences()) {}

void FrameFanOut::UseFences(HalCamera& camera, FenceBackend& fences) {
    MutexLocker lock(camera.camera_mutex_);
    camera.fences_ = &fences;
}

/* Log tooling knows every line of the handler as coming from "operator()". */
#define FANOUT_LOG(severity, fmt, ...)                                                         \
    marlo_log(severity, kTag, "CAM(%s) %s:%d " fmt, camera_->device_id_.c_str(), "operator()", \
              __LINE__, ##__VA_ARGS__)

void FrameFanOut::operator()(int /*fd*/, unsigned int events) const {
    if ((events & kFrameEvents) == 0)
        return;

    V4l2Camera* hw = camera_->hw_camera_.get();
    if (!hw)
        return;
    detail::CaptureSupervisor& supervisor = *camera_->supervisor_;
    std::unique_ptr<V4l2Buffer> buffer = hw->CollectFrames();
    if (!buffer) {
        supervisor.onDequeueFailed(errno);
        return;
    }
    supervisor.onFrame();

    if (buffer->GetBuffer()->flags & V4L2_BUF_FLAG_ERROR) {
        dropErroneous(*buffer);
        if (hw->ReturnFrame(std::move(buffer)) != 0)
            supervisor.onQueueFailed(errno);
        return;
    }

    /*
     * The stored geometry describes the frame, unless the driver granted
     * another one than was asked: then conversions need what it captures.
     */
    ImageBuffer& src = camera_->src_image_;
    src.fd = buffer->GetDmaFd(0);
    if (camera_->adjusted_) {
        src.width = camera_->granted_width_.load();
        src.height = camera_->granted_height_.load();
        src.format = camera_->granted_format_.load();
    } else {
        src.width = camera_->width_.load();
        src.height = camera_->height_.load();
        src.format = camera_->format_.load();
    }
    src.wstride = src.width;
    src.hstride = src.height;

    FANOUT_LOG(MARLO_LOG_VERBOSE, "get virtCam size = %d",
               static_cast<int>(camera_->clients_.size()));

    /*
     * The clients of this frame are taken under the list's lock and served
     * without it: a callback may then stop, close or open streams of this
     * camera, its own included.
     */
    std::vector<std::shared_ptr<VirtualCamera>> clients;
    camera_->clients_.forEach([&clients](const std::weak_ptr<VirtualCamera>& client) {
        if (std::shared_ptr<VirtualCamera> virtualCamera = client.lock())
            clients.push_back(std::move(virtualCamera));
    });
    std::vector<UniqueFd> fences;
    for (const std::shared_ptr<VirtualCamera>& client : clients)
        serveClient(*client, *buffer, fences);

    /* The frame's copies of the fences are closed before its buffer goes back to the driver. */
    waitForFences(std::move(fences), buffer->GetSequence());
    if (hw->ReturnFrame(std::move(buffer)) != 0)
        supervisor.onQueueFailed(errno);
}

void FrameFanOut::dropErroneous(const V4l2Buffer& buffer) const {
    FANOUT_LOG(MARLO_LOG_WARN, "frame %u flagged as erroneous by the driver, dropped",
               buffer.GetSequence());
    DebugHelper::getInstance().updateCameraDropCount(camera_->device_id_);
    StreamEvent event = camera_->makeEvent(StreamEventType::kFrameDropped);
    event.sequence = buffer.GetSequence();
    camera_->clients_.forEach([&event](const std::weak_ptr<VirtualCamera>& client) {
        std::shared_ptr<VirtualCamera> virtualCamera = client.lock();
        if (virtualCamera && virtualCamera->state() == VirtualCamera::kRunning)
            virtualCamera->postEvent(event);
    });
}

void FrameFanOut::serveClient(VirtualCamera& client, const V4l2Buffer& buffer,
                              std::vector<UniqueFd>& fences) const {
    /* A client that stopped meanwhile is skipped; its stop waits for a delivery begun. */
    if (!client.beginDelivery())
        return;
    std::vector<std::shared_ptr<FrameBuffer>> frames = client.getAvailableFrames();
    if (frames.empty()) {
        StreamEvent event = camera_->makeEvent(StreamEventType::kFrameDropped);
        event.sequence = buffer.GetSequence();
        client.postEvent(event);
    }
    for (const std::shared_ptr<FrameBuffer>& frame : frames)
        convertInto(frame, buffer, fences);
    client.forwardFrame(frames);
    client.endDelivery();
}

void FrameFanOut::convertInto(const std::shared_ptr<FrameBuffer>& frame, const V4l2Buffer& buffer,
                              std::vector<UniqueFd>& fences) const {
    ImageBuffer dst = DestinationImage(frame);
    /* fd 0 counts as invalid as well: no client buffer is ever standard input. */
    if (dst.fd < 1) {
        FANOUT_LOG(MARLO_LOG_ERROR, "do not have avilable buffer");
        DebugHelper::getInstance().updateCameraDropCount(camera_->device_id_);
        return;
    }

    const ImageBuffer& src = camera_->src_image_;
    FANOUT_LOG(MARLO_LOG_VERBOSE, "src : %d-%d-%d-%d-%d-%x", src.fd, src.width, src.height,
               src.wstride, src.hstride, static_cast<unsigned int>(src.format));
    FANOUT_LOG(MARLO_LOG_VERBOSE, "dst : %d-%d-%d-%d-%d-%x", dst.fd, dst.width, dst.height,
               dst.wstride, dst.hstride, static_cast<unsigned int>(dst.format));

    DebugHelper& debug = DebugHelper::getInstance();
    bool timed = debug.isPropertySupported();
    std::chrono::steady_clock::time_point start;
    if (timed)
        start = std::chrono::steady_clock::now();

    uint32_t sequence = buffer.GetSequence();
    bool traced = BeginCameraTrace("NAX processing (sequence %d, cookies %llu, fd = %d)",
                                   static_cast<int>(sequence),
                                   static_cast<unsigned long long>(frame->cookies()), dst.fd);

    FrameBufferInfo info = frame->info();
    ImageBuffer pattern = EmptyImage();
    ImageRect srect = {info.sourceCrop.x, info.sourceCrop.y, info.sourceCrop.width,
                       info.sourceCrop.height};
    ImageRect zero = {0, 0, 0, 0};
    int fence = -1;
    /* The result is not examined: a failed job only leaves the buffer unwritten. */
    camera_->nax_operator_.process(src, dst, pattern, srect, zero, zero, 0, &fence,
                                   static_cast<int>(info.transform));
    if (traced)
        EndCameraTrace();

    unsigned int elapsed = 0;
    if (timed) {
        auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::steady_clock::now() - start)
                      .count();
        elapsed = static_cast<unsigned int>(ns / 1000);
    }
    debug.updateNaxProcessingTime(camera_->device_id_, elapsed);

    FANOUT_LOG(MARLO_LOG_VERBOSE, "fence %d", fence);
    if (fence >= 0) {
        /*
         * The buffer owns the fence from here and its client may close it at
         * any time: the frame waits on a descriptor of its own.
         */
        UniqueFd held(fcntl(fence, F_DUPFD_CLOEXEC, 3));
        if (held.isValid())
            fences.push_back(std::move(held));
        else
            FANOUT_LOG(MARLO_LOG_ERROR, "fence %d not kept for the wait: %s", fence,
                       strerror(errno));
        frame->SetFence(fence);
    }
    frame->SetSequence(sequence);
    frame->SetTimestamp(buffer.GetTimestamp());
}

void FrameFanOut::waitForFences(std::vector<UniqueFd> fences, uint32_t sequence) const {
    int running = -1;
    unsigned int index = 0;
    std::vector<UniqueFd> merged;
    for (const UniqueFd& held : fences) {
        int fence = held.get();
        if (fence < 0)
            continue;
        /* Raw bytes, not decimal text: the merged fence names are kept as they always were. */
        std::string name = camera_->device_id_;
        name.push_back(static_cast<char>(sequence & 0xff));
        name.push_back(static_cast<char>(index & 0xff));
        running = fences_->merge(name.c_str(), running, fence);
        merged.emplace_back(running);
        ++index;
    }

    if (running >= 0 && fences_->wait(running, kFenceWaitMs) != 0)
        FANOUT_LOG(MARLO_LOG_ERROR, "Timeout waiting fence");
    /* merged closes every merge result, fences the frame's own copies of the buffers' fences. */
}

}  // namespace tessaro::marlo::detail
