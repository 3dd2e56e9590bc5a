#include <marlo/buffer/dma_buffer.h>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>

#include <errno.h>
#include <linux/dma-buf.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_buf";

uint64_t SyncFlags(DmaBufferDirection dir, bool start) {
    uint64_t flags;
    switch (dir) {
        case DMA_BUFFER_READ:
            flags = DMA_BUF_SYNC_READ;
            break;
        case DMA_BUFFER_WRITE:
            flags = DMA_BUF_SYNC_WRITE;
            break;
        default:
            flags = DMA_BUF_SYNC_RW;
            break;
    }
    return flags | (start ? DMA_BUF_SYNC_START : DMA_BUF_SYNC_END);
}

}  // namespace

DmaBuffer::DmaBuffer(int fd, unsigned long size, void* userPtr)
    : fd_(fd), size_(size), address_(userPtr) {}

DmaBuffer::~DmaBuffer() {
    UnMap();
}

void* DmaBuffer::Map() {
    if (address_ != nullptr)
        return address_;

    void* address = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED, fd_.get(),
                         static_cast<off_t>(offset_));
    if (address == MAP_FAILED) {
        marlo_log(MARLO_LOG_ERROR, kTag, "dma_buf fd %d size %zu map failed %s", fd_.get(),
                  static_cast<size_t>(size_), strerror(errno));
        address = nullptr;
    }
    address_ = address;

    // Access starts even when the mapping failed; callers see the null result.
    Sync(fd_.get(), DMA_BUFFER_READ, true);
    return address_;
}

void DmaBuffer::UnMap() {
    if (address_ == nullptr)
        return;
    Sync(fd_.get(), DMA_BUFFER_READ, false);
    munmap(address_, size_);
    address_ = nullptr;
}

int DmaBuffer::Sync(int fd, DmaBufferDirection dir, bool start) {
    struct dma_buf_sync sync = {};
    sync.flags = SyncFlags(dir, start);
    if (ioctl(fd, DMA_BUF_IOCTL_SYNC, &sync) < 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "DMA_BUF_IOCTL_SYNC ioctl failed %s", strerror(errno));
        return ERR_FAILED;
    }
    marlo_log(MARLO_LOG_INFO, kTag, "%s CPU access dir %d for BO fd %d", start ? "start" : "end",
              static_cast<int>(dir), fd);
    return OK;
}

int DmaBuffer::BeginCpuAccess(DmaBufferDirection dir) {
    return Sync(fd_.get(), dir, true);
}

int DmaBuffer::EndCpuAccess(DmaBufferDirection dir) {
    return Sync(fd_.get(), dir, false);
}

int DmaBuffer::Release() {
    int fd = fd_.get();
    if (fd < 0)
        return -1;
    fd_.reset();
    return fd;
}

}  // namespace tessaro::marlo
