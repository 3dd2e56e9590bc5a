/* The fake kernel's own behaviour, driven through the plain C calls. */
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "fake_v4l2.h"
#include "support/fd_count.h"

namespace {

using marlo_fake::Frame;

constexpr char kVideo[] = "/dev/marlo-fake-video0";

class FakeV4l2Test : public ::testing::Test {
  protected:
    void TearDown() override { marlo_fake::Reset(); }

    int OpenVideo(int flags = O_RDWR | O_CLOEXEC) {
        int fd = open(kVideo, flags);
        EXPECT_GE(fd, 0);
        return fd;
    }

    /* REQBUFS, QBUF of every buffer and STREAMON on a multi-planar node. */
    void StartStreaming(int fd, uint32_t count) {
        v4l2_requestbuffers req = {};
        req.count = count;
        req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        req.memory = V4L2_MEMORY_MMAP;
        ASSERT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), 0);
        for (uint32_t i = 0; i < req.count; ++i) {
            v4l2_plane planes[VIDEO_MAX_PLANES] = {};
            v4l2_buffer buf = {};
            buf.index = i;
            buf.type = req.type;
            buf.memory = V4L2_MEMORY_MMAP;
            buf.m.planes = planes;
            buf.length = 1;
            ASSERT_EQ(ioctl(fd, VIDIOC_QBUF, &buf), 0);
        }
        int type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        ASSERT_EQ(ioctl(fd, VIDIOC_STREAMON, &type), 0);
    }

    int Dequeue(int fd, v4l2_buffer& buf, v4l2_plane* planes) {
        buf = {};
        buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
        buf.memory = V4L2_MEMORY_MMAP;
        buf.m.planes = planes;
        buf.length = 1;
        return ioctl(fd, VIDIOC_DQBUF, &buf);
    }
};

bool Readable(int fd, int timeoutMs = 0) {
    pollfd pfd = {fd, POLLIN, 0};
    return poll(&pfd, 1, timeoutMs) == 1 && (pfd.revents & POLLIN);
}

TEST_F(FakeV4l2Test, UnregisteredPathsReachTheRealCalls) {
    marlo_fake::AddVideoNode(kVideo);
    char path[] = "/tmp/marlo-fake-realXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(close(fd), 0);
    fd = open(path, O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(marlo_fake::NodeForFd(fd), nullptr);
    v4l2_capability caps = {};
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), -1);
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_EQ(close(fd), 0);
    unlink(path);
}

TEST_F(FakeV4l2Test, OpenGivesAPollableDescriptorAndRecordsFlags) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    marlo_test::FdLeakCheck leaks;
    int fd = OpenVideo(O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(node->LastOpenFlags(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
    EXPECT_EQ(node->OpenDescriptors(), 1u);
    EXPECT_FALSE(Readable(fd));
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(node->OpenDescriptors(), 0u);
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeV4l2Test, OpenatAndOpen64ReachTheNode) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int a = openat(AT_FDCWD, kVideo, O_RDWR | O_CLOEXEC);
    int b = open64(kVideo, O_RDWR);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(node->OpenDescriptors(), 2u);
    EXPECT_EQ(node->LastOpenFlags(), O_RDWR);
    close(a);
    close(b);
    EXPECT_EQ(node->OpenDescriptors(), 0u);
}

TEST_F(FakeV4l2Test, InjectedOpenFailure) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    node->InjectError(marlo_fake::kOpenRequest, EACCES);
    EXPECT_EQ(open(kVideo, O_RDWR), -1);
    EXPECT_EQ(errno, EACCES);
    int fd = OpenVideo();
    close(fd);
}

TEST_F(FakeV4l2Test, AnInjectedCloseFailureStillReleasesTheDescriptor) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    node->RecordCloses(true);
    marlo_test::FdLeakCheck fds;
    node->InjectError(marlo_fake::kCloseRequest, EIO, 1, 1);
    int first = OpenVideo();
    int second = OpenVideo();
    EXPECT_EQ(close(first), 0);
    EXPECT_EQ(close(second), -1);
    EXPECT_EQ(errno, EIO);
    /* Released as the kernel releases it: gone from the node and the process. */
    EXPECT_EQ(node->OpenDescriptors(), 0u);
    EXPECT_EQ(fcntl(second, F_GETFD), -1);
    EXPECT_TRUE(fds.unchanged());
    auto closes = node->Requests(marlo_fake::kCloseRequest);
    ASSERT_EQ(closes.size(), 2u);
    EXPECT_EQ(closes[0].name, "close");
    EXPECT_EQ(closes[0].error, 0);
    EXPECT_EQ(closes[1].error, EIO);
}

