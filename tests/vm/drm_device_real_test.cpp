/*
 * DrmDevice on real drivers: vgem (dumb buffers, PRIME export and import,
 * no mode setting) and virtio-gpu (card0: resources, connectors, CRTCs,
 * planes, properties, blobs, and a dumb framebuffer shown through an atomic
 * commit, then removed).
 */
#include <android/log.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <drm_fourcc.h>
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include <marlo/base/unique_fd.h>
#include <marlo/buffer/drm_device.h>
#include <marlo/buffer/pixel_format.h>

#include "buffer/drm_node.h"
#include "support/drm_cards.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::FdLeakCheck;
using marlo_test::LogCapture;

namespace {

constexpr char kTag[] = "marlo_drm";

/* ---- vgem ---- */

class VgemTest : public testing::Test {
  protected:
    void SetUp() override {
        path_ = marlo_vm::DrmCardByDriver("vgem");
        ASSERT_FALSE(path_.empty()) << "no vgem card";
    }

    std::unique_ptr<DrmDevice> Open() {
        return std::make_unique<DrmDevice>(UniqueFd(open(path_.c_str(), O_RDWR | O_CLOEXEC)));
    }

    std::string path_;
};

/*
 * vgem makes dumb buffers but, having no mode setting, answers no
 * capability query: the open checks stop at the dumb-buffer capability.
 */
TEST_F(VgemTest, TheOpenChecksRefuseANodeWithoutModeSetting) {
    FdLeakCheck leaks;
    LogCapture log;
    EXPECT_EQ(detail::OpenDrmNode(path_.c_str()), -1);
    EXPECT_TRUE(log.containsText("Opened DRM device " + path_)) << log.dump();
    EXPECT_TRUE(log.containsText("driver vgem")) << log.dump();
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, "DRM device does not support dumb buffer"))
        << log.dump();
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(VgemTest, DumbBuffersGetTheRowsOfTheirFormat) {
    auto device = Open();
    struct Case {
        unsigned fourcc;
        unsigned bpp;
        uint32_t rows;
    } cases[] = {
        {FOURCC_NV12, 8, 720},
        {FOURCC_YUYV, 8, 960},
        {FOURCC_AB24, 32, 480},
    };
    for (const Case& c : cases) {
        DrmDumbObject object = device->CreateDumbObject(640, 480, c.fourcc, c.bpp);
        ASSERT_NE(object.handle, 0u);
        EXPECT_EQ(object.width, 640u);
        EXPECT_EQ(object.height, 480u);
        EXPECT_EQ(object.pitch, 640u * c.bpp / 8);
        EXPECT_GE(object.size, uint64_t{object.pitch} * c.rows);
        EXPECT_LT(object.size, uint64_t{object.pitch} * c.rows + 4096);
        EXPECT_GT(object.fd, 0);
        EXPECT_EQ(object.address, nullptr);
        EXPECT_EQ(device->DestroyDumbObject(object.handle), 0);
        close(object.fd);
    }
}

