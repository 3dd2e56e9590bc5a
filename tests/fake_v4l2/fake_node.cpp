/* The part every fake node shares: descriptors, injections and the request record. */
#include <errno.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "fake_v4l2_internal.h"

namespace marlo_fake {

std::string RequestName(unsigned long request) {
    static const std::map<unsigned long, std::string> names = {
        {kOpenRequest, "open"},
        {kMmapRequest, "mmap"},
        {kCloseRequest, "close"},
        {VIDIOC_QUERYCAP, "VIDIOC_QUERYCAP"},
        {VIDIOC_ENUM_FMT, "VIDIOC_ENUM_FMT"},
        {VIDIOC_G_FMT, "VIDIOC_G_FMT"},
        {VIDIOC_S_FMT, "VIDIOC_S_FMT"},
        {VIDIOC_TRY_FMT, "VIDIOC_TRY_FMT"},
        {VIDIOC_REQBUFS, "VIDIOC_REQBUFS"},
        {VIDIOC_QUERYBUF, "VIDIOC_QUERYBUF"},
        {VIDIOC_QBUF, "VIDIOC_QBUF"},
        {VIDIOC_EXPBUF, "VIDIOC_EXPBUF"},
        {VIDIOC_DQBUF, "VIDIOC_DQBUF"},
        {VIDIOC_STREAMON, "VIDIOC_STREAMON"},
        {VIDIOC_STREAMOFF, "VIDIOC_STREAMOFF"},
        {VIDIOC_ENUM_FRAMESIZES, "VIDIOC_ENUM_FRAMESIZES"},
        {VIDIOC_G_PARM, "VIDIOC_G_PARM"},
        {VIDIOC_S_PARM, "VIDIOC_S_PARM"},
        {VIDIOC_G_SELECTION, "VIDIOC_G_SELECTION"},
        {VIDIOC_S_SELECTION, "VIDIOC_S_SELECTION"},
        {VIDIOC_SUBSCRIBE_EVENT, "VIDIOC_SUBSCRIBE_EVENT"},
        {VIDIOC_UNSUBSCRIBE_EVENT, "VIDIOC_UNSUBSCRIBE_EVENT"},
        {VIDIOC_DQEVENT, "VIDIOC_DQEVENT"},
        {VIDIOC_SUBDEV_QUERYCAP, "VIDIOC_SUBDEV_QUERYCAP"},
        {VIDIOC_SUBDEV_G_FMT, "VIDIOC_SUBDEV_G_FMT"},
        {VIDIOC_SUBDEV_S_FMT, "VIDIOC_SUBDEV_S_FMT"},
        {VIDIOC_SUBDEV_G_SELECTION, "VIDIOC_SUBDEV_G_SELECTION"},
        {VIDIOC_SUBDEV_S_SELECTION, "VIDIOC_SUBDEV_S_SELECTION"},
        {VIDIOC_SUBDEV_G_FRAME_INTERVAL, "VIDIOC_SUBDEV_G_FRAME_INTERVAL"},
        {VIDIOC_SUBDEV_S_FRAME_INTERVAL, "VIDIOC_SUBDEV_S_FRAME_INTERVAL"},
        {VIDIOC_SUBDEV_ENUM_MBUS_CODE, "VIDIOC_SUBDEV_ENUM_MBUS_CODE"},
        {VIDIOC_SUBDEV_ENUM_FRAME_SIZE, "VIDIOC_SUBDEV_ENUM_FRAME_SIZE"},
        {VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL, "VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL"},
        {MEDIA_IOC_DEVICE_INFO, "MEDIA_IOC_DEVICE_INFO"},
        {MEDIA_IOC_G_TOPOLOGY, "MEDIA_IOC_G_TOPOLOGY"},
        {MEDIA_IOC_ENUM_ENTITIES, "MEDIA_IOC_ENUM_ENTITIES"},
        {MEDIA_IOC_ENUM_LINKS, "MEDIA_IOC_ENUM_LINKS"},
        {MEDIA_IOC_SETUP_LINK, "MEDIA_IOC_SETUP_LINK"},
    };
    auto it = names.find(request);
    return it != names.end() ? it->second : "unknown";
}

FakeNode::FakeNode(std::string path) : path_(std::move(path)) {}

FakeNode::~FakeNode() = default;

void FakeNode::InjectError(unsigned long request, int err, int times, int after) {
    std::lock_guard<std::mutex> lock(mutex_);
    injections_.push_back({request, err, times, after});
}

void FakeNode::InjectEintr(unsigned long request, int times) {
    InjectError(request, EINTR, times);
}

void FakeNode::InjectResult(unsigned long request, int result) {
    std::lock_guard<std::mutex> lock(mutex_);
    results_.emplace(request, result);
}

int FakeNode::TakeInjection(unsigned long request) {
    for (auto it = injections_.begin(); it != injections_.end(); ++it) {
        if (it->request != request)
            continue;
        if (it->skip > 0) {
            --it->skip;
            return 0;
        }
        int err = it->err;
        if (--it->remaining <= 0)
            injections_.erase(it);
        return err;
    }
    return 0;
}

std::vector<RequestRecord> FakeNode::Requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return records_;
}

std::vector<RequestRecord> FakeNode::Requests(unsigned long request) const {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<RequestRecord> out;
    for (const auto& record : records_)
        if (record.request == request)
            out.push_back(record);
    return out;
}