TEST_F(FakeV4l2Test, ASizeBeyondTheLargestIsClamped) {
    marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    v4l2_format fmt = {};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    fmt.fmt.pix_mp.width = 64;
    fmt.fmt.pix_mp.height = 0xfffffff9u;
    fmt.fmt.pix_mp.pixelformat = V4L2_PIX_FMT_NV12;
    ASSERT_EQ(ioctl(fd, VIDIOC_S_FMT, &fmt), 0);
    EXPECT_EQ(fmt.fmt.pix_mp.width, 64u);
    EXPECT_EQ(fmt.fmt.pix_mp.height, 4096u);
    EXPECT_EQ(fmt.fmt.pix_mp.plane_fmt[0].sizeimage, 64u * 4096u * 3 / 2);
    close(fd);
}

TEST_F(FakeV4l2Test, QueryCapReportsTheConfiguredDriver) {
    marlo_fake::VideoNodeConfig config;
    config.capabilities = V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING;
    config.driver = "drv";
    auto node = marlo_fake::AddVideoNode(kVideo, config);
    int fd = OpenVideo();
    v4l2_capability caps = {};
    ASSERT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), 0);
    EXPECT_STREQ(reinterpret_cast<char*>(caps.driver), "drv");
    EXPECT_EQ(caps.capabilities, V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_STREAMING);
    close(fd);
}

/*
 * The kernel reads the request as 32 bits. Bionic declares ioctl(int, int,
 * ...) and a caller may keep a request in an int: with the top bit set
 * (every _IOR request) it reaches an unsigned long parameter sign-extended.
 */
TEST_F(FakeV4l2Test, RequestHeldInAnIntIsTakenAsThirtyTwoBits) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    const int request = static_cast<int>(VIDIOC_QUERYCAP);
    ASSERT_LT(request, 0);
    v4l2_capability caps = {};
    ASSERT_EQ(ioctl(fd, request, &caps), 0) << strerror(errno);
    EXPECT_NE(caps.capabilities, 0u);
    auto records = node->Requests(VIDIOC_QUERYCAP);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].request, VIDIOC_QUERYCAP);
    EXPECT_EQ(records[0].name, "VIDIOC_QUERYCAP");
    close(fd);
}

TEST_F(FakeV4l2Test, InjectedErrorsAndEintrAreCountedDown) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    node->InjectEintr(VIDIOC_QUERYCAP, 2);
    node->InjectError(VIDIOC_G_FMT, EIO);
    v4l2_capability caps = {};
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), 0);
    v4l2_format fmt = {};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(ioctl(fd, VIDIOC_G_FMT, &fmt), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(ioctl(fd, VIDIOC_G_FMT, &fmt), 0);

    auto records = node->Requests(VIDIOC_QUERYCAP);
    ASSERT_EQ(records.size(), 3u);
    EXPECT_EQ(records[0].error, EINTR);
    EXPECT_EQ(records[2].result, 0);
    EXPECT_EQ(records[2].name, "VIDIOC_QUERYCAP");
    close(fd);
}

TEST_F(FakeV4l2Test, FormatsAndFrameSizes) {
    marlo_fake::VideoNodeConfig config;
    config.frameSizes[V4L2_PIX_FMT_NV12] = {marlo_fake::DiscreteSize(1280, 720),
                                            marlo_fake::DiscreteSize(640, 480)};
    auto node = marlo_fake::AddVideoNode(kVideo, config);
    int fd = OpenVideo();
    v4l2_fmtdesc desc = {};
    desc.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    ASSERT_EQ(ioctl(fd, VIDIOC_ENUM_FMT, &desc), 0);
    EXPECT_EQ(desc.pixelformat, V4L2_PIX_FMT_NV12);
    desc.index = 2;
    EXPECT_EQ(ioctl(fd, VIDIOC_ENUM_FMT, &desc), -1);
    EXPECT_EQ(errno, EINVAL);

    v4l2_frmsizeenum size = {};
    size.pixel_format = V4L2_PIX_FMT_NV12;
    size.index = 1;
    ASSERT_EQ(ioctl(fd, VIDIOC_ENUM_FRAMESIZES, &size), 0);
    EXPECT_EQ(size.discrete.width, 640u);

    v4l2_format fmt = {};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    fmt.fmt.pix_mp.width = 1280;
    fmt.fmt.pix_mp.height = 720;
    fmt.fmt.pix_mp.pixelformat = V4L2_PIX_FMT_NV12;
    ASSERT_EQ(ioctl(fd, VIDIOC_S_FMT, &fmt), 0);
    EXPECT_EQ(fmt.fmt.pix_mp.num_planes, 1);
    EXPECT_EQ(fmt.fmt.pix_mp.plane_fmt[0].sizeimage, 1280u * 720u * 3u / 2u);
    /* An unsupported size falls back to the first listed one. */
    fmt.fmt.pix_mp.width = 100;
    ASSERT_EQ(ioctl(fd, VIDIOC_S_FMT, &fmt), 0);
    EXPECT_EQ(fmt.fmt.pix_mp.width, 1280u);
    close(fd);
}

