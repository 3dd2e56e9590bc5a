/*
 * A fake V4L2 kernel for tests.
 *
 * The test executable that links this library interposes the C library's
 * device calls (open, openat, close, ioctl, mmap, munmap). A call on a path
 * registered here, or on a descriptor opened from one, is answered by a fake
 * node; every other call goes to the real C library (found with
 * dlsym(RTLD_NEXT)), so files, sockets and the like work as usual.
 *
 * A fake node's descriptor is the read end of a real pipe: it is readable
 * while a filled buffer waits to be dequeued, so epoll-based code works
 * unchanged, and it reports a hang-up once the node is unplugged.
 *
 * Nodes:
 *  - FakeVideoNode: a capture driver with capabilities, formats, frame sizes,
 *    buffers (MMAP backed by memfds; DMABUF), streaming and events. Frames are
 *    produced by the test with ProduceFrame(). DQBUF answers EINVAL while the
 *    queue does not stream, EAGAIN on an empty non-blocking descriptor and
 *    waits otherwise (until a frame, stream off or close). The file that
 *    requested buffers owns the queue: buffer requests of other files answer
 *    EBUSY, as in vb2. Closing the descriptor that requested the buffers
 *    releases them, as the kernel does. Events do not affect readiness.
 *  - FakeSubdevNode: a sub-device with pads (formats, selections, frame
 *    intervals and the three enumerations).
 *  - FakeMediaNode: a media controller with entities and links.
 *
 * Every node records each request it receives (RequestRecord) and lets the
 * test inject failures: InjectError(request, errno, times) and
 * InjectEintr(request, times). kOpenRequest and kMmapRequest stand for open()
 * and mmap() in those calls and in the record.
 *
 * Typical use:
 *   auto node = marlo_fake::AddVideoNode("/dev/video-fake0");
 *   ... open it with the library, queue buffers, stream on ...
 *   node->ProduceFrame(marlo_fake::Frame(7, {12, 345678}, 0x5a));
 *   ... the descriptor turns readable, DQBUF returns the frame ...
 *   marlo_fake::Reset();   // in TearDown: drops every node
 */
#pragma once

#include <linux/media.h>
#include <linux/v4l2-subdev.h>
#include <linux/videodev2.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/time.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace marlo_fake {

/* Pseudo request codes for open(), mmap() and close() in injections and the record. */
constexpr unsigned long kOpenRequest = 0xffff0001ul;
constexpr unsigned long kMmapRequest = 0xffff0002ul;
/*
 * close() cannot fail to close on Linux: an injected error releases the
 * descriptor all the same and then answers -1 with the errno (EIO, EINTR),
 * as a driver's release that reports a failure does. Recorded only after
 * RecordCloses(true).
 */
constexpr unsigned long kCloseRequest = 0xffff0003ul;

/* The key fields of one request as the caller passed it (0 where not relevant). */
struct RequestRecord {
    std::string path;
    unsigned long request = 0;
    std::string name; /* "VIDIOC_QBUF", "open", ... */
    int result = 0;   /* 0 or -1 */
    int error = 0;    /* errno of a failure */
    uint32_t type = 0;
    uint32_t index = 0; /* for DQBUF: the index handed back */
    uint32_t count = 0;
    uint32_t memory = 0;
    uint32_t flags = 0;
    uint32_t length = 0;
    uint32_t capabilities = 0; /* REQBUFS: the value the caller pre-set */
    uint32_t plane = 0;
    uint32_t pad = 0;
    uint32_t target = 0;
    uint32_t which = 0;
    uint32_t code = 0;
    uint32_t width = 0;
    uint32_t height = 0;
    uint32_t pixelformat = 0;
    uint64_t offset = 0;    /* mmap offset */
    uint32_t bytesused = 0; /* QBUF: single-planar field or plane 0's */
    int fd = -1;            /* QBUF with DMABUF memory: m.fd or plane 0's */
    uint32_t numerator = 0; /* S_PARM: the frame interval asked for */
    uint32_t denominator = 0;
};

