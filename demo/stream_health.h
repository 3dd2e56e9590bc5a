/*
 * What a demo client learns from its stream events: the camera lost,
 * stalled or refusing to start, recovered, a format the driver adjusted,
 * frames the library could not give it, and how long each outage lasted
 * until the client's next frame. The tools print it as one line per event,
 * on the progress line and in a table of the final report.
 */
#pragma once

#include <stdint.h>

#include <functional>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <marlo/camera/stream_event.h>

namespace marlo_demo {

/* One line for \a event, e.g. "camera lost (No such device)". */
std::string DescribeEvent(const tessaro::marlo::StreamEvent& event);

class StreamHealth {
  public:
    /* \a name is the client's name in the report, e.g. "display (client 0)". */
    explicit StreamHealth(std::string name);

    StreamHealth(const StreamHealth&) = delete;
    StreamHealth& operator=(const StreamHealth&) = delete;

    /*
     * Gets every event after it was counted, with its line "<name>: <what
     * happened>" ("" for starts, stops and drops, which are only counted);
     * runs on the library's event thread.
     */
    using Sink =
        std::function<void(const tessaro::marlo::StreamEvent& event, const std::string& line)>;

    /* The listener to register with the client's stream; \a sink may be null. */
    tessaro::marlo::StreamEventListener Listener(Sink sink);
    const std::string& name() const { return name_; }

    /*
     * Called from the frame callback when a frame arrived at \a nowNs
     * (CLOCK_MONOTONIC). Returns true for the first frame after an outage.
     */
    bool OnFrame(uint64_t nowNs);

    struct Summary {
        std::string name;
        uint64_t lost = 0;
        uint64_t stalled = 0;
        uint64_t refused = 0;
        uint64_t recovered = 0;
        uint64_t adjusted = 0;
        uint64_t dropped = 0;
        /* From each outage's first event to the client's next frame, in order. */
        std::vector<double> backAfterMs;
        /*
         * No frame since the last loss, stall or refusal; since when, and
         * which it was ("lost", "stalled", "not started"; "recovering" once
         * the library has the camera streaming again).
         */
        bool down = false;
        uint64_t downSinceNs = 0;
        std::string downCause;
        /* "800x600 YUYV granted as 640x480 YUYV" for the last adjustment. */
        std::string adjustment;
    };
    Summary Summarize() const;
    /* Whether the camera is down for this client. */
    bool down() const;

  private:
    void Handle(const tessaro::marlo::StreamEvent& event);

    std::string name_;
    mutable std::mutex mutex_;
    Summary counts_;
};

/* The nonzero counts of \a summary, e.g. "lost 1, back after 412 ms"; "" when nothing happened. */
std::string BriefHealth(const StreamHealth::Summary& summary);

/* The events table of the final report, one row per client, and its legend. */
void PrintHealthTable(const std::vector<StreamHealth::Summary>& rows, std::ostream& out);

/*
 * Lines written from other threads (event listeners) and printed by the
 * tool's main thread, which owns the output stream.
 */
class LineMailbox {
  public:
    void Post(const std::string& line);
    /* Every line posted since the last call, in order. */
    std::vector<std::string> Take();

  private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace marlo_demo