TEST_F(FakeV4l2Test, ReqBufsGrantsTheConfiguredCount) {
    marlo_fake::VideoNodeConfig config;
    config.grantedCount = 2;
    auto node = marlo_fake::AddVideoNode(kVideo, config);
    int fd = OpenVideo();
    v4l2_requestbuffers req = {};
    req.count = 3;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    req.memory = V4L2_MEMORY_MMAP;
    req.capabilities = 1;
    ASSERT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), 0);
    EXPECT_EQ(req.count, 2u);
    EXPECT_EQ(node->BufferCount(), 2u);
    auto records = node->Requests(VIDIOC_REQBUFS);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].capabilities, 1u);
    EXPECT_EQ(records[0].count, 3u);

    req.memory = V4L2_MEMORY_USERPTR;
    EXPECT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), -1);
    EXPECT_EQ(errno, EINVAL);
    close(fd);
}

TEST_F(FakeV4l2Test, MmapAndExportShareTheBufferMemory) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    marlo_test::FdLeakCheck leaks;
    int fd = OpenVideo();
    StartStreaming(fd, 2);

    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer buf = {};
    buf.index = 1;
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    buf.memory = V4L2_MEMORY_MMAP;
    buf.m.planes = planes;
    buf.length = 1;
    ASSERT_EQ(ioctl(fd, VIDIOC_QUERYBUF, &buf), 0);
    const size_t length = planes[0].length;
    ASSERT_EQ(length, 640u * 480u * 3u / 2u);
    void* addr =
        mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, planes[0].m.mem_offset);
    ASSERT_NE(addr, MAP_FAILED);
    EXPECT_EQ(node->LiveMappings(), 1u);

    v4l2_exportbuffer exp = {};
    exp.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    exp.index = 1;
    exp.flags = O_CLOEXEC | O_RDWR;
    ASSERT_EQ(ioctl(fd, VIDIOC_EXPBUF, &exp), 0);
    ASSERT_GE(exp.fd, 0);

    /* Buffer 0 is filled first, buffer 1 second. */
    ASSERT_EQ(node->ProduceFrame(Frame(4, {1, 2}, 0x11)), 0);
    ASSERT_EQ(node->ProduceFrame(Frame(-1, {3, 4}, 0x22)), 1);
    EXPECT_EQ(static_cast<uint8_t*>(addr)[0], 0x22);
    uint8_t first = 0;
    ASSERT_EQ(pread(exp.fd, &first, 1, length - 1), 1);
    EXPECT_EQ(first, 0x22);
    EXPECT_EQ(node->PlaneContents(0, 0)[0], 0x11);

    v4l2_buffer out;
    ASSERT_EQ(Dequeue(fd, out, planes), 0);
    EXPECT_EQ(out.index, 0u);
    EXPECT_EQ(out.sequence, 4u);
    EXPECT_EQ(out.timestamp.tv_sec, 1);
    EXPECT_EQ(planes[0].bytesused, length);
    ASSERT_EQ(Dequeue(fd, out, planes), 0);
    EXPECT_EQ(out.sequence, 5u);
    EXPECT_EQ(out.timestamp.tv_usec, 4);

    EXPECT_EQ(munmap(addr, length), 0);
    EXPECT_EQ(node->LiveMappings(), 0u);
    close(exp.fd);
    close(fd);
    /* The node holds its buffers' memory until it goes away. */
    node.reset();
    marlo_fake::Reset();
    EXPECT_TRUE(leaks.unchanged());
}

TEST_F(FakeV4l2Test, InjectedMmapFailure) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    StartStreaming(fd, 1);
    node->InjectError(marlo_fake::kMmapRequest, ENOMEM);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0), MAP_FAILED);
    EXPECT_EQ(errno, ENOMEM);
    /* An offset that names no buffer is refused like the kernel does. */
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0x7fff0000), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    close(fd);
}

TEST_F(FakeV4l2Test, InjectedPositiveResult) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    node->InjectResult(VIDIOC_QUERYCAP, 7);
    v4l2_capability caps = {};
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), 7);
    EXPECT_EQ(caps.capabilities, 0u);  // no other effect
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), 0);
    EXPECT_NE(caps.capabilities, 0u);
    close(fd);
}

TEST_F(FakeV4l2Test, AnotherFileCannotTouchAnOwnedQueue) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int owner = OpenVideo();
    int other = OpenVideo();
    StartStreaming(owner, 2);

    v4l2_requestbuffers req = {};
    req.count = 2;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    req.memory = V4L2_MEMORY_MMAP;
    EXPECT_EQ(ioctl(other, VIDIOC_REQBUFS, &req), -1);
    EXPECT_EQ(errno, EBUSY);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(ioctl(other, VIDIOC_STREAMOFF, &type), -1);
    EXPECT_EQ(errno, EBUSY);
    v4l2_exportbuffer exp = {};
    exp.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    exp.flags = O_CLOEXEC | O_RDWR;
    EXPECT_EQ(ioctl(other, VIDIOC_EXPBUF, &exp), -1);
    EXPECT_EQ(errno, EBUSY);
    ASSERT_EQ(node->ProduceFrame(), 0);
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer out;
    EXPECT_EQ(Dequeue(other, out, planes), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(node->DoneCount(), 1u);

    /* Anyone may query a buffer. */
    v4l2_buffer buf = {};
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    buf.memory = V4L2_MEMORY_MMAP;
    buf.m.planes = planes;
    buf.length = 1;
    EXPECT_EQ(ioctl(other, VIDIOC_QUERYBUF, &buf), 0);

    /* Stream off and REQBUFS with count 0 free the buffers and the queue. */
    ASSERT_EQ(ioctl(owner, VIDIOC_STREAMOFF, &type), 0);
    v4l2_requestbuffers none = {};
    none.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    none.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(ioctl(owner, VIDIOC_REQBUFS, &none), 0);
    EXPECT_EQ(none.count, 0u);
    EXPECT_EQ(node->BufferCount(), 0u);
    EXPECT_EQ(ioctl(other, VIDIOC_REQBUFS, &req), 0);
    EXPECT_EQ(node->BufferCount(), 2u);
    close(other);
    close(owner);
}

