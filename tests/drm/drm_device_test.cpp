/*
 * DrmDevice without a DRM node: what runs before any kernel call, the open
 * failure, and the answers of a closed device. This file includes no libdrm
 * header, which also proves the public header stands on its own.
 */
#include <marlo/buffer/drm_device.h>

#include <android/log.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <marlo/base/error.h>
#include <marlo/buffer/pixel_format.h>

#include "support/fd_count.h"
#include "support/log_capture.h"

using namespace tessaro::marlo;
using marlo_test::FdLeakCheck;
using marlo_test::LogCapture;

namespace {

constexpr char kTag[] = "marlo_drm";
constexpr char kCard0[] = "/dev/dri/card0";

bool Card0Exists() {
    return access(kCard0, F_OK) == 0;
}

std::string BadFd() {
    return strerror(EBADF);
}

void ExpectAllZero(const DrmDumbObject& object) {
    EXPECT_EQ(object.width, 0u);
    EXPECT_EQ(object.height, 0u);
    EXPECT_EQ(object.handle, 0u);
    EXPECT_EQ(object.pitch, 0u);
    EXPECT_EQ(object.size, 0u);
    EXPECT_EQ(object.fd, 0);
    EXPECT_EQ(object.address, nullptr);
}

}  // namespace

TEST(DrmDeviceNoNode, OpenFailsAndLogs) {
    if (Card0Exists())
        GTEST_SKIP() << kCard0 << " exists on this machine";
    FdLeakCheck leaks;
    LogCapture capture;
    EXPECT_EQ(DrmDevice::Open(), -1);
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "Failed to open DRM module tessaro"))
        << capture.dump();
    EXPECT_EQ(capture.records().size(), 1u) << capture.dump();
    EXPECT_TRUE(leaks.unchanged());
}

TEST(DrmDeviceNoNode, ConstructionLeavesTheDeviceClosed) {
    if (Card0Exists())
        GTEST_SKIP() << kCard0 << " exists on this machine";
    FdLeakCheck leaks;
    LogCapture capture;
    {
        DrmDevice device;
        EXPECT_EQ(device.fd(), -1);
        device.Close();
        device.Close();
        EXPECT_EQ(device.fd(), -1);
    }
    EXPECT_EQ(capture.count("Failed to open DRM module tessaro"), 1u) << capture.dump();
    EXPECT_TRUE(leaks.unchanged());
}

TEST(DrmDeviceNoNode, NotAvailable) {
    if (Card0Exists())
        GTEST_SKIP() << kCard0 << " exists on this machine";
    FdLeakCheck leaks;
    DrmDevice device(UniqueFd{});
    EXPECT_FALSE(device.Available());
    EXPECT_TRUE(leaks.unchanged());
}

TEST(DrmDumbObject, DefaultIsAllZero) {
    ExpectAllZero(DrmDumbObject{});
}

TEST(DrmDeviceClosed, ZeroWidthLogsAndYieldsAllZero) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    ExpectAllZero(device.CreateDumbObject(0, 480, FOURCC_NV12, 8));
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag, "invalid width or height"))
        << capture.dump();
    EXPECT_EQ(capture.records().size(), 1u) << capture.dump();
}

TEST(DrmDeviceClosed, ZeroHeightLogsAndYieldsAllZero) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    ExpectAllZero(device.CreateDumbObject(640, 0, FOURCC_NV12, 8));
    ExpectAllZero(device.CreateDumbObject(0, 0, 0, 32));
    EXPECT_EQ(capture.count("invalid width or height"), 2u) << capture.dump();
}

TEST(DrmDeviceClosed, DestroyHandleZeroSucceedsQuietly) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    EXPECT_EQ(device.DestroyDumbObject(0), 0);
    EXPECT_TRUE(capture.records().empty()) << capture.dump();
}

TEST(DrmDeviceClosed, CreatePropertyBlobWithFlagsIsAlwaysNull) {
    DrmDevice device(UniqueFd{});
    const char data[] = "blob";
    EXPECT_EQ(device.CreatePropertyBlobWithFlags(data, sizeof(data), 0), nullptr);
    EXPECT_EQ(device.CreatePropertyBlobWithFlags(data, sizeof(data), 1), nullptr);
    EXPECT_EQ(device.CreatePropertyBlobWithFlags(nullptr, 0, 0), nullptr);
}

TEST(DrmDeviceClosed, CreateFailureKeepsTheRequestedSize) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    DrmDumbObject object = device.CreateDumbObject(640, 480, FOURCC_NV12, 8);
    EXPECT_EQ(object.width, 640u);
    EXPECT_EQ(object.height, 480u);
    EXPECT_EQ(object.handle, 0u);
    EXPECT_EQ(object.pitch, 0u);
    EXPECT_EQ(object.size, 0u);
    EXPECT_EQ(object.fd, 0);
    EXPECT_EQ(object.address, nullptr);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "failed to create dumb buffer: " + BadFd()))
        << capture.dump();
}

TEST(DrmDeviceClosed, DestroyFailureIsErrFailed) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    EXPECT_EQ(device.DestroyDumbObject(7), ERR_FAILED);
    EXPECT_EQ(ERR_FAILED, -2);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "failed to destroy dumb buffer: " + BadFd()))
        << capture.dump();
}

TEST(DrmDeviceClosed, MapFailureLeavesNoAddress) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    DrmDumbObject object;
    object.handle = 3;
    object.size = 4096;
    EXPECT_EQ(device.MapDumbObject(object), nullptr);
    EXPECT_EQ(object.address, nullptr);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "drm map dumb failed with error " + BadFd()))
        << capture.dump();
}