TEST_F(VgemTest, PrimeExportAndImportShareTheMemory) {
    FdLeakCheck leaks;
    {
        auto exporter = Open();
        auto importer = Open();
        DrmDumbObject object = exporter->CreateDumbObject(320, 240, FOURCC_AB24, 32);
        ASSERT_NE(object.handle, 0u);
        ASSERT_NE(exporter->MapDumbObject(object), nullptr);
        memset(object.address, 0x6b, object.size);

        /* The same device finds its own handle again. */
        EXPECT_EQ(exporter->BufferFdToHandle(object.fd), object.handle);
        /* Another open file gets a handle of its own to the same memory. */
        unsigned imported = importer->BufferFdToHandle(object.fd);
        ASSERT_NE(imported, 0xFFFFFFFFu);
        DrmDumbObject view;
        view.handle = imported;
        view.size = object.size;
        ASSERT_NE(importer->MapDumbObject(view), nullptr);
        EXPECT_EQ(static_cast<uint8_t*>(view.address)[object.size / 2], 0x6b);
        static_cast<uint8_t*>(view.address)[0] = 0x11;
        EXPECT_EQ(static_cast<uint8_t*>(object.address)[0], 0x11);
        EXPECT_EQ(importer->UnMapDumbObject(view), 0);
        EXPECT_TRUE(importer->CloseBufferHandle(imported));
        EXPECT_FALSE(importer->CloseBufferHandle(imported));

        EXPECT_EQ(exporter->UnMapDumbObject(object), 0);
        EXPECT_EQ(exporter->DestroyDumbObject(object.handle), 0);
        close(object.fd);
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(VgemTest, RefusalsOfTheKernelAreLogged) {
    auto device = Open();
    LogCapture log;
    EXPECT_EQ(device->DestroyDumbObject(4242), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag,
                             std::string("failed to destroy dumb buffer: ") + strerror(EINVAL)))
        << log.dump();
    EXPECT_EQ(device->BufferFdToHandle(0), 0xFFFFFFFFu);
    EXPECT_TRUE(log.containsText("drm import fd failed with error")) << log.dump();
    DrmDumbObject missing;
    missing.handle = 4242;
    missing.size = 4096;
    EXPECT_EQ(device->MapDumbObject(missing), nullptr);
    EXPECT_TRUE(log.containsText("drm map dumb failed with error")) << log.dump();
    /* No mode setting on vgem, and so no answer about dumb buffers either. */
    EXPECT_EQ(device->GetResources(), nullptr);
    EXPECT_EQ(device->GetPlaneResources(), nullptr);
    uint64_t dumb = 7;
    EXPECT_FALSE(device->GetCapability(DRM_CAP_DUMB_BUFFER, &dumb));
    EXPECT_EQ(dumb, 7u);
    uint64_t prime = 0;
    EXPECT_TRUE(device->GetCapability(DRM_CAP_PRIME, &prime));
    EXPECT_EQ(prime, uint64_t{DRM_PRIME_CAP_IMPORT | DRM_PRIME_CAP_EXPORT});
    EXPECT_TRUE(device->Available());
}

/* ---- virtio-gpu ---- */

/* The pieces of the display pipeline the tests drive. */
struct Pipeline {
    uint32_t connector = 0;
    uint32_t crtc = 0;
    uint32_t plane = 0;
    drmModeModeInfo mode = {};
};

class VirtioGpuTest : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(marlo_vm::DrmCardByDriver("virtio_gpu"), "/dev/dri/card0");
        device_ = std::make_unique<DrmDevice>();
        ASSERT_GE(device_->fd(), 0);
    }

    /* The id of \a object's property \a name, 0 when it has none. */
    uint32_t PropertyId(uint32_t object, uint32_t type, const char* name) {
        DrmObjectPropertiesPtr properties = device_->GetObjectProperties(object, type);
        if (!properties)
            return 0;
        for (uint32_t i = 0; i < properties->count_props; ++i) {
            DrmPropertyPtr property = device_->GetProperty(properties->props[i]);
            if (property && strcmp(property->name, name) == 0)
                return property->prop_id;
        }
        return 0;
    }

    uint64_t PropertyValue(uint32_t object, uint32_t type, const char* name) {
        DrmObjectPropertiesPtr properties = device_->GetObjectProperties(object, type);
        for (uint32_t i = 0; properties && i < properties->count_props; ++i) {
            DrmPropertyPtr property = device_->GetProperty(properties->props[i]);
            if (property && strcmp(property->name, name) == 0)
                return properties->prop_values[i];
        }
        return ~uint64_t{0};
    }

    Pipeline FindPipeline() {
        Pipeline pipeline;
        DrmResourcesPtr resources = device_->GetResources();
        if (!resources || resources->count_connectors < 1 || resources->count_crtcs < 1)
            return pipeline;
        DrmConnectorPtr connector = device_->GetConnector(resources->connectors[0]);
        if (!connector || connector->count_modes < 1)
            return pipeline;
        pipeline.connector = connector->connector_id;
        pipeline.crtc = resources->crtcs[0];
        pipeline.mode = connector->modes[0];
        DrmPlaneResPtr planes = device_->GetPlaneResources();
        for (uint32_t i = 0; planes && i < planes->count_planes; ++i) {
            if (PropertyValue(planes->planes[i], DRM_MODE_OBJECT_PLANE, "type") ==
                DRM_PLANE_TYPE_PRIMARY)
                pipeline.plane = planes->planes[i];
        }
        return pipeline;
    }

    /* A dumb XRGB framebuffer of \a width x \a height filled with \a pixel. */
    uint32_t MakeFramebuffer(uint32_t width, uint32_t height, uint32_t pixel,
                             DrmDumbObject* object) {
        *object = device_->CreateDumbObject(width, height, FOURCC_AR24, 32);
        if (object->handle == 0 || device_->MapDumbObject(*object) == nullptr)
            return 0;
        uint32_t* pixels = static_cast<uint32_t*>(object->address);
        for (uint64_t i = 0; i < object->size / 4; ++i)
            pixels[i] = pixel;
        device_->UnMapDumbObject(*object);
        uint32_t handles[4] = {object->handle};
        uint32_t pitches[4] = {object->pitch};
        uint32_t offsets[4] = {0};
        unsigned id = 0;
        if (!device_->AddFramebuffer2(width, height, DRM_FORMAT_XRGB8888, handles, pitches, offsets,
                                      &id, 0))
            return 0;
        return id;
    }

    /* Adds the plane's and CRTC's state for showing \a fb to \a request. */
    void AddShowState(drmModeAtomicReq* request, const Pipeline& pipeline, uint32_t fb) {
        uint32_t w = pipeline.mode.hdisplay;
        uint32_t h = pipeline.mode.vdisplay;
        auto plane = [&](const char* name, uint64_t value) {
            drmModeAtomicAddProperty(request, pipeline.plane,
                                     PropertyId(pipeline.plane, DRM_MODE_OBJECT_PLANE, name),
                                     value);
        };
        plane("FB_ID", fb);
        plane("CRTC_ID", pipeline.crtc);
        plane("SRC_X", 0);
        plane("SRC_Y", 0);
        plane("SRC_W", uint64_t{w} << 16);
        plane("SRC_H", uint64_t{h} << 16);
        plane("CRTC_X", 0);
        plane("CRTC_Y", 0);
        plane("CRTC_W", w);
        plane("CRTC_H", h);
    }

    std::unique_ptr<DrmDevice> device_;
};

