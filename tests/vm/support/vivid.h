/*
 * The kernel's virtual video driver as the bench loads it: two instances,
 * vivid-000 single-planar and vivid-001 multi-planar, each with a webcam
 * input showing 75% colour bars. Helpers find their nodes and set the
 * driver's controls and frame interval.
 */
#pragma once

#include <stdint.h>

#include <string>

namespace marlo_vm {

/* The bench's vivid instances. */
enum class Vivid { kSinglePlanar = 0, kMultiPlanar = 1 };

/* "single-planar" or "multi-planar", for test names and messages. */
const char* VividName(Vivid instance);

/* The /dev node of the instance's video capture device, or "" when there is none. */
std::string VividCaptureNode(Vivid instance);
/* The /dev node of the instance's media controller, or "" when there is none. */
std::string VividMediaNode(Vivid instance);
/* The /dev node of the video4linux device named \a name in sysfs, or "". */
std::string VideoNodeByName(const std::string& name);

/*
 * Prepares a capture node for pixel checks: the 75% colour bar pattern and
 * no on-screen text. Returns false (with errno) when a control is refused.
 */
bool ShowPlainColourBars(const std::string& node);

/*
 * Asks the node for \a fps frames per second (VIDIOC_S_PARM, before the
 * library starts it). Returns the rate the driver granted, 0 on refusal.
 */
double SetFrameRate(const std::string& node, unsigned fps);

}  // namespace marlo_vm
