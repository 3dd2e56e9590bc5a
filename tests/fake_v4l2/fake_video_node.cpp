/* A capture driver: formats, buffers backed by memfds, streaming and events. */
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>

#include "fake_v4l2_internal.h"

namespace marlo_fake {

namespace {

/* The largest width and height a node without a size list grants. */
constexpr uint32_t kMaxSide = 4096;

/* Bytes per line and whole-image bytes of the formats the fake knows. */
void FrameGeometry(uint32_t fourcc, uint32_t width, uint32_t height, uint32_t* bpl,
                   uint32_t* total) {
    switch (fourcc) {
        case V4L2_PIX_FMT_NV12:
        case V4L2_PIX_FMT_NV21:
        case V4L2_PIX_FMT_YUV420:
        case V4L2_PIX_FMT_NV12M:
            *bpl = width;
            *total = width * height * 3 / 2;
            break;
        case V4L2_PIX_FMT_GREY:
            *bpl = width;
            *total = width * height;
            break;
        case V4L2_PIX_FMT_RGB24:
        case V4L2_PIX_FMT_BGR24:
            *bpl = width * 3;
            *total = width * height * 3;
            break;
        case V4L2_PIX_FMT_ABGR32:
        case V4L2_PIX_FMT_XBGR32:
        case V4L2_PIX_FMT_ARGB32:
        case V4L2_PIX_FMT_XRGB32:
            *bpl = width * 4;
            *total = width * height * 4;
            break;
        default:
            *bpl = width * 2;
            *total = width * height * 2;
            break;
    }
}

void CopyString(uint8_t* dst, size_t size, const std::string& src) {
    memset(dst, 0, size);
    memcpy(dst, src.data(), std::min(size - 1, src.size()));
}

/* Dups a descriptor close-on-exec, or -1. */
int Dup(int fd) {
    return fcntl(fd, F_DUPFD_CLOEXEC, 0);
}

}  // namespace

v4l2_frmsizeenum DiscreteSize(uint32_t width, uint32_t height) {
    v4l2_frmsizeenum size = {};
    size.type = V4L2_FRMSIZE_TYPE_DISCRETE;
    size.discrete.width = width;
    size.discrete.height = height;
    return size;
}

v4l2_frmsizeenum StepwiseSize(uint32_t minWidth, uint32_t minHeight, uint32_t maxWidth,
                              uint32_t maxHeight, uint32_t stepWidth, uint32_t stepHeight) {
    v4l2_frmsizeenum size = {};
    size.type = (stepWidth == 1 && stepHeight == 1) ? V4L2_FRMSIZE_TYPE_CONTINUOUS
                                                    : V4L2_FRMSIZE_TYPE_STEPWISE;
    size.stepwise = {minWidth, maxWidth, stepWidth, minHeight, maxHeight, stepHeight};
    return size;
}

FrameContent Frame(int64_t sequence, timeval timestamp, uint8_t fill) {
    FrameContent content;
    content.sequence = sequence;
    content.timestamp = timestamp;
    content.fill = fill;
    return content;
}

FakeVideoNode::FakeVideoNode(std::string path, VideoNodeConfig config)
    : FakeNode(std::move(path)), config_(std::move(config)) {
    bufferType_ = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    if (!(config_.capabilities & V4L2_CAP_VIDEO_CAPTURE_MPLANE) &&
        (config_.capabilities & V4L2_CAP_VIDEO_CAPTURE))
        bufferType_ = V4L2_BUF_TYPE_VIDEO_CAPTURE;
    v4l2_format fmt = {};
    fmt.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    fmt.fmt.pix_mp.width = config_.width;
    fmt.fmt.pix_mp.height = config_.height;
    fmt.fmt.pix_mp.pixelformat =
        config_.formats.empty() ? V4L2_PIX_FMT_NV12 : config_.formats.front().fourcc;
    ApplyFormat(fmt);
    interval_ = config_.frameInterval;
}

FakeVideoNode::~FakeVideoNode() {
    StopFrames();
    FreeBuffers();
}

bool FakeVideoNode::WaitQueued(size_t count, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return cond_.wait_for(lock, timeout, [&] { return streaming_ && queued_.size() >= count; });
}

void FakeVideoNode::StartFrames(std::chrono::microseconds period, FrameContent content) {
    StopFrames();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        producing_ = true;
        produced_ = 0;
    }
    producer_ = std::thread([this, period, content]() mutable {
        auto next = std::chrono::steady_clock::now();
        for (;;) {
            next += period;
            {
                std::unique_lock<std::mutex> lock(mutex_);
                if (cond_.wait_until(lock, next, [&] { return !producing_; }))
                    return;
            }
            FrameContent frame = content;
            frame.sequence = -1;
            if (content.timestamp.tv_sec == 0 && content.timestamp.tv_usec == 0) {
                timespec now;
                clock_gettime(CLOCK_MONOTONIC, &now);
                frame.timestamp = {now.tv_sec, now.tv_nsec / 1000};
            }
            if (ProduceFrame(frame) >= 0) {
                std::lock_guard<std::mutex> lock(mutex_);
                ++produced_;
            }
        }
    });
}