TEST_F(VirtioGpuTest, OpenLogsTheDriver) {
    LogCapture log;
    UniqueFd fd(DrmDevice::Open());
    ASSERT_TRUE(fd.isValid());
    EXPECT_TRUE(log.containsText("Opened DRM device /dev/dri/card0 fd(")) << log.dump();
    EXPECT_TRUE(log.containsText("driver virtio_gpu version V")) << log.dump();
    EXPECT_FALSE(log.containsText("Failed")) << log.dump();
}

TEST_F(VirtioGpuTest, ResourcesOfQemusDisplay) {
    DrmResourcesPtr resources = device_->GetResources();
    ASSERT_NE(resources, nullptr);
    EXPECT_EQ(resources->count_crtcs, 1);
    ASSERT_GE(resources->count_connectors, 1);
    ASSERT_GE(resources->count_encoders, 1);
    DrmConnectorPtr connector = device_->GetConnector(resources->connectors[0]);
    ASSERT_NE(connector, nullptr);
    EXPECT_EQ(connector->connection, DRM_MODE_CONNECTED);
    EXPECT_EQ(connector->connector_type, static_cast<uint32_t>(DRM_MODE_CONNECTOR_VIRTUAL));
    EXPECT_EQ(connector->count_modes, 26);
    ASSERT_GE(connector->count_modes, 1);
    EXPECT_TRUE(connector->modes[0].type & DRM_MODE_TYPE_PREFERRED);
    DrmEncoderPtr encoder = device_->GetEncoder(resources->encoders[0]);
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(encoder->possible_crtcs & 1u, 1u);
    DrmCrtcPtr crtc = device_->GetCrtc(resources->crtcs[0]);
    ASSERT_NE(crtc, nullptr);
    EXPECT_EQ(crtc->crtc_id, resources->crtcs[0]);
    EXPECT_EQ(device_->GetConnector(0xdead), nullptr);
    EXPECT_EQ(device_->GetCrtc(0xdead), nullptr);
}

TEST_F(VirtioGpuTest, UniversalPlanesAreAPrimaryAndACursor) {
    DrmPlaneResPtr planes = device_->GetPlaneResources();
    ASSERT_NE(planes, nullptr);
    ASSERT_EQ(planes->count_planes, 2u);
    std::map<uint64_t, int> types;
    for (uint32_t i = 0; i < planes->count_planes; ++i) {
        DrmPlanePtr plane = device_->GetPlane(planes->planes[i]);
        ASSERT_NE(plane, nullptr);
        EXPECT_EQ(plane->possible_crtcs, 1u);
        EXPECT_GE(plane->count_formats, 1u);
        ++types[PropertyValue(planes->planes[i], DRM_MODE_OBJECT_PLANE, "type")];
    }
    EXPECT_EQ(types[DRM_PLANE_TYPE_PRIMARY], 1);
    EXPECT_EQ(types[DRM_PLANE_TYPE_CURSOR], 1);
}

