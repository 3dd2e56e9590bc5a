/*
 * Per-client frame counts of the demo tools: frames, rate by capture
 * timestamps, frames the client missed (gaps in the capture sequence) and
 * the latency from the capture timestamp to a moment of the client's
 * choosing (the callback, or the frame reaching the screen).
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

    /* One frame of capture \a sequence stamped \a timestampNs, seen at \a nowNs. */
    void Record(uint32_t sequence, uint64_t timestampNs, uint64_t nowNs);

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
    std::string name_;
    mutable std::mutex mutex_;
    uint64_t frames_ = 0;
    uint32_t firstSequence_ = 0;
    uint32_t lastSequence_ = 0;
    uint64_t firstTimestamp_ = 0;
    uint64_t lastTimestamp_ = 0;
    std::vector<double> latencyMs_;
};

/* The table of the final report, one row per summary. */
void PrintStatsTable(const std::vector<FrameStats::Summary>& rows, std::ostream& out);

}  // namespace marlo_demo
