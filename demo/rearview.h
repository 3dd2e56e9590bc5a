/*
 * marlo_rearview: the vehicle camera path end to end. Opens a camera
 * through V4l2Stream, shows every frame on a DRM display through scan-out
 * dumb buffers lent to the library (one atomic commit per frame, a buffer
 * reused only once the flip that replaced it completed), while a second
 * client records. Stream events are printed as they come: a lost camera
 * leaves its last picture on the screen, marked lost on the progress line,
 * and the display goes on by itself once the library has brought the camera
 * back. Then prints per-client frames, rate, drops and latency from the
 * capture timestamp, the events with the time from each loss to the next
 * frame, and writes a contact sheet of every client's last frame.
 */
#pragma once

#include <ostream>

namespace marlo_demo {

/*
 * Runs the tool with command-line arguments \a argc / \a argv, printing the
 * live progress and the report to \a out and problems to \a err. Returns 0
 * when both clients received frames and the display showed them, 1 when one
 * did not or the camera was still lost at the end, 2 for bad options or a
 * failed open, start or allocation.
 */
int RunRearview(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace marlo_demo