size_t FakeVideoNode::StopFrames() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        producing_ = false;
        cond_.notify_all();
    }
    if (producer_.joinable())
        producer_.join();
    std::lock_guard<std::mutex> lock(mutex_);
    return produced_;
}

void FakeVideoNode::SetGrantedCount(int count) {
    std::lock_guard<std::mutex> lock(mutex_);
    config_.grantedCount = count;
}

void FakeVideoNode::SetCapabilities(uint32_t capabilities) {
    std::lock_guard<std::mutex> lock(mutex_);
    config_.capabilities = capabilities;
}

bool FakeVideoNode::IsMultiPlanar(uint32_t type) const {
    return type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE || type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
}

/* A buffer type is accepted when the matching capability bit is set. */
bool FakeVideoNode::TypeSupported(uint32_t type) const {
    const uint32_t caps = config_.capabilities;
    switch (type) {
        case V4L2_BUF_TYPE_VIDEO_CAPTURE:
            return caps & V4L2_CAP_VIDEO_CAPTURE;
        case V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE:
            return caps & V4L2_CAP_VIDEO_CAPTURE_MPLANE;
        case V4L2_BUF_TYPE_VIDEO_OUTPUT:
            return caps & V4L2_CAP_VIDEO_OUTPUT;
        case V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE:
            return caps & V4L2_CAP_VIDEO_OUTPUT_MPLANE;
        case V4L2_BUF_TYPE_META_CAPTURE:
            return caps & V4L2_CAP_META_CAPTURE;
        case V4L2_BUF_TYPE_META_OUTPUT:
            return caps & V4L2_CAP_META_OUTPUT;
        default:
            return false;
    }
}

uint32_t FakeVideoNode::PlaneCount() const {
    return IsMultiPlanar(bufferType_) ? std::max<uint32_t>(1, config_.numPlanes) : 1;
}

uint32_t FakeVideoNode::PlaneSize(uint32_t plane) const {
    if (!IsMultiPlanar(bufferType_)) {
        uint32_t bpl, total;
        FrameGeometry(format_.pixelformat, format_.width, format_.height, &bpl, &total);
        return total;
    }
    return format_.plane_fmt[plane].sizeimage;
}

uint64_t FakeVideoNode::Offset(uint32_t index, uint32_t plane) {
    return (static_cast<uint64_t>(index) * VIDEO_MAX_PLANES + plane) << 16;
}

void FakeVideoNode::ReleaseDmabufs(Buffer& buffer) {
    for (auto& plane : buffer.planes) {
        if (plane.dmabuf >= 0)
            detail::RealClose(plane.dmabuf);
        plane.dmabuf = -1;
    }
}

void FakeVideoNode::FreeBuffers() {
    for (auto& buffer : buffers_) {
        ReleaseDmabufs(buffer);
        /* Mappings made from these keep the memory alive on their own. */
        for (auto& plane : buffer.planes)
            if (plane.memfd >= 0)
                detail::RealClose(plane.memfd);
    }
    buffers_.clear();
    queued_.clear();
    done_.clear();
}

void FakeVideoNode::ReturnAllBuffers() {
    for (auto& buffer : buffers_) {
        buffer.state = State::kUser;
        ReleaseDmabufs(buffer);
    }
    queued_.clear();
    done_.clear();
}

