#include <marlo/v4l2/v4l2_video_device.h>

#include <cutils/trace.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>

#include <algorithm>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>

#include "base/camera_trace.h"

namespace tessaro::marlo {

namespace {

using detail::CameraTraceEnabled;

constexpr char kTag[] = "marlo_v4l2";

/* A trace section that is only opened while the camera tag is enabled. */
class TraceSection {
  public:
    explicit TraceSection(const char* name) : TraceSection(CameraTraceEnabled()) {
        if (enabled_)
            atrace_begin_body(name);
    }
    ~TraceSection() {
        if (enabled_)
            atrace_end_body();
    }
    TraceSection(const TraceSection&) = delete;
    TraceSection& operator=(const TraceSection&) = delete;

  protected:
    /* Opens nothing: the caller begins the section when \a enabled. */
    explicit TraceSection(bool enabled) : enabled_(enabled) {}

    const bool enabled_;
};

/* Like TraceSection, with a printf-style name formatted only when tracing. */
class FormattedTraceSection : public TraceSection {
  public:
    FormattedTraceSection(const char* fmt, ...) __attribute__((__format__(printf, 2, 3)))
    : TraceSection(CameraTraceEnabled()) {
        if (!enabled_)
            return;
        va_list args;
        va_start(args, fmt);
        detail::BeginFormattedTrace(fmt, args);
        va_end(args);
    }
};

/*
 * Maps one plane of a buffer of \a device for the CPU; null after logging
 * when the mapping fails.
 */
void* MapPlane(const V4l2Device& device, size_t length, uint32_t offset) {
    void* addr = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, device.Fd(), offset);
    if (addr != MAP_FAILED)
        return addr;
    marlo_log(MARLO_LOG_ERROR, kTag, "%s: mmap bufffer failed : %s\n", device.Name().c_str(),
              strerror(errno));
    return nullptr;
}

/*
 * Every record \a request answers for index 0, 1, ... until the driver
 * refuses; each request starts from a copy of \a first.
 */
template <typename Record>
std::list<Record> EnumerateAll(V4l2Device& device, unsigned request, const Record& first) {
    std::list<Record> records;
    for (uint32_t index = 0;; ++index) {
        Record record = first;
        record.index = index;
        if (device.IoCtl(request, &record) < 0)
            break;
        records.push_back(record);
    }
    return records;
}

}  // namespace

/* --- V4l2Buffer --- */

V4l2Buffer::V4l2Buffer(V4l2Device* dev, v4l2_buffer& record)
    : device(dev), buffer(record), queued(false) {
    KeepPlanes(record);
}

void V4l2Buffer::SetBuffer(v4l2_buffer& record) {
    buffer = record;
    KeepPlanes(record);
}

void V4l2Buffer::KeepPlanes(const v4l2_buffer& record) {
    if (!V4L2_TYPE_IS_MULTIPLANAR(record.type))
        return;
    /* A record that is already this buffer's own keeps its planes as they are. */
    if (record.m.planes != plane_records) {
        v4l2_plane copy[VIDEO_MAX_PLANES] = {};
        if (record.m.planes != nullptr) {
            uint32_t count = std::min<uint32_t>(record.length, VIDEO_MAX_PLANES);
            std::copy(record.m.planes, record.m.planes + count, copy);
        }
        std::copy(copy, copy + VIDEO_MAX_PLANES, plane_records);
    }
    buffer.m.planes = plane_records;
}

V4l2Buffer::~V4l2Buffer() {
    for (auto& plane : planes) {
        if (plane.map_addr != nullptr && plane.length != 0)
            munmap(plane.map_addr, plane.length);
        if (buffer.memory == V4L2_MEMORY_DMABUF)
            plane.dma_fd.reset();
    }
    /* Exported descriptors still open are closed by their holders. */
    device = nullptr;
}