/* The name used in RequestRecord::name ("unknown" for other codes). */
std::string RequestName(unsigned long request);

class FakeNode : public std::enable_shared_from_this<FakeNode> {
  public:
    explicit FakeNode(std::string path);
    virtual ~FakeNode();

    FakeNode(const FakeNode&) = delete;
    FakeNode& operator=(const FakeNode&) = delete;

    const std::string& path() const { return path_; }

    /*
     * After \a after more successful calls, the next \a times calls of
     * \a request fail with \a err (before the request has any effect).
     */
    void InjectError(unsigned long request, int err, int times = 1, int after = 0);
    /* The next \a times calls of \a request fail with EINTR. */
    void InjectEintr(unsigned long request, int times);
    /*
     * The next call of \a request succeeds with the positive \a result, as
     * some requests do, without any other effect.
     */
    void InjectResult(unsigned long request, int result);

    std::vector<RequestRecord> Requests() const;
    /* Records of one request code. */
    std::vector<RequestRecord> Requests(unsigned long request) const;
    size_t CountRequests(unsigned long request) const;
    void ClearRequests();

    /* Whether close() is recorded (off by default: many tests expect no record after a close). */
    void RecordCloses(bool on);

    /* Flags and mode of the last open(), and the number of descriptors open now. */
    int LastOpenFlags() const;
    unsigned LastOpenMode() const;
    size_t OpenDescriptors() const;

    /*
     * Unplugs the device, as a driver does when its hardware goes: every
     * later request and open answers ENODEV, a waiting dequeue ends with
     * ENODEV, and every open descriptor reports a hang-up and nothing to
     * read from then on. The path stays registered until RemoveNode().
     */
    void Disconnect();
    bool Disconnected() const;

    /* --- called by the interposed C functions --- */
    int HandleOpen(int flags, unsigned mode); /* descriptor, or -1 with errno */
    int HandleClose(int fd); /* 0, or the errno close() answers after releasing \a fd */
    int HandleIoctl(int fd, unsigned long request, void* arg); /* 0, or -1 with errno */
    virtual void* HandleMmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);

  protected:
    /*
     * One open descriptor. The caller's descriptor is the read end of a pipe
     * whose write end the node keeps: one byte in it makes the descriptor
     * readable, and closing the write end makes it report a hang-up.
     */
    struct OpenFile {
        int fd;
        int flags;
        int signal = -1;
        bool ready = false;
    };

    /* Handles one request under mutex_; 0 or an errno value. */
    virtual int Ioctl(OpenFile file, unsigned long request, void* arg,
                      std::unique_lock<std::mutex>& lock) = 0;
    /* Fills the key fields of \a record from the caller's argument. */
    virtual void Describe(unsigned long request, const void* arg, RequestRecord& record) const;
    /* Called under mutex_ when descriptor \a fd is closed. */
    virtual void OnClose(int /*fd*/) {}
    /* Called under mutex_ when the device is unplugged. */
    virtual void OnDisconnect() {}
    /* Whether a descriptor of this node is readable now. */
    virtual bool Readable() const { return false; }
    /* Makes each descriptor readable exactly when Readable() says so. */
    void UpdateReadiness();
    /* Consumes a pending injection for \a request; the errno or 0. */
    int TakeInjection(unsigned long request);
    void Record(RequestRecord record);
    OpenFile* FindFile(int fd);

    mutable std::mutex mutex_;
    std::condition_variable cond_;
    std::vector<OpenFile> files_;
    /* Set by Disconnect(); guarded by mutex_. */
    bool disconnected_ = false;

  private:
    struct Injection {
        unsigned long request;
        int err;
        int remaining;
        int skip;
    };

    std::string path_;
    std::vector<Injection> injections_;
    std::multimap<unsigned long, int> results_;
    std::vector<RequestRecord> records_;
    bool recordCloses_ = false;
    int lastOpenFlags_ = 0;
    unsigned lastOpenMode_ = 0;
};

