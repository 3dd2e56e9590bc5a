#include <marlo/camera/stream_event.h>

#include <iterator>

namespace tessaro::marlo {

namespace {

/* Indexed by the event's value; the values run from 0 without gaps. */
constexpr const char* kEventNames[] = {
    "StreamStarted",  "StreamStopped", "StartFailed",     "FrameDropped",
    "CaptureStalled", "DeviceLost",    "DeviceRecovered", "FormatAdjusted",
};

static_assert(std::size(kEventNames) == static_cast<size_t>(StreamEventType::kFormatAdjusted) + 1,
              "every event has a name");

}  // namespace

const char* StreamEventTypeName(StreamEventType type) {
    /* A value outside the list (negative ones included) has no name. */
    const auto index = static_cast<uint32_t>(type);
    return index < std::size(kEventNames) ? kEventNames[index] : "Unknown";
}

}  // namespace tessaro::marlo
