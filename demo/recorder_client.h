/*
 * The rear-view tool's second client: a recorder that lends gralloc
 * buffers at its own size and format (NV12), and whose writer thread
 * appends every frame it receives to a raw file, as a video encoder's
 * input would take them, before handing the set back.
 */
#pragma once

#include <stdint.h>

#include <condition_variable>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <marlo/buffer/frame_buffer_allocator.h>
#include <marlo/stream/v4l2_stream.h>

#include "contact_sheet.h"
#include "frame_stats.h"
#include "stream_health.h"

namespace marlo_demo {

class RecorderClient {
  public:
    /*
     * Frames of \a width x \a height NV12 go to \a path ("" keeps only the
     * last one); \a events gets the stream's events as they come.
     */
    RecorderClient(int id, uint32_t width, uint32_t height, std::string path,
                   StreamHealth::Sink events = nullptr);
    ~RecorderClient();

    RecorderClient(const RecorderClient&) = delete;
    RecorderClient& operator=(const RecorderClient&) = delete;

    bool Open(const std::string& device, uint32_t width, uint32_t height, uint32_t fourcc, int sets,
              std::string* error);
    bool Start(std::string* error);
    void Stop();
    void Close();

    const FrameStats& stats() const { return stats_; }
    const StreamHealth& health() const { return health_; }
    uint64_t bytesWritten() const;
    const std::string& path() const { return path_; }
    uint32_t width() const { return width_; }
    uint32_t height() const { return height_; }
    /* The last frame recorded; after Stop(). */
    bool LastFrame(SheetImage* image) const;

  private:
    using FrameSet = std::vector<std::shared_ptr<tessaro::marlo::FrameBuffer>>;

    void OnFrame(FrameSet set);
    void Write();
    void Record(tessaro::marlo::FrameBuffer& buffer);

    int id_;
    uint32_t width_;
    uint32_t height_;
    std::string path_;
    std::unique_ptr<FILE, int (*)(FILE*)> file_{nullptr, fclose};
    tessaro::marlo::GrallocFrameBufferAllocator allocator_;
    std::vector<FrameSet> sets_;
    FrameStats stats_;
    StreamHealth health_;
    StreamHealth::Sink events_;
    std::thread writer_;
    mutable std::mutex mutex_;
    std::condition_variable ready_;
    std::deque<FrameSet> queue_;
    bool stopping_ = false;
    uint64_t bytes_ = 0;
    SheetImage last_;
    bool open_ = false;
    /* Last: closed before the buffers it was lent go away. */
    tessaro::marlo::V4l2Stream stream_;
};

}  // namespace marlo_demo