TEST_F(FakeV4l2Test, ReqBufsWhileStreamingIsBusy) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    StartStreaming(fd, 2);
    v4l2_requestbuffers req = {};
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    req.memory = V4L2_MEMORY_MMAP;
    EXPECT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), -1);
    EXPECT_EQ(errno, EBUSY);
    EXPECT_EQ(node->BufferCount(), 2u);
    close(fd);
}

TEST_F(FakeV4l2Test, DequeueWithoutStreamingIsInvalidEvenNonBlocking) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo(O_RDWR | O_NONBLOCK);
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer out;
    EXPECT_EQ(Dequeue(fd, out, planes), -1);
    EXPECT_EQ(errno, EINVAL);
    StartStreaming(fd, 2);
    EXPECT_EQ(Dequeue(fd, out, planes), -1);
    EXPECT_EQ(errno, EAGAIN);
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    ASSERT_EQ(ioctl(fd, VIDIOC_STREAMOFF, &type), 0);
    EXPECT_EQ(Dequeue(fd, out, planes), -1);
    EXPECT_EQ(errno, EINVAL);
    close(fd);
}

TEST_F(FakeV4l2Test, DequeuedRecordCarriesDoneAndTimestampFlags) {
    marlo_fake::VideoNodeConfig config;
    config.numPlanes = 2;
    auto node = marlo_fake::AddVideoNode(kVideo, config);
    int fd = OpenVideo(O_RDWR | O_NONBLOCK);
    v4l2_requestbuffers req = {};
    req.count = 2;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    req.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), 0);
    for (uint32_t i = 0; i < 2; ++i) {
        v4l2_plane planes[VIDEO_MAX_PLANES] = {};
        v4l2_buffer buf = {};
        buf.index = i;
        buf.type = req.type;
        buf.memory = V4L2_MEMORY_MMAP;
        buf.flags = V4L2_BUF_FLAG_NO_CACHE_INVALIDATE | V4L2_BUF_FLAG_NO_CACHE_CLEAN;
        buf.m.planes = planes;
        buf.length = 2;
        ASSERT_EQ(ioctl(fd, VIDIOC_QBUF, &buf), 0);
        /* The answer is the queued buffer's record. */
        EXPECT_EQ(buf.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE), V4L2_BUF_FLAG_QUEUED);
        EXPECT_EQ(buf.flags & 0x1800u, 0x1800u);
        EXPECT_EQ(buf.length, 2u);
        EXPECT_NE(planes[1].length, 0u);
        EXPECT_NE(planes[1].m.mem_offset, planes[0].m.mem_offset);
    }
    int type = req.type;
    ASSERT_EQ(ioctl(fd, VIDIOC_STREAMON, &type), 0);

    marlo_fake::FrameContent content = Frame(6, {2, 3}, 0);
    content.bytesused = 100;
    ASSERT_EQ(node->ProduceFrame(content), 0);
    content = Frame(7, {2, 4}, 0);
    content.flags = V4L2_BUF_FLAG_ERROR;
    ASSERT_EQ(node->ProduceFrame(content), 1);

    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer out = {};
    out.type = req.type;
    out.m.planes = planes;
    /* Fewer array entries than planes, or more than eight, keep the frame waiting. */
    out.length = 1;
    EXPECT_EQ(ioctl(fd, VIDIOC_DQBUF, &out), -1);
    EXPECT_EQ(errno, EINVAL);
    out.length = VIDEO_MAX_PLANES + 1;
    EXPECT_EQ(ioctl(fd, VIDIOC_DQBUF, &out), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(node->DoneCount(), 2u);

    out.length = 2;
    ASSERT_EQ(ioctl(fd, VIDIOC_DQBUF, &out), 0);
    EXPECT_EQ(out.index, 0u);
    EXPECT_EQ(out.length, 2u);
    EXPECT_EQ(out.sequence, 6u);
    EXPECT_EQ(out.field, static_cast<uint32_t>(V4L2_FIELD_NONE));
    EXPECT_EQ(out.flags & V4L2_BUF_FLAG_TIMESTAMP_MASK, V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC);
    EXPECT_EQ(out.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR),
              V4L2_BUF_FLAG_DONE);
    EXPECT_EQ(planes[0].bytesused, 100u);
    EXPECT_EQ(planes[1].bytesused, 100u);

    out = {};
    out.type = req.type;
    out.m.planes = planes;
    out.length = 2;
    ASSERT_EQ(ioctl(fd, VIDIOC_DQBUF, &out), 0);
    EXPECT_EQ(out.sequence, 7u);
    EXPECT_EQ(out.flags & (V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR),
              V4L2_BUF_FLAG_DONE | V4L2_BUF_FLAG_ERROR);

    /* Querying a dequeued buffer shows neither state flag. */
    v4l2_buffer query = {};
    query.index = 0;
    query.type = req.type;
    query.memory = V4L2_MEMORY_MMAP;
    query.m.planes = planes;
    query.length = 2;
    ASSERT_EQ(ioctl(fd, VIDIOC_QUERYBUF, &query), 0);
    EXPECT_EQ(query.flags & (V4L2_BUF_FLAG_QUEUED | V4L2_BUF_FLAG_DONE), 0u);
    close(fd);
}

