/*
 * DrmDevice against a DRM node faked in user space: the open sequence, dumb
 * buffers, PRIME, property searches and what each mode-setting wrapper hands
 * to the kernel.
 */
/* libdrm's own declarations first: the public header must agree with them. */
#include <xf86drm.h>
#include <xf86drmMode.h>

#include <marlo/buffer/drm_device.h>

#include <android/log.h>
#include <drm_fourcc.h>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>
#include <vector>

#include <marlo/base/error.h>
#include <marlo/buffer/pixel_format.h>

#include "buffer/drm_node.h"
#include "fake_drm_node.h"
#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using drm_fake::FakeDrmNode;
using marlo_test::FdLeakCheck;
using marlo_test::LogCapture;

namespace {

constexpr char kTag[] = "marlo_drm";

std::string ErrnoText(int error) {
    return strerror(error);
}

class FakeDrm : public ::testing::Test {
  protected:
    std::unique_ptr<DrmDevice> MakeDevice() {
        auto device = std::make_unique<DrmDevice>(node.openNode());
        EXPECT_GE(device->fd(), 0);
        return device;
    }

    FakeDrmNode node;
    FdLeakCheck leaks;  // counted with the fake node already open
};

/* A connector record as libdrm would return it, with its property ids and values. */
struct FakeConnector {
    FakeConnector(std::vector<uint32_t> ids, std::vector<uint64_t> values)
        : props(std::move(ids)), propValues(std::move(values)) {
        connector.connector_id = 31;
        connector.count_props = static_cast<int>(props.size());
        connector.props = props.data();
        connector.prop_values = propValues.data();
    }
    std::vector<uint32_t> props;
    std::vector<uint64_t> propValues;
    drmModeConnector connector{};
};

}  // namespace

/* ---- open sequence ---- */

