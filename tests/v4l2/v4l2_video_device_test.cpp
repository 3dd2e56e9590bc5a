/* V4l2VideoDevice and V4l2Buffer against the fake capture driver. */
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <android/log.h>
#include <gtest/gtest.h>
#include <marlo_host/hooks.h>

#include <marlo/base/mutex.h>
#include <marlo/v4l2/v4l2_video_device.h>

#include "fake_v4l2.h"
#include "support/fake_node_test.h"
#include "support/fd_count.h"
#include "support/log_capture.h"
#include "support/scoped_property.h"
#include "v4l2_test_util.h"

namespace {

using tessaro::marlo::Mutex;
using tessaro::marlo::MutexLocker;
using tessaro::marlo::V4l2Buffer;
using tessaro::marlo::V4l2Format;
using tessaro::marlo::V4l2FrameSizeRange;
using tessaro::marlo::V4l2Rect;
using tessaro::marlo::V4l2VideoDevice;

constexpr char kPath[] = "/dev/marlo-fake-video1";
using v4l2_test::kTag;
using v4l2_test::WrapperLine;

std::string Msg(const char* fmt, ...) __attribute__((__format__(printf, 1, 2)));
std::string Msg(const char* fmt, ...) {
    char buf[512];
    va_list args;
    va_start(args, fmt);
    vsnprintf(buf, sizeof(buf), fmt, args);
    va_end(args);
    return buf;
}

/* "<path>: <what> failed : <error>", the error line of a device member. */
std::string Failure(const std::string& what, int err) {
    return std::string(kPath) + ": " + what + " failed : " + strerror(err) + "\n";
}

/* Gives the tests access to the lists and their mutexes. */
class TestDevice : public V4l2VideoDevice {
  public:
    using V4l2VideoDevice::V4l2VideoDevice;
    size_t Unqueued() {
        MutexLocker lock(unqueued_mutex_);
        return unqueued_buffers_.size();
    }
    size_t Queued() {
        MutexLocker lock(queued_mutex_);
        return queued_buffers_.size();
    }
    std::vector<uint32_t> UnqueuedIndices() {
        MutexLocker lock(unqueued_mutex_);
        std::vector<uint32_t> out;
        for (auto& b : unqueued_buffers_)
            out.push_back(b->GetIndex());
        return out;
    }
    Mutex& UnqueuedMutex() { return unqueued_mutex_; }
    Mutex& QueuedMutex() { return queued_mutex_; }
    uint32_t Flags() const { return buffer_flags_; }
};

class V4l2VideoDeviceTest : public marlo_test::FakeVideoNodeTest {
  protected:
    void AddNode(marlo_fake::VideoNodeConfig config = {}) {
        FakeVideoNodeTest::AddNode(kPath, std::move(config));
    }

    /* Open and capabilities: the buffer type is known from here on. */
    static void OpenAndQuery(TestDevice& device, bool blocking = false) {
        ASSERT_EQ(device.Open(blocking), 0);
        ASSERT_EQ(device.QueryCap(), 0);
    }

    /* Open, capabilities, format, buffers, mappings and exports. */
    static void Prepare(TestDevice& device, unsigned count, bool blocking = false) {
        ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device, blocking));
        ASSERT_EQ(device.SetFormat(640, 480, V4L2_PIX_FMT_NV12), 0);
        ASSERT_EQ(device.ReqBuffer(count, V4L2_MEMORY_MMAP), static_cast<int>(count));
        ASSERT_EQ(device.QueryBuffer(), 0);
        ASSERT_EQ(device.ExportBuffers(), 0);
    }

    static void QueueAll(TestDevice& device) {
        while (auto buffer = device.GetBuffer())
            ASSERT_EQ(device.QueueBuffer(std::move(buffer)), 0);
    }

    /* Prepared with \a count buffers, every one queued, and streaming. */
    static void Stream(TestDevice& device, unsigned count, bool blocking = false) {
        ASSERT_NO_FATAL_FAILURE(Prepare(device, count, blocking));
        ASSERT_NO_FATAL_FAILURE(QueueAll(device));
        ASSERT_EQ(device.StreamOn(), 0);
    }
};

/* --- V4l2Buffer --- */

TEST(V4l2BufferTest, NewBufferCopiesTheRecordAndStartsEmpty) {
    v4l2_buffer record = {};
    record.index = 5;
    record.sequence = 77;
    record.memory = V4L2_MEMORY_MMAP;
    V4l2Buffer buffer(nullptr, record);
    EXPECT_EQ(buffer.GetIndex(), 5u);
    EXPECT_EQ(buffer.GetSequence(), 77u);
    EXPECT_EQ(buffer.GetMemType(), static_cast<uint32_t>(V4L2_MEMORY_MMAP));
    EXPECT_FALSE(buffer.IsQueued());
    for (unsigned p = 0; p < VIDEO_MAX_PLANES; ++p) {
        EXPECT_EQ(buffer.GetDmaFd(p), -1);
        EXPECT_EQ(buffer.GetPtr(p), nullptr);
        EXPECT_EQ(buffer.GetLength(p), 0u);
    }
    buffer.SetQueued(true);
    EXPECT_TRUE(buffer.IsQueued());
}

TEST(V4l2BufferTest, TimestampInNanoseconds) {
    v4l2_buffer record = {};
    record.timestamp.tv_sec = 12;
    record.timestamp.tv_usec = 345678;
    V4l2Buffer buffer(nullptr, record);
    EXPECT_EQ(buffer.GetTimestamp(), 12345678000ull);
}

TEST(V4l2BufferTest, SetBufferOverwritesTheRecord) {
    v4l2_buffer record = {};
    V4l2Buffer buffer(nullptr, record);
    record.sequence = 3;
    record.bytesused = 100;
    buffer.SetBuffer(record);
    EXPECT_EQ(buffer.GetSequence(), 3u);
    EXPECT_EQ(buffer.GetBuffer()->bytesused, 100u);
}