/* --- video capture node --- */

struct FakeFormat {
    uint32_t fourcc;
    std::string description;
};

struct VideoNodeConfig {
    uint32_t capabilities = V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_STREAMING;
    /* The device_caps word; 0 answers the capabilities without V4L2_CAP_DEVICE_CAPS. */
    uint32_t deviceCaps = 0;
    std::string driver = "fake-v4l2";
    std::string card = "Fake capture";
    std::string busInfo = "platform:fake-v4l2";
    uint32_t version = 0x060100;
    std::vector<FakeFormat> formats = {{V4L2_PIX_FMT_NV12, "Y/CbCr 4:2:0"},
                                       {V4L2_PIX_FMT_YUYV, "YUYV 4:2:2"}};
    /* Per fourcc; an empty list answers EINVAL at index 0. Index fields are filled in. */
    std::map<uint32_t, std::vector<v4l2_frmsizeenum>> frameSizes;
    /* Planes per buffer for the multi-planar buffer types. */
    uint32_t numPlanes = 1;
    /* Count granted by REQBUFS: -1 grants what is asked, up to maxBuffers. */
    int grantedCount = -1;
    uint32_t maxBuffers = 32;
    uint32_t width = 640;
    uint32_t height = 480;
    /* The frame interval until S_PARM sets another. */
    v4l2_fract frameInterval = {1, 30};
    /* Intervals S_PARM may grant (the nearest one is); empty grants any non-zero one. */
    std::vector<v4l2_fract> frameIntervals;
    /* Whether G_PARM and S_PARM are supported at all (ENOTTY otherwise). */
    bool streamParm = true;
};

/* Helpers for VideoNodeConfig::frameSizes. */
v4l2_frmsizeenum DiscreteSize(uint32_t width, uint32_t height);
v4l2_frmsizeenum StepwiseSize(uint32_t minWidth, uint32_t minHeight, uint32_t maxWidth,
                              uint32_t maxHeight, uint32_t stepWidth, uint32_t stepHeight);

struct FrameContent {
    /* -1: one more than the last frame's sequence (starting at 0). */
    int64_t sequence = -1;
    /* Copied into the buffer record. */
    timeval timestamp = {0, 0};
    /* Every byte of every plane is set to this value ... */
    uint8_t fill = 0;
    /* ... unless this is given: it writes plane \a plane of \a size bytes. */
    std::function<void(uint32_t plane, uint8_t* data, size_t size)> writer;
    /* Bytes used per plane; 0 means the whole plane. */
    uint32_t bytesused = 0;
    /* Extra flags for the dequeued record (for example V4L2_BUF_FLAG_ERROR). */
    uint32_t flags = 0;
};

/* Frame content with the usual three fields. */
FrameContent Frame(int64_t sequence = -1, timeval timestamp = {0, 0}, uint8_t fill = 0);

class FakeVideoNode : public FakeNode {
  public:
    FakeVideoNode(std::string path, VideoNodeConfig config);
    ~FakeVideoNode() override;

    /* Changes take effect for the following requests. */
    void SetGrantedCount(int count);
    void SetCapabilities(uint32_t capabilities);

    /*
     * Fills the oldest queued buffer and makes it ready for DQBUF. Answers the
     * buffer's index, or -1 when the node is not streaming or nothing is queued.
     */
    int ProduceFrame(const FrameContent& content = {});
    /*
     * Waits until at least \a count buffers are queued and the node streams
     * (for example after the code under test returned a frame). False on timeout.
     */
    bool WaitQueued(size_t count, std::chrono::milliseconds timeout);
    /*
     * Produces a frame every \a period on a thread of the node whenever a
     * buffer is queued, with \a content (sequence counting on, timestamp from
     * CLOCK_MONOTONIC when \a content leaves it 0). StopFrames() joins the thread;
     * the destructor stops it too. Answers the number of frames produced.
     */
    void StartFrames(std::chrono::microseconds period, FrameContent content = {});
    size_t StopFrames();
    /* Queues an event; it is delivered only if its type is subscribed. */
    void PostEvent(const v4l2_event& event);

