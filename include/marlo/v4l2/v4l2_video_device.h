/*
 * V4l2VideoDevice drives one V4L2 video node: buffer type, formats,
 * selections, kernel buffers and streaming. V4l2Buffer is one kernel buffer
 * with its planes' mappings and exported dma-buf descriptors; whoever holds
 * the unique_ptr owns it, and handing it back to the device re-queues it.
 */
#pragma once

#include <linux/videodev2.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <vector>

#include <marlo/base/mutex.h>
#include <marlo/base/unique_fd.h>
#include <marlo/v4l2/v4l2_device.h>

namespace tessaro::marlo {

struct V4l2Format {
    struct Plane {
        uint32_t size;
        uint32_t bpl;
    };
    uint32_t fourcc;
    uint32_t width;
    uint32_t height;
    uint32_t colorSpace;
    Plane planes[VIDEO_MAX_PLANES];
    uint32_t planesCount;
};

/* Laid out exactly as struct v4l2_rect. */
struct V4l2Rect {
    int32_t left;
    int32_t top;
    uint32_t width;
    uint32_t height;
};
static_assert(sizeof(V4l2Rect) == sizeof(struct v4l2_rect));

struct V4l2FrameSizeRange {
    uint32_t minWidth;
    uint32_t minHeight;
    uint32_t maxWidth;
    uint32_t maxHeight;
    uint32_t stepWidth;
    uint32_t stepHeight;
};

class V4l2Buffer {
  public:
    struct Plane {
        UniqueFd dma_fd;
        void* map_addr = nullptr;
        size_t length = 0;
    };

    /*
     * Copies \a buffer; a multi-planar record's plane array is copied too,
     * into the buffer's own (see plane_records).
     */
    V4l2Buffer(V4l2Device* device, v4l2_buffer& buffer);
    virtual ~V4l2Buffer();

    V4l2Buffer(const V4l2Buffer&) = delete;
    V4l2Buffer& operator=(const V4l2Buffer&) = delete;

    uint32_t GetIndex() const { return buffer.index; }
    uint32_t GetSequence() const { return buffer.sequence; }
    /* Nanoseconds. */
    uint64_t GetTimestamp() const;
    uint32_t GetMemType() const { return buffer.memory; }

    /*
     * The stored record. A multi-planar record's m.planes points at
     * plane_records, which holds the driver's plane array of the last
     * query, queue or dequeue (per-plane bytesused, lengths, offsets) and
     * stays valid as long as the buffer.
     */
    v4l2_buffer* GetBuffer() { return &buffer; }
    /* Overwrites the stored record with a copy of \a record, its planes included. */
    void SetBuffer(v4l2_buffer& record);

    /*
     * Callers pass planes 0 to 7. An index beyond that is logged and answers
     * null, 0 or -1; a descriptor handed to it is closed, not lost.
     */
    void* GetPtr(unsigned plane);
    size_t GetLength(unsigned plane);
    void SetMapAddr(void* addr, size_t length, unsigned plane);

    int GetDmaFd(unsigned plane) const;
    /* Takes ownership of \a fd. */
    void SetDmaFd(int fd, unsigned plane);

    bool IsQueued() const { return queued.load(); }
    void SetQueued(bool value) { queued.store(value); }

    V4l2Device* device;
    v4l2_buffer buffer;
    Plane planes[VIDEO_MAX_PLANES];
    std::atomic<bool> queued;
    /* The multi-planar record's plane array; buffer.m.planes points here. */
    v4l2_plane plane_records[VIDEO_MAX_PLANES] = {};

  private:
    bool ValidPlane(unsigned plane, const char* operation) const;
    /* Copies a multi-planar record's plane array into plane_records and points at it. */
    void KeepPlanes(const v4l2_buffer& record);
};

class V4l2VideoDevice : public V4l2Device {
  public:
    explicit V4l2VideoDevice(const std::string& path);
    ~V4l2VideoDevice();

    int QueryCap();
    /* The granted count, or -1 on failure. */
    int ReqBuffer(unsigned count, unsigned memory);
    int QueryBuffer();
    void ImportBuffer() {}
    int ExportBuffers();

    std::unique_ptr<V4l2Buffer> GetBuffer();
    std::unique_ptr<V4l2Buffer> GetQueuedBuffer(unsigned index);

