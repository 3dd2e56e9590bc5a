#include "frame_stats.h"

#include <time.h>

#include <algorithm>
#include <cstdio>

namespace marlo_demo {

namespace {

double Percentile(std::vector<double> values, double fraction) {
    if (values.empty())
        return 0;
    size_t index = static_cast<size_t>(fraction * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + static_cast<long>(index), values.end());
    return values[index];
}

}  // namespace

uint64_t MonotonicNs() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

void FrameStats::Record(uint32_t sequence, uint64_t timestampNs, uint64_t nowNs) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (current_.frames > 0 && (newSegment_ || sequence <= current_.lastSequence)) {
        Add(current_, &closed_);
        current_ = Segment();
    }
    newSegment_ = false;
    if (current_.frames == 0) {
        current_.firstSequence = sequence;
        current_.firstTimestamp = timestampNs;
    }
    current_.lastSequence = sequence;
    current_.lastTimestamp = timestampNs;
    ++current_.frames;
    ++frames_;
    latencyMs_.push_back((static_cast<double>(nowNs) - static_cast<double>(timestampNs)) / 1e6);
}

void FrameStats::StartSegment() {
    std::lock_guard<std::mutex> lock(mutex_);
    newSegment_ = true;
}

void FrameStats::Add(const Segment& segment, Totals* totals) {
    if (segment.frames == 0)
        return;
    uint64_t span = uint64_t{segment.lastSequence - segment.firstSequence} + 1;
    totals->drops += span > segment.frames ? span - segment.frames : 0;
    if (segment.frames > 1 && segment.lastTimestamp > segment.firstTimestamp) {
        totals->intervals += segment.frames - 1;
        totals->ns += segment.lastTimestamp - segment.firstTimestamp;
    }
}

uint64_t FrameStats::frames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
}

FrameStats::Summary FrameStats::Summarize() const {
    std::lock_guard<std::mutex> lock(mutex_);
    /* The totals as if the open segment were closed now. */
    Totals totals = closed_;
    Add(current_, &totals);
    Summary summary;
    summary.name = name_;
    summary.frames = frames_;
    if (totals.ns > 0)
        summary.fps = static_cast<double>(totals.intervals) * 1e9 / static_cast<double>(totals.ns);
    summary.drops = totals.drops;
    summary.medianMs = Percentile(latencyMs_, 0.5);
    summary.p99Ms = Percentile(latencyMs_, 0.99);
    return summary;
}

void PrintStatsTable(const std::vector<FrameStats::Summary>& rows, std::ostream& out) {
    char line[160];
    snprintf(line, sizeof(line), "%-26s %7s %7s %6s %15s %12s\n", "client", "frames", "fps",
             "drops", "latency median", "latency p99");
    out << line;
    for (const FrameStats::Summary& row : rows) {
        snprintf(line, sizeof(line), "%-26s %7llu %7.1f %6llu %12.1f ms %9.1f ms\n",
                 row.name.c_str(), static_cast<unsigned long long>(row.frames), row.fps,
                 static_cast<unsigned long long>(row.drops), row.medianMs, row.p99Ms);
        out << line;
    }
}

}  // namespace marlo_demo