TEST_F(FakeV4l2Test, ExportFollowsTheKernelsRules) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    StartStreaming(fd, 1);
    v4l2_exportbuffer exp = {};
    exp.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    exp.flags = O_RDWR | O_NONBLOCK;  // only O_CLOEXEC and the access mode are allowed
    EXPECT_EQ(ioctl(fd, VIDIOC_EXPBUF, &exp), -1);
    EXPECT_EQ(errno, EINVAL);
    exp.flags = O_RDWR;
    exp.plane = 1;  // one plane only
    EXPECT_EQ(ioctl(fd, VIDIOC_EXPBUF, &exp), -1);
    EXPECT_EQ(errno, EINVAL);
    exp.plane = 0;
    ASSERT_EQ(ioctl(fd, VIDIOC_EXPBUF, &exp), 0);
    EXPECT_EQ(fcntl(exp.fd, F_GETFD) & FD_CLOEXEC, 0);
    close(exp.fd);
    exp.flags = O_RDWR | O_CLOEXEC;
    ASSERT_EQ(ioctl(fd, VIDIOC_EXPBUF, &exp), 0);
    EXPECT_NE(fcntl(exp.fd, F_GETFD) & FD_CLOEXEC, 0);
    /* The exported memory outlives the buffers, as a dma-buf does. */
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    ASSERT_EQ(ioctl(fd, VIDIOC_STREAMOFF, &type), 0);
    v4l2_requestbuffers none = {};
    none.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    none.memory = V4L2_MEMORY_MMAP;
    ASSERT_EQ(ioctl(fd, VIDIOC_REQBUFS, &none), 0);
    uint8_t byte = 1;
    EXPECT_EQ(pread(exp.fd, &byte, 1, 0), 1);
    close(exp.fd);
    close(fd);
}

TEST_F(FakeV4l2Test, MmapFollowsTheKernelsRules) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    StartStreaming(fd, 1);
    const size_t length = 640u * 480u * 3u / 2u;
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t rounded = (length + page - 1) / page * page;
    /* A private mapping, or one without read access, is refused. */
    EXPECT_EQ(mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE, fd, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mmap(nullptr, length, PROT_WRITE, MAP_SHARED, fd, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(mmap(nullptr, rounded + page, PROT_READ, MAP_SHARED, fd, 0), MAP_FAILED);
    EXPECT_EQ(errno, EINVAL);
    /* Up to the page-rounded plane length is fine. */
    void* addr = mmap(nullptr, rounded, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(addr, MAP_FAILED);
    EXPECT_EQ(node->LiveMappings(), 1u);
    EXPECT_EQ(munmap(addr, rounded), 0);
    close(fd);
}

TEST_F(FakeV4l2Test, DescriptorIsReadableWhileAFrameWaits) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo(O_RDWR | O_NONBLOCK);
    StartStreaming(fd, 2);
    EXPECT_FALSE(Readable(fd));
    EXPECT_EQ(node->ProduceFrame(), 0);
    EXPECT_TRUE(Readable(fd));
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer out;
    ASSERT_EQ(Dequeue(fd, out, planes), 0);
    EXPECT_FALSE(Readable(fd));
    EXPECT_EQ(Dequeue(fd, out, planes), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(fd);
}

TEST_F(FakeV4l2Test, BlockingDequeueWaitsForAFrame) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo(O_RDWR);
    StartStreaming(fd, 2);
    std::thread producer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        node->ProduceFrame(Frame(9));
    });
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer out;
    EXPECT_EQ(Dequeue(fd, out, planes), 0);
    EXPECT_EQ(out.sequence, 9u);
    producer.join();
    close(fd);
}