TEST(V4l2BufferTest, DestructionUnmapsAndClosesEverything) {
    marlo_test::FdLeakCheck leaks;
    const size_t length = 8192;
    {
        v4l2_buffer record = {};
        record.memory = V4L2_MEMORY_MMAP;
        V4l2Buffer buffer(nullptr, record);
        for (unsigned p = 0; p < 2; ++p) {
            int fd = memfd_create("plane", MFD_CLOEXEC);
            ASSERT_EQ(ftruncate(fd, length), 0);
            void* addr = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            ASSERT_NE(addr, MAP_FAILED);
            buffer.SetMapAddr(addr, length, p);
            buffer.SetDmaFd(fd, p);
        }
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST(V4l2BufferTest, DmabufDestructionClosesImportedDescriptors) {
    marlo_test::FdLeakCheck leaks;
    {
        v4l2_buffer record = {};
        record.memory = V4L2_MEMORY_DMABUF;
        V4l2Buffer buffer(nullptr, record);
        buffer.SetDmaFd(memfd_create("plane", MFD_CLOEXEC), 0);
        /* Resetting to the same descriptor keeps it. */
        buffer.SetDmaFd(buffer.GetDmaFd(0), 0);
        EXPECT_GE(buffer.GetDmaFd(0), 0);
    }
    EXPECT_TRUE(leaks.unchanged());
}

TEST(V4l2BufferTest, PlaneOutOfRangeIsLoggedAndHarmless) {
    marlo_test::FdLeakCheck leaks;
    marlo_test::LogCapture log;
    v4l2_buffer record = {};
    record.index = 2;
    V4l2Buffer buffer(nullptr, record);
    EXPECT_EQ(buffer.GetPtr(8), nullptr);
    EXPECT_EQ(buffer.GetLength(9), 0u);
    EXPECT_EQ(buffer.GetDmaFd(8), -1);
    int fd = memfd_create("plane", MFD_CLOEXEC);
    buffer.SetDmaFd(fd, 8);  // closed, not leaked
    buffer.SetMapAddr(&record, 4, 8);
    EXPECT_TRUE(leaks.unchanged());
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, kTag, "GetPtr: plane 8 of buffer index 2 out of range\n"))
        << log.dump();
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag,
                             "SetDmaFd: plane 8 of buffer index 2 out of range\n"));
    EXPECT_EQ(log.records().size(), 5u);
}

/* --- capabilities and buffer type --- */

TEST_F(V4l2VideoDeviceTest, InitialValues) {
    TestDevice device(kPath);
    EXPECT_EQ(device.Fd(), -1);
    EXPECT_EQ(device.BufferType(), 9u);
    EXPECT_EQ(device.MemoryType(), 1u);
    EXPECT_EQ(device.NumPlanes(), 1u);
    EXPECT_EQ(device.NumBuffers(), 4u);
    EXPECT_EQ(device.Flags(), 0x1800u);
    EXPECT_FALSE(device.IsMeta());
}

TEST_F(V4l2VideoDeviceTest, MultiPlanarWinsOverSinglePlanar) {
    AddNode(WithCapabilities(V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_VIDEO_CAPTURE));
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    EXPECT_EQ(device.QueryCap(), 0);
    EXPECT_EQ(device.BufferType(), 9u);
}

TEST_F(V4l2VideoDeviceTest, BufferTypeChoiceOrder) {
    const std::pair<uint32_t, uint32_t> cases[] = {
        {V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_META_CAPTURE, 1},
        {V4L2_CAP_META_CAPTURE | V4L2_CAP_META_OUTPUT, 13},
        {V4L2_CAP_META_OUTPUT | V4L2_CAP_VIDEO_OUTPUT, 14},
        {V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE, 2},
        {V4L2_CAP_VIDEO_OUTPUT_MPLANE, 10},
    };
    for (const auto& [caps, type] : cases) {
        AddNode(WithCapabilities(caps));
        TestDevice device(kPath);
        ASSERT_EQ(device.Open(false), 0);
        EXPECT_EQ(device.QueryCap(), 0);
        EXPECT_EQ(device.BufferType(), type) << std::hex << caps;
        EXPECT_EQ(device.IsMeta(), type == 13u);
    }
}

TEST_F(V4l2VideoDeviceTest, DeviceCapsAreNotConsulted) {
    /* Only the capabilities word decides: a capture bit in device_caps alone gives no type. */
    AddNode(WithCapabilities(V4L2_CAP_STREAMING | V4L2_CAP_READWRITE | V4L2_CAP_DEVICE_CAPS,
                             V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING));
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.QueryCap(), -2);
    EXPECT_EQ(device.BufferType(), 9u);
    for (const auto& record : log.records())
        EXPECT_NE(record.priority, ANDROID_LOG_ERROR) << record.message;
}

TEST_F(V4l2VideoDeviceTest, BufferTypeComesFromTheCapabilitiesWord) {
    AddNode(WithCapabilities(V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING | V4L2_CAP_DEVICE_CAPS,
                             V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING));
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    EXPECT_EQ(device.QueryCap(), 0);
    EXPECT_EQ(device.BufferType(), 2u);
}

TEST_F(V4l2VideoDeviceTest, QueryCapLogsFiveLinesWithThePath) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    marlo_test::LogCapture log;
    ASSERT_EQ(device.QueryCap(), 0);
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                             Msg("%s: device capabilities: driver\t\t%s\n", kPath, "fake-v4l2")))
        << log.dump();
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                             Msg("%s: device capabilities: card\t\t%s\n", kPath, "Fake capture")));
    EXPECT_TRUE(log.contains(
        ANDROID_LOG_INFO, kTag,
        Msg("%s: device capabilities: bus_info\t\t%s\n", kPath, "platform:fake-v4l2")));
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                             Msg("%s: device capabilities: version\t\t%d\n", kPath, 0x060100)));
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                             Msg("%s: device capabilities: capabilities\t%x\n", kPath,
                                 V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING)));
    EXPECT_EQ(device.Capabilities().capabilities,
              V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING);
}

TEST_F(V4l2VideoDeviceTest, QueryCapFailure) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    node_->InjectError(VIDIOC_QUERYCAP, EIO);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.QueryCap(), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag,
                             Msg("query capabilities failed %s\n", strerror(EIO))));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, WrapperLine(kPath, "querycap", EIO)));
}

/* --- REQBUFS --- */

TEST_F(V4l2VideoDeviceTest, ReqBufferFailureAnswersMinusOne) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    node_->InjectError(VIDIOC_REQBUFS, ENOMEM);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), -1);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("request bufffer", ENOMEM)));
    EXPECT_EQ(device.NumBuffers(), 4u);
}

TEST_F(V4l2VideoDeviceTest, ReqBufferSmallerGrantIsReturned) {
    marlo_fake::VideoNodeConfig config;
    config.grantedCount = 2;
    AddNode(config);
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    marlo_test::LogCapture log;
    EXPECT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 2);
    EXPECT_EQ(device.NumBuffers(), 2u);
    EXPECT_TRUE(log.contains(
        ANDROID_LOG_INFO, kTag,
        Msg("%s requested buffer %s count %d type %s\n", kPath, "mmap", 2, "multi plane")))
        << log.dump();
}

TEST_F(V4l2VideoDeviceTest, ReqBufferPresetsTheCapabilitiesField) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.ReqBuffer(2, V4L2_MEMORY_MMAP), 2);
    marlo_test::LogCapture log;
    ASSERT_EQ(device.ReqBuffer(2, V4L2_MEMORY_DMABUF), 2);
    EXPECT_EQ(device.MemoryType(), static_cast<uint32_t>(V4L2_MEMORY_DMABUF));
    auto records = node_->Requests(VIDIOC_REQBUFS);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].capabilities, 1u);
    EXPECT_EQ(records[0].memory, 1u);
    EXPECT_EQ(records[0].type, 9u);
    EXPECT_EQ(records[1].capabilities, 4u);
    EXPECT_EQ(records[1].memory, 4u);
    EXPECT_TRUE(log.contains(
        ANDROID_LOG_INFO, kTag,
        Msg("%s requested buffer %s count %d type %s\n", kPath, "dmabuf", 2, "multi plane")));
}

