/*
 * The rear-view tool's display client: a stream of the camera whose buffer
 * sets are the display's scan-out buffers. Each delivered frame goes to a
 * presenter thread that shows it with one atomic commit and hands the set
 * it replaced on screen back to the library once the flip completed.
 */
#pragma once

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <marlo/stream/v4l2_stream.h>

#include "contact_sheet.h"
#include "drm_display.h"
#include "frame_stats.h"
#include "stream_health.h"

namespace marlo_demo {

class DisplayClient {
  public:
    /* \a events gets the stream's events as they come (see StreamHealth). */
    DisplayClient(int id, DrmDisplay* display, StreamHealth::Sink events = nullptr);
    /* Closes the stream before the display's buffers go. */
    ~DisplayClient();

    DisplayClient(const DisplayClient&) = delete;
    DisplayClient& operator=(const DisplayClient&) = delete;

    /* Opens the camera and lends every scan-out buffer, one set each. */
    bool Open(const std::string& device, uint32_t width, uint32_t height, uint32_t fourcc,
              std::string* error);
    /* Asks the library for \a fps frames per second at the start (after Open). */
    bool SetFrameRate(int fps, std::string* error);
    bool Start(std::string* error);
    /* Stops the stream, then the presenter once the last flip completed. */
    void Stop();
    void Close();

    const FrameStats& delivered() const { return delivered_; }
    const FrameStats& shown() const { return shown_; }
    /* Losses, recoveries and the other stream events; while lost the last picture stays up. */
    const StreamHealth& health() const { return health_; }
    /* Commits the display refused and flips it did not complete in time. */
    uint64_t failures() const;
    std::string lastError() const;
    /* The frame last shown, for the contact sheet; after Stop(). */
    bool LastShown(SheetImage* image);

  private:
    using FrameSet = std::vector<std::shared_ptr<tessaro::marlo::FrameBuffer>>;

    void OnFrame(FrameSet set);
    /* The presenter thread: shows every delivered set in order. */
    void Present();
    void Fail(const std::string& error);

    int id_;
    DrmDisplay* display_;
    FrameStats delivered_;
    FrameStats shown_;
    StreamHealth health_;
    StreamHealth::Sink events_;
    std::thread presenter_;
    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<FrameSet> queue_;
    bool stopping_ = false;
    uint64_t failures_ = 0;
    std::string lastError_;
    bool open_ = false;
    /* Last: closed before the buffers it was lent go away. */
    tessaro::marlo::V4l2Stream stream_;
};

}  // namespace marlo_demo