uint64_t V4l2Buffer::GetTimestamp() const {
    return static_cast<uint64_t>(buffer.timestamp.tv_sec) * 1000000000ull +
           static_cast<uint64_t>(buffer.timestamp.tv_usec) * 1000ull;
}

bool V4l2Buffer::ValidPlane(unsigned plane, const char* operation) const {
    if (plane < VIDEO_MAX_PLANES)
        return true;
    marlo_log(MARLO_LOG_ERROR, kTag, "%s: plane %u of buffer index %u out of range\n", operation,
              plane, buffer.index);
    return false;
}

void* V4l2Buffer::GetPtr(unsigned plane) {
    return ValidPlane(plane, "GetPtr") ? planes[plane].map_addr : nullptr;
}

size_t V4l2Buffer::GetLength(unsigned plane) {
    return ValidPlane(plane, "GetLength") ? planes[plane].length : 0;
}

void V4l2Buffer::SetMapAddr(void* addr, size_t length, unsigned plane) {
    if (!ValidPlane(plane, "SetMapAddr"))
        return;
    planes[plane].map_addr = addr;
    planes[plane].length = length;
}

int V4l2Buffer::GetDmaFd(unsigned plane) const {
    return ValidPlane(plane, "GetDmaFd") ? planes[plane].dma_fd.get() : -1;
}

void V4l2Buffer::SetDmaFd(int fd, unsigned plane) {
    if (!ValidPlane(plane, "SetDmaFd")) {
        /* Ownership was handed over: release it rather than leak it. */
        UniqueFd discard(fd);
        return;
    }
    planes[plane].dma_fd.reset(fd);
}

/* --- V4l2VideoDevice --- */

V4l2VideoDevice::V4l2VideoDevice(const std::string& path) : V4l2Device(path) {}

V4l2VideoDevice::~V4l2VideoDevice() {
    /* Nothing else can reach the lists any more; the locks cost nothing here and keep the rule. */
    MutexLocker unqueuedLock(unqueued_mutex_);
    MutexLocker queuedLock(queued_mutex_);
    ClearBuffers();
}

bool V4l2VideoDevice::IsMultiPlanar() const {
    return buffer_type_ == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE ||
           buffer_type_ == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
}

void V4l2VideoDevice::AttachPlanes(v4l2_buffer& record, v4l2_plane* planes) const {
    if (IsMultiPlanar()) {
        record.m.planes = planes;
        record.length = num_planes_;
    }
}

void V4l2VideoDevice::PrepareRecord(v4l2_buffer& record, v4l2_plane* planes) const {
    record.type = buffer_type_;
    record.memory = memory_type_;
    record.flags = buffer_flags_;
    AttachPlanes(record, planes);
}

void V4l2VideoDevice::Close() {
    fd_.reset();
}

int V4l2VideoDevice::QueryCap() {
    memset(&caps_, 0, sizeof(caps_));
    int ret = IoCtl(VIDIOC_QUERYCAP, &caps_);
    if (ret < 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "query capabilities failed %s\n", strerror(errno));
        return ret;
    }

    const char* name = name_.c_str();
    marlo_log(MARLO_LOG_INFO, kTag, "%s: device capabilities: driver\t\t%s\n", name,
              reinterpret_cast<const char*>(caps_.driver));
    marlo_log(MARLO_LOG_INFO, kTag, "%s: device capabilities: card\t\t%s\n", name,
              reinterpret_cast<const char*>(caps_.card));
    marlo_log(MARLO_LOG_INFO, kTag, "%s: device capabilities: bus_info\t\t%s\n", name,
              reinterpret_cast<const char*>(caps_.bus_info));
    marlo_log(MARLO_LOG_INFO, kTag, "%s: device capabilities: version\t\t%d\n", name,
              caps_.version);
    marlo_log(MARLO_LOG_INFO, kTag, "%s: device capabilities: capabilities\t%x\n", name,
              caps_.capabilities);

    /* The first matching capability wins; device_caps is not consulted. */
    static const struct {
        uint32_t cap;
        uint32_t type;
    } kTypeChoice[] = {
        {V4L2_CAP_VIDEO_CAPTURE_MPLANE, V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE},
        {V4L2_CAP_VIDEO_CAPTURE, V4L2_BUF_TYPE_VIDEO_CAPTURE},
        {V4L2_CAP_META_CAPTURE, V4L2_BUF_TYPE_META_CAPTURE},
        {V4L2_CAP_META_OUTPUT, V4L2_BUF_TYPE_META_OUTPUT},
        {V4L2_CAP_VIDEO_OUTPUT, V4L2_BUF_TYPE_VIDEO_OUTPUT},
        {V4L2_CAP_VIDEO_OUTPUT_MPLANE, V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE},
    };
    for (const auto& choice : kTypeChoice) {
        if (caps_.capabilities & choice.cap) {
            buffer_type_ = choice.type;
            return OK;
        }
    }
    return ERR_FAILED;
}