TEST_F(V4l2VideoDeviceTest, ReqBufferSinglePlaneMessage) {
    AddNode(WithCapabilities(kSinglePlanar));
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    marlo_test::LogCapture log;
    ASSERT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 3);
    EXPECT_TRUE(log.contains(
        ANDROID_LOG_INFO, kTag,
        Msg("%s requested buffer %s count %d type %s\n", kPath, "mmap", 3, "single plane")));
}

TEST_F(V4l2VideoDeviceTest, ReqBufferDiscardsEveryBuffer) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 3));
    ASSERT_EQ(device.QueueBuffer(device.GetBuffer()), 0);
    EXPECT_EQ(device.Queued(), 1u);
    EXPECT_EQ(device.Unqueued(), 2u);
    EXPECT_EQ(node_->LiveMappings(), 3u);
    ASSERT_EQ(device.ReqBuffer(2, V4L2_MEMORY_MMAP), 2);
    EXPECT_EQ(device.Queued(), 0u);
    EXPECT_EQ(device.Unqueued(), 0u);
    EXPECT_EQ(node_->LiveMappings(), 0u);
    ASSERT_EQ(device.QueryBuffer(), 0);
    EXPECT_EQ(device.UnqueuedIndices(), (std::vector<uint32_t>{0, 1}));
}

/* --- QUERYBUF --- */

TEST_F(V4l2VideoDeviceTest, QueryBufferWithNoBuffersCreatesNothing) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.ReqBuffer(0, V4L2_MEMORY_MMAP), 0);
    EXPECT_EQ(device.NumBuffers(), 0u);
    node_->ClearRequests();
    EXPECT_EQ(device.QueryBuffer(), 0);
    EXPECT_EQ(device.Unqueued(), 0u);
    EXPECT_EQ(node_->CountRequests(VIDIOC_QUERYBUF), 0u);
}

TEST_F(V4l2VideoDeviceTest, QueryBufferMapsEveryBuffer) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.SetFormat(640, 480, V4L2_PIX_FMT_NV12), 0);
    ASSERT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 3);
    marlo_test::LogCapture log;
    ASSERT_EQ(device.QueryBuffer(), 0);
    EXPECT_EQ(device.Unqueued(), 3u);
    EXPECT_EQ(node_->LiveMappings(), 3u);
    for (unsigned i = 0; i < 3; ++i)
        EXPECT_TRUE(
            log.contains(ANDROID_LOG_INFO, kTag, Msg("%s: queried buffer index %u\n", kPath, i)));
    for (const auto& record : node_->Requests(VIDIOC_QUERYBUF)) {
        EXPECT_EQ(record.flags, 0x1800u);
        EXPECT_EQ(record.length, 1u);
        EXPECT_EQ(record.memory, 1u);
    }
    auto buffer = device.GetBuffer();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetLength(0), 640u * 480u * 3u / 2u);
    EXPECT_NE(buffer->GetPtr(0), nullptr);
    EXPECT_FALSE(buffer->IsQueued());
}

TEST_F(V4l2VideoDeviceTest, QueryBufferFailureKeepsBuffersMadeSoFar) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 3);
    /* The third QUERYBUF fails. */
    node_->InjectError(VIDIOC_QUERYBUF, EIO, 1, 2);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.QueryBuffer(), -2);
    EXPECT_EQ(device.UnqueuedIndices(), (std::vector<uint32_t>{0, 1}));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("query bufffer", EIO)));
}

TEST_F(V4l2VideoDeviceTest, MultiPlanarMmapFailureKeepsTheBuffer) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 3);
    node_->InjectError(marlo_fake::kMmapRequest, ENOMEM);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.QueryBuffer(), 0);
    EXPECT_EQ(device.Unqueued(), 3u);
    EXPECT_EQ(log.count(Failure("mmap bufffer", ENOMEM)), 1u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("mmap bufffer", ENOMEM)));
    auto first = device.GetBuffer();
    EXPECT_EQ(first->GetIndex(), 0u);
    EXPECT_EQ(first->GetPtr(0), nullptr);
    EXPECT_EQ(first->GetLength(0), 0u);
}

TEST_F(V4l2VideoDeviceTest, SinglePlanarMmapFailureDropsTheBuffer) {
    AddNode(WithCapabilities(kSinglePlanar));
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.ReqBuffer(3, V4L2_MEMORY_MMAP), 3);
    node_->InjectError(marlo_fake::kMmapRequest, ENOMEM);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.QueryBuffer(), 0);
    EXPECT_EQ(device.UnqueuedIndices(), (std::vector<uint32_t>{1, 2}));
    EXPECT_EQ(log.count(Failure("mmap bufffer", ENOMEM)), 1u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("mmap bufffer", ENOMEM)));
    EXPECT_FALSE(log.containsText(Msg("%s: queried buffer index %u\n", kPath, 0u)));
}

TEST_F(V4l2VideoDeviceTest, QueryBufferAppendsUnderBothListMutexes) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    /* The queued list's mutex, and the free list's own one that guards the list. */
    for (Mutex* held : {&device.QueuedMutex(), &device.UnqueuedMutex()}) {
        ASSERT_EQ(device.ReqBuffer(2, V4L2_MEMORY_MMAP), 2);
        MutexLocker lock(*held);
        auto blocked = std::async(std::launch::async, [&] { return device.QueryBuffer(); });
        EXPECT_EQ(blocked.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
        lock.unlock();
        EXPECT_EQ(blocked.get(), 0);
        EXPECT_EQ(device.Unqueued(), 2u);
    }
}

TEST_F(V4l2VideoDeviceTest, BuffersTakenWhileTheQueryRunsAreEachTakenOnce) {
    /* Run under ThreadSanitizer too: the free list is shared with GetBuffer. */
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.SetFormat(64, 48, V4L2_PIX_FMT_NV12), 0);
    ASSERT_EQ(device.ReqBuffer(32, V4L2_MEMORY_MMAP), 32);

    std::atomic<bool> queried{false};
    std::vector<uint32_t> taken;
    std::thread taker([&] {
        for (;;) {
            bool last = queried.load();
            while (auto buffer = device.GetBuffer())
                taken.push_back(buffer->GetIndex());
            if (last)
                return;
            std::this_thread::yield();
        }
    });
    EXPECT_EQ(device.QueryBuffer(), 0);
    queried = true;
    taker.join();

    std::sort(taken.begin(), taken.end());
    std::vector<uint32_t> every(32);
    for (uint32_t i = 0; i < 32; ++i)
        every[i] = i;
    EXPECT_EQ(taken, every);
    EXPECT_EQ(device.Unqueued(), 0u);
}