/* Adjusts a requested format to what this driver can do, and stores it. */
void FakeVideoNode::ApplyFormat(v4l2_format& fmt) {
    const bool mplane = IsMultiPlanar(fmt.type);
    uint32_t fourcc = mplane ? fmt.fmt.pix_mp.pixelformat : fmt.fmt.pix.pixelformat;
    uint32_t width = mplane ? fmt.fmt.pix_mp.width : fmt.fmt.pix.width;
    uint32_t height = mplane ? fmt.fmt.pix_mp.height : fmt.fmt.pix.height;
    uint32_t colorspace = mplane ? fmt.fmt.pix_mp.colorspace : fmt.fmt.pix.colorspace;
    uint32_t userBpl = mplane ? fmt.fmt.pix_mp.plane_fmt[0].bytesperline : fmt.fmt.pix.bytesperline;

    bool known = false;
    for (const auto& f : config_.formats)
        known |= f.fourcc == fourcc;
    if (!known && !config_.formats.empty())
        fourcc = config_.formats.front().fourcc;

    auto sizes = config_.frameSizes.find(fourcc);
    if (sizes != config_.frameSizes.end() && !sizes->second.empty()) {
        const auto& first = sizes->second.front();
        if (first.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
            bool match = false;
            for (const auto& s : sizes->second)
                match |= s.discrete.width == width && s.discrete.height == height;
            if (!match) {
                width = first.discrete.width;
                height = first.discrete.height;
            }
        } else {
            width = std::clamp(width, first.stepwise.min_width, first.stepwise.max_width);
            height = std::clamp(height, first.stepwise.min_height, first.stepwise.max_height);
        }
    } else {
        /* A driver without a size list still has a largest size it captures. */
        width = std::min(width, kMaxSide);
        height = std::min(height, kMaxSide);
    }
    if (width == 0 || height == 0) {
        width = config_.width;
        height = config_.height;
    }
    if (colorspace == 0)
        colorspace = V4L2_COLORSPACE_SRGB;

    uint32_t bpl, total;
    FrameGeometry(fourcc, width, height, &bpl, &total);
    bpl = std::max(bpl, userBpl);

    format_ = {};
    format_.width = width;
    format_.height = height;
    format_.pixelformat = fourcc;
    format_.field = V4L2_FIELD_NONE;
    format_.colorspace = colorspace;
    format_.num_planes = static_cast<uint8_t>(std::max<uint32_t>(1, config_.numPlanes));
    /* Planes beyond the first share the image equally with it. */
    uint32_t perPlane = (total + format_.num_planes - 1) / format_.num_planes;
    for (uint32_t p = 0; p < format_.num_planes && p < VIDEO_MAX_PLANES; ++p) {
        format_.plane_fmt[p].bytesperline = bpl;
        format_.plane_fmt[p].sizeimage = perPlane;
    }
    FillFormat(fmt);
}

void FakeVideoNode::FillFormat(v4l2_format& fmt) const {
    if (IsMultiPlanar(fmt.type)) {
        fmt.fmt.pix_mp = format_;
        fmt.fmt.pix_mp.num_planes = static_cast<uint8_t>(PlaneCount());
        return;
    }
    uint32_t bpl, total;
    FrameGeometry(format_.pixelformat, format_.width, format_.height, &bpl, &total);
    fmt.fmt.pix = {};
    fmt.fmt.pix.width = format_.width;
    fmt.fmt.pix.height = format_.height;
    fmt.fmt.pix.pixelformat = format_.pixelformat;
    fmt.fmt.pix.field = V4L2_FIELD_NONE;
    fmt.fmt.pix.bytesperline = format_.plane_fmt[0].bytesperline;
    fmt.fmt.pix.sizeimage = total;
    fmt.fmt.pix.colorspace = format_.colorspace;
}

/*
 * Like vb2: once a file has requested buffers it owns the queue, and the
 * buffer requests of any other file are refused (QUERYBUF stays open to all).
 */
bool FakeVideoNode::QueueBusy(const OpenFile& file, unsigned long request) const {
    switch (request) {
        case VIDIOC_REQBUFS:
        case VIDIOC_EXPBUF:
        case VIDIOC_QBUF:
        case VIDIOC_DQBUF:
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
            return ownerFd_ >= 0 && ownerFd_ != file.fd;
        default:
            return false;
    }
}

int FakeVideoNode::Ioctl(OpenFile file, unsigned long request, void* arg,
                         std::unique_lock<std::mutex>& lock) {
    if (QueueBusy(file, request))
        return EBUSY;
    switch (request) {
        case VIDIOC_QUERYCAP:
            return QueryCap(static_cast<v4l2_capability*>(arg));
        case VIDIOC_ENUM_FMT:
            return EnumFmt(static_cast<v4l2_fmtdesc*>(arg));
        case VIDIOC_ENUM_FRAMESIZES:
            return EnumFrameSizes(static_cast<v4l2_frmsizeenum*>(arg));
        case VIDIOC_G_FMT:
            return GetFmt(static_cast<v4l2_format*>(arg));
        case VIDIOC_S_FMT:
            return SetFmt(static_cast<v4l2_format*>(arg), true);
        case VIDIOC_TRY_FMT:
            return SetFmt(static_cast<v4l2_format*>(arg), false);
        case VIDIOC_REQBUFS: {
            int err = ReqBufs(static_cast<v4l2_requestbuffers*>(arg));
            if (err == 0)
                ownerFd_ = buffers_.empty() ? -1 : file.fd;
            return err;
        }
        case VIDIOC_QUERYBUF:
            return QueryBuf(static_cast<v4l2_buffer*>(arg));
        case VIDIOC_EXPBUF:
            return ExpBuf(static_cast<v4l2_exportbuffer*>(arg));
        case VIDIOC_QBUF:
            return QBuf(static_cast<v4l2_buffer*>(arg));
        case VIDIOC_DQBUF:
            return DQBuf(file, static_cast<v4l2_buffer*>(arg), lock);
        case VIDIOC_STREAMON:
            return StreamOnOff(static_cast<const int*>(arg), true);
        case VIDIOC_STREAMOFF:
            return StreamOnOff(static_cast<const int*>(arg), false);
        case VIDIOC_G_PARM:
            return StreamParm(static_cast<v4l2_streamparm*>(arg), false);
        case VIDIOC_S_PARM:
            return StreamParm(static_cast<v4l2_streamparm*>(arg), true);
        case VIDIOC_G_SELECTION:
            return Selection(static_cast<v4l2_selection*>(arg), false);
        case VIDIOC_S_SELECTION:
            return Selection(static_cast<v4l2_selection*>(arg), true);
        case VIDIOC_SUBSCRIBE_EVENT:
            return Subscribe(static_cast<v4l2_event_subscription*>(arg), true);
        case VIDIOC_UNSUBSCRIBE_EVENT:
            return Subscribe(static_cast<v4l2_event_subscription*>(arg), false);
        case VIDIOC_DQEVENT:
            return DQEvent(static_cast<v4l2_event*>(arg));
        default:
            return ENOTTY;
    }
}

