/*
 * CaptureSupervisor: keeps a running capture alive. A vehicle camera is
 * unplugged, loses its serializer link or has its requests refused; the
 * supervisor notices (a node that only reports an error or hang-up, a
 * dequeue or queue the driver refuses for good, no frame for too long, a
 * refused stream-on), releases the device so that its driver can go and
 * come back, tells the clients, and opens the node again in the background
 * with a bounded back-off until frames flow.
 *
 * Everything but begin(), end() and requestStop() runs on the camera's IO
 * thread: a timer descriptor on that thread drives both the stall watchdog
 * and the retries, so recovery never holds a client-facing lock, and a stop
 * (which stops the IO thread) ends it at once.
 */
#pragma once

#include <stdint.h>

#include <atomic>
#include <chrono>

#include <marlo/base/unique_fd.h>
#include <marlo/camera/stream_event.h>

namespace tessaro::marlo {

class HalCamera;

namespace detail {

class CaptureSupervisor {
  public:
    /* First retry after a loss, and the longest wait between two. */
    static constexpr std::chrono::milliseconds kFirstRetry{50};
    static constexpr std::chrono::milliseconds kMaxRetry{800};
    /* A stall is at least this long, and at least three frame intervals. */
    static constexpr std::chrono::milliseconds kMinStall{200};
    /* The first frame after a start may take this long. */
    static constexpr std::chrono::milliseconds kFirstFrame{500};
    /* Assumed frame interval of a driver that does not tell its own. */
    static constexpr std::chrono::milliseconds kUnknownInterval{100};
    /* Dequeues failing in a row, for a reason other than a lost device, count as a loss. */
    static constexpr int kMaxFailedDequeues = 3;
    /*
     * Milliseconds without a frame that make a stall, for sensors that need
     * longer than the derived default; unset or 0 keeps the default.
     */
    static constexpr char kStallProperty[] = "persist.vendor.tessaro.marlo.stall.timeout_ms";

    explicit CaptureSupervisor(HalCamera& camera);
    ~CaptureSupervisor();

    CaptureSupervisor(const CaptureSupervisor&) = delete;
    CaptureSupervisor& operator=(const CaptureSupervisor&) = delete;

    /*
     * Capture starts (camera mutex held, IO thread not yet running). When
     * \a streaming is false the device refused to start: it is released and
     * the first retry is armed; \a status and \a error say why.
     */
    void begin(bool streaming, int status, int error);
    /* Capture stopped (camera mutex held, IO thread stopped). */
    void end();
    /* Any thread: a retry that has not begun yet will not. */
    void requestStop() { stop_requested_ = true; }

    /* Whether the device is being retried. */
    bool recovering() const { return state_.load() == State::kRecovering; }
    /* Why the device was last lost: a status code and its system error. */
    int lostStatus() const { return lost_status_.load(); }
    int lostError() const { return lost_error_.load(); }

    /* --- IO thread --- */
    void onFrame();
    /* A dequeue answered no buffer; \a error is the driver's errno (0: none). */
    void onDequeueFailed(int error);
    /* A queue the driver refused; \a error is its errno. */
    void onQueueFailed(int error);
    /* The capture node reported only an error or hang-up. */
    void onDeviceError(unsigned int events);

  private:
    enum class State { kIdle, kStreaming, kRecovering };

    void onTimer();
    /* Loses the device when \a error says its node has gone; whether it did. */
    bool loseIfGone(int error);
    /* Releases the device and starts retrying; \a type says what happened. */
    void lose(StreamEventType type, int status, int error, uint32_t stalledMs);
    /* Keeps why the device was lost, releases it and waits for a retry. */
    void enterRecovery(int status, int error);
    /* Closes the capture node with its buffers: its driver may then go and come back. */
    void releaseDevice();
    /* One retry: open, configure, start. True when the device streams again. */
    /* Whether the node opens at all, without a log line for a node that is still gone. */
    bool nodeOpens() const;
    bool reopen();
    void armRetry();
    void arm(std::chrono::milliseconds delay);
    std::chrono::milliseconds stallTimeout() const;

    HalCamera& camera_;
    UniqueFd timer_;
    std::atomic<State> state_{State::kIdle};
    std::atomic<bool> stop_requested_{false};
    std::atomic<int> lost_status_{0};
    std::atomic<int> lost_error_{0};
    /* IO thread only. */
    std::chrono::steady_clock::time_point last_frame_;
    std::chrono::milliseconds backoff_{kFirstRetry};
    /* The stall property's value when capture started; 0 for the default. */
    std::chrono::milliseconds stall_override_{0};
    int attempts_ = 0;
    int failed_dequeues_ = 0;
};

}  // namespace detail
}  // namespace tessaro::marlo