void V4l2VideoDevice::ClearBuffers() {
    while (!queued_buffers_.empty())
        queued_buffers_.pop_back();
    while (!unqueued_buffers_.empty())
        unqueued_buffers_.pop_back();
}

int V4l2VideoDevice::ReqBuffer(unsigned count, unsigned memory) {
    struct v4l2_requestbuffers req = {};
    req.count = count;
    req.type = buffer_type_;
    req.memory = memory;
    /* Pre-set on purpose; the driver overwrites it with what it supports. */
    req.capabilities =
        memory == V4L2_MEMORY_MMAP ? V4L2_BUF_CAP_SUPPORTS_MMAP : V4L2_BUF_CAP_SUPPORTS_DMABUF;
    /* Callers compare the answer with the count they asked for. */
    if (Request(VIDIOC_REQBUFS, &req, "request bufffer", true) < 0)
        return -1;

    memory_type_ = memory;
    num_buffers_ = req.count;
    {
        MutexLocker unqueuedLock(unqueued_mutex_);
        MutexLocker queuedLock(queued_mutex_);
        ClearBuffers();
    }

    marlo_log(MARLO_LOG_INFO, kTag, "%s requested buffer %s count %d type %s\n", name_.c_str(),
              memory_type_ == V4L2_MEMORY_DMABUF ? "dmabuf" : "mmap", num_buffers_,
              IsMultiPlanar() ? "multi plane" : "single plane");
    return static_cast<int>(num_buffers_);
}

int V4l2VideoDevice::QueryBuffer() {
    if (num_buffers_ == 0)
        return OK;

    const bool multiPlanar = IsMultiPlanar();
    for (uint32_t index = 0; index < num_buffers_; ++index) {
        struct v4l2_buffer record = {};
        struct v4l2_plane planes[VIDEO_MAX_PLANES] = {};
        record.index = index;
        PrepareRecord(record, planes);

        int ret = Request(VIDIOC_QUERYBUF, &record, "query bufffer", true);
        if (ret < 0)
            return ret;

        /* A multi-planar buffer keeps its own copy of this call's plane array. */
        auto buffer = std::make_unique<V4l2Buffer>(this, record);
        if (multiPlanar) {
            num_planes_ = record.length;
            for (uint32_t p = 0; p < num_planes_ && p < VIDEO_MAX_PLANES; ++p) {
                if (memory_type_ != V4L2_MEMORY_MMAP)
                    continue;
                /* A plane that fails to map stays unmapped; the buffer is kept. */
                void* addr = MapPlane(*this, planes[p].length, planes[p].m.mem_offset);
                if (addr)
                    buffer->SetMapAddr(addr, planes[p].length, p);
            }
        } else if (memory_type_ == V4L2_MEMORY_MMAP) {
            void* addr = MapPlane(*this, record.length, record.m.offset);
            /* Unlike the multi-planar case, a single-planar buffer is dropped. */
            if (!addr)
                continue;
            buffer->SetMapAddr(addr, record.length, 0);
        }

        marlo_log(MARLO_LOG_INFO, kTag, "%s: queried buffer index %u\n", name_.c_str(), index);
        buffer->SetQueued(false);
        /*
         * The queued list's mutex is the established lock choice and stays
         * held; the free list's own mutex is taken with it, because GetBuffer
         * and a failed QueueBuffer change that list under it alone.
         */
        MutexLocker unqueuedLock(unqueued_mutex_);
        MutexLocker queuedLock(queued_mutex_);
        unqueued_buffers_.push_back(std::move(buffer));
    }
    return OK;
}