int FakeVideoNode::QueryCap(v4l2_capability* caps) {
    memset(caps, 0, sizeof(*caps));
    CopyString(caps->driver, sizeof(caps->driver), config_.driver);
    CopyString(caps->card, sizeof(caps->card), config_.card);
    CopyString(caps->bus_info, sizeof(caps->bus_info), config_.busInfo);
    caps->version = config_.version;
    caps->capabilities = config_.capabilities;
    caps->device_caps =
        config_.deviceCaps != 0 ? config_.deviceCaps : config_.capabilities & ~V4L2_CAP_DEVICE_CAPS;
    return 0;
}

int FakeVideoNode::EnumFmt(v4l2_fmtdesc* desc) {
    if (!TypeSupported(desc->type) || desc->index >= config_.formats.size())
        return EINVAL;
    const FakeFormat& f = config_.formats[desc->index];
    uint32_t index = desc->index, type = desc->type;
    memset(desc, 0, sizeof(*desc));
    desc->index = index;
    desc->type = type;
    desc->pixelformat = f.fourcc;
    CopyString(desc->description, sizeof(desc->description), f.description);
    return 0;
}

int FakeVideoNode::EnumFrameSizes(v4l2_frmsizeenum* size) {
    auto it = config_.frameSizes.find(size->pixel_format);
    if (it == config_.frameSizes.end() || size->index >= it->second.size())
        return EINVAL;
    uint32_t index = size->index, fourcc = size->pixel_format;
    *size = it->second[index];
    size->index = index;
    size->pixel_format = fourcc;
    return 0;
}

int FakeVideoNode::GetFmt(v4l2_format* fmt) {
    if (!TypeSupported(fmt->type))
        return EINVAL;
    FillFormat(*fmt);
    return 0;
}

int FakeVideoNode::SetFmt(v4l2_format* fmt, bool apply) {
    if (!TypeSupported(fmt->type))
        return EINVAL;
    if (!apply) {
        v4l2_pix_format_mplane saved = format_;
        ApplyFormat(*fmt);
        format_ = saved;
        return 0;
    }
    /* Like vb2: the format is fixed while buffers exist. */
    if (!buffers_.empty())
        return EBUSY;
    bufferType_ = fmt->type;
    ApplyFormat(*fmt);
    return 0;
}

int FakeVideoNode::ReqBufs(v4l2_requestbuffers* req) {
    if (!TypeSupported(req->type))
        return EINVAL;
    if (req->memory != V4L2_MEMORY_MMAP && req->memory != V4L2_MEMORY_DMABUF)
        return EINVAL;
    if (streaming_)
        return EBUSY;

    FreeBuffers();
    bufferType_ = req->type;
    memory_ = req->memory;
    uint32_t granted = req->count;
    if (req->count != 0) {
        granted = config_.grantedCount >= 0 ? static_cast<uint32_t>(config_.grantedCount)
                                            : std::min(req->count, config_.maxBuffers);
    }
    for (uint32_t i = 0; i < granted; ++i) {
        Buffer buffer;
        buffer.index = i;
        buffer.planes.resize(PlaneCount());
        for (uint32_t p = 0; p < buffer.planes.size(); ++p) {
            Plane& plane = buffer.planes[p];
            plane.size = PlaneSize(p);
            if (memory_ != V4L2_MEMORY_MMAP)
                continue;
            plane.memfd = memfd_create("fake-v4l2-buffer", MFD_CLOEXEC);
            if (plane.memfd < 0 || ftruncate(plane.memfd, plane.size) != 0) {
                int err = errno;
                buffers_.push_back(std::move(buffer));
                FreeBuffers();
                return err;
            }
        }
        buffers_.push_back(std::move(buffer));
    }
    req->count = granted;
    req->capabilities = V4L2_BUF_CAP_SUPPORTS_MMAP | V4L2_BUF_CAP_SUPPORTS_DMABUF;
    return 0;
}

