#include <marlo/camera/virtual_camera.h>

#include <marlo/base/logger.h>
#include <marlo/camera/hal_camera.h>

#include "base/camera_trace.h"
#include "camera/event_dispatcher.h"

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_stream";

}  // namespace

#define VCAM_LOG(severity, fmt, ...) \
    marlo_log(severity, kTag, "VCAM(%d) %s:%d " fmt, id_, __func__, __LINE__, ##__VA_ARGS__)

VirtualCamera::VirtualCamera(int id, const std::shared_ptr<HalCamera>& halCamera) : id_(id) {
    hal_cameras_.max_load_factor(1.0f);
    for (ImageBuffer& image : spare_images_) {
        image = ImageBuffer();
        image.fd = -1;
    }
    if (halCamera)
        hal_cameras_.emplace(halCamera->deviceId(), halCamera);
    else
        /* A camera-less client stays usable; every open and start reports the missing camera. */
        VCAM_LOG(MARLO_LOG_ERROR, "created without a hw camera");
}

VirtualCamera::~VirtualCamera() = default;

std::vector<std::shared_ptr<HalCamera>> VirtualCamera::getHalCameras() {
    std::vector<std::shared_ptr<HalCamera>> cameras;
    for (const auto& entry : hal_cameras_) {
        if (std::shared_ptr<HalCamera> camera = entry.second.lock())
            cameras.push_back(std::move(camera));
    }
    return cameras;
}

bool VirtualCamera::openVideoStream(int width, int height, int format) {
    MutexLocker lock(stream_mutex_);
    for (const auto& entry : hal_cameras_) {
        std::shared_ptr<HalCamera> camera = entry.second.lock();
        if (!camera) {
            VCAM_LOG(MARLO_LOG_ERROR, "vcam has no hw camera");
            continue;
        }
        if (!camera->clientStreamOpening(width, height, format)) {
            VCAM_LOG(MARLO_LOG_ERROR, "Failed to open a virtual camera for %s\n",
                     camera->deviceId().c_str());
            break;
        }
    }
    /* Success whatever the cameras said: the caller's failure path stays unused from here. */
    return true;
}

int VirtualCamera::startVideoStream(FrameCallback callback) {
    MutexLocker lock(stream_mutex_);
    setCallback(std::move(callback));

    int32_t state = state_.load();
    if (state != kStopped) {
        VCAM_LOG(MARLO_LOG_ERROR,
                 "Ignoring startVideoStream when a stream is already in running state %d.", state);
        return 0;
    }

    state_ = kRunning;
    for (auto it = hal_cameras_.begin(); it != hal_cameras_.end(); ++it) {
        std::shared_ptr<HalCamera> camera = it->second.lock();
        if (camera) {
            VCAM_LOG(MARLO_LOG_INFO, "Starts a video stream");
            if (camera->clientStreamStarting(this) == 0)
                continue;
            VCAM_LOG(MARLO_LOG_ERROR, "Failed to start a client video stream");
        } else {
            /*
             * A camera that has gone never comes back, so trying the same entry
             * again could only repeat this forever. The start fails like a
             * refused one instead.
             */
            VCAM_LOG(MARLO_LOG_ERROR, "Failed to start a video stream");
        }
        /* The cameras started before this one end their streams again. */
        state_ = kStopped;
        endStartedBefore(it);
        return -2;
    }
    return 0;
}

void VirtualCamera::endStartedBefore(
    std::unordered_map<std::string, std::weak_ptr<HalCamera>>::iterator end) {
    for (auto before = hal_cameras_.begin(); before != end; ++before) {
        if (std::shared_ptr<HalCamera> started = before->second.lock())
            started->clientStreamEnding();
    }
}

void VirtualCamera::stopVideoStream() {
    MutexLocker lock(stream_mutex_);
    int32_t state = state_.load();
    if (state != kRunning) {
        VCAM_LOG(MARLO_LOG_ERROR, "Failed to stop video stream in state %d", state);
        return;
    }

    {
        /* No delivery begins once the state has left running. */
        MutexLocker deliveryLock(delivery_mutex_);
        state_ = kStopping;
    }
    for (const auto& entry : hal_cameras_) {
        std::shared_ptr<HalCamera> camera = entry.second.lock();
        if (!camera) {
            VCAM_LOG(MARLO_LOG_ERROR, "Failed to stop video stream in state %d", state_.load());
            continue;
        }
        camera->clientStreamEnding();
    }
    /* A frame being delivered to this client ends before the callback is cleared below. */
    waitForDeliveries();

    state_ = kStopped;
    setCallback(nullptr);
    {
        MutexLocker queueLock(queue_mutex_);
        free_sets_.clear();
    }
    /* Every lent set is forgotten: the engine may let their memory go. */
    dropHoldsExcept({});
    postEvent(detail::MakeStreamEvent(StreamEventType::kStreamStopped,
                                      hal_cameras_.empty() ? "" : hal_cameras_.begin()->first));
}

int VirtualCamera::setFrameInfo(std::vector<std::shared_ptr<FrameBuffer>>& buffers) {
    /* Held before it can be used, so that no frame maps its memory. */
    holdBuffers(buffers);
    {
        MutexLocker lock(queue_mutex_);
        free_sets_.clear();
        free_sets_.push_back(buffers);
        for (const std::shared_ptr<FrameBuffer>& buffer : buffers) {
            unsigned long long cookies = buffer ? buffer->cookies() : 0;
            int fd = buffer ? buffer->planes()[0].fd.get() : -1;
            if (detail::BeginCameraTrace("setFrameInfo (vcam %d, cookies %llu, fd = %d)", id_,
                                         cookies, fd))
                detail::EndCameraTrace();
            /* Informational, yet logged as an error: log tooling watches for it there. */
            VCAM_LOG(MARLO_LOG_ERROR, "Received buffer cookies %llu fd = %d\n", cookies, fd);
        }
    }
    /* The sets lent before are forgotten, and so are their holds. */
    dropHoldsExcept(buffers);
    return 0;
}

void VirtualCamera::holdBuffers(const FrameSet& frames) {
    std::vector<std::shared_ptr<FrameBuffer>> missing;
    {
        MutexLocker lock(holds_mutex_);
        for (const std::shared_ptr<FrameBuffer>& buffer : frames) {
            if (!buffer)
                continue;
            auto it = holds_.find(buffer.get());
            if (it == holds_.end() || it->second.buffer.lock() != buffer)
                missing.push_back(buffer);
        }
    }
    if (missing.empty())
        return;
    std::vector<std::shared_ptr<HalCamera>> cameras = getHalCameras();
    if (cameras.empty())
        return;

    /* An import faults the buffer's pages in: it is done here, not at the first frame. */
    std::vector<HeldBuffer> taken;
    for (const std::shared_ptr<FrameBuffer>& buffer : missing)
        taken.push_back({buffer, cameras.front()->holdClientBuffer(buffer)});

    std::vector<HeldBuffer> replaced;
    {
        MutexLocker lock(holds_mutex_);
        for (HeldBuffer& held : taken) {
            std::shared_ptr<FrameBuffer> buffer = held.buffer.lock();
            if (!buffer)
                continue;
            auto it = holds_.find(buffer.get());
            if (it != holds_.end())
                replaced.push_back(std::move(it->second));
            holds_[buffer.get()] = std::move(held);
        }
    }
    /* Replaced holds (of freed buffers, or of a racing lend) go outside the lock. */
}

void VirtualCamera::dropHoldsExcept(const FrameSet& kept) {
    std::vector<HeldBuffer> dropped;
    MutexLocker lock(holds_mutex_);
    for (auto it = holds_.begin(); it != holds_.end();) {
        bool keep = false;
        for (const std::shared_ptr<FrameBuffer>& buffer : kept)
            keep |= buffer.get() == it->first && it->second.buffer.lock() == buffer;
        if (keep) {
            ++it;
            continue;
        }
        dropped.push_back(std::move(it->second));
        it = holds_.erase(it);
    }
}

size_t VirtualCamera::heldBufferCount() {
    MutexLocker lock(holds_mutex_);
    return holds_.size();
}

std::vector<std::shared_ptr<FrameBuffer>> VirtualCamera::getAvailableFrames() {
    MutexLocker lock(queue_mutex_);
    if (free_sets_.empty()) {
        VCAM_LOG(MARLO_LOG_ERROR, "has No available buffer to NAX copy!!!!");
        return {};
    }
    FrameSet frames = std::move(free_sets_.front());
    free_sets_.pop_front();
    return frames;
}

void VirtualCamera::forwardFrame(std::vector<std::shared_ptr<FrameBuffer>> frames) {
    if (frames.empty()) {
        VCAM_LOG(MARLO_LOG_INFO, "forwardFrame null");
        return;
    }
    for (const std::shared_ptr<FrameBuffer>& buffer : frames) {
        int sequence = buffer ? static_cast<int>(buffer->sequence()) : 0;
        unsigned long long cookies = buffer ? buffer->cookies() : 0;
        int fd = buffer ? buffer->planes()[0].fd.get() : -1;
        if (detail::BeginCameraTrace("forwardFrame (vcam %d, sequence %d, cookies %llu, fd = %d)",
                                     id_, sequence, cookies, fd))
            detail::EndCameraTrace();
    }
    FrameCallback callback;
    {
        MutexLocker lock(callback_mutex_);
        callback = callback_;
    }
    if (!callback)
        return;
    callback(frames);
}

bool VirtualCamera::beginDelivery() {
    MutexLocker lock(delivery_mutex_);
    if (state_.load() != kRunning)
        return false;
    ++deliveries_;
    deliverer_ = std::this_thread::get_id();
    return true;
}

void VirtualCamera::endDelivery() {
    MutexLocker lock(delivery_mutex_);
    if (--deliveries_ == 0)
        deliverer_ = std::thread::id();
    delivery_done_.notify_all();
}

void VirtualCamera::waitForDeliveries() {
    MutexLocker lock(delivery_mutex_);
    /* A callback stopping its own stream cannot wait for itself. */
    if (deliverer_ == std::this_thread::get_id())
        return;
    delivery_done_.wait(lock,
                        [this]() MARLO_REQUIRES(delivery_mutex_) { return deliveries_ == 0; });
}

void VirtualCamera::setCallback(FrameCallback callback) {
    /* The old callback is destroyed outside the lock: it may own anything. */
    MutexLocker lock(callback_mutex_);
    std::swap(callback_, callback);
}

void VirtualCamera::doneWithFrame(std::vector<std::shared_ptr<FrameBuffer>> frames) {
    if (frames.empty()) {
        VCAM_LOG(MARLO_LOG_INFO, "doneWithFrame null");
        return;
    }
    /* A set the client lends this way (one it never received) is held first. */
    holdBuffers(frames);
    MutexLocker lock(queue_mutex_);
    free_sets_.push_back(frames);
    for (const std::shared_ptr<FrameBuffer>& buffer : frames) {
        unsigned long long cookies = buffer ? buffer->cookies() : 0;
        int fd = buffer ? buffer->planes()[0].fd.get() : -1;
        if (detail::BeginCameraTrace("doneWithFrame (vcam %d, cookies %llu, fd = %d)", id_, cookies,
                                     fd))
            detail::EndCameraTrace();
        VCAM_LOG(MARLO_LOG_INFO, "doneWithFrame index %llu", cookies);
    }
}

void VirtualCamera::setEventListener(std::shared_ptr<detail::EventListenerSlot> slot) {
    MutexLocker lock(events_mutex_);
    events_ = std::move(slot);
}

void VirtualCamera::postEvent(StreamEvent event) {
    std::shared_ptr<detail::EventListenerSlot> slot;
    {
        MutexLocker lock(events_mutex_);
        slot = events_;
    }
    if (!slot)
        return;
    event.clientId = id_;
    detail::EventListenerSlot::Post(slot, std::move(event));
}

size_t VirtualCamera::freeSetCount() {
    MutexLocker lock(queue_mutex_);
    return free_sets_.size();
}

}  // namespace tessaro::marlo
