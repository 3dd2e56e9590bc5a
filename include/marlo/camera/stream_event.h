/*
 * Stream events: what a client can learn about its stream besides the frames
 * themselves. A vehicle camera is unplugged, loses its serializer link or has
 * its requests refused far more often than a desk camera; these events tell a
 * client when that happens and when the library has brought the stream back.
 *
 * A client registers a listener with V4l2Stream::ClientSetEventListener().
 * Events are delivered in the order they happened, one at a time, on the
 * library's event thread, which holds no library lock while it calls the
 * listener: a listener may call any V4l2Stream member, its own stream's
 * included.
 */
#pragma once

#include <stdint.h>

#include <functional>
#include <string>

namespace tessaro::marlo {

enum class StreamEventType : int32_t {
    /* The client's stream started: it is counted as streaming. */
    kStreamStarted = 0,
    /* The client's stream stopped (its own stop or close). */
    kStreamStopped = 1,
    /*
     * The device refused to start streaming (status, systemError), or its
     * granted format cannot be converted. The client stays started; the
     * library retries in the background and sends kDeviceRecovered once
     * frames flow. A start refused for the format also fails the start call.
     */
    kStartFailed = 2,
    /* A captured frame (sequence) this client did not receive: no free set, or a frame the driver
       flagged. */
    kFrameDropped = 3,
    /* No frame arrived for timeoutMs; the library restarts the device. */
    kCaptureStalled = 4,
    /* The capture device vanished or failed (status, systemError); the library retries. */
    kDeviceLost = 5,
    /* Frames flow again after a loss, a stall or a refused start. */
    kDeviceRecovered = 6,
    /* The driver granted another geometry (granted) than the one asked (asked). */
    kFormatAdjusted = 7,
};

/* The event's name, "StreamStarted" ... "FormatAdjusted"; "Unknown" otherwise. */
const char* StreamEventTypeName(StreamEventType type);

/* A capture geometry: pixels and a V4L2 fourcc code. */
struct StreamFormat {
    int32_t width = 0;
    int32_t height = 0;
    uint32_t fourcc = 0;
};

struct StreamEvent {
    StreamEventType type = StreamEventType::kStreamStarted;
    /* The camera's device id and the receiving client's id. */
    std::string deviceId;
    int32_t clientId = -1;
    /* kStartFailed, kDeviceLost: a status code (ErrorToString names it), 0 otherwise. */
    int32_t status = 0;
    /* The system error behind status, 0 when there is none. */
    int32_t systemError = 0;
    /* kFrameDropped: the sequence number of the frame. */
    uint32_t sequence = 0;
    /* kCaptureStalled: how long no frame had arrived, in milliseconds. */
    uint32_t timeoutMs = 0;
    /* kFormatAdjusted (and kStartFailed for a format): what was asked and granted. */
    StreamFormat asked;
    StreamFormat granted;
    /* When it happened, CLOCK_MONOTONIC nanoseconds (the clock of frame timestamps). */
    uint64_t timestampNs = 0;
};

using StreamEventListener = std::function<void(const StreamEvent& event)>;

}  // namespace tessaro::marlo
