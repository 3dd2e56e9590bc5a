/*
 * DrmDevice: the display controller's DRM node, with dumb-buffer allocation,
 * PRIME export and import, and thin wrappers over the libdrm mode-setting
 * calls. Every libdrm record handed out has exactly one owner that frees it
 * with the matching libdrm call.
 *
 * libdrm's record types are only declared here, exactly as libdrm declares
 * them, so that clients can use this header without the libdrm headers; a
 * client that includes <xf86drmMode.h> as well sees the same types.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <memory>
#include <vector>

#include <marlo/base/unique_fd.h>

typedef struct _drmModeRes drmModeRes;
typedef struct _drmModeModeInfo drmModeModeInfo;
typedef struct _drmModeFB drmModeFB;
typedef struct _drmModePropertyBlob drmModePropertyBlobRes;
typedef struct _drmModeProperty drmModePropertyRes;
typedef struct _drmModeCrtc drmModeCrtc;
typedef struct _drmModeEncoder drmModeEncoder;
typedef struct _drmModeConnector drmModeConnector;
typedef struct _drmModeObjectProperties drmModeObjectProperties;
typedef struct _drmModePlane drmModePlane;
typedef struct _drmModePlaneRes drmModePlaneRes;
typedef struct _drmModeAtomicReq drmModeAtomicReq;
typedef struct _drmVersion drmVersion;

namespace tessaro::marlo {

/* One deleter per libdrm record type, each calling libdrm's own free call. */
struct DrmResourcesDeleter {
    void operator()(drmModeRes* resources) const;
};
struct DrmConnectorDeleter {
    void operator()(drmModeConnector* connector) const;
};
struct DrmCrtcDeleter {
    void operator()(drmModeCrtc* crtc) const;
};
struct DrmEncoderDeleter {
    void operator()(drmModeEncoder* encoder) const;
};
struct DrmObjectPropertiesDeleter {
    void operator()(drmModeObjectProperties* properties) const;
};
struct DrmPlaneDeleter {
    void operator()(drmModePlane* plane) const;
};
struct DrmPlaneResDeleter {
    void operator()(drmModePlaneRes* resources) const;
};
struct DrmPropertyDeleter {
    void operator()(drmModePropertyRes* property) const;
};
struct DrmAtomicReqDeleter {
    void operator()(drmModeAtomicReq* request) const;
};
struct DrmPropertyBlobDeleter {
    void operator()(drmModePropertyBlobRes* blob) const;
};
struct DrmFramebufferDeleter {
    void operator()(drmModeFB* framebuffer) const;
};
struct DrmVersionDeleter {
    void operator()(drmVersion* version) const;
};

using DrmResourcesPtr = std::unique_ptr<drmModeRes, DrmResourcesDeleter>;
using DrmConnectorPtr = std::unique_ptr<drmModeConnector, DrmConnectorDeleter>;
using DrmCrtcPtr = std::unique_ptr<drmModeCrtc, DrmCrtcDeleter>;
using DrmEncoderPtr = std::unique_ptr<drmModeEncoder, DrmEncoderDeleter>;
using DrmObjectPropertiesPtr = std::unique_ptr<drmModeObjectProperties, DrmObjectPropertiesDeleter>;
using DrmPlanePtr = std::unique_ptr<drmModePlane, DrmPlaneDeleter>;
using DrmPlaneResPtr = std::unique_ptr<drmModePlaneRes, DrmPlaneResDeleter>;
using DrmPropertyPtr = std::unique_ptr<drmModePropertyRes, DrmPropertyDeleter>;
using DrmAtomicReqPtr = std::unique_ptr<drmModeAtomicReq, DrmAtomicReqDeleter>;
using DrmPropertyBlobPtr = std::unique_ptr<drmModePropertyBlobRes, DrmPropertyBlobDeleter>;
using DrmFramebufferPtr = std::unique_ptr<drmModeFB, DrmFramebufferDeleter>;
using DrmVersionPtr = std::unique_ptr<drmVersion, DrmVersionDeleter>;

/*
 * A dumb buffer made by DrmDevice::CreateDumbObject(). Fields the kernel did
 * not fill stay zero. The PRIME descriptor \a fd belongs to the caller, who
 * closes it; 0 means none was exported.
 */
struct DrmDumbObject {
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t handle = 0;
    uint32_t pitch = 0;
    uint64_t size = 0;
    int32_t fd = 0;
    void* address = nullptr;
};

class DrmDevice;

/*
 * A property blob created on a device; destroying the record destroys the
 * blob, so the record must not outlive its device.
 */
class DrmPropertyBlobMetadata {
  public:
    DrmPropertyBlobMetadata(DrmDevice* device, uint32_t id) : device_(device), id_(id) {}
    ~DrmPropertyBlobMetadata();

    DrmPropertyBlobMetadata(const DrmPropertyBlobMetadata&) = delete;
    DrmPropertyBlobMetadata& operator=(const DrmPropertyBlobMetadata&) = delete;

    DrmDevice* device() const { return device_; }
    uint32_t id() const { return id_; }

  private:
    DrmDevice* device_;
    uint32_t id_;
};

class DrmDevice {
  public:
    /* Opens the node through Open(); the device stays closed (-1) if that fails. */
    DrmDevice();
    /*
     * Adopts a DRM node the caller opened (another card, a render node);
     * the checks of Open() are not repeated.
     */
    explicit DrmDevice(UniqueFd fd);
    ~DrmDevice();