    /*
     * The next filled buffer, or null. After a refused request errno still
     * holds the driver's answer (ENODEV for a device that went away); it is
     * 0 when the request succeeded but named a buffer that was not queued.
     */
    std::unique_ptr<V4l2Buffer> DequeBuffer();
    /* After a refused request (ERR_FAILED) errno still holds the driver's answer. */
    int QueueBuffer(std::unique_ptr<V4l2Buffer> buffer);

    int StreamOn();
    int StreamOff();

    int GetFormat(V4l2Format& format);
    int SetFormat(const V4l2Format& format);
    int SetFormat(unsigned width, unsigned height, unsigned fourcc);
    /*
     * What the driver granted at the last successful SetFormat: drivers
     * adjust a size or format they cannot capture instead of refusing it.
     * Returns 0, or ERR_FAILED when no format has been set.
     */
    int GrantedFormat(V4l2Format& format) const;

    /*
     * The capture frame interval (seconds per frame, as a fraction), read
     * with VIDIOC_G_PARM or asked with VIDIOC_S_PARM; \a interval receives
     * what the driver answers. Return 0 or ERR_FAILED.
     */
    int GetFrameInterval(v4l2_fract& interval);
    int SetFrameInterval(v4l2_fract& interval);

    int GetSelection(unsigned target, V4l2Rect& rect);
    int SetSelection(unsigned target, const V4l2Rect& rect);

    bool IsMeta() const { return buffer_type_ == V4L2_BUF_TYPE_META_CAPTURE; }

    std::list<v4l2_fmtdesc> EnumFormats();
    std::list<v4l2_frmsizeenum> EnumFrameSizes(unsigned fourcc);
    int GetFrameSizeRange(unsigned fourcc, V4l2FrameSizeRange& range);

    /* Closes the descriptor only: buffers, lists and stream state stay. */
    void Close();

    uint32_t BufferType() const { return buffer_type_; }
    uint32_t MemoryType() const { return memory_type_; }
    uint32_t NumPlanes() const { return num_planes_; }
    uint32_t NumBuffers() const { return num_buffers_; }
    const v4l2_capability& Capabilities() const { return caps_; }

  protected:
    bool IsMultiPlanar() const;
    /* Destroys every buffer of both lists. */
    void ClearBuffers() MARLO_REQUIRES(unqueued_mutex_, queued_mutex_);
    void RememberGrantedFormat(const v4l2_format& fmt);
    /* Copies the driver's format answer into \a format, as GetFormat reports it. */
    void CopyFormatAnswer(const v4l2_format& fmt, V4l2Format& format) const;
    /* Points a multi-planar \a record at \a planes, for num_planes_ planes. */
    void AttachPlanes(v4l2_buffer& record, v4l2_plane* planes) const;
    /* Fills the type, memory and flags of a buffer \a record, and attaches \a planes. */
    void PrepareRecord(v4l2_buffer& record, v4l2_plane* planes) const;
    /*
     * One G_PARM or S_PARM exchange: sends \a asked when given, and stores
     * the interval the driver answers in \a answer.
     */
    int ExchangeFrameInterval(unsigned request, const char* what, const v4l2_fract* asked,
                              v4l2_fract& answer);

    uint32_t memory_type_ = V4L2_MEMORY_MMAP;
    v4l2_capability caps_ = {};
    uint32_t buffer_type_ = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    uint32_t num_planes_ = 1;
    uint32_t num_buffers_ = 4;
    uint32_t buffer_flags_ = V4L2_BUF_FLAG_NO_CACHE_INVALIDATE | V4L2_BUF_FLAG_NO_CACHE_CLEAN;
    /* The driver's answer to the last successful S_FMT; fourcc 0 before one. */
    V4l2Format granted_format_ = {};

    /*
     * Declared so that the queued list is destroyed before the unqueued one.
     * Lock order: unqueued_mutex_, then queued_mutex_ when both are taken.
     */
    Mutex unqueued_mutex_;
    std::vector<std::unique_ptr<V4l2Buffer>> unqueued_buffers_ MARLO_GUARDED_BY(unqueued_mutex_);
    Mutex queued_mutex_ MARLO_ACQUIRED_AFTER(unqueued_mutex_);
    std::vector<std::unique_ptr<V4l2Buffer>> queued_buffers_ MARLO_GUARDED_BY(queued_mutex_);
};

}  // namespace tessaro::marlo