TEST_F(FakeDrm, OpenSucceedsAndEnablesAtomic) {
    LogCapture capture;
    int fd = detail::OpenDrmNode(node.path().c_str());
    ASSERT_GE(fd, 0) << capture.dump();
    UniqueFd owner(fd);
    std::string opened = "Opened DRM device " + node.path() + " fd(" + std::to_string(fd) +
                         ")): driver fakedrm version V1.2.3";
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag, opened)) << capture.dump();
    EXPECT_EQ(capture.records().size(), 1u) << capture.dump();
    std::vector<std::pair<uint64_t, uint64_t>> expected = {{DRM_CLIENT_CAP_UNIVERSAL_PLANES, 1},
                                                           {DRM_CLIENT_CAP_ATOMIC, 1}};
    EXPECT_EQ(node.clientCaps, expected);
    EXPECT_EQ(fcntl(fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
}

TEST_F(FakeDrm, OpenFailsWhenThePathDoesNotExist) {
    LogCapture capture;
    EXPECT_EQ(detail::OpenDrmNode("/nonexistent/dri/card0"), -1);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Failed to open DRM module tessaro"))
        << capture.dump();
    EXPECT_TRUE(node.calls().empty());
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, OpenFailsWithoutVersion) {
    node.driver.clear();
    LogCapture capture;
    EXPECT_EQ(detail::OpenDrmNode(node.path().c_str()), -1);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Failed to get DRM version"))
        << capture.dump();
    EXPECT_EQ(node.countCalls(DRM_IOCTL_GET_CAP), 0u);
    EXPECT_TRUE(node.clientCaps.empty());
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, OpenFailsWithoutDumbBuffers) {
    node.caps[DRM_CAP_DUMB_BUFFER] = 0;
    LogCapture capture;
    EXPECT_EQ(detail::OpenDrmNode(node.path().c_str()), -1);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "DRM device does not support dumb buffer"))
        << capture.dump();
    EXPECT_TRUE(node.clientCaps.empty());
    EXPECT_EQ(node.countCalls(DRM_IOCTL_SET_CLIENT_CAP), 0u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, OpenFailsWhenTheDumbCapQueryFails) {
    node.caps.clear();
    LogCapture capture;
    EXPECT_EQ(detail::OpenDrmNode(node.path().c_str()), -1);
    EXPECT_EQ(capture.count("DRM device does not support dumb buffer"), 1u) << capture.dump();
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, OpenFailsWithoutUniversalPlanesAndSkipsAtomic) {
    node.clientCapErrors[DRM_CLIENT_CAP_UNIVERSAL_PLANES] = EOPNOTSUPP;
    LogCapture capture;
    EXPECT_EQ(detail::OpenDrmNode(node.path().c_str()), -1);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "Failed to set atomic cap " + ErrnoText(EOPNOTSUPP)))
        << capture.dump();
    EXPECT_EQ(node.countCalls(DRM_IOCTL_SET_CLIENT_CAP), 1u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, OpenFailsWithoutAtomic) {
    node.clientCapErrors[DRM_CLIENT_CAP_ATOMIC] = EINVAL;
    LogCapture capture;
    EXPECT_EQ(detail::OpenDrmNode(node.path().c_str()), -1);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "Failed to set atomic cap " + ErrnoText(EINVAL)))
        << capture.dump();
    EXPECT_EQ(node.countCalls(DRM_IOCTL_SET_CLIENT_CAP), 2u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, OpenUsesCardZeroOfTheDriDirectory) {
    node.answerCard0 = true;
    LogCapture capture;
    UniqueFd fd(DrmDevice::Open());
    ASSERT_GE(fd.get(), 0) << capture.dump();
    EXPECT_EQ(node.card0Opens, std::vector<std::string>{"/dev/dri/card0"});
    EXPECT_TRUE(node.owns(fd.get()));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_INFO, kTag,
                                 "Opened DRM device /dev/dri/card0 fd(" + std::to_string(fd.get()) +
                                     ")): driver fakedrm version V1.2.3"))
        << capture.dump();
    fd.reset();
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, ConstructionAdoptsTheOpenedNode) {
    node.answerCard0 = true;
    {
        DrmDevice device;
        ASSERT_GE(device.fd(), 0);
        EXPECT_TRUE(node.owns(device.fd()));
        EXPECT_TRUE(device.SetMaster());
        EXPECT_EQ(node.countCalls(DRM_IOCTL_SET_MASTER), 1u);
    }
    EXPECT_EQ(node.card0Opens.size(), 1u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, ConstructionStaysClosedWhenTheChecksFail) {
    node.answerCard0 = true;
    node.caps[DRM_CAP_DUMB_BUFFER] = 0;
    LogCapture capture;
    {
        DrmDevice device;
        EXPECT_EQ(device.fd(), -1);
    }
    EXPECT_EQ(node.card0Opens.size(), 1u);
    EXPECT_EQ(capture.count("DRM device does not support dumb buffer"), 1u) << capture.dump();
    EXPECT_TRUE(leaks.unchanged());
}

/* ---- close ---- */

TEST_F(FakeDrm, CloseClosesTheNumberTwice) {
    auto device = MakeDevice();
    int number = device->fd();
    errno = 1234;
    drm_fake::StartRecordingCloses();
    device->Close();
    auto closes = drm_fake::StopRecordingCloses();
    EXPECT_EQ(errno, 1234);
    EXPECT_EQ(device->fd(), -1);
    ASSERT_EQ(closes.size(), 2u);
    EXPECT_EQ(closes[0].fd, number);
    EXPECT_EQ(closes[0].result, 0);
    /* The deliberate second close finds the number already closed. */
    EXPECT_EQ(closes[1].fd, number);
    EXPECT_EQ(closes[1].result, -1);
    EXPECT_EQ(closes[1].error, EBADF);

    drm_fake::StartRecordingCloses();
    device->Close();
    device.reset();
    EXPECT_TRUE(drm_fake::StopRecordingCloses().empty());
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, DestructionCloses) {
    int number;
    drm_fake::StartRecordingCloses();
    {
        auto device = MakeDevice();
        number = device->fd();
    }
    auto closes = drm_fake::StopRecordingCloses();
    ASSERT_EQ(closes.size(), 2u);
    EXPECT_EQ(closes[0].fd, number);
    EXPECT_EQ(closes[1].fd, number);
    EXPECT_TRUE(leaks.unchanged());
}

/* ---- dumb buffers ---- */

struct HeightRow {
    uint32_t fourcc;
    uint32_t height;
    uint32_t requested;
};

class DumbHeight : public ::testing::TestWithParam<HeightRow> {};

TEST_P(DumbHeight, KernelIsAskedForTheFormatsRows) {
    const HeightRow& row = GetParam();
    FakeDrmNode node;
    DrmDevice device(node.openNode());
    DrmDumbObject object = device.CreateDumbObject(640, row.height, row.fourcc, 8);
    auto request = node.lastArg<drm_mode_create_dumb>(DRM_IOCTL_MODE_CREATE_DUMB);
    EXPECT_EQ(request.width, 640u);
    EXPECT_EQ(request.height, row.requested);
    EXPECT_EQ(request.bpp, 8u);
    EXPECT_EQ(request.flags, 0u);
    /* The object keeps the height the caller asked for. */
    EXPECT_EQ(object.width, 640u);
    EXPECT_EQ(object.height, row.height);
    EXPECT_EQ(object.pitch, 640u);
    EXPECT_EQ(object.size, node.dumbs.at(object.handle));
    close(object.fd);
}

/* The library's own codes, and DRM's codes of the same formats. */
INSTANTIATE_TEST_SUITE_P(
    LibraryFormats, DumbHeight,
    ::testing::Values(HeightRow{FOURCC_NV12, 480, 720}, HeightRow{FOURCC_NV21, 480, 720},
                      HeightRow{FOURCC_NV12, 481, 721}, HeightRow{FOURCC_NV16, 480, 960},
                      HeightRow{FOURCC_NV61, 480, 960}, HeightRow{FOURCC_YUYV, 480, 960},
                      HeightRow{FOURCC_YVYU, 480, 960}, HeightRow{FOURCC_UYVY, 480, 960},
                      HeightRow{FOURCC_VYUY, 480, 960}, HeightRow{FOURCC_RGB3, 480, 480},
                      HeightRow{FOURCC_BGR3, 480, 480}, HeightRow{FOURCC_RGBP, 480, 480},
                      HeightRow{FOURCC_AB24, 480, 480}, HeightRow{FOURCC_XR24, 480, 480},
                      HeightRow{FOURCC_YU12, 480, 480}, HeightRow{FOURCC_YV12, 480, 480},
                      HeightRow{FOURCC_NONE, 480, 480}, HeightRow{0, 480, 480}));

INSTANTIATE_TEST_SUITE_P(
    DrmFormats, DumbHeight,
    ::testing::Values(HeightRow{DRM_FORMAT_NV12, 480, 720}, HeightRow{DRM_FORMAT_NV21, 480, 720},
                      HeightRow{DRM_FORMAT_NV16, 480, 960}, HeightRow{DRM_FORMAT_NV61, 480, 960},
                      HeightRow{DRM_FORMAT_YUYV, 480, 960}, HeightRow{DRM_FORMAT_YVYU, 480, 960},
                      HeightRow{DRM_FORMAT_UYVY, 480, 960}, HeightRow{DRM_FORMAT_VYUY, 480, 960},
                      HeightRow{DRM_FORMAT_RGB888, 480, 480},
                      HeightRow{DRM_FORMAT_XRGB8888, 480, 480},
                      HeightRow{DRM_FORMAT_RGB565, 480, 480}, HeightRow{DRM_FORMAT_R8, 480, 480}));

TEST_F(FakeDrm, CreateExportsAPrimeDescriptor) {
    auto device = MakeDevice();
    LogCapture capture;
    DrmDumbObject object = device->CreateDumbObject(640, 480, DRM_FORMAT_XRGB8888, 32);
    EXPECT_NE(object.handle, 0u);
    EXPECT_EQ(object.pitch, 2560u);
    EXPECT_EQ(object.size, 2560u * 480);
    ASSERT_GT(object.fd, 2);
    EXPECT_EQ(object.address, nullptr);
    EXPECT_EQ(node.lastExportFlags, uint32_t(DRM_CLOEXEC | DRM_RDWR));
    auto prime = node.lastArg<drm_prime_handle>(DRM_IOCTL_PRIME_HANDLE_TO_FD);
    EXPECT_EQ(prime.handle, object.handle);
    EXPECT_EQ(fcntl(object.fd, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_TRUE(capture.records().empty()) << capture.dump();

    EXPECT_EQ(device->DestroyDumbObject(object.handle), 0);
    EXPECT_TRUE(node.dumbs.empty());
    close(object.fd);
    device.reset();
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, CreateFailureLogsAndKeepsOnlyTheSize) {
    node.failRequest(DRM_IOCTL_MODE_CREATE_DUMB, ENOMEM);
    auto device = MakeDevice();
    LogCapture capture;
    DrmDumbObject object = device->CreateDumbObject(640, 480, DRM_FORMAT_NV12, 8);
    EXPECT_EQ(object.width, 640u);
    EXPECT_EQ(object.height, 480u);
    EXPECT_EQ(object.handle, 0u);
    EXPECT_EQ(object.pitch, 0u);
    EXPECT_EQ(object.size, 0u);
    EXPECT_EQ(object.fd, 0);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "failed to create dumb buffer: " + ErrnoText(ENOMEM)))
        << capture.dump();
    EXPECT_EQ(node.countCalls(DRM_IOCTL_PRIME_HANDLE_TO_FD), 0u);
}

/* A buffer created before a failed export is left to the kernel, and the object forgets it. */
TEST_F(FakeDrm, ExportFailureLeavesTheBufferBehind) {
    node.failRequest(DRM_IOCTL_PRIME_HANDLE_TO_FD, EMFILE);
    auto device = MakeDevice();
    LogCapture capture;
    DrmDumbObject object = device->CreateDumbObject(320, 240, DRM_FORMAT_YUYV, 16);
    EXPECT_EQ(object.width, 320u);
    EXPECT_EQ(object.height, 240u);
    EXPECT_EQ(object.handle, 0u);
    EXPECT_EQ(object.pitch, 0u);
    EXPECT_EQ(object.size, 0u);
    EXPECT_EQ(object.fd, 0);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "failed to create dumb buffer: " + ErrnoText(EMFILE)))
        << capture.dump();
    EXPECT_EQ(node.dumbs.size(), 1u);
    EXPECT_EQ(node.countCalls(DRM_IOCTL_MODE_DESTROY_DUMB), 0u);
    EXPECT_EQ(node.countCalls(DRM_IOCTL_GEM_CLOSE), 0u);
}

