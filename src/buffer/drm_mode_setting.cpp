/* DrmDevice's mode-setting wrappers, the record deleters and property blobs. */
#include <marlo/buffer/drm_device.h>

#include <string.h>

#include <xf86drm.h>
#include <xf86drmMode.h>

#include <marlo/base/logger.h>

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_drm";

/*
 * Reads the properties of \a connector in order and hands each (null when
 * it cannot be read) with its index to \a visit until \a visit takes one.
 * Returns the index taken, or -1; no connector or no name is refused for
 * \a operation.
 */
template <typename Visit>
int FindConnectorProperty(int fd, const drmModeConnector* connector, const char* name,
                          const char* operation, Visit visit) {
    if (!connector || !name) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: no connector or no property name", operation);
        return -1;
    }
    for (int i = 0; i < connector->count_props; ++i) {
        DrmPropertyPtr property(drmModeGetProperty(fd, connector->props[i]));
        if (visit(property, i))
            return i;
    }
    return -1;
}

}  // namespace

void DrmResourcesDeleter::operator()(drmModeRes* resources) const {
    drmModeFreeResources(resources);
}

void DrmConnectorDeleter::operator()(drmModeConnector* connector) const {
    drmModeFreeConnector(connector);
}

void DrmCrtcDeleter::operator()(drmModeCrtc* crtc) const {
    drmModeFreeCrtc(crtc);
}

void DrmEncoderDeleter::operator()(drmModeEncoder* encoder) const {
    drmModeFreeEncoder(encoder);
}

void DrmObjectPropertiesDeleter::operator()(drmModeObjectProperties* properties) const {
    drmModeFreeObjectProperties(properties);
}

void DrmPlaneDeleter::operator()(drmModePlane* plane) const {
    drmModeFreePlane(plane);
}

void DrmPlaneResDeleter::operator()(drmModePlaneRes* resources) const {
    drmModeFreePlaneResources(resources);
}

void DrmPropertyDeleter::operator()(drmModePropertyRes* property) const {
    drmModeFreeProperty(property);
}

void DrmAtomicReqDeleter::operator()(drmModeAtomicReq* request) const {
    drmModeAtomicFree(request);
}

void DrmPropertyBlobDeleter::operator()(drmModePropertyBlobRes* blob) const {
    drmModeFreePropertyBlob(blob);
}

void DrmFramebufferDeleter::operator()(drmModeFB* framebuffer) const {
    drmModeFreeFB(framebuffer);
}

void DrmVersionDeleter::operator()(drmVersion* version) const {
    drmFreeVersion(version);
}

DrmPropertyBlobMetadata::~DrmPropertyBlobMetadata() {
    if (device_)
        device_->DestroyPropertyBlob(id_);
}

DrmResourcesPtr DrmDevice::GetResources() {
    return DrmResourcesPtr(drmModeGetResources(fd_.get()));
}

DrmConnectorPtr DrmDevice::GetConnector(uint32_t id) {
    return DrmConnectorPtr(drmModeGetConnector(fd_.get(), id));
}

DrmEncoderPtr DrmDevice::GetEncoder(uint32_t id) {
    return DrmEncoderPtr(drmModeGetEncoder(fd_.get(), id));
}

DrmCrtcPtr DrmDevice::GetCrtc(uint32_t id) {
    return DrmCrtcPtr(drmModeGetCrtc(fd_.get(), id));
}

bool DrmDevice::SetCrtc(uint32_t crtc, uint32_t fb, std::vector<unsigned> connectors,
                        const drmModeModeInfo& mode) {
    /* libdrm only reads the mode; its prototype predates const. */
    return drmModeSetCrtc(fd_.get(), crtc, fb, 0, 0, connectors.data(),
                          static_cast<int>(connectors.size()),
                          const_cast<drmModeModeInfo*>(&mode)) == 0;
}

bool DrmDevice::DisableCrtc(uint32_t crtc) {
    return drmModeSetCrtc(fd_.get(), crtc, 0, 0, 0, nullptr, 0, nullptr) == 0;
}

bool DrmDevice::GetCapability(uint64_t cap, uint64_t* value) {
    return drmGetCap(fd_.get(), cap, value) == 0;
}

bool DrmDevice::SetCapability(uint64_t cap, uint64_t value) {
    drm_set_client_cap request = {};
    request.capability = cap;
    request.value = value;
    return drmIoctl(fd_.get(), DRM_IOCTL_SET_CLIENT_CAP, &request) == 0;
}

bool DrmDevice::SetMaster() {
    return drmSetMaster(fd_.get()) == 0;
}

bool DrmDevice::DropMaster() {
    return drmDropMaster(fd_.get()) == 0;
}

DrmFramebufferPtr DrmDevice::GetFramebuffer(uint32_t id) {
    return DrmFramebufferPtr(drmModeGetFB(fd_.get(), id));
}

bool DrmDevice::RemoveFramebuffer(uint32_t id) {
    return drmModeRmFB(fd_.get(), id) == 0;
}

bool DrmDevice::AddFramebuffer(uint32_t width, uint32_t height, uint8_t depth, uint8_t bpp,
                               uint32_t pitch, uint32_t handle, unsigned* id) {
    return drmModeAddFB(fd_.get(), width, height, depth, bpp, pitch, handle, id) == 0;
}