TEST_F(FakeV4l2Test, StreamOffReturnsBuffersAndWakesABlockedDequeue) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo(O_RDWR);
    StartStreaming(fd, 3);
    node->ProduceFrame();
    EXPECT_EQ(node->QueuedCount(), 2u);
    EXPECT_EQ(node->DoneCount(), 1u);
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer out;
    ASSERT_EQ(Dequeue(fd, out, planes), 0);

    int result = 0, err = 0;
    std::thread waiter([&] {
        v4l2_plane p[VIDEO_MAX_PLANES] = {};
        v4l2_buffer b;
        result = Dequeue(fd, b, p);
        err = errno;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    int type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    ASSERT_EQ(ioctl(fd, VIDIOC_STREAMOFF, &type), 0);
    waiter.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(err, EINVAL);
    EXPECT_FALSE(node->Streaming());
    EXPECT_EQ(node->QueuedCount(), 0u);
    EXPECT_EQ(node->ProduceFrame(), -1);
    close(fd);
}

TEST_F(FakeV4l2Test, QueueingTwiceIsRefused) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    StartStreaming(fd, 1);
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer buf = {};
    buf.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    buf.memory = V4L2_MEMORY_MMAP;
    buf.m.planes = planes;
    buf.length = 1;
    EXPECT_EQ(ioctl(fd, VIDIOC_QBUF, &buf), -1);
    EXPECT_EQ(errno, EINVAL);
    close(fd);
}

TEST_F(FakeV4l2Test, DmabufBuffersAreFilledThroughTheImportedDescriptor) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo(O_RDWR | O_NONBLOCK);
    v4l2_requestbuffers req = {};
    req.count = 1;
    req.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    req.memory = V4L2_MEMORY_DMABUF;
    ASSERT_EQ(ioctl(fd, VIDIOC_REQBUFS, &req), 0);
    const uint32_t size = node->Format().fmt.pix_mp.plane_fmt[0].sizeimage;
    int mem = memfd_create("client", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(mem, size), 0);
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    planes[0].m.fd = mem;
    planes[0].length = size - 1;
    v4l2_buffer buf = {};
    buf.type = req.type;
    buf.memory = V4L2_MEMORY_DMABUF;
    buf.m.planes = planes;
    buf.length = 1;
    /* A dma-buf smaller than the plane is refused, as vb2 does. */
    EXPECT_EQ(ioctl(fd, VIDIOC_QBUF, &buf), -1);
    EXPECT_EQ(errno, EINVAL);
    /* Length 0 stands for the dma-buf's own size. */
    planes[0].length = 0;
    ASSERT_EQ(ioctl(fd, VIDIOC_QBUF, &buf), 0);
    int type = req.type;
    ASSERT_EQ(ioctl(fd, VIDIOC_STREAMON, &type), 0);
    ASSERT_EQ(node->ProduceFrame(Frame(-1, {0, 0}, 0x7e)), 0);
    uint8_t byte = 0;
    ASSERT_EQ(pread(mem, &byte, 1, size - 1), 1);
    EXPECT_EQ(byte, 0x7e);
    close(mem);
    close(fd);
}

TEST_F(FakeV4l2Test, SelectionsAndEvents) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    v4l2_selection sel = {};
    sel.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    sel.target = V4L2_SEL_TGT_CROP;
    sel.r = {2, 4, 100, 50};
    ASSERT_EQ(ioctl(fd, VIDIOC_S_SELECTION, &sel), 0);
    sel.r = {};
    ASSERT_EQ(ioctl(fd, VIDIOC_G_SELECTION, &sel), 0);
    EXPECT_EQ(sel.r.width, 100u);
    EXPECT_EQ(sel.r.top, 4);

    v4l2_event_subscription sub = {};
    sub.type = V4L2_EVENT_EOS;
    ASSERT_EQ(ioctl(fd, VIDIOC_SUBSCRIBE_EVENT, &sub), 0);
    v4l2_event event = {};
    event.type = V4L2_EVENT_SOURCE_CHANGE;
    node->PostEvent(event); /* not subscribed: dropped */
    event.type = V4L2_EVENT_EOS;
    node->PostEvent(event);
    v4l2_event out = {};
    ASSERT_EQ(ioctl(fd, VIDIOC_DQEVENT, &out), 0);
    EXPECT_EQ(out.type, static_cast<uint32_t>(V4L2_EVENT_EOS));
    EXPECT_EQ(ioctl(fd, VIDIOC_DQEVENT, &out), -1);
    EXPECT_EQ(errno, ENOENT);
    close(fd);
}