    DrmDevice(const DrmDevice&) = delete;
    DrmDevice& operator=(const DrmDevice&) = delete;

    /*
     * Opens /dev/dri/card0 and checks that it reports a version, supports
     * dumb buffers and accepts the universal-planes and atomic client caps.
     * Returns the descriptor, now the caller's, or -1.
     */
    static int Open();
    /*
     * Closes the node. The same number is then closed a second time; that
     * call normally fails with EBADF and is ignored.
     */
    void Close();
    /* Whether libdrm finds a DRM device on this machine. */
    bool Available();

    /* The node's descriptor, -1 when closed; the device keeps owning it. */
    int fd() const { return fd_.get(); }

    /*
     * Allocates a dumb buffer of \a width x \a height samples of \a bpp bits
     * and exports it as a PRIME descriptor. Two-plane 4:2:0 formats (NV12,
     * NV21) ask the kernel for 3/2 of the height, 4:2:2 and packed YUV
     * formats (NV16, NV61, YUYV, YVYU, UYVY, VYUY) for twice the height, so
     * that the extra rows hold the chroma or the second byte of each pixel.
     */
    DrmDumbObject CreateDumbObject(unsigned width, unsigned height, unsigned fourcc, unsigned bpp);
    /* 0, or ERR_FAILED. Handle 0 is nothing to destroy and succeeds. */
    int DestroyDumbObject(unsigned handle);
    /* Maps the buffer for the CPU; returns and stores the address, or null. */
    void* MapDumbObject(DrmDumbObject& object);
    /* Unmaps the buffer and clears the address; returns munmap's result. */
    int UnMapDumbObject(DrmDumbObject& object);
    /* Closes a GEM handle (for instance one from BufferFdToHandle()). */
    bool CloseBufferHandle(unsigned handle);
    /* Imports a PRIME descriptor; returns its GEM handle or 0xFFFFFFFF. */
    unsigned BufferFdToHandle(unsigned fd);

    DrmResourcesPtr GetResources();
    DrmConnectorPtr GetConnector(uint32_t id);
    DrmEncoderPtr GetEncoder(uint32_t id);
    DrmCrtcPtr GetCrtc(uint32_t id);
    bool SetCrtc(uint32_t crtc, uint32_t fb, std::vector<unsigned> connectors,
                 const drmModeModeInfo& mode);
    bool DisableCrtc(uint32_t crtc);

    bool GetCapability(uint64_t cap, uint64_t* value);
    bool SetCapability(uint64_t cap, uint64_t value);
    bool SetMaster();
    bool DropMaster();

    DrmFramebufferPtr GetFramebuffer(uint32_t id);
    bool RemoveFramebuffer(uint32_t id);
    bool AddFramebuffer(uint32_t width, uint32_t height, uint8_t depth, uint8_t bpp, uint32_t pitch,
                        uint32_t handle, unsigned* id);
    bool AddFramebuffer2(uint32_t width, uint32_t height, uint32_t format,
                         const uint32_t handles[4], const uint32_t pitches[4],
                         const uint32_t offsets[4], unsigned* id, uint32_t flags);
    bool AddFramebuffer2WithModifiers(uint32_t width, uint32_t height, uint32_t format,
                                      const uint32_t handles[4], const uint32_t pitches[4],
                                      const uint32_t offsets[4], const uint64_t modifiers[4],
                                      unsigned* id, uint32_t flags);

    DrmPlaneResPtr GetPlaneResources();
    DrmPlanePtr GetPlane(uint32_t id);
    bool SetPlane(uint32_t plane, uint32_t crtc, uint32_t fb, uint32_t flags, int32_t crtcX,
                  int32_t crtcY, uint32_t crtcW, uint32_t crtcH, uint32_t srcX, uint32_t srcY,
                  uint32_t srcW, uint32_t srcH);

    DrmObjectPropertiesPtr GetObjectProperties(uint32_t id, uint32_t type);
    bool SetObjectProperty(uint32_t object, uint32_t type, uint32_t property, uint64_t value);
    DrmPropertyPtr GetProperty(uint32_t id);
    /* The first of the connector's properties named \a name, or null. */
    DrmPropertyPtr GetProperty(drmModeConnector* connector, const char* name);
    bool SetProperty(uint32_t connector, uint32_t property, uint64_t value);

    /* Null when creation fails or the kernel hands out blob id 0. */
    std::unique_ptr<DrmPropertyBlobMetadata> CreatePropertyBlob(const void* data, size_t length);
    /* Not supported by this library: always null. */
    std::unique_ptr<DrmPropertyBlobMetadata> CreatePropertyBlobWithFlags(const void* data,
                                                                         size_t length,
                                                                         unsigned flags);
    int DestroyPropertyBlob(uint32_t id);
    DrmPropertyBlobPtr GetPropertyBlob(uint32_t id);
    /* The blob held by the connector's blob property named \a name, or null. */
    DrmPropertyBlobPtr GetPropertyBlob(drmModeConnector* connector, const char* name);

    DrmAtomicReqPtr AtomicAlloc();
    bool AtomicCommit(drmModeAtomicReq* request, uint32_t flags);

  private:
    UniqueFd fd_;
};

}  // namespace tessaro::marlo