TEST_F(V4l2VideoDeviceTest, ReqBufferAndStreamOffTakeBothListMutexes) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 2));
    for (Mutex* held : {&device.UnqueuedMutex(), &device.QueuedMutex()}) {
        MutexLocker lock(*held);
        auto off = std::async(std::launch::async, [&] { return device.StreamOff(); });
        EXPECT_EQ(off.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        lock.unlock();
        EXPECT_EQ(off.get(), 0);

        lock.lock();
        auto req =
            std::async(std::launch::async, [&] { return device.ReqBuffer(2, V4L2_MEMORY_MMAP); });
        EXPECT_EQ(req.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        lock.unlock();
        EXPECT_EQ(req.get(), 2);
        ASSERT_EQ(device.QueryBuffer(), 0);
        ASSERT_NO_FATAL_FAILURE(QueueAll(device));
        ASSERT_EQ(device.StreamOn(), 0);
    }
}

/* --- EXPBUF --- */

TEST_F(V4l2VideoDeviceTest, ExportBuffersWithDmabufMemoryFails) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.ReqBuffer(2, V4L2_MEMORY_DMABUF), 2);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.ExportBuffers(), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag,
                             Msg("%s dma buf doesn't support export buffer\n", kPath)));
}

TEST_F(V4l2VideoDeviceTest, ExportBuffersWithEmptyFreeList) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    EXPECT_EQ(device.ExportBuffers(), 0);
    EXPECT_EQ(node_->CountRequests(VIDIOC_EXPBUF), 0u);
}

TEST_F(V4l2VideoDeviceTest, ExportBuffersGivesEachPlaneADescriptor) {
    marlo_fake::VideoNodeConfig config;
    config.numPlanes = 2;
    AddNode(config);
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.SetFormat(640, 480, V4L2_PIX_FMT_NV12), 0);
    EXPECT_EQ(device.NumPlanes(), 2u);
    ASSERT_EQ(device.ReqBuffer(2, V4L2_MEMORY_MMAP), 2);
    ASSERT_EQ(device.QueryBuffer(), 0);
    marlo_test::LogCapture log;
    ASSERT_EQ(device.ExportBuffers(), 0);
    auto records = node_->Requests(VIDIOC_EXPBUF);
    ASSERT_EQ(records.size(), 4u);
    EXPECT_EQ(records[1].plane, 1u);
    EXPECT_EQ(records[1].flags, 0x80002u);
    EXPECT_EQ(records[1].type, 9u);
    auto buffer = device.GetBuffer();
    ASSERT_GE(buffer->GetDmaFd(0), 0);
    ASSERT_GE(buffer->GetDmaFd(1), 0);
    /* Plane 0's descriptor is printed for both planes. */
    auto second = device.GetBuffer();
    ASSERT_NE(second, nullptr);
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_INFO, kTag,
                     Msg("%s: export buffer index %d fd %d\n", kPath, 1, second->GetDmaFd(0))));
    EXPECT_EQ(log.count(Msg("%s: export buffer index %d fd %d\n", kPath, 0, buffer->GetDmaFd(0))),
              2u)
        << log.dump();
    EXPECT_EQ(buffer->GetLength(1), node_->Format().fmt.pix_mp.plane_fmt[1].sizeimage);
}

TEST_F(V4l2VideoDeviceTest, ExportFailure) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.ReqBuffer(2, V4L2_MEMORY_MMAP), 2);
    ASSERT_EQ(device.QueryBuffer(), 0);
    node_->InjectError(VIDIOC_EXPBUF, EMFILE);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.ExportBuffers(), -2);
    EXPECT_TRUE(log.contains(
        ANDROID_LOG_ERROR, kTag,
        Msg("%s: export bufffer type %d index %d failed : %s\n", kPath, 9, 0, strerror(EMFILE))));
}

/* --- the two lists --- */

TEST_F(V4l2VideoDeviceTest, GetBufferOnEmptyListIsNull) {
    AddNode();
    TestDevice device(kPath);
    EXPECT_EQ(device.GetBuffer(), nullptr);
    EXPECT_EQ(device.GetQueuedBuffer(0), nullptr);
}

TEST_F(V4l2VideoDeviceTest, GetBufferTakesTheFirstAndLogs) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 3));
    marlo_test::LogCapture log;
    auto buffer = device.GetBuffer();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetIndex(), 0u);
    EXPECT_EQ(device.UnqueuedIndices(), (std::vector<uint32_t>{1, 2}));
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_VERBOSE, kTag, Msg("%s: get buffer index %d\n", kPath, 0)));
}

TEST_F(V4l2VideoDeviceTest, GetQueuedBufferForAnIndexNotQueued) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 3));
    ASSERT_EQ(device.QueueBuffer(device.GetBuffer()), 0);
    ASSERT_EQ(device.QueueBuffer(device.GetBuffer()), 0);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.GetQueuedBuffer(2), nullptr);
    auto second = device.GetQueuedBuffer(1);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->GetIndex(), 1u);
    EXPECT_EQ(device.Queued(), 1u);
    EXPECT_TRUE(log.records().empty());
}

/* --- QBUF / DQBUF --- */

TEST_F(V4l2VideoDeviceTest, QueueBufferSetsTheRecordAndLogs) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 2));
    auto buffer = device.GetBuffer();
    void* ptr = buffer->GetPtr(0);
    size_t len = buffer->GetLength(0);
    marlo_test::LogCapture log;
    ASSERT_EQ(device.QueueBuffer(std::move(buffer)), 0);
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_VERBOSE, kTag,
                     Msg("%s: queued bufffer index %u ptr %p len %zu\n", kPath, 0u, ptr, len)))
        << log.dump();
    auto records = node_->Requests(VIDIOC_QBUF);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].flags, 0x1800u);
    EXPECT_EQ(records[0].type, 9u);
    EXPECT_EQ(records[0].memory, 1u);
    EXPECT_EQ(records[0].length, 1u);
    EXPECT_EQ(records[0].bytesused, 0u);  // capture: the driver fills it
    EXPECT_EQ(device.Queued(), 1u);
    EXPECT_EQ(node_->QueuedCount(), 1u);
}

TEST_F(V4l2VideoDeviceTest, QueueingNothingIsRefused) {
    AddNode();
    TestDevice device(kPath);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.QueueBuffer(nullptr), -4);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("queue bufffer", EINVAL)));
    EXPECT_EQ(device.Unqueued(), 0u);
}

TEST_F(V4l2VideoDeviceTest, RefusedQueueGoesBackToTheEndOfTheFreeList) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 3));
    auto buffer = device.GetBuffer();
    node_->InjectError(VIDIOC_QBUF, EINVAL);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.QueueBuffer(std::move(buffer)), -2);
    EXPECT_EQ(device.UnqueuedIndices(), (std::vector<uint32_t>{1, 2, 0}));
    EXPECT_EQ(device.Queued(), 0u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("queue bufffer", EINVAL)));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, WrapperLine(kPath, "qbuf", EINVAL)));
}

