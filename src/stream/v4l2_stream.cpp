#include <marlo/stream/v4l2_stream.h>

#include <string.h>

#include <chrono>
#include <map>
#include <optional>
#include <thread>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>
#include <marlo/buffer/pixel_format.h>
#include <marlo/camera/hal_camera.h>
#include <marlo/camera/virtual_camera.h>
#include <marlo/config/config.h>

#include "camera/camera_hooks.h"
#include "camera/event_dispatcher.h"
#include "stream/stream_registry_access.h"

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_stream";

constexpr int kFailed = -2;

/* Every stream reports a constant rate, whatever the device delivers. */
constexpr float kFrameRate = 30.0f;

std::unordered_map<std::string, std::shared_ptr<HalCamera>> MakeRegistry() {
    std::unordered_map<std::string, std::shared_ptr<HalCamera>> registry;
    registry.max_load_factor(1.0f);
    return registry;
}

/* Formats a client can be told it receives; anything else is reported as UYVY. */
const std::map<FourccFormat, marlo_color_fmt_t> kColorFormats = {
    {FOURCC_RGB3, MARLO_COLOR_FMT_RGB3}, {FOURCC_UYVY, MARLO_COLOR_FMT_UYVY},
    {FOURCC_YUYV, MARLO_COLOR_FMT_YUYV}, {FOURCC_YVYU, MARLO_COLOR_FMT_YVYU},
    {FOURCC_VYUY, MARLO_COLOR_FMT_VYUY}, {FOURCC_NV12, MARLO_COLOR_FMT_NV12},
    {FOURCC_NV21, MARLO_COLOR_FMT_NV21}, {FOURCC_NV16, MARLO_COLOR_FMT_NV16},
    {FOURCC_NV61, MARLO_COLOR_FMT_NV61}, {FOURCC_YU12, MARLO_COLOR_FMT_YU12},
    {FOURCC_YV12, MARLO_COLOR_FMT_YV12}, {FOURCC_AB24, MARLO_COLOR_FMT_AB24},
};

/*
 * Built per query from the list clients and configuration files have always
 * used. The ninth entry repeats "extra_other" and is dropped by the map, so
 * value 8 is never answered; the list stays as it is.
 */
std::map<std::string, marlo_location_t> LocationMap() {
    return {
        {"interior", MARLO_LOCATION_INTERIOR},
        {"exterior_other", MARLO_LOCATION_EXTERIOR_OTHER},
        {"exterior_front", MARLO_LOCATION_EXTERIOR_FRONT},
        {"exterior_rear", MARLO_LOCATION_EXTERIOR_REAR},
        {"exterior_left", MARLO_LOCATION_EXTERIOR_LEFT},
        {"exterior_right", MARLO_LOCATION_EXTERIOR_RIGHT},
        {"extra_other", MARLO_LOCATION_EXTRA_OTHER},
        {"extra_front", MARLO_LOCATION_EXTRA_FRONT},
        {"extra_other", MARLO_LOCATION_EXTRA_OTHER},
        {"extra_left", MARLO_LOCATION_EXTRA_LEFT},
        {"extra_right", MARLO_LOCATION_EXTRA_RIGHT},
    };
}

/*
 * Same story: the eleventh entry repeats the first row's centre seat, so the
 * second row's centre seat (10) has no text.
 */
std::map<std::string, marlo_lens_facing_t> LensFacingMap() {
    return {
        {"exterior_other", MARLO_LENS_FACING_EXTERIOR_OTHER},
        {"exterior_front", MARLO_LENS_FACING_EXTERIOR_FRONT},
        {"exterior_rear", MARLO_LENS_FACING_EXTERIOR_REAR},
        {"exterior_left", MARLO_LENS_FACING_EXTERIOR_LEFT},
        {"exterior_right", MARLO_LENS_FACING_EXTERIOR_RIGHT},
        {"interior_other", MARLO_LENS_FACING_INTERIOR_OTHER},
        {"interior_seat_row_1_left", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_1_LEFT},
        {"interior_seat_row_1_center", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_1_CENTER},
        {"interior_seat_row_1_right", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_1_RIGHT},
        {"interior_seat_row_2_left", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_2_LEFT},
        {"interior_seat_row_1_center", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_1_CENTER},
        {"interior_seat_row_2_right", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_2_RIGHT},
        {"interior_seat_row_3_left", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_3_LEFT},
        {"interior_seat_row_3_center", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_3_CENTER},
        {"interior_seat_row_3_right", MARLO_LENS_FACING_INTERIOR_SEAT_ROW_3_RIGHT},
    };
}

