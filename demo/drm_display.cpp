#include "drm_display.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <drm_fourcc.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <sstream>

#include <marlo/buffer/pixel_format.h>

namespace marlo_demo {

namespace {

using namespace tessaro::marlo;

/* Where drmHandleEvent's flip handler reports to: the commits carry no user data. */
thread_local int* flipTarget = nullptr;

void OnFlip(int, unsigned, unsigned, unsigned, unsigned, void*) {
    if (flipTarget != nullptr)
        *flipTarget = 1;
}

std::string SystemError(const std::string& what) {
    return what + ": " + strerror(errno);
}

}  // namespace

std::unique_ptr<DrmDisplay> DrmDisplay::Open(const std::string& card, uint32_t width,
                                             uint32_t height, std::string* error) {
    std::unique_ptr<DrmDisplay> display(new DrmDisplay());
    std::string path = card.empty() ? "/dev/dri/card0" : card;
    if (card.empty()) {
        display->device_ = std::make_unique<DrmDevice>();
    } else {
        UniqueFd fd(open(card.c_str(), O_RDWR | O_CLOEXEC));
        if (!fd.isValid()) {
            *error = SystemError("cannot open " + card);
            return nullptr;
        }
        display->device_ = std::make_unique<DrmDevice>(std::move(fd));
        /* The library's own open sets these; a card opened here needs them too. */
        display->device_->SetCapability(DRM_CLIENT_CAP_UNIVERSAL_PLANES, 1);
        if (!display->device_->SetCapability(DRM_CLIENT_CAP_ATOMIC, 1)) {
            *error = SystemError(card + " refuses atomic mode setting");
            return nullptr;
        }
    }
    if (display->device_->fd() < 0) {
        *error = path + " is no display with dumb buffers and atomic mode setting";
        return nullptr;
    }
    if (!display->FindPipeline(width, height, error))
        return nullptr;
    drmVersionPtr version = drmGetVersion(display->device_->fd());
    std::ostringstream text;
    auto* mode = reinterpret_cast<const drmModeModeInfo*>(display->mode_.data());
    text << display->width_ << "x" << display->height_ << "@" << mode->vrefresh << " on " << path
         << " (" << (version && version->name ? version->name : "?") << ")";
    drmFreeVersion(version);
    display->description_ = text.str();
    return display;
}

DrmDisplay::~DrmDisplay() {
    if (!device_ || device_->fd() < 0)
        return;
    if (pending_ >= 0)
        WaitForFlip(1000);
    if (modeSet_)
        TurnOff();
    frameBuffers_.clear();
    for (uint32_t id : framebuffers_)
        device_->RemoveFramebuffer(id);
    for (DrmDumbObject& object : objects_)
        device_->DestroyDumbObject(object.handle);
    modeBlob_.reset();
}

bool DrmDisplay::FindPipeline(uint32_t width, uint32_t height, std::string* error) {
    DrmResourcesPtr resources = device_->GetResources();
    if (!resources) {
        *error = SystemError("no mode-setting resources");
        return false;
    }
    for (int c = 0; c < resources->count_connectors && connector_ == 0; ++c) {
        DrmConnectorPtr connector = device_->GetConnector(resources->connectors[c]);
        if (!connector || connector->connection != DRM_MODE_CONNECTED ||
            connector->count_modes == 0)
            continue;
        const drmModeModeInfo* chosen = nullptr;
        for (int m = 0; m < connector->count_modes && chosen == nullptr; ++m) {
            const drmModeModeInfo& mode = connector->modes[m];
            bool wanted = width == 0 ? (mode.type & DRM_MODE_TYPE_PREFERRED) != 0
                                     : mode.hdisplay == width && mode.vdisplay == height;
            if (wanted)
                chosen = &mode;
        }
        if (chosen == nullptr && width == 0)
            chosen = &connector->modes[0];
        if (chosen == nullptr)
            continue;
        /* A CRTC one of the connector's encoders can drive. */
        for (int e = 0; e < connector->count_encoders && crtc_ == 0; ++e) {
            DrmEncoderPtr encoder = device_->GetEncoder(connector->encoders[e]);
            for (int k = 0; encoder && k < resources->count_crtcs; ++k) {
                if (encoder->possible_crtcs & (1u << k)) {
                    crtc_ = resources->crtcs[k];
                    break;
                }
            }
        }
        if (crtc_ == 0)
            continue;
        connector_ = connector->connector_id;
        width_ = chosen->hdisplay;
        height_ = chosen->vdisplay;
        const uint8_t* bytes = reinterpret_cast<const uint8_t*>(chosen);
        mode_.assign(bytes, bytes + sizeof(drmModeModeInfo));
    }
    if (connector_ == 0) {
        *error = width == 0 ? "no connected display" : "no connected display offers that mode";
        return false;
    }
    int crtcIndex = 0;
    while (resources->crtcs[crtcIndex] != crtc_)
        ++crtcIndex;
    DrmPlaneResPtr planes = device_->GetPlaneResources();
    for (uint32_t p = 0; planes && p < planes->count_planes && plane_ == 0; ++p) {
        DrmPlanePtr plane = device_->GetPlane(planes->planes[p]);
        if (!plane || !(plane->possible_crtcs & (1u << crtcIndex)))
            continue;
        DrmObjectPropertiesPtr properties =
            device_->GetObjectProperties(plane->plane_id, DRM_MODE_OBJECT_PLANE);
        for (uint32_t i = 0; properties && i < properties->count_props; ++i) {
            DrmPropertyPtr property = device_->GetProperty(properties->props[i]);
            if (property && strcmp(property->name, "type") == 0 &&
                properties->prop_values[i] == DRM_PLANE_TYPE_PRIMARY)
                plane_ = plane->plane_id;
        }
    }
    if (plane_ == 0) {
        *error = "the display's CRTC has no primary plane";
        return false;
    }
    return true;
}

uint32_t DrmDisplay::PropertyId(uint32_t object, uint32_t type, const char* name) {
    DrmObjectPropertiesPtr properties = device_->GetObjectProperties(object, type);
    for (uint32_t i = 0; properties && i < properties->count_props; ++i) {
        DrmPropertyPtr property = device_->GetProperty(properties->props[i]);
        if (property && strcmp(property->name, name) == 0)
            return property->prop_id;
    }
    return 0;
}

bool DrmDisplay::AddBuffers(int count, const FrameBufferRect& crop, std::string* error) {
    for (int i = 0; i < count; ++i) {
        DrmDumbObject object = device_->CreateDumbObject(width_, height_, FOURCC_AR24, 32);
        if (object.handle == 0 || object.fd <= 0) {
            *error = SystemError("cannot make a dumb scan-out buffer");
            return false;
        }
        objects_.push_back(object);
        uint32_t handles[4] = {object.handle};
        uint32_t pitches[4] = {object.pitch};
        uint32_t offsets[4] = {0};
        unsigned id = 0;
        /* The engine writes AR24 as bytes B,G,R,A: in DRM's terms XRGB8888, alpha unused. */
        if (!device_->AddFramebuffer2(width_, height_, DRM_FORMAT_XRGB8888, handles, pitches,
                                      offsets, &id, 0)) {
            *error = SystemError("cannot make a framebuffer");
            return false;
        }
        framebuffers_.push_back(id);
        FrameBufferInfo info;
        info.fourcc = FOURCC_AR24;
        info.width = width_;
        info.height = height_;
        info.stride = object.pitch / 4;
        info.size = static_cast<uint32_t>(object.size);
        info.sourceCrop = crop;
        /* The buffer takes the PRIME descriptor over. */
        auto buffer = std::make_shared<DmaFrameBuffer>(nullptr, info, object.fd);
        objects_.back().fd = 0;
        buffer->SetCookies(static_cast<unsigned long>(i));
        frameBuffers_.push_back(buffer);
    }
    return true;
}

bool DrmDisplay::Commit(int index, bool modeset, std::string* error) {
    DrmAtomicReqPtr request = device_->AtomicAlloc();
    if (!request) {
        *error = "out of memory";
        return false;
    }
    auto add = [&](uint32_t object, uint32_t type, const char* name, uint64_t value) {
        drmModeAtomicAddProperty(request.get(), object, PropertyId(object, type, name), value);
    };
    if (modeset) {
        modeBlob_ = device_->CreatePropertyBlob(mode_.data(), mode_.size());
        if (!modeBlob_) {
            *error = SystemError("cannot make the mode blob");
            return false;
        }
        add(crtc_, DRM_MODE_OBJECT_CRTC, "MODE_ID", modeBlob_->id());
        add(crtc_, DRM_MODE_OBJECT_CRTC, "ACTIVE", 1);
        add(connector_, DRM_MODE_OBJECT_CONNECTOR, "CRTC_ID", crtc_);
    }
    add(plane_, DRM_MODE_OBJECT_PLANE, "FB_ID", framebuffers_[index]);
    add(plane_, DRM_MODE_OBJECT_PLANE, "CRTC_ID", crtc_);
    add(plane_, DRM_MODE_OBJECT_PLANE, "SRC_X", 0);
    add(plane_, DRM_MODE_OBJECT_PLANE, "SRC_Y", 0);
    add(plane_, DRM_MODE_OBJECT_PLANE, "SRC_W", uint64_t{width_} << 16);
    add(plane_, DRM_MODE_OBJECT_PLANE, "SRC_H", uint64_t{height_} << 16);
    add(plane_, DRM_MODE_OBJECT_PLANE, "CRTC_X", 0);
    add(plane_, DRM_MODE_OBJECT_PLANE, "CRTC_Y", 0);
    add(plane_, DRM_MODE_OBJECT_PLANE, "CRTC_W", width_);
    add(plane_, DRM_MODE_OBJECT_PLANE, "CRTC_H", height_);
    uint32_t flags = DRM_MODE_PAGE_FLIP_EVENT |
                     (modeset ? DRM_MODE_ATOMIC_ALLOW_MODESET : DRM_MODE_ATOMIC_NONBLOCK);
    if (!device_->AtomicCommit(request.get(), flags)) {
        *error = SystemError(modeset ? "the mode set was refused (is another program the "
                                       "display's master?)"
                                     : "the page flip was refused");
        return false;
    }
    return true;
}

bool DrmDisplay::Present(int index, std::string* error) {
    if (pending_ >= 0) {
        *error = "a flip is still pending";
        return false;
    }
    if (!Commit(index, !modeSet_, error))
        return false;
    modeSet_ = true;
    pending_ = index;
    return true;
}

int DrmDisplay::WaitForFlip(int timeoutMs) {
    if (pending_ < 0)
        return onScreen_;
    int flipped = 0;
    drmEventContext events = {};
    events.version = 3;
    events.page_flip_handler2 = OnFlip;
    while (!flipped) {
        pollfd ready = {device_->fd(), POLLIN, 0};
        int polled = poll(&ready, 1, timeoutMs);
        if (polled < 0 && errno == EINTR)
            continue;
        if (polled <= 0)
            return -1;
        flipTarget = &flipped;
        int handled = drmHandleEvent(device_->fd(), &events);
        flipTarget = nullptr;
        if (handled != 0)
            return -1;
    }
    onScreen_ = pending_;
    pending_ = -1;
    return onScreen_;
}

void DrmDisplay::TurnOff() {
    DrmAtomicReqPtr request = device_->AtomicAlloc();
    if (!request)
        return;
    auto add = [&](uint32_t object, uint32_t type, const char* name, uint64_t value) {
        drmModeAtomicAddProperty(request.get(), object, PropertyId(object, type, name), value);
    };
    add(plane_, DRM_MODE_OBJECT_PLANE, "FB_ID", 0);
    add(plane_, DRM_MODE_OBJECT_PLANE, "CRTC_ID", 0);
    add(crtc_, DRM_MODE_OBJECT_CRTC, "ACTIVE", 0);
    add(crtc_, DRM_MODE_OBJECT_CRTC, "MODE_ID", 0);
    add(connector_, DRM_MODE_OBJECT_CONNECTOR, "CRTC_ID", 0);
    device_->AtomicCommit(request.get(), DRM_MODE_ATOMIC_ALLOW_MODESET);
    modeSet_ = false;
}

}  // namespace marlo_demo
