/*
 * Pieces of the stream suites: exact matching of the stream log lines and a
 * client that counts and keeps the sets its callback receives. The camera
 * suites' helpers (system root, memory-file client buffers, bounded waits)
 * are shared.
 */
#pragma once

#include <android/log.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "camera/camera_test_util.h"
#include "marlo/stream/v4l2_stream.h"

namespace stream_test {

using camera_test::FrameSet;

/* "V4LSTRM(<device>-<client>)", the head of every stream line. */
inline std::string Strm(const std::string& device, int client) {
    return "V4LSTRM(" + device + "-" + std::to_string(client) + ")";
}

/* Stream lines with this priority, device, client, member and text. */
inline size_t Count(const marlo_test::LogCapture& log, int priority, const std::string& device,
                    int client, const std::string& func, const std::string& text) {
    return camera_test::CountLines(log, priority, Strm(device, client), func, text);
}

/*
 * A client callback: records each set and, when asked, hands it straight
 * back through the stream the way a client does.
 */
class Client : public camera_test::FrameSink {
  public:
    explicit Client(tessaro::marlo::V4l2Stream* returnTo = nullptr) : return_to_(returnTo) {}

    tessaro::marlo::V4l2Stream::FrameCallback callback() {
        return [this](FrameSet frames) {
            record(frames);
            if (return_to_)
                return_to_->ClientReturnFrame(frames);
        };
    }

  private:
    tessaro::marlo::V4l2Stream* return_to_;
};

}  // namespace stream_test
