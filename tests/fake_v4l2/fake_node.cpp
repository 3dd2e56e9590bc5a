/* The part every fake node shares: descriptors, injections and the request record. */
#include <errno.h>
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>

#include "fake_v4l2_internal.h"

namespace marlo_fake {

std::string RequestName(unsigned long request) {
    static const std::map<unsigned long, std::string> names = {
        {kOpenRequest, "open"},
        {kMmapRequest, "mmap"},
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
    records_.clear();
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
    const bool readable = Readable();
    for (const auto& file : files_) {
        eventfd_t value;
        while (eventfd_read(file.fd, &value) == 0) {
        }
        if (readable)
            eventfd_write(file.fd, 1);
    }
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

    int err = TakeInjection(kOpenRequest);
    int fd = -1;
    if (err == 0) {
        /* Internal reads and writes of the eventfd never block; the open
         * file's own blocking mode is kept in files_. */
        fd = eventfd(0, EFD_NONBLOCK | ((flags & O_CLOEXEC) ? EFD_CLOEXEC : 0));
        if (fd < 0)
            err = errno;
    }
    record.result = err ? -1 : 0;
    record.error = err;
    Record(record);
    if (err) {
        errno = err;
        return -1;
    }
    files_.push_back({fd, flags});
    UpdateReadiness();
    return fd;
}

void FakeNode::HandleClose(int fd) {
    std::lock_guard<std::mutex> lock(mutex_);
    files_.erase(std::remove_if(files_.begin(), files_.end(),
                                [fd](const OpenFile& file) { return file.fd == fd; }),
                 files_.end());
    OnClose(fd);
    /* Wakes a blocking dequeue on this descriptor. */
    cond_.notify_all();
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

    int err = TakeInjection(request);
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