/* The multi-planar check of vb2: an array of at least the buffer's planes, at most 8. */
bool FakeVideoNode::PlaneArrayValid(const v4l2_buffer& buf, const Buffer& buffer) {
    return buf.m.planes != nullptr && buf.length >= buffer.planes.size() &&
           buf.length <= VIDEO_MAX_PLANES;
}

void FakeVideoNode::FillBufferRecord(const Buffer& buffer, v4l2_buffer* buf) const {
    buf->index = buffer.index;
    buf->type = bufferType_;
    buf->memory = memory_;
    buf->field = V4L2_FIELD_NONE;
    buf->flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC | buffer.flags;
    if (buffer.state == State::kQueued)
        buf->flags |= V4L2_BUF_FLAG_QUEUED;
    if (buffer.state == State::kDone)
        buf->flags |= V4L2_BUF_FLAG_DONE;
    buf->sequence = buffer.sequence;
    buf->timestamp = buffer.timestamp;
    if (IsMultiPlanar(bufferType_)) {
        buf->length = static_cast<uint32_t>(buffer.planes.size());
        for (uint32_t p = 0; p < buffer.planes.size(); ++p) {
            v4l2_plane& plane = buf->m.planes[p];
            plane.length = buffer.planes[p].size;
            plane.bytesused = buffer.planes[p].bytesused;
            if (memory_ == V4L2_MEMORY_MMAP)
                plane.m.mem_offset = static_cast<uint32_t>(Offset(buffer.index, p));
            plane.data_offset = 0;
        }
    } else {
        buf->length = buffer.planes[0].size;
        buf->bytesused = buffer.planes[0].bytesused;
        if (memory_ == V4L2_MEMORY_MMAP)
            buf->m.offset = static_cast<uint32_t>(Offset(buffer.index, 0));
    }
}

int FakeVideoNode::QueryBuf(v4l2_buffer* buf) {
    if (buf->type != bufferType_ || buf->index >= buffers_.size())
        return EINVAL;
    if (IsMultiPlanar(bufferType_) && !PlaneArrayValid(*buf, buffers_[buf->index]))
        return EINVAL;
    FillBufferRecord(buffers_[buf->index], buf);
    return 0;
}

int FakeVideoNode::ExpBuf(v4l2_exportbuffer* exp) {
    if (exp->type != bufferType_ || exp->index >= buffers_.size() || memory_ != V4L2_MEMORY_MMAP)
        return EINVAL;
    Buffer& buffer = buffers_[exp->index];
    if (exp->plane >= buffer.planes.size())
        return EINVAL;
    if (exp->flags & ~static_cast<uint32_t>(O_CLOEXEC | O_ACCMODE))
        return EINVAL;
    int fd = (exp->flags & O_CLOEXEC) ? Dup(buffer.planes[exp->plane].memfd)
                                      : fcntl(buffer.planes[exp->plane].memfd, F_DUPFD, 0);
    if (fd < 0)
        return errno;
    exp->fd = fd;
    return 0;
}

int FakeVideoNode::QBuf(v4l2_buffer* buf) {
    if (buf->type != bufferType_ || buf->memory != memory_ || buf->index >= buffers_.size())
        return EINVAL;
    Buffer& buffer = buffers_[buf->index];
    if (buffer.state != State::kUser)
        return EINVAL;
    const bool mplane = IsMultiPlanar(bufferType_);
    if (mplane && !PlaneArrayValid(*buf, buffer))
        return EINVAL;

    if (memory_ == V4L2_MEMORY_DMABUF) {
        /*
         * Like the kernel, keep a reference to each plane's dma-buf while
         * queued, and refuse one smaller than the plane: the length given
         * counts, or the dma-buf's own size when it is 0.
         */
        for (uint32_t p = 0; p < buffer.planes.size(); ++p) {
            int fd = mplane ? buf->m.planes[p].m.fd : buf->m.fd;
            uint32_t length = mplane ? buf->m.planes[p].length : buf->length;
            struct stat st;
            if (length == 0 && fd >= 0 && fstat(fd, &st) == 0)
                length = static_cast<uint32_t>(st.st_size);
            int held = fd >= 0 && length >= buffer.planes[p].size ? Dup(fd) : -1;
            if (held < 0) {
                ReleaseDmabufs(buffer);
                return EINVAL;
            }
            buffer.planes[p].dmabuf = held;
        }
    }
    if (V4L2_TYPE_IS_OUTPUT(bufferType_)) {
        for (uint32_t p = 0; p < buffer.planes.size(); ++p)
            buffer.planes[p].bytesused = mplane ? buf->m.planes[p].bytesused : buf->bytesused;
    }
    buffer.state = State::kQueued;
    buffer.flags = 0;
    queued_.push_back(buffer.index);
    /* The kernel answers with the buffer's record; cache hints are kept. */
    const uint32_t hints =
        buf->flags & (V4L2_BUF_FLAG_NO_CACHE_INVALIDATE | V4L2_BUF_FLAG_NO_CACHE_CLEAN);
    const int dmabufFd = mplane ? -1 : buf->m.fd;
    FillBufferRecord(buffer, buf);
    buf->flags |= hints;
    if (!mplane && memory_ == V4L2_MEMORY_DMABUF)
        buf->m.fd = dmabufFd;
    return 0;
}