TEST(DrmDeviceClosed, UnmapOfAnUnmappedObjectFails) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    DrmDumbObject object;
    object.handle = 9;
    object.size = 4096;
    errno = 0;
    EXPECT_EQ(device.UnMapDumbObject(object), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "UnMapDumbObject: dumb buffer 9 is not mapped"))
        << capture.dump();
}

TEST(DrmDeviceClosed, ImportFailureIsAllOnes) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    EXPECT_EQ(device.BufferFdToHandle(0), 0xFFFFFFFFu);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "drm import fd failed with error " + BadFd()))
        << capture.dump();
}

TEST(DrmDeviceClosed, KernelCallsFailWithoutANode) {
    DrmDevice device(UniqueFd{});
    uint64_t value = 77;
    EXPECT_FALSE(device.CloseBufferHandle(1));
    EXPECT_FALSE(device.GetCapability(1, &value));
    EXPECT_EQ(value, 77u);
    EXPECT_FALSE(device.SetCapability(1, 1));
    EXPECT_FALSE(device.SetMaster());
    EXPECT_FALSE(device.DropMaster());
    EXPECT_EQ(device.GetResources(), nullptr);
    EXPECT_EQ(device.GetConnector(1), nullptr);
    EXPECT_EQ(device.GetEncoder(1), nullptr);
    EXPECT_EQ(device.GetCrtc(1), nullptr);
    EXPECT_FALSE(device.DisableCrtc(1));
    EXPECT_EQ(device.GetFramebuffer(1), nullptr);
    EXPECT_FALSE(device.RemoveFramebuffer(1));
    unsigned id = 0;
    EXPECT_FALSE(device.AddFramebuffer(64, 64, 24, 32, 256, 1, &id));
    EXPECT_EQ(device.GetPlaneResources(), nullptr);
    EXPECT_EQ(device.GetPlane(1), nullptr);
    EXPECT_FALSE(device.SetPlane(1, 2, 3, 0, 0, 0, 64, 64, 0, 0, 64 << 16, 64 << 16));
    EXPECT_EQ(device.GetObjectProperties(1, 0xcccccccc), nullptr);
    EXPECT_FALSE(device.SetObjectProperty(1, 0xcccccccc, 2, 3));
    EXPECT_EQ(device.GetProperty(1), nullptr);
    EXPECT_FALSE(device.SetProperty(1, 2, 3));
    const char data[] = "blob";
    EXPECT_EQ(device.CreatePropertyBlob(data, sizeof(data)), nullptr);
    EXPECT_EQ(device.DestroyPropertyBlob(5), -EBADF);
    EXPECT_EQ(device.GetPropertyBlob(5), nullptr);
}

TEST(DrmDeviceClosed, PropertySearchesRejectMissingArguments) {
    DrmDevice device(UniqueFd{});
    LogCapture capture;
    EXPECT_EQ(device.GetProperty(nullptr, "EDID"), nullptr);
    EXPECT_EQ(device.GetPropertyBlob(nullptr, "EDID"), nullptr);
    EXPECT_TRUE(
        capture.contains(ANDROID_LOG_ERROR, kTag, "GetProperty: no connector or no property name"))
        << capture.dump();
    EXPECT_TRUE(capture.contains(ANDROID_LOG_ERROR, kTag,
                                 "GetPropertyBlob: no connector or no property name"))
        << capture.dump();
}

TEST(DrmDeviceClosed, AtomicRequestIsOwned) {
    DrmDevice device(UniqueFd{});
    DrmAtomicReqPtr request = device.AtomicAlloc();
    ASSERT_NE(request, nullptr);
    /* An empty request has nothing to send and libdrm accepts it at once. */
    EXPECT_TRUE(device.AtomicCommit(request.get(), 0));
}

TEST(DrmPropertyBlobMetadata, RecordsDeviceAndId) {
    DrmDevice device(UniqueFd{});
    {
        DrmPropertyBlobMetadata blob(&device, 12);
        EXPECT_EQ(blob.device(), &device);
        EXPECT_EQ(blob.id(), 12u);
    }
    /* Without a device there is nothing to destroy the blob on. */
    DrmPropertyBlobMetadata orphan(nullptr, 13);
    EXPECT_EQ(orphan.device(), nullptr);
}

/* Runs only where the machine has a DRM node (for instance a VM with virtio-gpu). */
TEST(DrmDeviceReal, DumbBufferRoundTrip) {
    if (!Card0Exists())
        GTEST_SKIP() << "no " << kCard0;
    FdLeakCheck leaks;
    {
        DrmDevice device;
        if (device.fd() < 0)
            GTEST_SKIP() << kCard0 << " does not offer dumb buffers and atomic mode setting";
        EXPECT_TRUE(device.Available());
        /* Display drivers such as virtio-gpu make dumb buffers of 32-bit pixels only. */
        DrmDumbObject object = device.CreateDumbObject(64, 48, FOURCC_AR24, 32);
        ASSERT_NE(object.handle, 0u);
        EXPECT_GE(object.pitch, 64u * 4);
        EXPECT_GE(object.size, uint64_t{object.pitch} * 48);
        EXPECT_GT(object.fd, 0);
        ASSERT_NE(device.MapDumbObject(object), nullptr);
        memset(object.address, 0x5a, object.size);
        EXPECT_EQ(device.UnMapDumbObject(object), 0);
        EXPECT_EQ(object.address, nullptr);
        EXPECT_EQ(device.BufferFdToHandle(object.fd), object.handle);
        EXPECT_EQ(device.DestroyDumbObject(object.handle), 0);
        close(object.fd);
    }
    EXPECT_TRUE(leaks.unchanged());
}
