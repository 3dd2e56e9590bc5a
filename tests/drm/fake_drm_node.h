/*
 * A DRM node faked in user space for DrmDevice's tests. The node is a memory
 * file; this test executable defines ioctl(), close() and open() itself, so
 * libdrm's requests on the node (and only on it) are answered here, every
 * close is recorded, and /dev/dri/card0 can be made to open the node. Other
 * descriptors and paths go to the C library as usual.
 */
#pragma once

#include <stdint.h>
#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

#include <marlo/base/unique_fd.h>

namespace drm_fake {

struct Property {
    std::string name;
    uint32_t flags;
};

struct Call {
    unsigned long request;
    std::vector<uint8_t> arg;  // the argument as the caller passed it
};

class FakeDrmNode {
  public:
    FakeDrmNode();
    ~FakeDrmNode();

    FakeDrmNode(const FakeDrmNode&) = delete;
    FakeDrmNode& operator=(const FakeDrmNode&) = delete;

    /* The path under which the node opens again ("/proc/self/fd/N"). */
    std::string path() const;
    /* A new descriptor of the node, for DrmDevice to adopt. */
    tessaro::marlo::UniqueFd openNode() const;
    /* The memory behind the node, where mapped dumb buffers live. */
    int memoryFd() const { return memory_.get(); }

    /* Makes \a request fail with \a error (0 lets it succeed again). */
    void failRequest(unsigned long request, int error) { failures_[request] = error; }

    /* Every request made on the node, in order. */
    const std::vector<Call>& calls() const { return calls_; }
    size_t countCalls(unsigned long request) const;
    /* The argument of the last call of \a request; fails the test when there is none. */
    template <typename T>
    T lastArg(unsigned long request) const;
    void clearCalls() { calls_.clear(); }

    /* Version the node reports; an empty driver name makes the query fail. */
    std::string driver = "fakedrm";
    int major = 1, minor = 2, patch = 3;
    std::map<uint64_t, uint64_t> caps;  // DRM_IOCTL_GET_CAP answers; others fail
    std::vector<std::pair<uint64_t, uint64_t>> clientCaps;  // accepted client caps in order
    std::map<uint64_t, int> clientCapErrors;                // cap -> errno

    /* Dumb buffers: handle -> size, and where MAP_DUMB places each. */
    std::map<uint32_t, uint64_t> dumbs;
    std::map<uint32_t, uint64_t> offsets;
    uint64_t offsetBias = 0;  // added to every map offset (non-zero misaligns it)
    std::vector<uint32_t> closedHandles;
    std::map<ino_t, uint32_t> exported;  // exported dma-buf inode -> handle
    uint32_t lastExportFlags = 0;

    std::map<uint32_t, Property> properties;
    std::map<uint32_t, std::string> blobs;
    uint32_t nextBlobId = 100;
    bool zeroBlobIds = false;
    std::vector<uint32_t> destroyedBlobs;

    std::vector<uint32_t> crtcConnectors;  // connector list of the last SETCRTC

    /*
     * When set, opening /dev/dri/card0 opens this node instead; every path
     * opened that way is recorded.
     */
    bool answerCard0 = false;
    std::vector<std::string> card0Opens;

    /* Called by the interposed ioctl(); returns -1 with errno set on failure. */
    bool owns(int fd) const;
    int handle(unsigned long request, void* arg);

  private:
    int dispatch(unsigned long request, void* arg);
    int createDumb(void* arg);
    int mapDumb(void* arg);
    int exportDumb(void* arg);
    int importDumb(void* arg);
    int getProperty(void* arg);
    int getBlob(void* arg);

    tessaro::marlo::UniqueFd memory_;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    uint32_t nextHandle_ = 1;
    uint64_t nextOffset_ = 0;
    std::map<unsigned long, int> failures_;
    std::vector<Call> calls_;
};

/* Closes seen by the interposed close() while recording: descriptor and result. */
struct CloseRecord {
    int fd;
    int result;
    int error;
};
void StartRecordingCloses();
std::vector<CloseRecord> StopRecordingCloses();

}  // namespace drm_fake

#include <gtest/gtest.h>
#include <string.h>

template <typename T>
T drm_fake::FakeDrmNode::lastArg(unsigned long request) const {
    T value{};
    for (auto it = calls_.rbegin(); it != calls_.rend(); ++it) {
        if (it->request != request)
            continue;
        EXPECT_EQ(it->arg.size(), sizeof(T));
        memcpy(&value, it->arg.data(), std::min(sizeof(T), it->arg.size()));
        return value;
    }
    ADD_FAILURE() << "no call of request 0x" << std::hex << request;
    return value;
}