TEST_F(V4l2VideoDeviceTest, DequeueCopiesTheDriversRecord) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 3));
    ASSERT_EQ(node_->ProduceFrame(marlo_fake::Frame(41, {12, 345678}, 0x5a)), 0);
    marlo_test::LogCapture log;
    auto frame = device.DequeBuffer();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->GetIndex(), 0u);
    EXPECT_EQ(frame->GetSequence(), 41u);
    EXPECT_EQ(frame->GetTimestamp(), 12345678000ull);
    EXPECT_FALSE(frame->IsQueued());
    EXPECT_EQ(static_cast<uint8_t*>(frame->GetPtr(0))[0], 0x5a);
    uint8_t last = 0;
    ASSERT_EQ(pread(frame->GetDmaFd(0), &last, 1, frame->GetLength(0) - 1), 1);
    EXPECT_EQ(last, 0x5a);
    EXPECT_TRUE(log.contains(ANDROID_LOG_VERBOSE, kTag,
                             Msg("%s: dequed bufffer : %u vs %u\n", kPath, 0u, 0u)));
    EXPECT_EQ(device.Queued(), 2u);
    /* Returning it queues it again. */
    ASSERT_EQ(device.QueueBuffer(std::move(frame)), 0);
    EXPECT_EQ(device.Queued(), 3u);
}

TEST_F(V4l2VideoDeviceTest, SinglePlanarDequeueTakesTheDriversBytesUsedAndFlags) {
    AddNode(WithCapabilities(kSinglePlanar));
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 2));
    marlo_fake::FrameContent content = marlo_fake::Frame(9, {1, 2}, 0x10);
    content.bytesused = 1000;
    content.flags = V4L2_BUF_FLAG_ERROR;
    ASSERT_EQ(node_->ProduceFrame(content), 0);
    auto frame = device.DequeBuffer();
    ASSERT_NE(frame, nullptr);
    EXPECT_EQ(frame->GetSequence(), 9u);
    EXPECT_EQ(frame->GetTimestamp(), 1000002000ull);
    EXPECT_EQ(frame->GetBuffer()->bytesused, 1000u);
    const uint32_t state = V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR;
    EXPECT_EQ(frame->GetBuffer()->flags & state,
              static_cast<uint32_t>(V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR));
    /* Queued again, the record carries the device's flags once more. */
    ASSERT_EQ(device.QueueBuffer(std::move(frame)), 0);
    EXPECT_EQ(node_->Requests(VIDIOC_QBUF).back().flags, 0x1800u);
}

TEST_F(V4l2VideoDeviceTest, MultiPlanarDequeueKeepsTheDriversPlanesInTheBuffer) {
    marlo_fake::VideoNodeConfig config;
    config.numPlanes = 2;
    AddNode(config);
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 2));
    marlo_fake::FrameContent content = marlo_fake::Frame(4, {1, 0}, 0x20);
    content.bytesused = 1000;
    ASSERT_GE(node_->ProduceFrame(content), 0);
    ASSERT_GE(node_->ProduceFrame(), 0);

    auto first = device.DequeBuffer();
    auto second = device.DequeBuffer();
    ASSERT_NE(first, nullptr);
    ASSERT_NE(second, nullptr);
    /* Each record points at its own buffer's copy, valid after the dequeue call returned. */
    v4l2_buffer* record = first->GetBuffer();
    EXPECT_EQ(record->m.planes, first->plane_records);
    EXPECT_EQ(second->GetBuffer()->m.planes, second->plane_records);
    ASSERT_EQ(record->length, 2u);
    for (unsigned p = 0; p < 2; ++p) {
        EXPECT_EQ(record->m.planes[p].bytesused, 1000u) << p;
        EXPECT_EQ(record->m.planes[p].length, first->GetLength(p)) << p;
        /* A frame that fills its planes: bytesused is each plane's own length. */
        EXPECT_EQ(second->GetBuffer()->m.planes[p].bytesused, second->GetLength(p)) << p;
    }
    EXPECT_EQ(first->GetSequence(), 4u);

    /* Queued again, the record still points at the buffer's own array. */
    uint32_t index = first->GetIndex();
    ASSERT_EQ(device.QueueBuffer(std::move(first)), 0);
    auto queued = device.GetQueuedBuffer(index);
    ASSERT_NE(queued, nullptr);
    EXPECT_EQ(queued->GetBuffer()->m.planes, queued->plane_records);
    EXPECT_EQ(queued->GetBuffer()->length, 2u);
}

TEST(V4l2BufferTest, AMultiPlanarRecordsPlanesAreCopied) {
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    planes[0].bytesused = 11;
    planes[1].bytesused = 22;
    v4l2_buffer record = {};
    record.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    record.length = 2;
    record.m.planes = planes;
    V4l2Buffer buffer(nullptr, record);
    planes[0].bytesused = 0;
    EXPECT_EQ(buffer.GetBuffer()->m.planes, buffer.plane_records);
    EXPECT_EQ(buffer.GetBuffer()->m.planes[0].bytesused, 11u);
    EXPECT_EQ(buffer.GetBuffer()->m.planes[1].bytesused, 22u);

    planes[0].bytesused = 33;
    record.length = 1;
    buffer.SetBuffer(record);
    EXPECT_EQ(buffer.GetBuffer()->m.planes, buffer.plane_records);
    EXPECT_EQ(buffer.plane_records[0].bytesused, 33u);
    /* Planes beyond the record's count are cleared, not left from before. */
    EXPECT_EQ(buffer.plane_records[1].bytesused, 0u);

    /* A record without a plane array still points at the buffer's own, zeroed. */
    record.m.planes = nullptr;
    buffer.SetBuffer(record);
    EXPECT_EQ(buffer.GetBuffer()->m.planes, buffer.plane_records);
    EXPECT_EQ(buffer.plane_records[0].bytesused, 0u);
    /* The buffer's own record given back keeps its planes. */
    buffer.plane_records[0].bytesused = 44;
    buffer.SetBuffer(*buffer.GetBuffer());
    EXPECT_EQ(buffer.GetBuffer()->m.planes[0].bytesused, 44u);

    /* A single-planar record is copied as it is. */
    v4l2_buffer single = {};
    single.type = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    single.m.offset = 4096;
    V4l2Buffer plain(nullptr, single);
    EXPECT_EQ(plain.GetBuffer()->m.offset, 4096u);
}

TEST_F(V4l2VideoDeviceTest, EmptyNonBlockingDequeue) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 3));
    marlo_test::LogCapture log;
    EXPECT_EQ(device.DequeBuffer(), nullptr);
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                             Msg("%s: deque bufffer ret %d err:%s\n", kPath, -2, strerror(EAGAIN))))
        << log.dump();
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, WrapperLine(kPath, "dqbuf", EAGAIN)));
    EXPECT_EQ(device.Queued(), 3u);
}

TEST_F(V4l2VideoDeviceTest, BlockingDequeueWaitsForTheFrame) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 3, true));
    auto frame = std::async(std::launch::async, [&] { return device.DequeBuffer(); });
    EXPECT_EQ(frame.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    node_->ProduceFrame(marlo_fake::Frame(3));
    auto buffer = frame.get();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetSequence(), 3u);
}