/* The location value of a configuration text; 0 for a text the list lacks. */
int32_t LocationOf(const std::string& text) {
    std::map<std::string, marlo_location_t> map = LocationMap();
    auto it = map.find(text);
    return it != map.end() ? it->second : 0;
}

/* The lens-facing value of a configuration text; 0 for a text the list lacks. */
int32_t LensFacingOf(const std::string& text) {
    std::map<std::string, marlo_lens_facing_t> map = LensFacingMap();
    auto it = map.find(text);
    return it != map.end() ? it->second : 0;
}

/*
 * The placement record of \a clientId: its own entry, else the channel its
 * input mapping points at. An unmapped client or a position outside the
 * board has no record: null, with the position looked at in \a src.
 */
const GlobalCameraConfig::CameraParam* FindCameraParam(
    const GlobalCameraConfig::BoardConfig& config, int clientId,
    GlobalCameraConfig::InputSrc* src) {
    auto own = config.cameraParams.find(clientId);
    if (own != config.cameraParams.end())
        return &own->second;
    auto mapped = config.inputMap.find(clientId);
    if (mapped != config.inputMap.end())
        *src = mapped->second;
    if (src->cameraId < 0 || static_cast<size_t>(src->cameraId) >= config.cameras.size())
        return nullptr;
    const auto& channels = config.cameras[static_cast<size_t>(src->cameraId)].channels;
    if (src->channelId < 0 || static_cast<size_t>(src->channelId) >= channels.size())
        return nullptr;
    return &channels[static_cast<size_t>(src->channelId)].cameraParam;
}

/*
 * What the registry keeps of a device beside its camera, under the registry
 * mutex. An open attaches its client camera outside the lock, so a close
 * that finds the client list empty cannot tell from the list alone that an
 * open has found the camera and is about to attach: it also checks that no
 * open is attaching and that none found the camera since it looked. A
 * camera that left the registry is shut and released outside the lock;
 * opens of its device wait for that, so that two cameras never hold one
 * device at once.
 */
struct DeviceUse {
    /* Opens between finding the camera and attaching their client camera. */
    int attaching = 0;
    /* Opens that found or made the camera, ever. */
    uint64_t opens = 0;
    /* Left the registry; being shut and released by the close that erased it. */
    bool retiring = false;
    /* Closed from a frame callback: the IO thread it is released after. */
    std::thread::id retiringFrom;
};

ConditionVariable g_device_retired;

enum class Unregistering {
    kErased,   /* this camera left the registry and is retiring */
    kKept,     /* an open found it meanwhile: it stays for that client */
    kNotThere, /* the registry holds no entry, or another camera, for the device */
};

}  // namespace

/* The registry's records of the devices, under the registry mutex. */
struct detail::DeviceUses {
    static bool Retiring(const std::string& deviceId)
        MARLO_REQUIRES(V4l2Stream::active_cameras_mutex_) {
        auto it = uses.find(deviceId);
        return it != uses.end() && it->second.retiring;
    }

    /* The opens of \a deviceId so far, or nothing while one is attaching. */
    static std::optional<uint64_t> SettledOpens(const std::string& deviceId)
        MARLO_REQUIRES(V4l2Stream::active_cameras_mutex_) {
        auto it = uses.find(deviceId);
        if (it == uses.end())
            return 0;
        if (it->second.attaching != 0)
            return std::nullopt;
        return it->second.opens;
    }