int FakeVideoNode::DQBuf(OpenFile file, v4l2_buffer* buf, std::unique_lock<std::mutex>& lock) {
    if (buf->type != bufferType_)
        return EINVAL;
    /* As vb2: a queue that does not stream has nothing to wait for, blocking or not. */
    if (!streaming_)
        return EINVAL;
    if (done_.empty()) {
        if (file.flags & O_NONBLOCK)
            return EAGAIN;
        cond_.wait(lock, [&] {
            return !done_.empty() || !streaming_ || disconnected_ || FindFile(file.fd) == nullptr;
        });
        if (disconnected_)
            return ENODEV;
        if (FindFile(file.fd) == nullptr)
            return EBADF;
        if (done_.empty())
            return EINVAL;
    }

    /* A bad plane array leaves the frame waiting, as in vb2. */
    Buffer& buffer = buffers_[done_.front()];
    if (IsMultiPlanar(bufferType_) && !PlaneArrayValid(*buf, buffer))
        return EINVAL;
    done_.pop_front();
    /* vb2 fills the answer while the buffer is still done: DONE is set in it. */
    FillBufferRecord(buffer, buf);
    buffer.state = State::kUser;
    ReleaseDmabufs(buffer);
    return 0;
}

int FakeVideoNode::StreamOnOff(const int* type, bool on) {
    if (static_cast<uint32_t>(*type) != bufferType_ || !TypeSupported(bufferType_))
        return EINVAL;
    if (on) {
        if (buffers_.empty())
            return EINVAL;
        streaming_ = true;
        return 0;
    }
    streaming_ = false;
    ReturnAllBuffers();
    cond_.notify_all();
    return 0;
}

int FakeVideoNode::Selection(v4l2_selection* sel, bool set) {
    if (!TypeSupported(sel->type))
        return EINVAL;
    if (set) {
        selections_[sel->target] = sel->r;
        return 0;
    }
    auto it = selections_.find(sel->target);
    if (it != selections_.end()) {
        sel->r = it->second;
    } else {
        sel->r = {0, 0, format_.width, format_.height};
    }
    return 0;
}

/*
 * Capture frame interval: the nearest interval of the configured list, or
 * any non-zero one when there is no list. Answers with
 * V4L2_CAP_TIMEPERFRAME, as a driver that honours S_PARM does.
 */
int FakeVideoNode::StreamParm(v4l2_streamparm* parm, bool set) {
    if (!config_.streamParm)
        return ENOTTY;
    if (!TypeSupported(parm->type) || V4L2_TYPE_IS_OUTPUT(parm->type))
        return EINVAL;
    if (set) {
        v4l2_fract asked = parm->parm.capture.timeperframe;
        if (asked.numerator != 0 && asked.denominator != 0) {
            if (config_.frameIntervals.empty()) {
                interval_ = asked;
            } else {
                const double want = static_cast<double>(asked.numerator) / asked.denominator;
                double best = -1;
                for (const v4l2_fract& offered : config_.frameIntervals) {
                    double distance = std::abs(
                        static_cast<double>(offered.numerator) / offered.denominator - want);
                    if (best < 0 || distance < best) {
                        best = distance;
                        interval_ = offered;
                    }
                }
            }
        }
    }
    const uint32_t type = parm->type;
    memset(parm, 0, sizeof(*parm));
    parm->type = type;
    parm->parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    parm->parm.capture.timeperframe = interval_;
    return 0;
}

int FakeVideoNode::Subscribe(v4l2_event_subscription* sub, bool subscribe) {
    if (subscribe) {
        if (sub->type == V4L2_EVENT_ALL)
            return EINVAL;
        subscribed_.insert(sub->type);
    } else if (sub->type == V4L2_EVENT_ALL) {
        subscribed_.clear();
    } else {
        subscribed_.erase(sub->type);
    }
    return 0;
}