size_t FakeNode::CountRequests(unsigned long request) const {
    return Requests(request).size();
}

void FakeNode::ClearRequests() {
    std::lock_guard<std::mutex> lock(mutex_);
    /* Gives the memory back too: long runs measure the heap after a clear. */
    std::vector<RequestRecord>().swap(records_);
}

int FakeNode::LastOpenFlags() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastOpenFlags_;
}

unsigned FakeNode::LastOpenMode() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastOpenMode_;
}

size_t FakeNode::OpenDescriptors() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return files_.size();
}

void FakeNode::Record(RequestRecord record) {
    records_.push_back(std::move(record));
}

FakeNode::OpenFile* FakeNode::FindFile(int fd) {
    for (auto& file : files_)
        if (file.fd == fd)
            return &file;
    return nullptr;
}

void FakeNode::UpdateReadiness() {
    /* An unplugged node has closed every write end: it only hangs up. */
    if (disconnected_)
        return;
    const bool readable = Readable();
    for (auto& file : files_) {
        if (readable == file.ready)
            continue;
        char byte = 0;
        if (readable) {
            file.ready = write(file.signal, &byte, 1) == 1;
        } else {
            /* The read end is the caller's descriptor; nothing else reads it. */
            file.ready = read(file.fd, &byte, 1) != 1;
        }
    }
}

void FakeNode::Disconnect() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (disconnected_)
        return;
    disconnected_ = true;
    for (auto& file : files_) {
        char byte;
        if (file.ready && read(file.fd, &byte, 1) == 1)
            file.ready = false;
        if (file.signal >= 0)
            detail::RealClose(file.signal);
        file.signal = -1;
    }
    OnDisconnect();
    /* Wakes a blocking dequeue, which now answers ENODEV. */
    cond_.notify_all();
}

bool FakeNode::Disconnected() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return disconnected_;
}

int FakeNode::HandleOpen(int flags, unsigned mode) {
    std::lock_guard<std::mutex> lock(mutex_);
    RequestRecord record;
    record.path = path_;
    record.request = kOpenRequest;
    record.name = RequestName(kOpenRequest);
    record.flags = static_cast<uint32_t>(flags);
    lastOpenFlags_ = flags;
    lastOpenMode_ = mode;

    int err = disconnected_ ? ENODEV : TakeInjection(kOpenRequest);
    int fd = -1;
    int signal = -1;
    if (err == 0) {
        /* Internal reads and writes of the pipe never block; the open
         * file's own blocking mode is kept in files_. */
        int ends[2];
        if (pipe2(ends, O_NONBLOCK | ((flags & O_CLOEXEC) ? O_CLOEXEC : 0)) != 0) {
            err = errno;
        } else {
            fd = ends[0];
            signal = ends[1];
        }
    }
    record.result = err ? -1 : 0;
    record.error = err;
    Record(record);
    if (err) {
        errno = err;
        return -1;
    }
    files_.push_back({fd, flags, signal, false});
    UpdateReadiness();
    return fd;
}

void FakeNode::RecordCloses(bool on) {
    std::lock_guard<std::mutex> lock(mutex_);
    recordCloses_ = on;
}

int FakeNode::HandleClose(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    const int err = TakeInjection(kCloseRequest);
    if (recordCloses_) {
        RequestRecord record;
        record.path = path_;
        record.request = kCloseRequest;
        record.name = RequestName(kCloseRequest);
        record.result = err ? -1 : 0;
        record.error = err;
        Record(std::move(record));
    }
    for (const auto& file : files_)
        if (file.fd == fd && file.signal >= 0)
            detail::RealClose(file.signal);
    files_.erase(std::remove_if(files_.begin(), files_.end(),
                                [fd](const OpenFile& file) { return file.fd == fd; }),
                 files_.end());
    OnClose(fd);
    /* Wakes a blocking dequeue on this descriptor. */
    cond_.notify_all();
    return err;
}

int FakeNode::HandleIoctl(int fd, unsigned long request, void* arg) {
    std::unique_lock<std::mutex> lock(mutex_);
    OpenFile* file = FindFile(fd);
    if (file == nullptr) {
        errno = EBADF;
        return -1;
    }
    RequestRecord record;
    record.path = path_;
    record.request = request;
    record.name = RequestName(request);
    if (arg != nullptr)
        Describe(request, arg, record);

    /* An unplugged device refuses everything, as the V4L2 core does. */
    int err = disconnected_ ? ENODEV : TakeInjection(request);
    int result = 0;
    auto injected = results_.find(request);
    if (err == 0 && injected != results_.end()) {
        result = injected->second;
        results_.erase(injected);
    } else if (err == 0) {
        err = arg == nullptr ? EFAULT : Ioctl(*file, request, arg, lock);
    }
    if (err == 0 && request == VIDIOC_DQBUF)
        record.index = static_cast<v4l2_buffer*>(arg)->index;
    record.result = err ? -1 : 0;
    record.error = err;
    Record(std::move(record));
    UpdateReadiness();
    /* Lets tests wait for what the code under test did (WaitQueued). */
    cond_.notify_all();
    lock.unlock();
    if (err) {
        errno = err;
        return -1;
    }
    return result;
}

void* FakeNode::HandleMmap(void*, size_t, int, int, int, off_t) {
    errno = ENODEV;
    return MAP_FAILED;
}

void FakeNode::Describe(unsigned long, const void*, RequestRecord&) const {}

}  // namespace marlo_fake
