#include <marlo/camera/stream_event.h>

namespace tessaro::marlo {

const char* StreamEventTypeName(StreamEventType type) {
    switch (type) {
        case StreamEventType::kStreamStarted:
            return "StreamStarted";
        case StreamEventType::kStreamStopped:
            return "StreamStopped";
        case StreamEventType::kStartFailed:
            return "StartFailed";
        case StreamEventType::kFrameDropped:
            return "FrameDropped";
        case StreamEventType::kCaptureStalled:
            return "CaptureStalled";
        case StreamEventType::kDeviceLost:
            return "DeviceLost";
        case StreamEventType::kDeviceRecovered:
            return "DeviceRecovered";
        case StreamEventType::kFormatAdjusted:
            return "FormatAdjusted";
    }
    return "Unknown";
}

}  // namespace tessaro::marlo