int FakeVideoNode::DQEvent(v4l2_event* event) {
    if (events_.empty())
        return ENOENT;
    *event = events_.front();
    events_.pop_front();
    event->pending = static_cast<uint32_t>(events_.size());
    return 0;
}

void FakeVideoNode::PostEvent(const v4l2_event& event) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (subscribed_.count(event.type) == 0)
        return;
    v4l2_event copy = event;
    copy.sequence = static_cast<uint32_t>(events_.size());
    events_.push_back(copy);
}

int FakeVideoNode::ProduceFrame(const FrameContent& content) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!streaming_ || queued_.empty())
        return -1;
    Buffer& buffer = buffers_[queued_.front()];
    queued_.pop_front();

    for (uint32_t p = 0; p < buffer.planes.size(); ++p) {
        Plane& plane = buffer.planes[p];
        plane.bytesused =
            content.bytesused != 0 ? std::min(content.bytesused, plane.size) : plane.size;
        int fd = memory_ == V4L2_MEMORY_MMAP ? plane.memfd : plane.dmabuf;
        struct stat st;
        if (fd < 0 || fstat(fd, &st) != 0)
            continue;
        /* An imported dma-buf may be smaller than the format's plane. */
        size_t size = std::min<size_t>(plane.bytesused, static_cast<size_t>(st.st_size));
        if (size == 0)
            continue;
        void* addr = detail::RealMmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        if (addr == MAP_FAILED)
            continue;
        auto* data = static_cast<uint8_t*>(addr);
        if (content.writer)
            content.writer(p, data, size);
        else
            memset(data, content.fill, size);
        detail::RealMunmap(addr, size);
    }
    buffer.sequence =
        content.sequence >= 0 ? static_cast<uint32_t>(content.sequence) : nextSequence_;
    nextSequence_ = buffer.sequence + 1;
    buffer.timestamp = content.timestamp;
    buffer.flags = content.flags;
    buffer.state = State::kDone;
    done_.push_back(buffer.index);
    UpdateReadiness();
    cond_.notify_all();
    return static_cast<int>(buffer.index);
}

void FakeVideoNode::OnDisconnect() {
    /* The queue stops; its buffers stay until the owner closes. */
    streaming_ = false;
    queued_.clear();
    done_.clear();
    for (auto& buffer : buffers_)
        buffer.state = State::kUser;
}

void FakeVideoNode::OnClose(int fd) {
    if (fd != ownerFd_)
        return;
    ownerFd_ = -1;
    streaming_ = false;
    FreeBuffers();
}

bool FakeVideoNode::Streaming() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return streaming_;
}

uint32_t FakeVideoNode::BufferCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<uint32_t>(buffers_.size());
}

size_t FakeVideoNode::QueuedCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return queued_.size();
}

size_t FakeVideoNode::DoneCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return done_.size();
}

v4l2_fract FakeVideoNode::FrameInterval() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return interval_;
}

v4l2_format FakeVideoNode::Format() const {
    std::lock_guard<std::mutex> lock(mutex_);
    v4l2_format fmt = {};
    fmt.type = bufferType_;
    FillFormat(fmt);
    return fmt;
}

size_t FakeVideoNode::LiveMappings() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return mappings_.size();
}

std::vector<uint8_t> FakeVideoNode::PlaneContents(uint32_t index, uint32_t plane) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<uint8_t> out;
    if (index >= buffers_.size() || plane >= buffers_[index].planes.size())
        return out;
    const Plane& p = buffers_[index].planes[plane];
    if (p.memfd < 0)
        return out;
    out.resize(p.size);
    if (pread(p.memfd, out.data(), out.size(), 0) != static_cast<ssize_t>(out.size()))
        out.clear();
    return out;
}

std::set<uint32_t> FakeVideoNode::SubscribedEvents() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return subscribed_;
}

void* FakeVideoNode::HandleMmap(void* addr, size_t length, int prot, int flags, int, off_t offset) {
    std::unique_lock<std::mutex> lock(mutex_);
    RequestRecord record;
    record.path = path();
    record.request = kMmapRequest;
    record.name = RequestName(kMmapRequest);
    record.offset = static_cast<uint64_t>(offset);
    record.length = static_cast<uint32_t>(length);
    record.flags = static_cast<uint32_t>(flags);

    int err = disconnected_ ? ENODEV : TakeInjection(kMmapRequest);
    void* result = MAP_FAILED;
    if (err == 0) {
        err = EINVAL;
        for (auto& buffer : buffers_) {
            for (uint32_t p = 0; p < buffer.planes.size(); ++p) {
                if (Offset(buffer.index, p) != static_cast<uint64_t>(offset))
                    continue;
                const Plane& plane = buffer.planes[p];
                /* vb2: MMAP memory, a shared mapping, readable for capture,
                 * at most the page-rounded plane length. */
                const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
                const size_t limit = (plane.size + page - 1) / page * page;
                if (plane.memfd < 0 || length == 0 || length > limit || !(flags & MAP_SHARED) ||
                    !(prot & PROT_READ))
                    break;
                result = detail::RealMmap(addr, length, prot, flags, plane.memfd, 0);
                err = result == MAP_FAILED ? errno : 0;
            }
        }
    }
    record.result = err ? -1 : 0;
    record.error = err;
    Record(std::move(record));
    if (err) {
        errno = err;
        return MAP_FAILED;
    }
    mappings_[result] = length;
    lock.unlock();
    detail::BindMapping(result, std::static_pointer_cast<FakeVideoNode>(shared_from_this()));
    return result;
}