int V4l2VideoDevice::ExportBuffers() {
    if (memory_type_ == V4L2_MEMORY_DMABUF) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s dma buf doesn't support export buffer\n",
                  name_.c_str());
        return ERR_FAILED;
    }

    MutexLocker lock(unqueued_mutex_);
    for (auto& buffer : unqueued_buffers_) {
        for (uint32_t p = 0; p < num_planes_ && p < VIDEO_MAX_PLANES; ++p) {
            struct v4l2_exportbuffer exp = {};
            exp.type = buffer_type_;
            exp.index = buffer->GetIndex();
            exp.plane = p;
            exp.flags = O_CLOEXEC | O_RDWR;
            if (IoCtl(VIDIOC_EXPBUF, &exp) < 0) {
                marlo_log(MARLO_LOG_ERROR, kTag,
                          "%s: export bufffer type %d index %d failed : %s\n", name_.c_str(),
                          buffer_type_, buffer->GetIndex(), strerror(errno));
                return ERR_FAILED;
            }
            buffer->SetDmaFd(exp.fd, p);
            /* Plane 0's descriptor is printed for every plane. */
            marlo_log(MARLO_LOG_INFO, kTag, "%s: export buffer index %d fd %d\n", name_.c_str(),
                      buffer->GetIndex(), buffer->GetDmaFd(0));
        }
    }
    return OK;
}

std::unique_ptr<V4l2Buffer> V4l2VideoDevice::GetBuffer() {
    MutexLocker lock(unqueued_mutex_);
    if (unqueued_buffers_.empty())
        return nullptr;
    std::unique_ptr<V4l2Buffer> buffer = std::move(unqueued_buffers_.front());
    unqueued_buffers_.erase(unqueued_buffers_.begin());
    marlo_log(MARLO_LOG_VERBOSE, kTag, "%s: get buffer index %d\n", name_.c_str(),
              buffer->GetIndex());
    return buffer;
}

std::unique_ptr<V4l2Buffer> V4l2VideoDevice::GetQueuedBuffer(unsigned index) {
    MutexLocker lock(queued_mutex_);
    for (auto it = queued_buffers_.begin(); it != queued_buffers_.end(); ++it) {
        if ((*it)->GetIndex() == index) {
            std::unique_ptr<V4l2Buffer> buffer = std::move(*it);
            queued_buffers_.erase(it);
            return buffer;
        }
    }
    return nullptr;
}

std::unique_ptr<V4l2Buffer> V4l2VideoDevice::DequeBuffer() {
    TraceSection outer("DequeBuffer");

    struct v4l2_buffer record = {};
    struct v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    record.type = buffer_type_;
    AttachPlanes(record, planes);

    int ret = IoCtl(VIDIOC_DQBUF, &record);
    if (ret < 0) {
        /* The caller tells a device that went away by the driver's answer. */
        int err = errno;
        marlo_log(MARLO_LOG_INFO, kTag, "%s: deque bufffer ret %d err:%s\n", name_.c_str(), ret,
                  strerror(err));
        errno = err;
        return nullptr;
    }

    FormattedTraceSection inner("DequeBuffer (sequence %d)", record.sequence);
    std::unique_ptr<V4l2Buffer> buffer = GetQueuedBuffer(record.index);
    if (!buffer) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: deque bufffer failed : forgot to queue buf first?\n",
                  name_.c_str());
        /* The request itself succeeded. */
        errno = 0;
        return nullptr;
    }

    marlo_log(MARLO_LOG_VERBOSE, kTag, "%s: dequed bufffer : %u vs %u\n", name_.c_str(),
              record.index, buffer->GetIndex());
    buffer->SetQueued(false);
    /* The driver's plane array (per-plane bytesused) is copied into the buffer's own. */
    buffer->SetBuffer(record);
    return buffer;
}