    /*
     * Erases \a hal's entry unless an open found it since \a settled was read
     * (with its client list then found empty).
     */
    static Unregistering Unregister(const std::shared_ptr<HalCamera>& hal,
                                    std::optional<uint64_t> settled)
        MARLO_REQUIRES(V4l2Stream::active_cameras_mutex_) {
        auto& registry = V4l2Stream::active_cameras_;
        auto it = registry.find(hal->deviceId());
        if (it == registry.end() || it->second != hal)
            return Unregistering::kNotThere;
        if (!settled || SettledOpens(hal->deviceId()) != settled)
            return Unregistering::kKept;
        registry.erase(it);
        uses[hal->deviceId()].retiring = true;
        return Unregistering::kErased;
    }

    static std::unordered_map<std::string, DeviceUse> uses
        MARLO_GUARDED_BY(V4l2Stream::active_cameras_mutex_);
};

std::unordered_map<std::string, DeviceUse> detail::DeviceUses::uses;

namespace {

/*
 * Drops the last reference to a camera that left the registry, so that it
 * is destroyed (and its device closed) on this thread. A short call on
 * another thread may still hold it (a replaced client's stream stopping, a
 * tool looking at the registry): that is waited for, a bounded time. False
 * when it was still held after that; it then goes with the other holder.
 */
bool ReleaseLastReference(std::shared_ptr<HalCamera>& hal) {
    constexpr auto kStep = std::chrono::milliseconds(1);
    constexpr int kSteps = 2000;
    int steps = 0;
    while (hal.use_count() > 1 && steps++ < kSteps)
        std::this_thread::sleep_for(kStep);
    bool last = hal.use_count() == 1;
    hal.reset();
    return last;
}

/* Writes \a count 32-bit words at the start of the record and nothing else. */
void WriteWords(marlo_param_value_t* value, const void* words, size_t count) {
    memcpy(value, words, count * sizeof(uint32_t));
}

}  // namespace

std::unordered_map<std::string, std::shared_ptr<HalCamera>> V4l2Stream::active_cameras_ =
    MakeRegistry();
Mutex V4l2Stream::active_cameras_mutex_;

bool V4l2Stream::RetireCamera(std::shared_ptr<HalCamera>& hal) {
    std::string deviceId = hal->deviceId();
    bool last = ReleaseLastReference(hal);
    /* Opens of the device waited for this. */
    MutexLocker lock(active_cameras_mutex_);
    detail::DeviceUses::uses.erase(deviceId);
    g_device_retired.notify_all();
    return last;
}