TEST_F(FakeV4l2Test, SubdevPads) {
    marlo_fake::SubdevNodeConfig config;
    config.pads[0].mbusCodes = {0x2006, 0x2008};
    config.pads[0].frameSizes[0x2006] = {{64, 48, 1920, 1080}};
    config.pads[0].intervals[0x2006] = {{1, 30}, {1, 60}};
    auto node = marlo_fake::AddSubdevNode("/dev/marlo-fake-subdev0", config);
    int fd = open("/dev/marlo-fake-subdev0", O_RDWR);
    ASSERT_GE(fd, 0);
    v4l2_subdev_format fmt = {};
    fmt.which = V4L2_SUBDEV_FORMAT_ACTIVE;
    fmt.format.width = 320;
    fmt.format.code = 0x2006;
    ASSERT_EQ(ioctl(fd, VIDIOC_SUBDEV_S_FMT, &fmt), 0);
    EXPECT_EQ(node->Pad(0).format.width, 320u);
    fmt.pad = 3;
    EXPECT_EQ(ioctl(fd, VIDIOC_SUBDEV_G_FMT, &fmt), -1);
    v4l2_subdev_mbus_code_enum code = {};
    code.index = 1;
    ASSERT_EQ(ioctl(fd, VIDIOC_SUBDEV_ENUM_MBUS_CODE, &code), 0);
    EXPECT_EQ(code.code, 0x2008u);
    v4l2_subdev_frame_interval_enum fie = {};
    fie.code = 0x2006;
    fie.index = 1;
    ASSERT_EQ(ioctl(fd, VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL, &fie), 0);
    EXPECT_EQ(fie.interval.denominator, 60u);
    close(fd);
}

TEST_F(FakeV4l2Test, MediaControllerEntitiesAndLinks) {
    marlo_fake::MediaNodeConfig config;
    config.entities = {{1, "sensor", MEDIA_ENT_F_CAM_SENSOR, 1},
                       {2, "csi", MEDIA_ENT_F_VID_IF_BRIDGE, 2}};
    config.links = {{1, 0, 2, 0, 0}};
    auto node = marlo_fake::AddMediaNode("/dev/marlo-fake-media0", config);
    int fd = open("/dev/marlo-fake-media0", O_RDWR);
    ASSERT_GE(fd, 0);
    media_device_info info = {};
    ASSERT_EQ(ioctl(fd, MEDIA_IOC_DEVICE_INFO, &info), 0);
    EXPECT_STREQ(info.driver, "fake-media");
    media_entity_desc entity = {};
    entity.id = MEDIA_ENT_ID_FLAG_NEXT;
    ASSERT_EQ(ioctl(fd, MEDIA_IOC_ENUM_ENTITIES, &entity), 0);
    EXPECT_EQ(entity.id, 1u);
    EXPECT_EQ(entity.links, 1);
    media_link_desc link = {};
    link.source.entity = 1;
    link.sink.entity = 2;
    link.flags = MEDIA_LNK_FL_ENABLED;
    ASSERT_EQ(ioctl(fd, MEDIA_IOC_SETUP_LINK, &link), 0);
    EXPECT_EQ(node->Links()[0].flags, static_cast<uint32_t>(MEDIA_LNK_FL_ENABLED));
    media_v2_topology topo = {};
    ASSERT_EQ(ioctl(fd, MEDIA_IOC_G_TOPOLOGY, &topo), 0);
    EXPECT_EQ(topo.num_entities, 2u);
    EXPECT_EQ(topo.num_links, 1u);
    close(fd);
}

TEST_F(FakeV4l2Test, ClosingTheBufferOwnerReleasesTheQueue) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int owner = OpenVideo();
    int other = OpenVideo();
    StartStreaming(owner, 2);
    close(other);
    EXPECT_TRUE(node->Streaming());
    EXPECT_EQ(node->BufferCount(), 2u);
    close(owner);
    EXPECT_FALSE(node->Streaming());
    EXPECT_EQ(node->BufferCount(), 0u);
}

TEST_F(FakeV4l2Test, WaitQueuedSeesBuffersComingBack) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo(O_RDWR | O_NONBLOCK);
    StartStreaming(fd, 2);
    ASSERT_EQ(node->ProduceFrame(), 0);
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer out;
    ASSERT_EQ(Dequeue(fd, out, planes), 0);
    EXPECT_FALSE(node->WaitQueued(2, std::chrono::milliseconds(10)));
    std::thread requeue([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        v4l2_plane p[VIDEO_MAX_PLANES] = {};
        v4l2_buffer buf = out;
        buf.m.planes = p;
        buf.length = 1;
        ioctl(fd, VIDIOC_QBUF, &buf);
    });
    EXPECT_TRUE(node->WaitQueued(2, std::chrono::seconds(5)));
    requeue.join();
    close(fd);
}

TEST_F(FakeV4l2Test, StartFramesProducesWhileBuffersAreQueued) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo(O_RDWR);
    StartStreaming(fd, 3);
    node->StartFrames(std::chrono::milliseconds(2));
    uint32_t last = 0;
    for (int i = 0; i < 10; ++i) {
        v4l2_plane planes[VIDEO_MAX_PLANES] = {};
        v4l2_buffer out;
        ASSERT_EQ(Dequeue(fd, out, planes), 0);
        if (i > 0) {
            EXPECT_EQ(out.sequence, last + 1);
        }
        last = out.sequence;
        EXPECT_NE(out.timestamp.tv_sec + out.timestamp.tv_usec, 0);
        v4l2_buffer again = out;
        again.m.planes = planes;
        again.length = 1;
        ASSERT_EQ(ioctl(fd, VIDIOC_QBUF, &again), 0);
    }
    EXPECT_GE(node->StopFrames(), 10u);
    close(fd);
}

