/*
 * The rear-view tool's lines: the live progress line with the camera's
 * state (live, or lost with the last picture kept) and each client's
 * stream events, and the events part of the final report.
 */
#pragma once

#include <stdint.h>

#include <ostream>
#include <string>
#include <vector>

#include "frame_stats.h"
#include "stream_health.h"

namespace marlo_demo {

/*
 * "camera live", or "CAMERA LOST 1.2 s, last picture kept" (STALLED, NOT
 * STARTED, RECOVERING) while \a display has had no frame since an outage, at
 * \a nowNs.
 */
std::string CameraState(const StreamHealth::Summary& display, uint64_t nowNs);

/*
 * "rearview: 6.0 s | shown 150 (25.0 fps) | recorded 150 (25.0 fps) | camera
 * live | display: lost 1, recovered 1, back after 412 ms | recorder: ...";
 * \a health holds the display's summary first, then the recorder's; a client
 * with nothing to tell is left out.
 */
std::string ProgressLine(double seconds, const FrameStats::Summary& shown,
                         const FrameStats::Summary& recorded,
                         const std::vector<StreamHealth::Summary>& health, uint64_t nowNs);

/* The events table of the final report with its legend. */
void PrintEventReport(const std::vector<StreamHealth::Summary>& health, std::ostream& out);

}  // namespace marlo_demo