TEST_F(V4l2VideoDeviceTest, DequeuedIndexNotInTheQueuedList) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 2));
    /* Buffer 0 stays with the driver but leaves the device's list. */
    auto taken = device.GetQueuedBuffer(0);
    ASSERT_NE(taken, nullptr);
    ASSERT_EQ(node_->ProduceFrame(), 0);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.DequeBuffer(), nullptr);
    EXPECT_TRUE(
        log.contains(ANDROID_LOG_ERROR, kTag,
                     Msg("%s: deque bufffer failed : forgot to queue buf first?\n", kPath)));
    EXPECT_EQ(device.Queued(), 1u);
    EXPECT_EQ(device.Unqueued(), 0u);
    /* The dequeue is not undone. */
    EXPECT_EQ(node_->DoneCount(), 0u);
}

TEST_F(V4l2VideoDeviceTest, TraceSectionsOnlyWithTheCameraTag) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 2));
    std::vector<std::string> sections;
    marlo_host_set_trace_hook(
        [](const char* name, void* ctx) {
            static_cast<std::vector<std::string>*>(ctx)->push_back(name ? name : "<end>");
        },
        &sections);

    node_->ProduceFrame(marlo_fake::Frame(5));
    {
        marlo_test::ScopedProperty tags("debug.atrace.tags.enableflags", "0x400");
        auto frame = device.DequeBuffer();
        ASSERT_NE(frame, nullptr);
        ASSERT_EQ(device.QueueBuffer(std::move(frame)), 0);
        EXPECT_EQ(sections, (std::vector<std::string>{"DequeBuffer", "DequeBuffer (sequence 5)",
                                                      "<end>", "<end>", "QueueBuffer", "<end>"}));
        sections.clear();
        EXPECT_EQ(device.DequeBuffer(), nullptr);  // empty: only the outer section
        EXPECT_EQ(sections, (std::vector<std::string>{"DequeBuffer", "<end>"}));
    }
    sections.clear();
    {
        marlo_test::ScopedProperty tags("debug.atrace.tags.enableflags", "0x1");
        node_->ProduceFrame();
        auto frame = device.DequeBuffer();
        ASSERT_NE(frame, nullptr);
        ASSERT_EQ(device.QueueBuffer(std::move(frame)), 0);
    }
    marlo_host_set_trace_hook(nullptr, nullptr);
    EXPECT_TRUE(sections.empty());
}

TEST_F(V4l2VideoDeviceTest, DmabufQueueHandsThePlaneDescriptors) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.ReqBuffer(1, V4L2_MEMORY_DMABUF), 1);
    ASSERT_EQ(device.QueryBuffer(), 0);
    auto buffer = device.GetBuffer();
    ASSERT_NE(buffer, nullptr);
    EXPECT_EQ(buffer->GetPtr(0), nullptr);  // nothing is mapped for DMABUF
    const uint32_t size = node_->Format().fmt.pix_mp.plane_fmt[0].sizeimage;
    int mem = memfd_create("client", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(mem, size), 0);
    buffer->SetDmaFd(mem, 0);
    buffer->SetMapAddr(nullptr, size, 0);
    ASSERT_EQ(device.QueueBuffer(std::move(buffer)), 0);
    auto records = node_->Requests(VIDIOC_QBUF);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].fd, mem);
    EXPECT_EQ(records[0].memory, 4u);
    ASSERT_EQ(device.StreamOn(), 0);
    ASSERT_EQ(node_->ProduceFrame(marlo_fake::Frame(-1, {0, 0}, 0x33)), 0);
    auto frame = device.DequeBuffer();
    ASSERT_NE(frame, nullptr);
    uint8_t byte = 0;
    ASSERT_EQ(pread(frame->GetDmaFd(0), &byte, 1, 100), 1);
    EXPECT_EQ(byte, 0x33);
}

TEST_F(V4l2VideoDeviceTest, OutputTypesSetBytesUsed) {
    AddNode(WithCapabilities(V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_STREAMING));
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.BufferType(), 2u);
    ASSERT_EQ(device.SetFormat(64, 32, V4L2_PIX_FMT_NV12), 0);
    ASSERT_EQ(device.ReqBuffer(1, V4L2_MEMORY_MMAP), 1);
    ASSERT_EQ(device.QueryBuffer(), 0);
    ASSERT_EQ(device.QueueBuffer(device.GetBuffer()), 0);
    auto records = node_->Requests(VIDIOC_QBUF);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].bytesused, 64u * 32u * 3u / 2u);
}

/* --- streaming --- */

TEST_F(V4l2VideoDeviceTest, StreamOnFailure) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 2));
    node_->InjectError(VIDIOC_STREAMON, EPIPE);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.StreamOn(), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("stream on", EPIPE)));
}

TEST_F(V4l2VideoDeviceTest, StreamOffMovesEveryQueuedBufferBack) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 4));
    auto held = device.GetBuffer();
    ASSERT_NO_FATAL_FAILURE(QueueAll(device));
    ASSERT_EQ(device.StreamOn(), 0);
    ASSERT_EQ(device.Queued(), 3u);
    ASSERT_EQ(device.Unqueued(), 0u);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.StreamOff(), 0);
    EXPECT_TRUE(log.contains(ANDROID_LOG_INFO, kTag,
                             Msg("%s: after streamed off, buf size: queued %zd, unqueued %zd\n",
                                 kPath, ssize_t{3}, ssize_t{0})))
        << log.dump();
    for (int index = 1; index <= 3; ++index)
        EXPECT_TRUE(
            log.contains(ANDROID_LOG_INFO, kTag,
                         Msg("%s: resetting buffer state for buf index %d \n", kPath, index)));
    for (int index = 1; index <= 3; ++index)
        EXPECT_EQ(log.count(Msg("%s: resetting buffer state for buf index %d \n", kPath, index)),
                  1u);
    EXPECT_EQ(device.Queued(), 0u);
    EXPECT_EQ(device.UnqueuedIndices(), (std::vector<uint32_t>{1, 2, 3}));
    EXPECT_FALSE(node_->Streaming());
    /* All are again available; the held one comes back through QueueBuffer. */
    ASSERT_EQ(device.QueueBuffer(std::move(held)), 0);
    EXPECT_EQ(device.Queued(), 1u);
}

TEST_F(V4l2VideoDeviceTest, StreamOffFailureLeavesTheLists) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 2));
    node_->InjectError(VIDIOC_STREAMOFF, EIO);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.StreamOff(), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("stream off", EIO)));
    EXPECT_EQ(device.Queued(), 2u);
    EXPECT_EQ(device.Unqueued(), 0u);
}

TEST_F(V4l2VideoDeviceTest, ConcurrentQueueAndDequeue) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 4));
    constexpr int kFrames = 200;
    std::atomic<int> received{0};
    std::thread consumer([&] {
        while (received < kFrames) {
            if (auto frame = device.DequeBuffer()) {
                ++received;
                ASSERT_EQ(device.QueueBuffer(std::move(frame)), 0);
            } else {
                std::this_thread::yield();
            }
        }
    });
    marlo_test::LogCapture quiet(false);
    for (int produced = 0; produced < kFrames;) {
        if (node_->ProduceFrame() >= 0)
            ++produced;
        else
            std::this_thread::yield();
    }
    consumer.join();
    EXPECT_EQ(device.Queued() + device.Unqueued(), 4u);
    EXPECT_EQ(device.StreamOff(), 0);
    EXPECT_EQ(device.Unqueued(), 4u);
}