TEST_F(FakeDrm, ZeroSizeMakesNoKernelCall) {
    auto device = MakeDevice();
    LogCapture capture;
    DrmDumbObject object = device->CreateDumbObject(0, 480, DRM_FORMAT_NV12, 8);
    EXPECT_EQ(object.width, 0u);
    EXPECT_EQ(object.height, 0u);
    EXPECT_EQ(object.fd, 0);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "invalid width or height"));
    EXPECT_TRUE(node.calls().empty());
}

TEST_F(FakeDrm, DestroyHandleZeroMakesNoKernelCall) {
    auto device = MakeDevice();
    EXPECT_EQ(device->DestroyDumbObject(0), 0);
    EXPECT_TRUE(node.calls().empty());
}

TEST_F(FakeDrm, DestroyOfAnUnknownHandleFails) {
    auto device = MakeDevice();
    LogCapture capture;
    EXPECT_EQ(device->DestroyDumbObject(77), ERR_FAILED);
    EXPECT_EQ(node.lastArg<drm_mode_destroy_dumb>(DRM_IOCTL_MODE_DESTROY_DUMB).handle, 77u);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "failed to destroy dumb buffer: " + ErrnoText(ENOENT)))
        << capture.dump();
}

TEST_F(FakeDrm, MapWritesReachTheBufferAndUnmapClears) {
    auto device = MakeDevice();
    DrmDumbObject first = device->CreateDumbObject(64, 64, DRM_FORMAT_XRGB8888, 32);
    DrmDumbObject object = device->CreateDumbObject(64, 32, DRM_FORMAT_NV12, 8);
    ASSERT_NE(device->MapDumbObject(first), nullptr);
    void* address = device->MapDumbObject(object);
    ASSERT_NE(address, nullptr);
    EXPECT_EQ(object.address, address);
    EXPECT_EQ(node.lastArg<drm_mode_map_dumb>(DRM_IOCTL_MODE_MAP_DUMB).handle, object.handle);
    memset(address, 0xa5, object.size);

    uint64_t offset = node.offsets.at(object.handle);
    EXPECT_EQ(offset, first.size);
    std::vector<uint8_t> back(object.size);
    ASSERT_EQ(pread(node.memoryFd(), back.data(), back.size(), static_cast<off_t>(offset)),
              static_cast<ssize_t>(back.size()));
    EXPECT_EQ(back, std::vector<uint8_t>(object.size, 0xa5));

    EXPECT_EQ(device->UnMapDumbObject(object), 0);
    EXPECT_EQ(object.address, nullptr);
    EXPECT_EQ(device->UnMapDumbObject(first), 0);
    EXPECT_EQ(device->DestroyDumbObject(first.handle), 0);
    EXPECT_EQ(device->DestroyDumbObject(object.handle), 0);
    close(first.fd);
    close(object.fd);
    device.reset();
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeDrm, MapFailureOfTheKernelRequest) {
    auto device = MakeDevice();
    DrmDumbObject object = device->CreateDumbObject(64, 64, DRM_FORMAT_XRGB8888, 32);
    node.failRequest(DRM_IOCTL_MODE_MAP_DUMB, EPERM);
    LogCapture capture;
    EXPECT_EQ(device->MapDumbObject(object), nullptr);
    EXPECT_EQ(object.address, nullptr);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "drm map dumb failed with error " + ErrnoText(EPERM)))
        << capture.dump();
    close(object.fd);
}