TEST_F(FakeV4l2Test, RemovedNodeKeepsOpenDescriptorsWorking) {
    marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    marlo_fake::RemoveNode(kVideo);
    EXPECT_EQ(open(kVideo, O_RDWR), -1);
    v4l2_capability caps = {};
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), 0);
    EXPECT_EQ(close(fd), 0);
}

}  // namespace

namespace {

/* The poll bits of \a fd now, asking for input only (as the camera does). */
short PollEvents(int fd) {
    pollfd pfd = {fd, POLLIN, 0};
    return poll(&pfd, 1, 0) == 1 ? pfd.revents : 0;
}

}  // namespace

TEST_F(FakeV4l2Test, AnUnpluggedNodeHangsUpAndRefusesEverything) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    StartStreaming(fd, 2);
    ASSERT_GE(node->ProduceFrame(Frame(0)), 0);
    ASSERT_TRUE(Readable(fd));

    node->Disconnect();
    EXPECT_TRUE(node->Disconnected());
    /* A hang-up with nothing to read, whatever was waiting before. */
    EXPECT_EQ(PollEvents(fd), POLLHUP);
    v4l2_buffer buf;
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    EXPECT_EQ(Dequeue(fd, buf, planes), -1);
    EXPECT_EQ(errno, ENODEV);
    v4l2_capability caps = {};
    EXPECT_EQ(ioctl(fd, VIDIOC_QUERYCAP, &caps), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_FALSE(node->Streaming());
    EXPECT_EQ(node->ProduceFrame(Frame(1)), -1);
    EXPECT_EQ(open(kVideo, O_RDWR), -1);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0), MAP_FAILED);
    EXPECT_EQ(errno, ENODEV);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(node->OpenDescriptors(), 0u);
}

TEST_F(FakeV4l2Test, UnpluggingEndsABlockedDequeue) {
    auto node = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    StartStreaming(fd, 2);
    int result = 0;
    int error = 0;
    std::thread waiter([&] {
        v4l2_buffer buf;
        v4l2_plane planes[VIDEO_MAX_PLANES] = {};
        result = Dequeue(fd, buf, planes);
        error = errno;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    node->Disconnect();
    waiter.join();
    EXPECT_EQ(result, -1);
    EXPECT_EQ(error, ENODEV);
    close(fd);
}

TEST_F(FakeV4l2Test, ANodeAddedAgainAtThePathWorksBesideTheUnpluggedOne) {
    auto gone = marlo_fake::AddVideoNode(kVideo);
    int oldFd = OpenVideo();
    gone->Disconnect();
    marlo_fake::RemoveNode(kVideo);
    EXPECT_EQ(open(kVideo, O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);

    auto back = marlo_fake::AddVideoNode(kVideo);
    int fd = OpenVideo();
    StartStreaming(fd, 2);
    ASSERT_GE(back->ProduceFrame(Frame(0)), 0);
    EXPECT_TRUE(Readable(fd));
    EXPECT_EQ(PollEvents(oldFd), POLLHUP);
    close(fd);
    close(oldFd);
}

TEST_F(FakeV4l2Test, StreamParmGrantsTheNearestOfferedInterval) {
    marlo_fake::VideoNodeConfig config;
    config.frameInterval = {1, 5};
    config.frameIntervals = {{1, 5}, {1, 25}, {1, 30}};
    auto node = marlo_fake::AddVideoNode(kVideo, config);
    int fd = OpenVideo();

    v4l2_streamparm parm = {};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    ASSERT_EQ(ioctl(fd, VIDIOC_G_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.capability, static_cast<uint32_t>(V4L2_CAP_TIMEPERFRAME));
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 5u);

    parm = {};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    parm.parm.capture.timeperframe = {1000, 27000};
    ASSERT_EQ(ioctl(fd, VIDIOC_S_PARM, &parm), 0);
    EXPECT_EQ(parm.parm.capture.timeperframe.numerator, 1u);
    EXPECT_EQ(parm.parm.capture.timeperframe.denominator, 25u);
    EXPECT_EQ(node->FrameInterval().denominator, 25u);
    auto records = node->Requests(VIDIOC_S_PARM);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records[0].numerator, 1000u);
    EXPECT_EQ(records[0].denominator, 27000u);

    /* Output types and a node without the requests are refused. */
    parm.type = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    EXPECT_EQ(ioctl(fd, VIDIOC_S_PARM, &parm), -1);
    EXPECT_EQ(errno, EINVAL);
    close(fd);

    marlo_fake::Reset();
    config.streamParm = false;
    marlo_fake::AddVideoNode(kVideo, config);
    fd = OpenVideo();
    parm = {};
    parm.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    EXPECT_EQ(ioctl(fd, VIDIOC_G_PARM, &parm), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(fd);
}
