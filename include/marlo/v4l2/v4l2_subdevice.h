/*
 * V4l2SubDevice drives a V4L2 sub-device node (a sensor or bridge): pad
 * formats, selections, frame intervals and the enumerations of media-bus
 * codes, frame sizes and frame intervals. All pad requests use the active
 * configuration.
 */
#pragma once

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

#include <marlo/v4l2/v4l2_device.h>
#include <marlo/v4l2/v4l2_video_device.h>

namespace tessaro::marlo {

struct V4l2SubdevFormat {
    uint32_t width;
    uint32_t height;
    uint32_t code; /* media-bus code */
};

class V4l2SubDevice : public V4l2Device {
  public:
    explicit V4l2SubDevice(const std::string& name);

    int QueryCap();
    int GetFormat(unsigned pad, V4l2SubdevFormat& format);
    int SetFormat(unsigned pad, const V4l2SubdevFormat& format);
    int GetSelection(unsigned pad, unsigned target, V4l2Rect& rect);
    int SetSelection(unsigned pad, unsigned target, const V4l2Rect& rect);
    int GetFrameIntervals(unsigned pad, unsigned* numerator, unsigned* denominator);
    int SetFrameIntervals(unsigned pad, unsigned numerator, unsigned denominator);

    /*
     * Collects the pad's codes into \a codes (emptied first). Answers -2 even
     * after a complete enumeration: look at the vector, not at the result.
     */
    int EnumMbusCode(unsigned pad, std::vector<unsigned>* codes);
    /* Appends the sizes of \a code to \a sizes (not emptied); answers 0. */
    int EnumFrameSize(unsigned pad, unsigned code, std::vector<V4l2FrameSizeRange>* sizes);
    /* The (numerator, denominator) pairs of \a code at the given size. */
    std::vector<std::pair<unsigned, unsigned>> EnumFrameInterval(unsigned pad, unsigned code,
                                                                 unsigned width, unsigned height);
};

}  // namespace tessaro::marlo