bool FakeVideoNode::ForgetMapping(void* addr, size_t) {
    std::lock_guard<std::mutex> lock(mutex_);
    return mappings_.erase(addr) != 0;
}

void FakeVideoNode::Describe(unsigned long request, const void* arg, RequestRecord& r) const {
    switch (request) {
        case VIDIOC_REQBUFS: {
            auto* req = static_cast<const v4l2_requestbuffers*>(arg);
            r.count = req->count;
            r.type = req->type;
            r.memory = req->memory;
            r.capabilities = req->capabilities;
            break;
        }
        case VIDIOC_QUERYBUF:
        case VIDIOC_QBUF:
        case VIDIOC_DQBUF: {
            auto* buf = static_cast<const v4l2_buffer*>(arg);
            r.index = buf->index;
            r.type = buf->type;
            r.memory = buf->memory;
            r.flags = buf->flags;
            r.length = buf->length;
            if (request != VIDIOC_QBUF)
                break;
            if (IsMultiPlanar(buf->type)) {
                if (buf->m.planes != nullptr && buf->length > 0) {
                    r.bytesused = buf->m.planes[0].bytesused;
                    if (buf->memory == V4L2_MEMORY_DMABUF)
                        r.fd = buf->m.planes[0].m.fd;
                }
            } else {
                r.bytesused = buf->bytesused;
                if (buf->memory == V4L2_MEMORY_DMABUF)
                    r.fd = buf->m.fd;
            }
            break;
        }
        case VIDIOC_EXPBUF: {
            auto* exp = static_cast<const v4l2_exportbuffer*>(arg);
            r.type = exp->type;
            r.index = exp->index;
            r.plane = exp->plane;
            r.flags = exp->flags;
            break;
        }
        case VIDIOC_G_FMT:
        case VIDIOC_S_FMT:
        case VIDIOC_TRY_FMT: {
            auto* fmt = static_cast<const v4l2_format*>(arg);
            r.type = fmt->type;
            if (IsMultiPlanar(fmt->type)) {
                r.width = fmt->fmt.pix_mp.width;
                r.height = fmt->fmt.pix_mp.height;
                r.pixelformat = fmt->fmt.pix_mp.pixelformat;
            } else {
                r.width = fmt->fmt.pix.width;
                r.height = fmt->fmt.pix.height;
                r.pixelformat = fmt->fmt.pix.pixelformat;
            }
            break;
        }
        case VIDIOC_STREAMON:
        case VIDIOC_STREAMOFF:
            r.type = static_cast<uint32_t>(*static_cast<const int*>(arg));
            break;
        case VIDIOC_ENUM_FMT: {
            auto* desc = static_cast<const v4l2_fmtdesc*>(arg);
            r.index = desc->index;
            r.type = desc->type;
            break;
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            auto* size = static_cast<const v4l2_frmsizeenum*>(arg);
            r.index = size->index;
            r.pixelformat = size->pixel_format;
            break;
        }
        case VIDIOC_G_SELECTION:
        case VIDIOC_S_SELECTION: {
            auto* sel = static_cast<const v4l2_selection*>(arg);
            r.type = sel->type;
            r.target = sel->target;
            r.flags = sel->flags;
            r.width = sel->r.width;
            r.height = sel->r.height;
            break;
        }
        case VIDIOC_SUBSCRIBE_EVENT:
        case VIDIOC_UNSUBSCRIBE_EVENT:
            r.type = static_cast<const v4l2_event_subscription*>(arg)->type;
            break;
        case VIDIOC_G_PARM:
        case VIDIOC_S_PARM: {
            auto* parm = static_cast<const v4l2_streamparm*>(arg);
            r.type = parm->type;
            r.numerator = parm->parm.capture.timeperframe.numerator;
            r.denominator = parm->parm.capture.timeperframe.denominator;
            break;
        }
        default:
            break;
    }
}

}  // namespace marlo_fake