TEST_F(VirtioGpuTest, ConnectorPropertiesByName) {
    Pipeline pipeline = FindPipeline();
    ASSERT_NE(pipeline.connector, 0u);
    DrmConnectorPtr connector = device_->GetConnector(pipeline.connector);
    ASSERT_NE(connector, nullptr);
    LogCapture log;
    DrmPropertyPtr dpms = device_->GetProperty(connector.get(), "DPMS");
    ASSERT_NE(dpms, nullptr);
    EXPECT_STREQ(dpms->name, "DPMS");
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag, "drm prop name : DPMS")) << log.dump();
    EXPECT_EQ(device_->GetProperty(connector.get(), "no such property"), nullptr);
    /* QEMU gives the display an EDID; DPMS is no blob. */
    DrmPropertyBlobPtr edid = device_->GetPropertyBlob(connector.get(), "EDID");
    ASSERT_NE(edid, nullptr);
    ASSERT_GE(edid->length, 128u);
    const uint8_t* bytes = static_cast<const uint8_t*>(edid->data);
    EXPECT_EQ(bytes[0], 0x00);
    EXPECT_EQ(bytes[1], 0xff);
    EXPECT_EQ(device_->GetPropertyBlob(connector.get(), "DPMS"), nullptr);
}

TEST_F(VirtioGpuTest, PropertyBlobsLiveAsLongAsTheirRecord) {
    Pipeline pipeline = FindPipeline();
    ASSERT_NE(pipeline.connector, 0u);
    uint32_t id = 0;
    {
        std::unique_ptr<DrmPropertyBlobMetadata> blob =
            device_->CreatePropertyBlob(&pipeline.mode, sizeof(pipeline.mode));
        ASSERT_NE(blob, nullptr);
        id = blob->id();
        EXPECT_NE(id, 0u);
        EXPECT_EQ(blob->device(), device_.get());
        DrmPropertyBlobPtr read = device_->GetPropertyBlob(id);
        ASSERT_NE(read, nullptr);
        ASSERT_EQ(read->length, sizeof(pipeline.mode));
        EXPECT_EQ(memcmp(read->data, &pipeline.mode, sizeof(pipeline.mode)), 0);
    }
    EXPECT_EQ(device_->GetPropertyBlob(id), nullptr);
    EXPECT_NE(device_->DestroyPropertyBlob(id), 0);
    EXPECT_EQ(device_->CreatePropertyBlobWithFlags(&pipeline.mode, sizeof(pipeline.mode), 0),
              nullptr);
}

TEST_F(VirtioGpuTest, CapabilitiesAndMaster) {
    uint64_t value = 0;
    EXPECT_TRUE(device_->GetCapability(DRM_CAP_DUMB_BUFFER, &value));
    EXPECT_EQ(value, 1u);
    EXPECT_TRUE(device_->GetCapability(DRM_CAP_CRTC_IN_VBLANK_EVENT, &value));
    EXPECT_TRUE(device_->SetCapability(DRM_CLIENT_CAP_ATOMIC, 1));
    EXPECT_FALSE(device_->SetCapability(DRM_CLIENT_CAP_STEREO_3D, 2));
    /* The first opener is master; it can let go and take it back. */
    EXPECT_TRUE(device_->DropMaster());
    EXPECT_TRUE(device_->SetMaster());
}