int V4l2VideoDevice::QueueBuffer(std::unique_ptr<V4l2Buffer> buffer) {
    if (!buffer) {
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: queue bufffer failed : %s\n", name_.c_str(),
                  strerror(EINVAL));
        return ERR_INVALID_ARGUMENT;
    }

    TraceSection section("QueueBuffer");
    const bool multiPlanar = IsMultiPlanar();
    struct v4l2_plane planes[VIDEO_MAX_PLANES] = {};
    v4l2_buffer* record = buffer->GetBuffer();
    PrepareRecord(*record, planes);

    const uint32_t planeCount = multiPlanar ? std::min<uint32_t>(num_planes_, VIDEO_MAX_PLANES) : 1;
    if (memory_type_ == V4L2_MEMORY_DMABUF) {
        if (multiPlanar) {
            for (uint32_t p = 0; p < planeCount; ++p) {
                planes[p].m.fd = buffer->GetDmaFd(p);
                planes[p].length = buffer->GetLength(p);
            }
        } else {
            record->m.fd = buffer->GetDmaFd(0);
            record->length = buffer->GetLength(0);
        }
    }
    if (V4L2_TYPE_IS_OUTPUT(buffer_type_)) {
        if (multiPlanar) {
            for (uint32_t p = 0; p < planeCount; ++p)
                planes[p].bytesused = buffer->GetLength(p);
        } else {
            record->bytesused = buffer->GetLength(0);
        }
    }

    int ret = IoCtl(VIDIOC_QBUF, record);
    /* The driver's answer is the buffer's record now, its planes in the buffer's own array. */
    if (multiPlanar)
        buffer->SetBuffer(*record);
    if (ret < 0) {
        int err = errno;
        marlo_log(MARLO_LOG_ERROR, kTag, "%s: queue bufffer failed : %s\n", name_.c_str(),
                  strerror(err));
        buffer->SetQueued(false);
        {
            MutexLocker lock(unqueued_mutex_);
            unqueued_buffers_.push_back(std::move(buffer));
        }
        errno = err;
        return ERR_FAILED;
    }

    marlo_log(MARLO_LOG_VERBOSE, kTag, "%s: queued bufffer index %u ptr %p len %zu\n",
              name_.c_str(), buffer->GetIndex(), buffer->GetPtr(0), buffer->GetLength(0));
    buffer->SetQueued(true);
    MutexLocker lock(queued_mutex_);
    queued_buffers_.push_back(std::move(buffer));
    return OK;
}

int V4l2VideoDevice::StreamOn() {
    int type = static_cast<int>(buffer_type_);
    /* errno is kept for the caller, which reports why the device refused. */
    return Request(VIDIOC_STREAMON, &type, "stream on", true);
}

int V4l2VideoDevice::StreamOff() {
    int type = static_cast<int>(buffer_type_);
    int ret = Request(VIDIOC_STREAMOFF, &type, "stream off", true);
    if (ret < 0)
        return ret;

    /* The driver gives every buffer back at stream off. */
    MutexLocker unqueuedLock(unqueued_mutex_);
    MutexLocker queuedLock(queued_mutex_);
    marlo_log(MARLO_LOG_INFO, kTag, "%s: after streamed off, buf size: queued %zd, unqueued %zd\n",
              name_.c_str(), static_cast<ssize_t>(queued_buffers_.size()),
              static_cast<ssize_t>(unqueued_buffers_.size()));
    for (auto& buffer : queued_buffers_) {
        marlo_log(MARLO_LOG_INFO, kTag, "%s: resetting buffer state for buf index %d \n",
                  name_.c_str(), buffer->GetIndex());
        buffer->SetQueued(false);
        unqueued_buffers_.push_back(std::move(buffer));
    }
    queued_buffers_.clear();
    return OK;
}

