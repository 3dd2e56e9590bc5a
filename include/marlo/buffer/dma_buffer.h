/*
 * DmaBuffer: the one owner of a dma-buf descriptor, mapped for the CPU on
 * demand, with CPU access bracketed by the kernel's cache synchronisation.
 */
#pragma once

#include <marlo/base/unique_fd.h>

#include <stdint.h>

namespace tessaro::marlo {

/* Direction of CPU access; any value other than read or write means both. */
enum DmaBufferDirection : uint32_t {
    DMA_BUFFER_READ = 1,
    DMA_BUFFER_WRITE = 2,
    DMA_BUFFER_READ_WRITE = 3,
};

class DmaBuffer {
  public:
    /*
     * Takes ownership of \a fd (-1 for none). A non-null \a userPtr counts as
     * a mapping of \a size bytes and is unmapped like one.
     */
    DmaBuffer(int fd, unsigned long size, void* userPtr);
    virtual ~DmaBuffer();

    DmaBuffer(const DmaBuffer&) = delete;
    DmaBuffer& operator=(const DmaBuffer&) = delete;

    /*
     * Maps the buffer once and starts CPU read access; later calls return
     * the same address. Null when the mapping fails.
     */
    void* Map();
    /* Ends CPU access and unmaps; nothing happens when not mapped. */
    void UnMap();

    /* One cache synchronisation request on \a fd; 0 or ERR_FAILED. */
    int Sync(int fd, DmaBufferDirection dir, bool start);
    int BeginCpuAccess(DmaBufferDirection dir);
    int EndCpuAccess(DmaBufferDirection dir);

    int GetFd() const { return fd_.get(); }
    uint64_t GetSize() const { return size_; }
    bool Mapped() const { return address_ != nullptr; }
    void SetOffset(unsigned long offset) { offset_ = offset; }
    void SetUserPtr(void* address) { address_ = address; }

    /*
     * Closes the descriptor and returns its number (a record of what was
     * held, not a handover); -1 when none was held. A mapping stays as it is.
     */
    int Release();

  private:
    UniqueFd fd_;
    uint64_t size_;
    void* address_;
    uint64_t offset_ = 0;
};

}  // namespace tessaro::marlo