TEST_F(VirtioGpuTest, AtomicCommitShowsADumbFramebufferThenRemovesIt) {
    FdLeakCheck leaks;
    Pipeline pipeline = FindPipeline();
    ASSERT_NE(pipeline.plane, 0u);
    uint32_t w = pipeline.mode.hdisplay;
    uint32_t h = pipeline.mode.vdisplay;
    DrmDumbObject first;
    DrmDumbObject second;
    uint32_t fb1 = MakeFramebuffer(w, h, 0x00ff8000, &first);
    uint32_t fb2 = MakeFramebuffer(w, h, 0x000080ff, &second);
    ASSERT_NE(fb1, 0u);
    ASSERT_NE(fb2, 0u);
    DrmFramebufferPtr info = device_->GetFramebuffer(fb1);
    ASSERT_NE(info, nullptr);
    EXPECT_EQ(info->width, w);
    EXPECT_EQ(info->height, h);

    /* Mode set: the mode blob, the CRTC on, the connector on the CRTC, the plane showing fb1. */
    std::unique_ptr<DrmPropertyBlobMetadata> modeBlob =
        device_->CreatePropertyBlob(&pipeline.mode, sizeof(pipeline.mode));
    ASSERT_NE(modeBlob, nullptr);
    DrmAtomicReqPtr request = device_->AtomicAlloc();
    ASSERT_NE(request, nullptr);
    drmModeAtomicAddProperty(request.get(), pipeline.crtc,
                             PropertyId(pipeline.crtc, DRM_MODE_OBJECT_CRTC, "MODE_ID"),
                             modeBlob->id());
    drmModeAtomicAddProperty(request.get(), pipeline.crtc,
                             PropertyId(pipeline.crtc, DRM_MODE_OBJECT_CRTC, "ACTIVE"), 1);
    drmModeAtomicAddProperty(request.get(), pipeline.connector,
                             PropertyId(pipeline.connector, DRM_MODE_OBJECT_CONNECTOR, "CRTC_ID"),
                             pipeline.crtc);
    AddShowState(request.get(), pipeline, fb1);
    EXPECT_TRUE(device_->AtomicCommit(request.get(),
                                      DRM_MODE_ATOMIC_TEST_ONLY | DRM_MODE_ATOMIC_ALLOW_MODESET));
    ASSERT_TRUE(device_->AtomicCommit(request.get(), DRM_MODE_ATOMIC_ALLOW_MODESET))
        << strerror(errno);
    DrmCrtcPtr crtc = device_->GetCrtc(pipeline.crtc);
    ASSERT_NE(crtc, nullptr);
    EXPECT_EQ(crtc->buffer_id, fb1);
    EXPECT_EQ(crtc->mode_valid, 1);
    EXPECT_EQ(crtc->mode.hdisplay, w);

    /* A page flip to fb2 without a mode set; its completion arrives as an event. */
    DrmAtomicReqPtr flip = device_->AtomicAlloc();
    AddShowState(flip.get(), pipeline, fb2);
    ASSERT_TRUE(
        device_->AtomicCommit(flip.get(), DRM_MODE_ATOMIC_NONBLOCK | DRM_MODE_PAGE_FLIP_EVENT));
    pollfd ready = {device_->fd(), POLLIN, 0};
    ASSERT_EQ(poll(&ready, 1, 5000), 1);
    static uint32_t flippedCrtc;
    flippedCrtc = 0;
    drmEventContext events = {};
    events.version = 3;
    /* The commit's user data is null: AtomicCommit sends none. */
    events.page_flip_handler2 = [](int, unsigned, unsigned, unsigned, unsigned crtcId, void*) {
        flippedCrtc = crtcId;
    };
    ASSERT_EQ(drmHandleEvent(device_->fd(), &events), 0);
    EXPECT_EQ(flippedCrtc, pipeline.crtc);
    crtc = device_->GetCrtc(pipeline.crtc);
    ASSERT_NE(crtc, nullptr);
    EXPECT_EQ(crtc->buffer_id, fb2);

    /* A framebuffer on screen cannot be its own replacement; a bad id is refused. */
    DrmAtomicReqPtr bad = device_->AtomicAlloc();
    AddShowState(bad.get(), pipeline, 0xdead);
    EXPECT_FALSE(device_->AtomicCommit(bad.get(), 0));

    /* Off: nothing on the plane, the CRTC inactive without a mode, the connector free. */
    DrmAtomicReqPtr off = device_->AtomicAlloc();
    drmModeAtomicAddProperty(off.get(), pipeline.plane,
                             PropertyId(pipeline.plane, DRM_MODE_OBJECT_PLANE, "FB_ID"), 0);
    drmModeAtomicAddProperty(off.get(), pipeline.plane,
                             PropertyId(pipeline.plane, DRM_MODE_OBJECT_PLANE, "CRTC_ID"), 0);
    drmModeAtomicAddProperty(off.get(), pipeline.crtc,
                             PropertyId(pipeline.crtc, DRM_MODE_OBJECT_CRTC, "ACTIVE"), 0);
    drmModeAtomicAddProperty(off.get(), pipeline.crtc,
                             PropertyId(pipeline.crtc, DRM_MODE_OBJECT_CRTC, "MODE_ID"), 0);
    drmModeAtomicAddProperty(off.get(), pipeline.connector,
                             PropertyId(pipeline.connector, DRM_MODE_OBJECT_CONNECTOR, "CRTC_ID"),
                             0);
    ASSERT_TRUE(device_->AtomicCommit(off.get(), DRM_MODE_ATOMIC_ALLOW_MODESET));
    crtc = device_->GetCrtc(pipeline.crtc);
    ASSERT_NE(crtc, nullptr);
    EXPECT_EQ(crtc->buffer_id, 0u);
    EXPECT_EQ(crtc->mode_valid, 0);

    EXPECT_TRUE(device_->RemoveFramebuffer(fb1));
    EXPECT_TRUE(device_->RemoveFramebuffer(fb2));
    EXPECT_FALSE(device_->RemoveFramebuffer(fb2));
    EXPECT_EQ(device_->GetFramebuffer(fb1), nullptr);
    EXPECT_EQ(device_->DestroyDumbObject(first.handle), 0);
    EXPECT_EQ(device_->DestroyDumbObject(second.handle), 0);
    close(first.fd);
    close(second.fd);
    modeBlob.reset();
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(VirtioGpuTest, LegacyModeSettingAndPlanes) {
    Pipeline pipeline = FindPipeline();
    ASSERT_NE(pipeline.plane, 0u);
    uint32_t w = pipeline.mode.hdisplay;
    uint32_t h = pipeline.mode.vdisplay;
    DrmDumbObject object = device_->CreateDumbObject(w, h, FOURCC_AR24, 32);
    ASSERT_NE(object.handle, 0u);
    unsigned fb = 0;
    ASSERT_TRUE(device_->AddFramebuffer(w, h, 24, 32, object.pitch, object.handle, &fb));
    ASSERT_TRUE(device_->SetCrtc(pipeline.crtc, fb, {pipeline.connector}, pipeline.mode))
        << strerror(errno);
    DrmCrtcPtr crtc = device_->GetCrtc(pipeline.crtc);
    ASSERT_NE(crtc, nullptr);
    EXPECT_EQ(crtc->buffer_id, fb);
    EXPECT_TRUE(device_->SetPlane(pipeline.plane, pipeline.crtc, fb, 0, 0, 0, w, h, 0, 0, w << 16,
                                  h << 16));
    /* The primary plane of this CRTC must cover it whole. */
    EXPECT_FALSE(device_->SetPlane(pipeline.plane, pipeline.crtc, fb, 0, 10, 10, w / 2, h / 2, 0, 0,
                                   (w / 2) << 16, (h / 2) << 16));
    /* No format modifiers on this driver. */
    uint32_t handles[4] = {object.handle};
    uint32_t pitches[4] = {object.pitch};
    uint32_t offsets[4] = {0};
    uint64_t modifiers[4] = {0};
    unsigned id = 0;
    EXPECT_FALSE(device_->AddFramebuffer2WithModifiers(w, h, DRM_FORMAT_XRGB8888, handles, pitches,
                                                       offsets, modifiers, &id,
                                                       DRM_MODE_FB_MODIFIERS));
    uint32_t dpms = PropertyId(pipeline.connector, DRM_MODE_OBJECT_CONNECTOR, "DPMS");
    ASSERT_NE(dpms, 0u);
    EXPECT_TRUE(device_->SetProperty(pipeline.connector, dpms, DRM_MODE_DPMS_ON));
    EXPECT_TRUE(device_->SetObjectProperty(pipeline.connector, DRM_MODE_OBJECT_CONNECTOR, dpms,
                                           DRM_MODE_DPMS_ON));
    EXPECT_TRUE(device_->DisableCrtc(pipeline.crtc));
    crtc = device_->GetCrtc(pipeline.crtc);
    ASSERT_NE(crtc, nullptr);
    EXPECT_EQ(crtc->buffer_id, 0u);
    EXPECT_TRUE(device_->RemoveFramebuffer(fb));
    EXPECT_EQ(device_->DestroyDumbObject(object.handle), 0);
    close(object.fd);
}

TEST_F(VirtioGpuTest, CloseTwiceAndNoDescriptorLeft) {
    device_.reset();
    FdLeakCheck leaks;
    {
        DrmDevice device;
        ASSERT_GE(device.fd(), 0);
        device.Close();
        EXPECT_EQ(device.fd(), -1);
        device.Close();
    }
    EXPECT_TRUE(leaks.unchanged());
}

}  // namespace
