#include "display_client.h"

#include <android/sync.h>

#include <chrono>
#include <utility>

#include <marlo/buffer/pixel_format.h>

namespace marlo_demo {

namespace {

using tessaro::marlo::FrameBuffer;

/* A flip that takes longer than this is counted as failed. */
constexpr int kFlipTimeoutMs = 1000;
/* A display that completes no flip in this many waits has stopped; so does the presenter. */
constexpr int kFlipTries = 3;
/* The software engine finishes before it returns; a hardware one may not. */
constexpr int kFenceTimeoutMs = 100;

}  // namespace

DisplayClient::DisplayClient(int id, DrmDisplay* display, StreamHealth::Sink events)
    : id_(id),
      display_(display),
      delivered_("display (client " + std::to_string(id) + ")"),
      shown_("  on screen (page flip)"),
      health_("display (client " + std::to_string(id) + ")"),
      events_(std::move(events)) {}

DisplayClient::~DisplayClient() {
    Stop();
    Close();
}

bool DisplayClient::Open(const std::string& device, uint32_t width, uint32_t height,
                         uint32_t fourcc, std::string* error) {
    stream_.ClientSetEventListener(health_.Listener(events_));
    if (stream_.OpenCamera(id_, device, static_cast<int>(width), static_cast<int>(height),
                           static_cast<int>(fourcc)) != 0) {
        *error = "display client: OpenCamera(" + device + ") failed";
        return false;
    }
    open_ = true;
    const std::vector<std::shared_ptr<FrameBuffer>>& buffers = display_->buffers();
    for (size_t i = 0; i < buffers.size(); ++i) {
        FrameSet set{buffers[i]};
        int status = i == 0 ? stream_.ClientSetBufferInfo(set) : stream_.ClientReturnFrame(set);
        if (status != 0) {
            *error = "display client: lending scan-out buffer " + std::to_string(i) + " failed";
            return false;
        }
    }
    return true;
}

bool DisplayClient::SetFrameRate(int fps, std::string* error) {
    int status = stream_.ClientSetFrameRate(static_cast<float>(fps));
    if (status != 0) {
        *error = "display client: ClientSetFrameRate(" + std::to_string(fps) + ") failed (" +
                 std::to_string(status) + ")";
        return false;
    }
    return true;
}

bool DisplayClient::Start(std::string* error) {
    presenter_ = std::thread([this] { Present(); });
    int status = stream_.ClientStartStream([this](FrameSet set) { OnFrame(std::move(set)); });
    if (status != 0) {
        *error = "display client: ClientStartStream failed (" + std::to_string(status) + ")";
        return false;
    }
    return true;
}

/*
 * On the camera's IO thread: note the frame and pass it on, nothing more.
 * While the camera is lost no frame comes and the last one stays on screen;
 * the first frame after the loss replaces it.
 */
void DisplayClient::OnFrame(FrameSet set) {
    if (set.empty())
        return;
    uint64_t now = MonotonicNs();
    if (health_.OnFrame(now)) {
        /* The capture was restarted: its sequence counts anew. */
        delivered_.StartSegment();
        shown_.StartSegment();
    }
    delivered_.Record(set[0]->sequence(), set[0]->timestamp(), now);
    {
        std::lock_guard<std::mutex> lock(mutex_);
        queue_.push_back(std::move(set));
    }
    ready_.notify_one();
}

void DisplayClient::Present() {
    FrameSet onScreen;
    for (;;) {
        FrameSet next;
        {
            std::unique_lock<std::mutex> lock(mutex_);
            ready_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
            if (queue_.empty())
                break;
            next = std::move(queue_.front());
            queue_.pop_front();
        }
        FrameBuffer& buffer = *next[0];
        if (buffer.fence() >= 0)
            sync_wait(buffer.fence(), kFenceTimeoutMs);
        std::string error;
        if (!display_->Present(static_cast<int>(buffer.cookies()), &error)) {
            Fail(error);
            stream_.ClientReturnFrame(next);
            continue;
        }
        /* The buffer that was on screen is written again only once this one replaced it. */
        for (int tries = 1; display_->WaitForFlip(kFlipTimeoutMs) < 0; ++tries) {
            Fail("a page flip did not complete within 1 s");
            if (tries == kFlipTries)
                return;
        }
        shown_.Record(buffer.sequence(), buffer.timestamp(), MonotonicNs());
        if (!onScreen.empty())
            stream_.ClientReturnFrame(onScreen);
        onScreen = std::move(next);
    }
}

void DisplayClient::Fail(const std::string& error) {
    std::lock_guard<std::mutex> lock(mutex_);
    ++failures_;
    lastError_ = error;
}

std::string DisplayClient::lastError() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return lastError_;
}

void DisplayClient::Stop() {
    if (!presenter_.joinable())
        return;
    stream_.ClientStopStream();
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    ready_.notify_one();
    presenter_.join();
}

void DisplayClient::Close() {
    if (open_)
        stream_.CloseCamera();
    open_ = false;
}

uint64_t DisplayClient::failures() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return failures_;
}

bool DisplayClient::LastShown(SheetImage* image) {
    int index = display_->onScreen();
    if (index < 0)
        return false;
    FrameBuffer& buffer = *display_->buffers()[static_cast<size_t>(index)];
    void* address = buffer.Map();
    if (address == nullptr)
        return false;
    bool copied = CopyForSheet(static_cast<const uint8_t*>(address), buffer.fourcc(),
                               buffer.width(), buffer.height(), buffer.stride(), image);
    buffer.UnMap();
    return copied;
}

}  // namespace marlo_demo