int V4l2VideoDevice::GetFormat(V4l2Format& format) {
    struct v4l2_format fmt = {};
    fmt.type = buffer_type_;
    int ret = Request(VIDIOC_G_FMT, &fmt, "get fmt", true);
    if (ret < 0)
        return ret;
    CopyFormatAnswer(fmt, format);
    return OK;
}

void V4l2VideoDevice::CopyFormatAnswer(const v4l2_format& fmt, V4l2Format& format) const {
    /* Plane sizes are not copied, nor the plane count of single-planar nodes. */
    if (IsMultiPlanar()) {
        format.fourcc = fmt.fmt.pix_mp.pixelformat;
        format.width = fmt.fmt.pix_mp.width;
        format.height = fmt.fmt.pix_mp.height;
        format.colorSpace = fmt.fmt.pix_mp.colorspace;
        format.planesCount = fmt.fmt.pix_mp.num_planes;
        for (uint32_t p = 0; p < fmt.fmt.pix_mp.num_planes && p < VIDEO_MAX_PLANES; ++p)
            format.planes[p].bpl = fmt.fmt.pix_mp.plane_fmt[p].bytesperline;
    } else {
        format.fourcc = fmt.fmt.pix.pixelformat;
        format.width = fmt.fmt.pix.width;
        format.height = fmt.fmt.pix.height;
        format.colorSpace = fmt.fmt.pix.colorspace;
        format.planes[0].bpl = fmt.fmt.pix.bytesperline;
    }
}

int V4l2VideoDevice::SetFormat(const V4l2Format& format) {
    struct v4l2_format fmt = {};
    fmt.type = buffer_type_;
    const bool multiPlanar = IsMultiPlanar();
    if (multiPlanar) {
        fmt.fmt.pix_mp.width = format.width;
        fmt.fmt.pix_mp.height = format.height;
        fmt.fmt.pix_mp.pixelformat = format.fourcc;
        fmt.fmt.pix_mp.field = V4L2_FIELD_ANY;
        fmt.fmt.pix_mp.colorspace = format.colorSpace;
        /* num_planes stays 0: the driver fills it in. */
        for (uint32_t p = 0; p < format.planesCount && p < VIDEO_MAX_PLANES; ++p)
            fmt.fmt.pix_mp.plane_fmt[p].bytesperline = format.planes[p].bpl;
    } else {
        fmt.fmt.pix.width = format.width;
        fmt.fmt.pix.height = format.height;
        fmt.fmt.pix.pixelformat = format.fourcc;
        fmt.fmt.pix.field = V4L2_FIELD_ANY;
        fmt.fmt.pix.bytesperline = format.planes[0].bpl;
        fmt.fmt.pix.colorspace = format.colorSpace;
    }

    int ret = Request(VIDIOC_S_FMT, &fmt, "set fmt", true);
    /* Taken from the answer even after a failure. */
    if (multiPlanar)
        num_planes_ = fmt.fmt.pix_mp.num_planes;
    if (ret == 0)
        RememberGrantedFormat(fmt);
    return ret;
}

void V4l2VideoDevice::RememberGrantedFormat(const v4l2_format& fmt) {
    granted_format_ = {};
    CopyFormatAnswer(fmt, granted_format_);
    /* What was granted also keeps the plane sizes and a single plane's count. */
    if (IsMultiPlanar()) {
        for (uint32_t p = 0; p < fmt.fmt.pix_mp.num_planes && p < VIDEO_MAX_PLANES; ++p)
            granted_format_.planes[p].size = fmt.fmt.pix_mp.plane_fmt[p].sizeimage;
    } else {
        granted_format_.planesCount = 1;
        granted_format_.planes[0].size = fmt.fmt.pix.sizeimage;
    }
}