    bool Streaming() const;
    uint32_t BufferCount() const;
    size_t QueuedCount() const; /* with the driver, not filled */
    size_t DoneCount() const;   /* filled, waiting for DQBUF */
    /* The current format, as G_FMT answers it. */
    v4l2_format Format() const;
    /* The current frame interval, as G_PARM answers it. */
    v4l2_fract FrameInterval() const;
    /* Live mappings of this node's buffers. */
    size_t LiveMappings() const;
    /* Contents of plane \a plane of buffer \a index (MMAP memory). */
    std::vector<uint8_t> PlaneContents(uint32_t index, uint32_t plane) const;
    /* The set of subscribed event types. */
    std::set<uint32_t> SubscribedEvents() const;

    void* HandleMmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) override;
    /* Called by the munmap interposer: forgets a mapping of this node. */
    bool ForgetMapping(void* addr, size_t length);

  protected:
    int Ioctl(OpenFile file, unsigned long request, void* arg,
              std::unique_lock<std::mutex>& lock) override;
    void Describe(unsigned long request, const void* arg, RequestRecord& record) const override;
    bool Readable() const override { return !done_.empty(); }
    void OnDisconnect() override;
    /*
     * Like the kernel, closing the file that requested the buffers releases
     * the queue: stream off and free the buffers (mappings keep their memory).
     */
    void OnClose(int fd) override;

  private:
    enum class State { kUser, kQueued, kDone };
    struct Plane {
        int memfd = -1;  /* MMAP memory */
        int dmabuf = -1; /* DMABUF memory: the caller's descriptor, held while queued */
        uint32_t size = 0;
        uint32_t bytesused = 0;
    };
    struct Buffer {
        uint32_t index = 0;
        State state = State::kUser;
        std::vector<Plane> planes;
        uint32_t sequence = 0;
        timeval timestamp = {0, 0};
        uint32_t flags = 0;
    };

    bool IsMultiPlanar(uint32_t type) const;
    bool QueueBusy(const OpenFile& file, unsigned long request) const;
    static bool PlaneArrayValid(const v4l2_buffer& buf, const Buffer& buffer);
    bool TypeSupported(uint32_t type) const;
    uint32_t PlaneCount() const;
    uint32_t PlaneSize(uint32_t plane) const;
    static uint64_t Offset(uint32_t index, uint32_t plane);
    void FreeBuffers();
    void ReleaseDmabufs(Buffer& buffer);
    void ReturnAllBuffers();
    void FillFormat(v4l2_format& fmt) const;
    void ApplyFormat(v4l2_format& fmt);

    int QueryCap(v4l2_capability* caps);
    int EnumFmt(v4l2_fmtdesc* desc);
    int EnumFrameSizes(v4l2_frmsizeenum* size);
    int GetFmt(v4l2_format* fmt);
    int SetFmt(v4l2_format* fmt, bool apply);
    int ReqBufs(v4l2_requestbuffers* req);
    int QueryBuf(v4l2_buffer* buf);
    int ExpBuf(v4l2_exportbuffer* exp);
    int QBuf(v4l2_buffer* buf);
    int DQBuf(OpenFile file, v4l2_buffer* buf, std::unique_lock<std::mutex>& lock);
    int StreamOnOff(const int* type, bool on);
    int Selection(v4l2_selection* sel, bool set);
    int StreamParm(v4l2_streamparm* parm, bool set);
    int Subscribe(v4l2_event_subscription* sub, bool subscribe);
    int DQEvent(v4l2_event* event);
    void FillBufferRecord(const Buffer& buffer, v4l2_buffer* buf) const;

    VideoNodeConfig config_;
    uint32_t bufferType_;
    v4l2_pix_format_mplane format_ = {};
    std::vector<Buffer> buffers_;
    uint32_t memory_ = V4L2_MEMORY_MMAP;
    std::deque<uint32_t> queued_;
    std::deque<uint32_t> done_;
    bool streaming_ = false;
    int ownerFd_ = -1; /* the descriptor that requested the buffers */
    uint32_t nextSequence_ = 0;
    v4l2_fract interval_ = {1, 30};
    std::map<uint32_t, v4l2_rect> selections_;
    std::set<uint32_t> subscribed_;
    std::deque<v4l2_event> events_;
    std::map<void*, size_t> mappings_;

    std::thread producer_;
    bool producing_ = false; /* guarded by mutex_ */
    size_t produced_ = 0;    /* by the producer thread; guarded by mutex_ */
};