bool DrmDevice::AddFramebuffer2(uint32_t width, uint32_t height, uint32_t format,
                                const uint32_t handles[4], const uint32_t pitches[4],
                                const uint32_t offsets[4], unsigned* id, uint32_t flags) {
    return drmModeAddFB2(fd_.get(), width, height, format, handles, pitches, offsets, id, flags) ==
           0;
}

bool DrmDevice::AddFramebuffer2WithModifiers(uint32_t width, uint32_t height, uint32_t format,
                                             const uint32_t handles[4], const uint32_t pitches[4],
                                             const uint32_t offsets[4], const uint64_t modifiers[4],
                                             unsigned* id, uint32_t flags) {
    return drmModeAddFB2WithModifiers(fd_.get(), width, height, format, handles, pitches, offsets,
                                      modifiers, id, flags) == 0;
}

DrmPlaneResPtr DrmDevice::GetPlaneResources() {
    return DrmPlaneResPtr(drmModeGetPlaneResources(fd_.get()));
}

DrmPlanePtr DrmDevice::GetPlane(uint32_t id) {
    return DrmPlanePtr(drmModeGetPlane(fd_.get(), id));
}

bool DrmDevice::SetPlane(uint32_t plane, uint32_t crtc, uint32_t fb, uint32_t flags, int32_t crtcX,
                         int32_t crtcY, uint32_t crtcW, uint32_t crtcH, uint32_t srcX,
                         uint32_t srcY, uint32_t srcW, uint32_t srcH) {
    return drmModeSetPlane(fd_.get(), plane, crtc, fb, flags, crtcX, crtcY, crtcW, crtcH, srcX,
                           srcY, srcW, srcH) == 0;
}

DrmObjectPropertiesPtr DrmDevice::GetObjectProperties(uint32_t id, uint32_t type) {
    return DrmObjectPropertiesPtr(drmModeObjectGetProperties(fd_.get(), id, type));
}

bool DrmDevice::SetObjectProperty(uint32_t object, uint32_t type, uint32_t property,
                                  uint64_t value) {
    return drmModeObjectSetProperty(fd_.get(), object, type, property, value) == 0;
}

DrmPropertyPtr DrmDevice::GetProperty(uint32_t id) {
    return DrmPropertyPtr(drmModeGetProperty(fd_.get(), id));
}

DrmPropertyPtr DrmDevice::GetProperty(drmModeConnector* connector, const char* name) {
    DrmPropertyPtr found;
    FindConnectorProperty(
        fd_.get(), connector, name, __func__, [&](DrmPropertyPtr& property, int i) {
            if (!property) {
                marlo_log(MARLO_LOG_INFO, kTag, "drm prop id : %d failed", connector->props[i]);
                return false;
            }
            marlo_log(MARLO_LOG_INFO, kTag, "drm prop name : %s", property->name);
            if (strcmp(property->name, name) != 0)
                return false;
            found = std::move(property);
            return true;
        });
    return found;
}

bool DrmDevice::SetProperty(uint32_t connector, uint32_t property, uint64_t value) {
    return drmModeConnectorSetProperty(fd_.get(), connector, property, value) == 0;
}

std::unique_ptr<DrmPropertyBlobMetadata> DrmDevice::CreatePropertyBlob(const void* data,
                                                                       size_t length) {
    uint32_t id = 0;
    if (drmModeCreatePropertyBlob(fd_.get(), data, length, &id) != 0 || id == 0)
        return nullptr;
    return std::make_unique<DrmPropertyBlobMetadata>(this, id);
}

std::unique_ptr<DrmPropertyBlobMetadata> DrmDevice::CreatePropertyBlobWithFlags(
    const void* /*data*/, size_t /*length*/, unsigned /*flags*/) {
    /* Blob creation flags are not offered by this library. */
    return nullptr;
}

int DrmDevice::DestroyPropertyBlob(uint32_t id) {
    return drmModeDestroyPropertyBlob(fd_.get(), id);
}

DrmPropertyBlobPtr DrmDevice::GetPropertyBlob(uint32_t id) {
    return DrmPropertyBlobPtr(drmModeGetPropertyBlob(fd_.get(), id));
}

DrmPropertyBlobPtr DrmDevice::GetPropertyBlob(drmModeConnector* connector, const char* name) {
    const int index = FindConnectorProperty(
        fd_.get(), connector, name, __func__, [name](const DrmPropertyPtr& property, int) {
            return property && strcmp(property->name, name) == 0 &&
                   (property->flags & DRM_MODE_PROP_BLOB);
        });
    /* The property itself is freed before its blob is read. */
    if (index < 0)
        return nullptr;
    return GetPropertyBlob(static_cast<uint32_t>(connector->prop_values[index]));
}

DrmAtomicReqPtr DrmDevice::AtomicAlloc() {
    return DrmAtomicReqPtr(drmModeAtomicAlloc());
}

bool DrmDevice::AtomicCommit(drmModeAtomicReq* request, uint32_t flags) {
    return drmModeAtomicCommit(fd_.get(), request, flags, nullptr) == 0;
}

}  // namespace tessaro::marlo