#define STRM_LOG(severity, fmt, ...)                                                       \
    marlo_log(severity, kTag, "V4LSTRM(%s-%d) %s:%d " fmt, device_id_.c_str(), client_id_, \
              __func__, __LINE__, ##__VA_ARGS__)

V4l2Stream::V4l2Stream() = default;

V4l2Stream::~V4l2Stream() {
    if (virtual_camera_) {
        /* The capture wrapper points at this stream; it must be gone before the stream is. */
        STRM_LOG(MARLO_LOG_WARN, "destroyed while open, closing");
        CloseCamera();
    }
    if (events_)
        events_->close();
}

int V4l2Stream::OpenCamera(int clientId, std::string deviceId, int width, int height, int format) {
    if (virtual_camera_) {
        /*
         * Replacing the camera without closing it would leave the old one
         * counted as streaming with nobody to stop it.
         */
        STRM_LOG(MARLO_LOG_WARN, "opened again while open, closing the earlier camera first");
        CloseCamera();
    }

    width_ = width;
    height_ = height;
    format_ = format;
    device_id_ = deviceId;
    client_id_ = clientId;

    std::shared_ptr<HalCamera> hal;
    {
        MutexLocker lock(active_cameras_mutex_);
        if (detail::DeviceUses::Retiring(deviceId)) {
            if (detail::DeviceUses::uses[deviceId].retiringFrom == std::this_thread::get_id()) {
                /* Its camera goes only once this very frame callback has returned. */
                STRM_LOG(MARLO_LOG_ERROR,
                         "%s was closed in this frame callback: open it after the callback",
                         deviceId.c_str());
                return kFailed;
            }
            /* A second camera would find the device still held by the first. */
            STRM_LOG(MARLO_LOG_INFO, "waiting for the closing camera of %s", deviceId.c_str());
            g_device_retired.wait(lock, [&deviceId]() MARLO_REQUIRES(active_cameras_mutex_) {
                return !detail::DeviceUses::Retiring(deviceId);
            });
        }
        auto it = active_cameras_.find(deviceId);
        if (it != active_cameras_.end()) {
            hal = it->second;
            STRM_LOG(MARLO_LOG_INFO, "find deviceId %s in list", deviceId.c_str());
        } else {
            hal = std::make_shared<HalCamera>(deviceId);
            STRM_LOG(MARLO_LOG_INFO, "do not find deviceId %s in list, new halCamera",
                     deviceId.c_str());
        }
        if (!hal) {
            STRM_LOG(MARLO_LOG_ERROR, "hw camera not found or not available");
            return kFailed;
        }
        active_cameras_[deviceId] = hal;
        DeviceUse& use = detail::DeviceUses::uses[deviceId];
        ++use.attaching;
        ++use.opens;
    }

    std::shared_ptr<VirtualCamera> virtualCamera =
        detail::CameraHooks::Current().makeVirtualCamera(*hal, clientId);
    {
        /* Attaching kept the camera registered, so its record is still there. */
        MutexLocker lock(active_cameras_mutex_);
        --detail::DeviceUses::uses[deviceId].attaching;
    }
    if (!virtualCamera) {
        STRM_LOG(MARLO_LOG_ERROR, "hw camera not found or not available");
        return kFailed;
    }
    virtual_camera_ = std::move(virtualCamera);
    virtual_camera_->setEventListener(events_);
    STRM_LOG(MARLO_LOG_INFO, "succeed");
    return 0;
}

void V4l2Stream::CloseCamera() {
    if (!virtual_camera_) {
        STRM_LOG(MARLO_LOG_ERROR, "close with null vcam");
        return;
    }

    std::vector<std::shared_ptr<HalCamera>> retired;
    {
        std::vector<std::shared_ptr<HalCamera>> cameras = virtual_camera_->getHalCameras();
        for (const std::shared_ptr<HalCamera>& hal : cameras) {
            hal->DisownVirtualCamera(virtual_camera_);
            ClientStopStream();
            std::optional<uint64_t> settled;
            {
                MutexLocker lock(active_cameras_mutex_);
                settled = detail::DeviceUses::SettledOpens(hal->deviceId());
            }
            if (hal->clientCount() != 0)
                continue;
            Unregistering result;
            {
                MutexLocker lock(active_cameras_mutex_);
                /* The list still holds the camera, so erasing destroys nothing under the lock. */
                result = detail::DeviceUses::Unregister(hal, settled);
            }
            if (result == Unregistering::kKept) {
                STRM_LOG(MARLO_LOG_INFO, "another client is opening %s, camera kept",
                         hal->deviceId().c_str());
                continue;
            }
            if (result == Unregistering::kErased)
                retired.push_back(hal);
            detail::CameraHooks::Current().clientStreamclosing(*hal);
            STRM_LOG(MARLO_LOG_INFO, "stream state %d", static_cast<int>(state_.load()));
        }
    }
    for (std::shared_ptr<HalCamera>& hal : retired) {
        if (hal->onIoThread()) {
            /*
             * Closed from the camera's own frame callback: the camera cannot
             * go while its IO thread runs that callback. It goes on the event
             * thread, once the callback has returned.
             */
            {
                MutexLocker lock(active_cameras_mutex_);
                detail::DeviceUses::uses[hal->deviceId()].retiringFrom = std::this_thread::get_id();
            }
            detail::EventDispatcher::Instance().runLater(
                [hal = std::move(hal)]() mutable { RetireCamera(hal); });
            continue;
        }
        std::string deviceId = hal->deviceId();
        if (!RetireCamera(hal))
            STRM_LOG(MARLO_LOG_WARN, "camera of %s still held elsewhere, destroyed there",
                     deviceId.c_str());
    }

    uint32_t state = state_.load();
    if (state != 0) {
        /*
         * Only a camera in the list stops the stream; one that went away first
         * (another stream took this client id) would leave the state stuck
         * and refuse every later start of this stream.
         */
        STRM_LOG(MARLO_LOG_WARN, "stream state %d with no camera left to stop it, now 0",
                 static_cast<int>(state));
        state_ = 0;
    }

    virtual_camera_.reset();
    std::shared_ptr<FrameCallback> callback;
    {
        MutexLocker lock(callback_mutex_);
        std::swap(callback, frame_callback_);
    }
    client_id_ = -1;
}

int V4l2Stream::ClientStartStream(
    std::function<void(std::vector<std::shared_ptr<FrameBuffer>>)> callback) {
    if (!virtual_camera_) {
        STRM_LOG(MARLO_LOG_ERROR, "start with null vcam");
        return kFailed;
    }

    /* Stored before the state check: a refused start still replaces the callback. */
    std::shared_ptr<FrameCallback> stored = std::make_shared<FrameCallback>(std::move(callback));
    {
        MutexLocker lock(callback_mutex_);
        std::swap(frame_callback_, stored);
    }

    uint32_t state = state_.load();
    if (state != 0) {
        STRM_LOG(MARLO_LOG_ERROR, "stream state %d wrong", static_cast<int>(state));
        return kFailed;
    }

    if (!detail::CameraHooks::Current().openVideoStream(*virtual_camera_, width_, height_,
                                                        format_)) {
        STRM_LOG(MARLO_LOG_ERROR, "failed to open vcam");
        return kFailed;
    }

    state_ = 1;
    STRM_LOG(MARLO_LOG_INFO, "stream state %d", static_cast<int>(state_.load()));

    V4l2Stream* self = this;
    auto wrapper = [self](std::vector<std::shared_ptr<FrameBuffer>> frames) {
        self->ClientDeliverFrame(frames);
    };
    if (virtual_camera_->startVideoStream(wrapper) != 0) {
        /* The state stays 1: a later ClientStopStream undoes the half-made start. */
        STRM_LOG(MARLO_LOG_ERROR, "startVideoStream failed");
        return kFailed;
    }
    STRM_LOG(MARLO_LOG_INFO, "open a vcam succeed");
    return 0;
}

void V4l2Stream::ClientStopStream() {
    if (!virtual_camera_) {
        STRM_LOG(MARLO_LOG_ERROR, "failed stopping null vcam");
        return;
    }
    STRM_LOG(MARLO_LOG_INFO, "stream state %d", static_cast<int>(state_.load()));
    if (state_.load() != 1)
        return;
    virtual_camera_->stopVideoStream();
    state_ = 0;
    STRM_LOG(MARLO_LOG_INFO, "stream state %d", static_cast<int>(state_.load()));
}

void V4l2Stream::ClientDeliverFrame(std::vector<std::shared_ptr<FrameBuffer>> frames) {
    /*
     * The stored callback itself is invoked, so a client's stateful callable
     * keeps its state from frame to frame. No lock is held while it runs: a
     * start replacing it meanwhile leaves this call to the old one, which
     * lives until the call returns.
     */
    std::shared_ptr<FrameCallback> callback;
    {
        MutexLocker lock(callback_mutex_);
        callback = frame_callback_;
    }
    /* Without a callback the set is neither delivered nor given back. */
    if (!callback || !*callback)
        return;
    std::vector<std::shared_ptr<FrameBuffer>> copy = frames;
    (*callback)(copy);
}

int V4l2Stream::ClientReturnFrame(std::vector<std::shared_ptr<FrameBuffer>> frames) {
    if (!virtual_camera_) {
        STRM_LOG(MARLO_LOG_ERROR, "failed with null vcam");
        return kFailed;
    }
    std::vector<std::shared_ptr<FrameBuffer>> copy = frames;
    virtual_camera_->doneWithFrame(copy);
    return 0;
}

int V4l2Stream::ClientSetBufferInfo(std::vector<std::shared_ptr<FrameBuffer>>& buffers) {
    if (!virtual_camera_) {
        STRM_LOG(MARLO_LOG_ERROR, "failed with null vcam");
        return kFailed;
    }
    return virtual_camera_->setFrameInfo(buffers);
}

int V4l2Stream::ClientSetEventListener(StreamEventListener listener) {
    std::shared_ptr<detail::EventListenerSlot> slot;
    if (listener)
        slot = std::make_shared<detail::EventListenerSlot>(std::move(listener));
    if (virtual_camera_)
        virtual_camera_->setEventListener(slot);
    std::swap(events_, slot);
    /* The old listener: no call of it runs once this returns. */
    if (slot)
        slot->close();
    return 0;
}

int V4l2Stream::ClientSetFrameRate(float fps) {
    if (!virtual_camera_) {
        STRM_LOG(MARLO_LOG_ERROR, "failed with null vcam");
        return kFailed;
    }
    if (!(fps > 0)) {
        STRM_LOG(MARLO_LOG_ERROR, "frame rate %f refused", static_cast<double>(fps));
        return ERR_INVALID_ARGUMENT;
    }
    for (const std::shared_ptr<HalCamera>& hal : virtual_camera_->getHalCameras())
        hal->setFrameRate(fps);
    return 0;
}

int V4l2Stream::ClientPauseStream() {
    STRM_LOG(MARLO_LOG_ERROR, "not implemented");
    return 0;
}

int V4l2Stream::ClientResumeStream() {
    STRM_LOG(MARLO_LOG_ERROR, "not implemented");
    return 0;
}

int V4l2Stream::ClientSetParams(marlo_param_t /*id*/, marlo_param_value_t* /*value*/) {
    STRM_LOG(MARLO_LOG_ERROR, "not implemented");
    return 0;
}

int V4l2Stream::ClientGetParams(marlo_param_t id, marlo_param_value_t* value) {
    switch (id) {
        case MARLO_PARAM_COLOR_FORMAT:
        case MARLO_PARAM_RESOLUTION:
        case MARLO_PARAM_LOCATION:
        case MARLO_PARAM_LENS_FACING:
            break;
        default:
            STRM_LOG(MARLO_LOG_ERROR, "invaild param");
            return kFailed;
    }
    if (!value) {
        /* Nowhere to write the answer. */
        STRM_LOG(MARLO_LOG_ERROR, "param %d with null value", static_cast<int>(id));
        return kFailed;
    }

    if (id == MARLO_PARAM_COLOR_FORMAT) {
        auto it = kColorFormats.find(static_cast<FourccFormat>(static_cast<uint32_t>(format_)));
        uint32_t color = it != kColorFormats.end() ? it->second : MARLO_COLOR_FMT_UYVY;
        WriteWords(value, &color, 1);
        return 0;
    }
    if (id == MARLO_PARAM_RESOLUTION) {
        marlo_resolution_t resolution = {width_, height_, kFrameRate};
        WriteWords(value, &resolution, 3);
        return 0;
    }

    GlobalCameraConfig::BoardConfig config = GlobalCameraConfig::Creat();
    GlobalCameraConfig::InputSrc src;
    const GlobalCameraConfig::CameraParam* param = FindCameraParam(config, client_id_, &src);
    if (!param) {
        STRM_LOG(MARLO_LOG_ERROR, "no camera for client %d in the configuration (%d, %d)",
                 client_id_, src.cameraId, src.channelId);
        return kFailed;
    }
    int32_t answer =
        id == MARLO_PARAM_LOCATION ? LocationOf(param->location) : LensFacingOf(param->lensFacing);
    WriteWords(value, &answer, 1);
    return 0;
}

namespace detail {

size_t StreamRegistryAccess::Size() {
    MutexLocker lock(V4l2Stream::active_cameras_mutex_);
    return V4l2Stream::active_cameras_.size();
}

std::shared_ptr<HalCamera> StreamRegistryAccess::Find(const std::string& deviceId) {
    MutexLocker lock(V4l2Stream::active_cameras_mutex_);
    auto it = V4l2Stream::active_cameras_.find(deviceId);
    return it == V4l2Stream::active_cameras_.end() ? nullptr : it->second;
}

float StreamRegistryAccess::MaxLoadFactor() {
    MutexLocker lock(V4l2Stream::active_cameras_mutex_);
    return V4l2Stream::active_cameras_.max_load_factor();
}

}  // namespace detail

}  // namespace tessaro::marlo