/* --- sub-device node --- */

struct SubdevFrameSize {
    uint32_t minWidth, minHeight, maxWidth, maxHeight;
};

struct SubdevPad {
    v4l2_mbus_framefmt format = {};
    std::map<uint32_t, v4l2_rect> selections;
    v4l2_fract interval = {1, 30};
    std::vector<uint32_t> mbusCodes;
    std::map<uint32_t, std::vector<SubdevFrameSize>> frameSizes; /* per code */
    std::map<uint32_t, std::vector<v4l2_fract>> intervals;       /* per code */
};

struct SubdevNodeConfig {
    uint32_t version = 0x060100;
    uint32_t capabilities = 0;
    std::vector<SubdevPad> pads = std::vector<SubdevPad>(1);
};

class FakeSubdevNode : public FakeNode {
  public:
    FakeSubdevNode(std::string path, SubdevNodeConfig config);
    /* A copy of pad \a pad as it is now. */
    SubdevPad Pad(uint32_t pad) const;

  protected:
    int Ioctl(OpenFile file, unsigned long request, void* arg,
              std::unique_lock<std::mutex>& lock) override;
    void Describe(unsigned long request, const void* arg, RequestRecord& record) const override;

  private:
    SubdevPad* FindPad(uint32_t pad);
    SubdevNodeConfig config_;
};

/* --- media controller node --- */

struct MediaEntity {
    uint32_t id;
    std::string name;
    uint32_t function;
    uint16_t pads;
};

struct MediaLink {
    uint32_t sourceEntity;
    uint16_t sourcePad;
    uint32_t sinkEntity;
    uint16_t sinkPad;
    uint32_t flags;
};

struct MediaNodeConfig {
    std::string driver = "fake-media";
    std::string model = "Fake media controller";
    std::string serial = "0001";
    std::string busInfo = "platform:fake-media";
    uint32_t topologyVersion = 1;
    std::vector<MediaEntity> entities;
    std::vector<MediaLink> links;
};

class FakeMediaNode : public FakeNode {
  public:
    FakeMediaNode(std::string path, MediaNodeConfig config);
    std::vector<MediaLink> Links() const;

  protected:
    int Ioctl(OpenFile file, unsigned long request, void* arg,
              std::unique_lock<std::mutex>& lock) override;
    void Describe(unsigned long request, const void* arg, RequestRecord& record) const override;

  private:
    MediaNodeConfig config_;
};

/* --- registry --- */

std::shared_ptr<FakeVideoNode> AddVideoNode(const std::string& path, VideoNodeConfig config = {});
std::shared_ptr<FakeSubdevNode> AddSubdevNode(const std::string& path,
                                              SubdevNodeConfig config = {});
std::shared_ptr<FakeMediaNode> AddMediaNode(const std::string& path, MediaNodeConfig config = {});
/* Unregisters a path; descriptors already open keep working until closed. */
void RemoveNode(const std::string& path);
/* Unregisters every node. */
void Reset();

/* The node a descriptor was opened from, or null. */
std::shared_ptr<FakeNode> NodeForFd(int fd);

}  // namespace marlo_fake