/* --- formats, selections, enumerations --- */

TEST_F(V4l2VideoDeviceTest, SetAndGetFormatMultiPlanar) {
    marlo_fake::VideoNodeConfig config;
    config.numPlanes = 2;
    AddNode(config);
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    V4l2Format format = {};
    format.fourcc = V4L2_PIX_FMT_NV12;
    format.width = 1280;
    format.height = 720;
    format.colorSpace = V4L2_COLORSPACE_REC709;
    format.planesCount = 1;
    format.planes[0].bpl = 1536;
    ASSERT_EQ(device.SetFormat(format), 0);
    auto sent = node_->Requests(VIDIOC_S_FMT);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].pixelformat, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(device.NumPlanes(), 2u);

    V4l2Format got = {};
    got.planes[0].size = 11;  // sizes are not copied
    ASSERT_EQ(device.GetFormat(got), 0);
    EXPECT_EQ(got.fourcc, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(got.width, 1280u);
    EXPECT_EQ(got.height, 720u);
    EXPECT_EQ(got.colorSpace, static_cast<uint32_t>(V4L2_COLORSPACE_REC709));
    EXPECT_EQ(got.planesCount, 2u);
    EXPECT_EQ(got.planes[0].bpl, 1536u);
    EXPECT_EQ(got.planes[1].bpl, 1536u);
    EXPECT_EQ(got.planes[0].size, 11u);
}

TEST_F(V4l2VideoDeviceTest, GetFormatSinglePlanarLeavesPlaneCountAndSizes) {
    AddNode(WithCapabilities(kSinglePlanar));
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.SetFormat(320, 240, V4L2_PIX_FMT_YUYV), 0);
    V4l2Format got = {};
    got.planesCount = 7;
    got.planes[0].size = 5;
    ASSERT_EQ(device.GetFormat(got), 0);
    EXPECT_EQ(got.fourcc, V4L2_PIX_FMT_YUYV);
    EXPECT_EQ(got.width, 320u);
    EXPECT_EQ(got.planes[0].bpl, 640u);
    EXPECT_EQ(got.colorSpace, static_cast<uint32_t>(V4L2_COLORSPACE_SRGB));
    EXPECT_EQ(got.planesCount, 7u);
    EXPECT_EQ(got.planes[0].size, 5u);
}

TEST_F(V4l2VideoDeviceTest, FormatFailures) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    marlo_test::LogCapture log;
    node_->InjectError(VIDIOC_G_FMT, EINVAL);
    V4l2Format got = {};
    got.width = 99;
    EXPECT_EQ(device.GetFormat(got), -2);
    EXPECT_EQ(got.width, 99u);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("get fmt", EINVAL)));
    node_->InjectError(VIDIOC_S_FMT, EBUSY);
    EXPECT_EQ(device.SetFormat(640, 480, V4L2_PIX_FMT_NV12), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("set fmt", EBUSY)));
    /* The plane count is taken from the (untouched, zeroed) answer even then. */
    EXPECT_EQ(device.NumPlanes(), 0u);
}

TEST_F(V4l2VideoDeviceTest, Selections) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    V4l2Rect rect = {8, 4, 320, 200};
    ASSERT_EQ(device.SetSelection(V4L2_SEL_TGT_CROP, rect), 0);
    auto records = node_->Requests(VIDIOC_S_SELECTION);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, 9u);
    EXPECT_EQ(records[0].target, static_cast<uint32_t>(V4L2_SEL_TGT_CROP));
    EXPECT_EQ(records[0].flags, 0u);
    V4l2Rect got = {};
    ASSERT_EQ(device.GetSelection(V4L2_SEL_TGT_CROP, got), 0);
    EXPECT_EQ(got.left, 8);
    EXPECT_EQ(got.top, 4);
    EXPECT_EQ(got.width, 320u);
    EXPECT_EQ(got.height, 200u);

    marlo_test::LogCapture log;
    node_->InjectError(VIDIOC_G_SELECTION, EINVAL);
    EXPECT_EQ(device.GetSelection(V4L2_SEL_TGT_CROP, got), -2);
    node_->InjectError(VIDIOC_S_SELECTION, ERANGE);
    EXPECT_EQ(device.SetSelection(V4L2_SEL_TGT_CROP, rect), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("get sel", EINVAL)));
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("set sel", ERANGE)));
}

TEST_F(V4l2VideoDeviceTest, EnumerationsCollectUntilTheDriverRefuses) {
    marlo_fake::VideoNodeConfig config;
    config.frameSizes[V4L2_PIX_FMT_NV12] = {marlo_fake::DiscreteSize(1920, 1080),
                                            marlo_fake::DiscreteSize(1280, 720)};
    AddNode(config);
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    marlo_test::LogCapture log;
    auto formats = device.EnumFormats();
    ASSERT_EQ(formats.size(), 2u);
    EXPECT_EQ(formats.front().pixelformat, V4L2_PIX_FMT_NV12);
    EXPECT_EQ(formats.back().pixelformat, V4L2_PIX_FMT_YUYV);
    auto sizes = device.EnumFrameSizes(V4L2_PIX_FMT_NV12);
    ASSERT_EQ(sizes.size(), 2u);
    EXPECT_EQ(sizes.back().discrete.width, 1280u);
    EXPECT_TRUE(device.EnumFrameSizes(V4L2_PIX_FMT_YUYV).empty());
    /* Only the wrapper's lines: one per enumeration end. */
    EXPECT_EQ(log.count(WrapperLine(kPath, "enum_fmt", EINVAL)), 1u);
    EXPECT_EQ(log.count(WrapperLine(kPath, "enum_framesizes", EINVAL)), 2u);
    EXPECT_EQ(log.records().size(), 3u) << log.dump();
}

TEST_F(V4l2VideoDeviceTest, FrameSizeRanges) {
    marlo_fake::VideoNodeConfig config;
    config.frameSizes[V4L2_PIX_FMT_NV12] = {marlo_fake::DiscreteSize(1920, 1080)};
    config.frameSizes[V4L2_PIX_FMT_YUYV] = {marlo_fake::StepwiseSize(64, 32, 4096, 2160, 16, 8)};
    AddNode(config);
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    V4l2FrameSizeRange range = {};
    ASSERT_EQ(device.GetFrameSizeRange(V4L2_PIX_FMT_NV12, range), 0);
    EXPECT_EQ(range.minWidth, 1920u);
    EXPECT_EQ(range.maxWidth, 1920u);
    EXPECT_EQ(range.minHeight, 1080u);
    EXPECT_EQ(range.maxHeight, 1080u);
    EXPECT_EQ(range.stepWidth, 0u);
    EXPECT_EQ(range.stepHeight, 0u);
    ASSERT_EQ(device.GetFrameSizeRange(V4L2_PIX_FMT_YUYV, range), 0);
    EXPECT_EQ(range.minWidth, 64u);
    EXPECT_EQ(range.minHeight, 32u);
    EXPECT_EQ(range.maxWidth, 4096u);
    EXPECT_EQ(range.maxHeight, 2160u);
    EXPECT_EQ(range.stepWidth, 16u);
    EXPECT_EQ(range.stepHeight, 8u);
    marlo_test::LogCapture log;
    EXPECT_EQ(device.GetFrameSizeRange(V4L2_PIX_FMT_GREY, range), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("enum frame sizes", EINVAL)));
}