TEST_F(FakeDrm, MapFailureOfMmap) {
    auto device = MakeDevice();
    DrmDumbObject object = device->CreateDumbObject(64, 64, DRM_FORMAT_XRGB8888, 32);
    node.offsetBias = 1;  // not page aligned
    LogCapture capture;
    EXPECT_EQ(device->MapDumbObject(object), nullptr);
    EXPECT_EQ(object.address, nullptr);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "drm mmap failed with error " + ErrnoText(EINVAL)))
        << capture.dump();
    close(object.fd);
}

TEST_F(FakeDrm, ImportOfAnExportedBufferGivesItsHandle) {
    auto device = MakeDevice();
    DrmDumbObject object = device->CreateDumbObject(64, 64, DRM_FORMAT_XRGB8888, 32);
    ASSERT_GT(object.fd, 0);
    EXPECT_EQ(device->BufferFdToHandle(static_cast<unsigned>(object.fd)), object.handle);
    EXPECT_EQ(node.lastArg<drm_prime_handle>(DRM_IOCTL_PRIME_FD_TO_HANDLE).fd, object.fd);

    EXPECT_TRUE(device->CloseBufferHandle(object.handle));
    EXPECT_EQ(node.lastArg<drm_gem_close>(DRM_IOCTL_GEM_CLOSE).handle, object.handle);
    EXPECT_EQ(node.closedHandles, std::vector<uint32_t>{object.handle});
    EXPECT_FALSE(device->CloseBufferHandle(object.handle));
    close(object.fd);
}

TEST_F(FakeDrm, ImportOfAForeignDescriptorFails) {
    auto device = MakeDevice();
    UniqueFd other(memfd_create("not-a-dma-buf", MFD_CLOEXEC));
    LogCapture capture;
    EXPECT_EQ(device->BufferFdToHandle(static_cast<unsigned>(other.get())), 0xFFFFFFFFu);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "drm import fd failed with error " + ErrnoText(EINVAL)))
        << capture.dump();
}

/* ---- properties and blobs ---- */

