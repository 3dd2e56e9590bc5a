/*
 * Per-client frame counts of the demo tools: frames, rate by capture
 * timestamps, frames the client missed (gaps in the capture sequence) and
 * the latency from the capture timestamp to a moment of the client's
 * choosing (the callback, or the frame reaching the screen). A camera that
 * was lost and came back counts its sequence anew: each stretch of capture
 * is a segment of its own, and rate and gaps are taken within segments.
 */
#pragma once

#include <stdint.h>

#include <mutex>
#include <ostream>
#include <string>
#include <vector>

namespace marlo_demo {

/* CLOCK_MONOTONIC in nanoseconds, the clock of V4L2 capture timestamps. */
uint64_t MonotonicNs();

class FrameStats {
  public:
    explicit FrameStats(std::string name) : name_(std::move(name)) {}

    /*
     * One frame of capture \a sequence stamped \a timestampNs, seen at \a nowNs.
     * A sequence that does not grow starts a new segment.
     */
    void Record(uint32_t sequence, uint64_t timestampNs, uint64_t nowNs);
    /* The next frame starts a new segment (the capture was restarted). */
    void StartSegment();

    struct Summary {
        std::string name;
        uint64_t frames = 0;
        double fps = 0;
        uint64_t drops = 0;
        double medianMs = 0;
        double p99Ms = 0;
    };
    Summary Summarize() const;
    uint64_t frames() const;

  private:
    /* One stretch of capture with a growing sequence. */
    struct Segment {
        uint64_t frames = 0;
        uint32_t firstSequence = 0;
        uint32_t lastSequence = 0;
        uint64_t firstTimestamp = 0;
        uint64_t lastTimestamp = 0;
    };
    /* Frame intervals, their time and the gaps of closed segments. */
    struct Totals {
        uint64_t intervals = 0;
        uint64_t ns = 0;
        uint64_t drops = 0;
    };
    static void Add(const Segment& segment, Totals* totals);

    std::string name_;
    mutable std::mutex mutex_;
    uint64_t frames_ = 0;
    Segment current_;
    bool newSegment_ = false;
    Totals closed_;
    std::vector<double> latencyMs_;
};

/* The table of the final report, one row per summary. */
void PrintStatsTable(const std::vector<FrameStats::Summary>& rows, std::ostream& out);

}  // namespace marlo_demo
