#include "recorder_client.h"

#include <android/sync.h>

#include <utility>

#include <marlo/buffer/pixel_format.h>

namespace marlo_demo {

namespace {

using namespace tessaro::marlo;

/* The CPU reads what it records. */
constexpr uint64_t kCpuRead = 0x3;
constexpr int kFenceTimeoutMs = 100;

}  // namespace

RecorderClient::RecorderClient(int id, uint32_t width, uint32_t height, std::string path,
                               StreamHealth::Sink events)
    : id_(id),
      width_(width),
      height_(height),
      path_(std::move(path)),
      stats_("recorder (client " + std::to_string(id) + ")"),
      health_("recorder (client " + std::to_string(id) + ")"),
      events_(std::move(events)) {}

RecorderClient::~RecorderClient() {
    Stop();
    Close();
}

bool RecorderClient::Open(const std::string& device, uint32_t width, uint32_t height,
                          uint32_t fourcc, int sets, std::string* error) {
    if (!path_.empty()) {
        file_.reset(fopen(path_.c_str(), "wb"));
        if (!file_) {
            *error = "recorder: cannot write " + path_;
            return false;
        }
    }
    stream_.ClientSetEventListener(health_.Listener(events_));
    if (stream_.OpenCamera(id_, device, static_cast<int>(width), static_cast<int>(height),
                           static_cast<int>(fourcc)) != 0) {
        *error = "recorder: OpenCamera(" + device + ") failed";
        return false;
    }
    open_ = true;
    for (int s = 0; s < sets; ++s) {
        FrameBufferInfo info;
        info.fourcc = FOURCC_NV12;
        info.width = width_;
        info.height = height_;
        info.flags = kCpuRead;
        FrameBuffer* raw = nullptr;
        if (allocator_.Allocate(info, &raw) != 0 || raw == nullptr) {
            *error = "recorder: allocating an NV12 buffer failed";
            return false;
        }
        sets_.push_back({std::shared_ptr<FrameBuffer>(raw)});
        int status = s == 0 ? stream_.ClientSetBufferInfo(sets_.back())
                            : stream_.ClientReturnFrame(sets_.back());
        if (status != 0) {
            *error = "recorder: lending a buffer set failed";
            return false;
        }
    }
    return true;
}

bool RecorderClient::Start(std::string* error) {
    writer_ = std::thread([this] { Write(); });
    int status = stream_.ClientStartStream([this](FrameSet set) { OnFrame(std::move(set)); });
    if (status != 0) {
        *error = "recorder: ClientStartStream failed (" + std::to_string(status) + ")";
        return false;
    }
    return true;
}

/* On the camera's IO thread: note the frame and pass it to the writer. */
void RecorderClient::OnFrame(FrameSet set) {
    if (set.empty())
        return;
    uint64_t now = MonotonicNs();
    if (health_.OnFrame(now))
        stats_.StartSegment();
    stats_.Record(set[0]->sequence(), set[0]->timestamp(), now);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(std::move(set));
    }
    ready_.notify_one();
}

void RecorderClient::Write() {
    for (;;) {
        FrameSet set;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            ready_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
            if (queue_.empty())
                return;
            set = std::move(queue_.front());
            queue_.pop_front();
        }
        Record(*set[0]);
        stream_.ClientReturnFrame(set);
    }
}

/* Writes the buffer's rows without their padding; the CPU holds it only meanwhile. */
void RecorderClient::Record(FrameBuffer& buffer) {
    if (buffer.fence() >= 0 && sync_wait(buffer.fence(), kFenceTimeoutMs) != 0)
        return;
    void* address = buffer.Map();
    if (address == nullptr)
        return;
    SheetImage frame;
    bool copied = CopyForSheet(static_cast<const uint8_t*>(address), FOURCC_NV12, buffer.width(),
                               buffer.height(), buffer.stride(), &frame);
    buffer.UnMap();
    if (!copied)
        return;
    size_t written = 0;
    if (file_)
        written = fwrite(frame.pixels.data(), 1, frame.pixels.size(), file_.get());
    std::lock_guard<std::mutex> lock(mutex_);
    bytes_ += written;
    last_ = std::move(frame);
}

void RecorderClient::Stop() {
    if (!writer_.joinable())
        return;
    stream_.ClientStopStream();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    ready_.notify_one();
    writer_.join();
    if (file_)
        fflush(file_.get());
}

void RecorderClient::Close() {
    if (open_)
        stream_.CloseCamera();
    open_ = false;
}

uint64_t RecorderClient::bytesWritten() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return bytes_;
}

bool RecorderClient::LastFrame(SheetImage* image) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (last_.pixels.empty())
        return false;
    *image = last_;
    return true;
}

}  // namespace marlo_demo
