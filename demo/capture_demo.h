/*
 * marlo_capture_demo: opens one capture device through V4l2Stream for one or
 * more clients, lends each client buffer sets at its own size and format,
 * runs until every client has its frames (or time runs out), then prints
 * per-client counts, sequence gaps and the stream parameters, and writes the
 * first frame each client received to raw files.
 */
#pragma once

#include <ostream>

namespace marlo_demo {

/*
 * Runs the demo with command-line arguments \a argc / \a argv, printing the
 * report to \a out and problems to \a err. Returns the process exit status:
 * 0 when every client received frames, 1 when one received none or the
 * device captures in another size or format than asked, 2 for bad options or
 * a failed open, start or allocation.
 */
int RunCaptureDemo(int argc, char** argv, std::ostream& out, std::ostream& err);

}  // namespace marlo_demo