int V4l2VideoDevice::GrantedFormat(V4l2Format& format) const {
    if (granted_format_.fourcc == 0)
        return ERR_FAILED;
    format = granted_format_;
    return OK;
}

int V4l2VideoDevice::GetFrameInterval(v4l2_fract& interval) {
    return ExchangeFrameInterval(VIDIOC_G_PARM, "get parm", nullptr, interval);
}

int V4l2VideoDevice::SetFrameInterval(v4l2_fract& interval) {
    return ExchangeFrameInterval(VIDIOC_S_PARM, "set parm", &interval, interval);
}

int V4l2VideoDevice::ExchangeFrameInterval(unsigned request, const char* what,
                                           const v4l2_fract* asked, v4l2_fract& answer) {
    struct v4l2_streamparm parm = {};
    parm.type = buffer_type_;
    if (asked)
        parm.parm.capture.timeperframe = *asked;
    int ret = Request(request, &parm, what, true);
    if (ret < 0)
        return ret;
    answer = parm.parm.capture.timeperframe;
    return OK;
}

int V4l2VideoDevice::SetFormat(unsigned width, unsigned height, unsigned fourcc) {
    V4l2Format format = {};
    format.fourcc = fourcc;
    format.width = width;
    format.height = height;
    format.planesCount = 1;
    return SetFormat(format);
}

int V4l2VideoDevice::GetSelection(unsigned target, V4l2Rect& rect) {
    struct v4l2_selection sel = {};
    sel.type = buffer_type_;
    sel.target = target;
    int ret = Request(VIDIOC_G_SELECTION, &sel, "get sel", true);
    if (ret == 0)
        memcpy(&rect, &sel.r, sizeof(rect));
    return ret;
}

int V4l2VideoDevice::SetSelection(unsigned target, const V4l2Rect& rect) {
    struct v4l2_selection sel = {};
    sel.type = buffer_type_;
    sel.target = target;
    sel.flags = 0;
    memcpy(&sel.r, &rect, sizeof(sel.r));
    return Request(VIDIOC_S_SELECTION, &sel, "set sel", true);
}

std::list<v4l2_fmtdesc> V4l2VideoDevice::EnumFormats() {
    struct v4l2_fmtdesc desc = {};
    desc.type = buffer_type_;
    return EnumerateAll(*this, VIDIOC_ENUM_FMT, desc);
}

std::list<v4l2_frmsizeenum> V4l2VideoDevice::EnumFrameSizes(unsigned fourcc) {
    struct v4l2_frmsizeenum size = {};
    size.pixel_format = fourcc;
    return EnumerateAll(*this, VIDIOC_ENUM_FRAMESIZES, size);
}

int V4l2VideoDevice::GetFrameSizeRange(unsigned fourcc, V4l2FrameSizeRange& range) {
    struct v4l2_frmsizeenum size = {};
    size.index = 0;
    size.pixel_format = fourcc;
    int ret = Request(VIDIOC_ENUM_FRAMESIZES, &size, "enum frame sizes", true);
    if (ret < 0)
        return ret;
    if (size.type == V4L2_FRMSIZE_TYPE_DISCRETE) {
        range.minWidth = range.maxWidth = size.discrete.width;
        range.minHeight = range.maxHeight = size.discrete.height;
        range.stepWidth = range.stepHeight = 0;
    } else {
        range.minWidth = size.stepwise.min_width;
        range.minHeight = size.stepwise.min_height;
        range.maxWidth = size.stepwise.max_width;
        range.maxHeight = size.stepwise.max_height;
        range.stepWidth = size.stepwise.step_width;
        range.stepHeight = size.stepwise.step_height;
    }
    return ret;
}

}  // namespace tessaro::marlo
