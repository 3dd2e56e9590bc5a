/*
 * FrameFanOut: the handler a HalCamera registers on its IO thread for the
 * capture descriptor while capture runs. Each call takes one captured
 * buffer, converts it into a free buffer set of every running client,
 * forwards the sets, waits (bounded) for the conversions and requeues the
 * buffer. A frame the driver flags as erroneous is requeued unconverted, a
 * client without a free set is told it missed the frame, and a dequeue or
 * queue the driver refuses goes to the camera's CaptureSupervisor. It holds
 * only the camera's address and the fence backend it merges and waits
 * through.
 */
#pragma once

#include <stdint.h>

#include <memory>
#include <vector>

#include <marlo/base/unique_fd.h>

namespace tessaro::marlo {

class FrameBuffer;
class HalCamera;
struct ImageBuffer;
class V4l2Buffer;
class VirtualCamera;

namespace detail {

class FenceBackend;

class FrameFanOut {
  public:
    explicit FrameFanOut(HalCamera* camera);
    FrameFanOut(HalCamera* camera, FenceBackend& fences) : camera_(camera), fences_(&fences) {}

    void operator()(int fd, unsigned int events) const;

    /*
     * Has the fan-outs of \a camera's later capture starts merge and wait
     * through \a fences, which must outlive the capture.
     */
    static void UseFences(HalCamera& camera, FenceBackend& fences);

  private:
    /* Converts the frame into \a client's next free set and forwards it, with no lock held. */
    void serveClient(VirtualCamera& client, const V4l2Buffer& buffer,
                     std::vector<UniqueFd>& fences) const;
    /*
     * Writes one buffer of a set; the fence of an asynchronous job goes to
     * the buffer, and a copy of it to \a fences for the frame's wait.
     */
    void convertInto(const std::shared_ptr<FrameBuffer>& frame, const V4l2Buffer& buffer,
                     std::vector<UniqueFd>& fences) const;
    /* Merges the frame's fences and waits for them, at most 100 ms; closes them. */
    void waitForFences(std::vector<UniqueFd> fences, uint32_t sequence) const;
    /* Drops a frame the driver flagged as erroneous for every running client. */
    void dropErroneous(const V4l2Buffer& buffer) const;

    HalCamera* camera_;
    FenceBackend* fences_;
};

/* An image that names no memory (fd -1). */
ImageBuffer EmptyImage();
/* How the 2D engine sees a client buffer: its plane 0 with its size, stride and format. */
ImageBuffer DestinationImage(const std::shared_ptr<FrameBuffer>& frame);

}  // namespace detail
}  // namespace tessaro::marlo