TEST_F(FakeDrm, GetPropertyByNameReturnsTheFirstMatch) {
    node.properties[1] = {"DPMS", DRM_MODE_PROP_ENUM};
    node.properties[3] = {"EDID", DRM_MODE_PROP_BLOB | DRM_MODE_PROP_IMMUTABLE};
    node.properties[4] = {"EDID", DRM_MODE_PROP_RANGE};
    FakeConnector connector({1, 2, 3, 4}, {0, 0, 0, 0});
    auto device = MakeDevice();
    LogCapture capture;
    DrmPropertyPtr property = device->GetProperty(&connector.connector, "EDID");
    ASSERT_NE(property, nullptr);
    EXPECT_EQ(property->prop_id, 3u);
    EXPECT_STREQ(property->name, "EDID");
    auto records = capture.records();
    ASSERT_EQ(records.size(), 3u) << capture.dump();
    EXPECT_EQ(records[0].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(records[0].tag, kTag);
    EXPECT_EQ(records[0].message, "drm prop name : DPMS");
    EXPECT_EQ(records[1].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(records[1].message, "drm prop id : 2 failed");
    EXPECT_EQ(records[2].priority, ANDROID_LOG_INFO);
    EXPECT_EQ(records[2].message, "drm prop name : EDID");
    EXPECT_EQ(node.countCalls(DRM_IOCTL_MODE_GETPROPERTY), 3u * 2 - 1);
}

TEST_F(FakeDrm, GetPropertyByNameWithoutMatchIsNull) {
    node.properties[1] = {"DPMS", DRM_MODE_PROP_ENUM};
    node.properties[2] = {"link-status", DRM_MODE_PROP_ENUM};
    FakeConnector connector({1, 2}, {0, 0});
    auto device = MakeDevice();
    LogCapture capture;
    EXPECT_EQ(device->GetProperty(&connector.connector, "edid"), nullptr);
    EXPECT_EQ(capture.count("drm prop name : DPMS"), 1u) << capture.dump();
    EXPECT_EQ(capture.count("drm prop name : link-status"), 1u) << capture.dump();

    FakeConnector empty({}, {});
    EXPECT_EQ(device->GetProperty(&empty.connector, "DPMS"), nullptr);
}

TEST_F(FakeDrm, GetPropertyBlobIgnoresANonBlobOfTheRightName) {
    node.properties[1] = {"EDID", DRM_MODE_PROP_RANGE};
    node.properties[2] = {"PATH", DRM_MODE_PROP_BLOB};
    node.properties[3] = {"EDID", DRM_MODE_PROP_BLOB | DRM_MODE_PROP_IMMUTABLE};
    node.blobs[200] = "wrong blob";
    node.blobs[201] = "path blob";
    node.blobs[202] = std::string("\x00\xff\xff\xff\xff\xff\xff\x00", 8);
    FakeConnector connector({7, 1, 2, 3}, {0, 200, 201, 202});
    auto device = MakeDevice();
    LogCapture capture;
    DrmPropertyBlobPtr blob = device->GetPropertyBlob(&connector.connector, "EDID");
    ASSERT_NE(blob, nullptr);
    EXPECT_EQ(blob->id, 202u);
    ASSERT_EQ(blob->length, 8u);
    EXPECT_EQ(std::string(static_cast<const char*>(blob->data), blob->length), node.blobs[202]);
    /* The search itself logs nothing, not even the failed fetch of id 7. */
    EXPECT_TRUE(capture.records().empty()) << capture.dump();
}

TEST_F(FakeDrm, GetPropertyBlobWithoutMatchIsNull) {
    node.properties[1] = {"EDID", DRM_MODE_PROP_RANGE};
    FakeConnector connector({1}, {200});
    node.blobs[200] = "never";
    auto device = MakeDevice();
    LogCapture capture;
    EXPECT_EQ(device->GetPropertyBlob(&connector.connector, "EDID"), nullptr);
    EXPECT_EQ(device->GetPropertyBlob(&connector.connector, "PATH"), nullptr);
    EXPECT_EQ(node.countCalls(DRM_IOCTL_MODE_GETPROPBLOB), 0u);
    EXPECT_TRUE(capture.records().empty()) << capture.dump();
}

TEST_F(FakeDrm, GetPropertyBlobById) {
    node.blobs[150] = "mode";
    auto device = MakeDevice();
    DrmPropertyBlobPtr blob = device->GetPropertyBlob(150);
    ASSERT_NE(blob, nullptr);
    EXPECT_EQ(blob->length, 4u);
    EXPECT_EQ(device->GetPropertyBlob(151), nullptr);
}

TEST_F(FakeDrm, CreatedBlobIsDestroyedWithItsRecord) {
    auto device = MakeDevice();
    const char data[] = "gamma";
    auto blob = device->CreatePropertyBlob(data, sizeof(data));
    ASSERT_NE(blob, nullptr);
    EXPECT_EQ(blob->device(), device.get());
    EXPECT_EQ(blob->id(), 100u);
    EXPECT_EQ(node.blobs.at(100), std::string(data, sizeof(data)));
    blob.reset();
    EXPECT_EQ(node.destroyedBlobs, std::vector<uint32_t>{100});
    EXPECT_TRUE(node.blobs.empty());
}

TEST_F(FakeDrm, BlobCreationFailureOrIdZeroIsNull) {
    auto device = MakeDevice();
    const char data[] = "gamma";
    node.failRequest(DRM_IOCTL_MODE_CREATEPROPBLOB, ENOMEM);
    EXPECT_EQ(device->CreatePropertyBlob(data, sizeof(data)), nullptr);
    node.failRequest(DRM_IOCTL_MODE_CREATEPROPBLOB, 0);
    node.zeroBlobIds = true;
    EXPECT_EQ(device->CreatePropertyBlob(data, sizeof(data)), nullptr);
    EXPECT_TRUE(node.destroyedBlobs.empty());
}

TEST_F(FakeDrm, BlobWithFlagsIsNeverCreated) {
    auto device = MakeDevice();
    const char data[] = "gamma";
    EXPECT_EQ(device->CreatePropertyBlobWithFlags(data, sizeof(data), 0), nullptr);
    EXPECT_TRUE(node.calls().empty());
}

TEST_F(FakeDrm, DestroyPropertyBlobReturnsTheLibdrmResult) {
    node.blobs[120] = "x";
    auto device = MakeDevice();
    EXPECT_EQ(device->DestroyPropertyBlob(120), 0);
    EXPECT_EQ(device->DestroyPropertyBlob(120), -ENOENT);
}

/* ---- mode-setting wrappers ---- */

TEST_F(FakeDrm, SetCrtcPassesConnectorsAndModeAtOrigin) {
    auto device = MakeDevice();
    drmModeModeInfo mode{};
    mode.hdisplay = 1280;
    mode.vdisplay = 720;
    mode.vrefresh = 60;
    snprintf(mode.name, sizeof(mode.name), "1280x720");
    EXPECT_TRUE(device->SetCrtc(5, 9, {31, 32}, mode));
    auto crtc = node.lastArg<drm_mode_crtc>(DRM_IOCTL_MODE_SETCRTC);
    EXPECT_EQ(crtc.crtc_id, 5u);
    EXPECT_EQ(crtc.fb_id, 9u);
    EXPECT_EQ(crtc.x, 0u);
    EXPECT_EQ(crtc.y, 0u);
    EXPECT_EQ(crtc.count_connectors, 2u);
    EXPECT_EQ(node.crtcConnectors, (std::vector<uint32_t>{31, 32}));
    EXPECT_EQ(crtc.mode_valid, 1u);
    EXPECT_EQ(crtc.mode.hdisplay, 1280);
    EXPECT_EQ(crtc.mode.vdisplay, 720);
    EXPECT_STREQ(crtc.mode.name, "1280x720");

    node.failRequest(DRM_IOCTL_MODE_SETCRTC, EINVAL);
    EXPECT_FALSE(device->SetCrtc(5, 9, {31}, mode));
}

TEST_F(FakeDrm, DisableCrtcSendsNoFramebufferConnectorsOrMode) {
    auto device = MakeDevice();
    EXPECT_TRUE(device->DisableCrtc(6));
    auto crtc = node.lastArg<drm_mode_crtc>(DRM_IOCTL_MODE_SETCRTC);
    EXPECT_EQ(crtc.crtc_id, 6u);
    EXPECT_EQ(crtc.fb_id, 0u);
    EXPECT_EQ(crtc.x, 0u);
    EXPECT_EQ(crtc.y, 0u);
    EXPECT_EQ(crtc.count_connectors, 0u);
    EXPECT_EQ(crtc.set_connectors_ptr, 0u);
    EXPECT_EQ(crtc.mode_valid, 0u);
}

TEST_F(FakeDrm, Capabilities) {
    node.caps[DRM_CAP_PRIME] = DRM_PRIME_CAP_IMPORT | DRM_PRIME_CAP_EXPORT;
    auto device = MakeDevice();
    uint64_t value = 0;
    EXPECT_TRUE(device->GetCapability(DRM_CAP_PRIME, &value));
    EXPECT_EQ(value, uint64_t{DRM_PRIME_CAP_IMPORT | DRM_PRIME_CAP_EXPORT});
    EXPECT_FALSE(device->GetCapability(DRM_CAP_ASYNC_PAGE_FLIP, &value));

    EXPECT_TRUE(device->SetCapability(DRM_CLIENT_CAP_STEREO_3D, 1));
    auto cap = node.lastArg<drm_set_client_cap>(DRM_IOCTL_SET_CLIENT_CAP);
    EXPECT_EQ(cap.capability, uint64_t{DRM_CLIENT_CAP_STEREO_3D});
    EXPECT_EQ(cap.value, 1u);
    node.clientCapErrors[DRM_CLIENT_CAP_WRITEBACK_CONNECTORS] = EINVAL;
    EXPECT_FALSE(device->SetCapability(DRM_CLIENT_CAP_WRITEBACK_CONNECTORS, 1));
}

TEST_F(FakeDrm, Master) {
    auto device = MakeDevice();
    EXPECT_TRUE(device->SetMaster());
    EXPECT_TRUE(device->DropMaster());
    EXPECT_EQ(node.countCalls(DRM_IOCTL_SET_MASTER), 1u);
    EXPECT_EQ(node.countCalls(DRM_IOCTL_DROP_MASTER), 1u);
    node.failRequest(DRM_IOCTL_SET_MASTER, EACCES);
    node.failRequest(DRM_IOCTL_DROP_MASTER, EACCES);
    EXPECT_FALSE(device->SetMaster());
    EXPECT_FALSE(device->DropMaster());
}

TEST_F(FakeDrm, Framebuffers) {
    auto device = MakeDevice();
    unsigned id = 0;
    EXPECT_TRUE(device->AddFramebuffer(640, 480, 24, 32, 2560, 7, &id));
    EXPECT_EQ(id, 42u);
    auto fb = node.lastArg<drm_mode_fb_cmd>(DRM_IOCTL_MODE_ADDFB);
    EXPECT_EQ(fb.width, 640u);
    EXPECT_EQ(fb.height, 480u);
    EXPECT_EQ(fb.depth, 24u);
    EXPECT_EQ(fb.bpp, 32u);
    EXPECT_EQ(fb.pitch, 2560u);
    EXPECT_EQ(fb.handle, 7u);

    const uint32_t handles[4] = {7, 7, 0, 0};
    const uint32_t pitches[4] = {640, 640, 0, 0};
    const uint32_t offsets[4] = {0, 640 * 480, 0, 0};
    id = 0;
    EXPECT_TRUE(
        device->AddFramebuffer2(640, 480, DRM_FORMAT_NV12, handles, pitches, offsets, &id, 0));
    EXPECT_EQ(id, 43u);
    auto fb2 = node.lastArg<drm_mode_fb_cmd2>(DRM_IOCTL_MODE_ADDFB2);
    EXPECT_EQ(fb2.pixel_format, uint32_t{DRM_FORMAT_NV12});
    EXPECT_EQ(fb2.handles[1], 7u);
    EXPECT_EQ(fb2.pitches[1], 640u);
    EXPECT_EQ(fb2.offsets[1], 640u * 480);
    EXPECT_EQ(fb2.flags, 0u);

    const uint64_t modifiers[4] = {DRM_FORMAT_MOD_LINEAR, DRM_FORMAT_MOD_LINEAR, 0, 0};
    EXPECT_TRUE(device->AddFramebuffer2WithModifiers(640, 480, DRM_FORMAT_NV12, handles, pitches,
                                                     offsets, modifiers, &id,
                                                     DRM_MODE_FB_MODIFIERS));
    fb2 = node.lastArg<drm_mode_fb_cmd2>(DRM_IOCTL_MODE_ADDFB2);
    EXPECT_EQ(fb2.flags, uint32_t{DRM_MODE_FB_MODIFIERS});
    EXPECT_EQ(fb2.modifier[0], DRM_FORMAT_MOD_LINEAR);

    EXPECT_TRUE(device->RemoveFramebuffer(42));
    EXPECT_EQ(node.lastArg<unsigned int>(DRM_IOCTL_MODE_RMFB), 42u);

    DrmFramebufferPtr framebuffer = device->GetFramebuffer(42);
    ASSERT_NE(framebuffer, nullptr);
    EXPECT_EQ(framebuffer->fb_id, 42u);

    node.failRequest(DRM_IOCTL_MODE_ADDFB, EINVAL);
    node.failRequest(DRM_IOCTL_MODE_ADDFB2, EINVAL);
    node.failRequest(DRM_IOCTL_MODE_RMFB, ENOENT);
    node.failRequest(DRM_IOCTL_MODE_GETFB, ENOENT);
    EXPECT_FALSE(device->AddFramebuffer(640, 480, 24, 32, 2560, 7, &id));
    EXPECT_FALSE(
        device->AddFramebuffer2(640, 480, DRM_FORMAT_NV12, handles, pitches, offsets, &id, 0));
    EXPECT_FALSE(device->AddFramebuffer2WithModifiers(640, 480, DRM_FORMAT_NV12, handles, pitches,
                                                      offsets, modifiers, &id,
                                                      DRM_MODE_FB_MODIFIERS));
    EXPECT_FALSE(device->RemoveFramebuffer(42));
    EXPECT_EQ(device->GetFramebuffer(42), nullptr);
}

TEST_F(FakeDrm, SetPlanePassesEveryCoordinate) {
    auto device = MakeDevice();
    EXPECT_TRUE(
        device->SetPlane(11, 5, 42, 0, -16, 8, 640, 480, 1 << 16, 2 << 16, 320 << 16, 240 << 16));
    auto plane = node.lastArg<drm_mode_set_plane>(DRM_IOCTL_MODE_SETPLANE);
    EXPECT_EQ(plane.plane_id, 11u);
    EXPECT_EQ(plane.crtc_id, 5u);
    EXPECT_EQ(plane.fb_id, 42u);
    EXPECT_EQ(plane.flags, 0u);
    EXPECT_EQ(plane.crtc_x, -16);
    EXPECT_EQ(plane.crtc_y, 8);
    EXPECT_EQ(plane.crtc_w, 640u);
    EXPECT_EQ(plane.crtc_h, 480u);
    EXPECT_EQ(plane.src_x, 1u << 16);
    EXPECT_EQ(plane.src_y, 2u << 16);
    EXPECT_EQ(plane.src_w, 320u << 16);
    EXPECT_EQ(plane.src_h, 240u << 16);
    node.failRequest(DRM_IOCTL_MODE_SETPLANE, EINVAL);
    EXPECT_FALSE(device->SetPlane(11, 5, 42, 0, 0, 0, 1, 1, 0, 0, 1 << 16, 1 << 16));
}

TEST_F(FakeDrm, ObjectAndConnectorProperties) {
    auto device = MakeDevice();
    EXPECT_TRUE(device->SetObjectProperty(5, DRM_MODE_OBJECT_CRTC, 20, 1));
    auto object = node.lastArg<drm_mode_obj_set_property>(DRM_IOCTL_MODE_OBJ_SETPROPERTY);
    EXPECT_EQ(object.obj_id, 5u);
    EXPECT_EQ(object.obj_type, uint32_t{DRM_MODE_OBJECT_CRTC});
    EXPECT_EQ(object.prop_id, 20u);
    EXPECT_EQ(object.value, 1u);

    EXPECT_TRUE(device->SetProperty(31, 21, 3));
    auto connector = node.lastArg<drm_mode_connector_set_property>(DRM_IOCTL_MODE_SETPROPERTY);
    EXPECT_EQ(connector.connector_id, 31u);
    EXPECT_EQ(connector.prop_id, 21u);
    EXPECT_EQ(connector.value, 3u);

    node.properties[21] = {"DPMS", DRM_MODE_PROP_ENUM};
    DrmPropertyPtr property = device->GetProperty(21);
    ASSERT_NE(property, nullptr);
    EXPECT_STREQ(property->name, "DPMS");
    EXPECT_EQ(device->GetProperty(22), nullptr);

    DrmObjectPropertiesPtr properties = device->GetObjectProperties(31, DRM_MODE_OBJECT_CONNECTOR);
    ASSERT_NE(properties, nullptr);
    EXPECT_EQ(properties->count_props, 0u);

    node.failRequest(DRM_IOCTL_MODE_OBJ_SETPROPERTY, EINVAL);
    node.failRequest(DRM_IOCTL_MODE_SETPROPERTY, EINVAL);
    node.failRequest(DRM_IOCTL_MODE_OBJ_GETPROPERTIES, ENOENT);
    EXPECT_FALSE(device->SetObjectProperty(5, DRM_MODE_OBJECT_CRTC, 20, 1));
    EXPECT_FALSE(device->SetProperty(31, 21, 3));
    EXPECT_EQ(device->GetObjectProperties(31, DRM_MODE_OBJECT_CONNECTOR), nullptr);
}

TEST_F(FakeDrm, GettersOwnWhatTheKernelReturns) {
    auto device = MakeDevice();
    EXPECT_NE(device->GetResources(), nullptr);
    DrmCrtcPtr crtc = device->GetCrtc(5);
    ASSERT_NE(crtc, nullptr);
    EXPECT_EQ(crtc->crtc_id, 5u);
    DrmEncoderPtr encoder = device->GetEncoder(8);
    ASSERT_NE(encoder, nullptr);
    EXPECT_EQ(encoder->encoder_id, 8u);
    EXPECT_NE(device->GetPlaneResources(), nullptr);
    DrmPlanePtr plane = device->GetPlane(11);
    ASSERT_NE(plane, nullptr);
    EXPECT_EQ(plane->plane_id, 11u);
    DrmConnectorPtr connector = device->GetConnector(31);
    ASSERT_NE(connector, nullptr);
    EXPECT_EQ(connector->connector_id, 31u);
}

TEST_F(FakeDrm, GettersAreNullWhenTheKernelRefuses) {
    for (unsigned long request :
         {DRM_IOCTL_MODE_GETRESOURCES, DRM_IOCTL_MODE_GETCRTC, DRM_IOCTL_MODE_GETENCODER,
          DRM_IOCTL_MODE_GETPLANERESOURCES, DRM_IOCTL_MODE_GETPLANE, DRM_IOCTL_MODE_GETCONNECTOR})
        node.failRequest(request, ENOENT);
    auto device = MakeDevice();
    EXPECT_EQ(device->GetResources(), nullptr);
    EXPECT_EQ(device->GetCrtc(5), nullptr);
    EXPECT_EQ(device->GetEncoder(8), nullptr);
    EXPECT_EQ(device->GetPlaneResources(), nullptr);
    EXPECT_EQ(device->GetPlane(11), nullptr);
    EXPECT_EQ(device->GetConnector(31), nullptr);
}

TEST_F(FakeDrm, AtomicCommitSendsFlagsWithoutUserData) {
    auto device = MakeDevice();
    DrmAtomicReqPtr request = device->AtomicAlloc();
    ASSERT_NE(request, nullptr);
    ASSERT_GE(drmModeAtomicAddProperty(request.get(), 5, 20, 1), 0);
    EXPECT_TRUE(device->AtomicCommit(request.get(), DRM_MODE_ATOMIC_TEST_ONLY));
    auto atomic = node.lastArg<drm_mode_atomic>(DRM_IOCTL_MODE_ATOMIC);
    EXPECT_EQ(atomic.flags, uint32_t{DRM_MODE_ATOMIC_TEST_ONLY});
    EXPECT_EQ(atomic.count_objs, 1u);
    EXPECT_EQ(atomic.user_data, 0u);
    node.failRequest(DRM_IOCTL_MODE_ATOMIC, EINVAL);
    EXPECT_FALSE(device->AtomicCommit(request.get(), 0));
}