/* --- lifetime --- */

TEST_F(V4l2VideoDeviceTest, CloseKeepsBuffersAndLists) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 3));
    ASSERT_EQ(device.QueueBuffer(device.GetBuffer()), 0);
    device.Close();
    EXPECT_EQ(device.Fd(), -1);
    EXPECT_EQ(device.Queued(), 1u);
    EXPECT_EQ(device.Unqueued(), 2u);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
}

TEST_F(V4l2VideoDeviceTest, DestructionReleasesMappingsAndDescriptors) {
    AddNode();
    marlo_test::FdLeakCheck leaks;
    {
        TestDevice device(kPath);
        ASSERT_NO_FATAL_FAILURE(Stream(device, 3));
        EXPECT_EQ(node_->LiveMappings(), 3u);
    }
    EXPECT_EQ(node_->LiveMappings(), 0u);
    EXPECT_EQ(node_->OpenDescriptors(), 0u);
    /* Destruction does not stream off; closing the node ends the stream. */
    EXPECT_EQ(node_->CountRequests(VIDIOC_STREAMOFF), 0u);
    node_.reset();
    marlo_fake::Reset();
    EXPECT_TRUE(leaks.unchanged());
}

}  // namespace

/* --- What the driver granted, frame intervals, the driver's errno --- */

TEST_F(V4l2VideoDeviceTest, TheGrantedFormatIsTheDriversAnswer) {
    marlo_fake::VideoNodeConfig config;
    config.frameSizes[V4L2_PIX_FMT_NV12] = {marlo_fake::DiscreteSize(640, 480)};
    AddNode(config);
    TestDevice device(kPath);
    V4l2Format granted = {};
    EXPECT_EQ(device.GrantedFormat(granted), -2);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    ASSERT_EQ(device.SetFormat(800, 600, V4L2_PIX_FMT_NV12), 0);
    ASSERT_EQ(device.GrantedFormat(granted), 0);
    EXPECT_EQ(granted.width, 640u);
    EXPECT_EQ(granted.height, 480u);
    EXPECT_EQ(granted.fourcc, static_cast<uint32_t>(V4L2_PIX_FMT_NV12));
    EXPECT_EQ(granted.planes[0].bpl, 640u);
    EXPECT_EQ(granted.planes[0].size, 640u * 480u * 3 / 2);
    /* No request was added to learn it. */
    EXPECT_EQ(node_->CountRequests(VIDIOC_G_FMT), 0u);

    /* A refused S_FMT leaves the last answer. */
    node_->InjectError(VIDIOC_S_FMT, EINVAL);
    marlo_test::LogCapture log(false);
    EXPECT_EQ(device.SetFormat(320, 240, V4L2_PIX_FMT_YUYV), -2);
    ASSERT_EQ(device.GrantedFormat(granted), 0);
    EXPECT_EQ(granted.width, 640u);
}

TEST_F(V4l2VideoDeviceTest, FrameIntervalIsAskedAndReadBack) {
    marlo_fake::VideoNodeConfig config;
    config.frameIntervals = {{1, 15}, {1, 30}};
    AddNode(config);
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(OpenAndQuery(device));
    v4l2_fract interval = {1, 25};
    ASSERT_EQ(device.SetFrameInterval(interval), 0);
    EXPECT_EQ(interval.denominator, 30u);
    v4l2_fract read = {};
    ASSERT_EQ(device.GetFrameInterval(read), 0);
    EXPECT_EQ(read.numerator, 1u);
    EXPECT_EQ(read.denominator, 30u);
    auto records = node_->Requests(VIDIOC_S_PARM);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].type, static_cast<uint32_t>(V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE));
}

TEST_F(V4l2VideoDeviceTest, AFrameIntervalTheDriverDoesNotKnowIsReported) {
    marlo_fake::VideoNodeConfig config;
    config.streamParm = false;
    AddNode(config);
    TestDevice device(kPath);
    ASSERT_EQ(device.Open(false), 0);
    marlo_test::LogCapture log;
    v4l2_fract interval = {1, 30};
    EXPECT_EQ(device.SetFrameInterval(interval), -2);
    EXPECT_EQ(device.GetFrameInterval(interval), -2);
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("set parm", ENOTTY))) << log.dump();
    EXPECT_TRUE(log.contains(ANDROID_LOG_ERROR, kTag, Failure("get parm", ENOTTY)));
}

TEST_F(V4l2VideoDeviceTest, RefusedDequeueQueueAndStreamOnKeepTheDriversErrno) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Prepare(device, 2));
    ASSERT_NO_FATAL_FAILURE(QueueAll(device));
    marlo_test::LogCapture log(false);

    node_->InjectError(VIDIOC_STREAMON, EPIPE);
    errno = 0;
    EXPECT_EQ(device.StreamOn(), -2);
    EXPECT_EQ(errno, EPIPE);
    ASSERT_EQ(device.StreamOn(), 0);

    node_->InjectError(VIDIOC_DQBUF, ENODEV);
    errno = 0;
    EXPECT_EQ(device.DequeBuffer(), nullptr);
    EXPECT_EQ(errno, ENODEV);

    ASSERT_GE(node_->ProduceFrame(marlo_fake::Frame(0)), 0);
    auto buffer = device.DequeBuffer();
    ASSERT_NE(buffer, nullptr);
    node_->InjectError(VIDIOC_QBUF, EIO);
    errno = 0;
    EXPECT_EQ(device.QueueBuffer(std::move(buffer)), -2);
    EXPECT_EQ(errno, EIO);
}

TEST_F(V4l2VideoDeviceTest, ADequeuedIndexNotQueuedLeavesNoSystemError) {
    AddNode();
    TestDevice device(kPath);
    ASSERT_NO_FATAL_FAILURE(Stream(device, 2));
    ASSERT_GE(node_->ProduceFrame(marlo_fake::Frame(0)), 0);
    /* The library's own list forgets the buffer the driver hands back. */
    while (device.Queued() > 0)
        device.GetQueuedBuffer(device.Queued() == 2 ? 0 : 1);
    marlo_test::LogCapture log(false);
    errno = EINVAL;
    EXPECT_EQ(device.DequeBuffer(), nullptr);
    EXPECT_EQ(errno, 0);
}
