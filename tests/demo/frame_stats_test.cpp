#include <gtest/gtest.h>

#include <sstream>

#include "frame_stats.h"

using marlo_demo::FrameStats;

namespace {

constexpr uint64_t kMs = 1000000;

TEST(FrameStats, RateDropsAndLatencyPercentiles) {
    FrameStats stats("client");
    /* Sequences 10..19 with 12 and 15 missing, 40 ms apart; latency 1..8 ms. */
    uint32_t sequences[] = {10, 11, 13, 14, 16, 17, 18, 19};
    for (int i = 0; i < 8; ++i) {
        uint64_t timestamp = 1000 * kMs + (sequences[i] - 10) * 40 * kMs;
        stats.Record(sequences[i], timestamp, timestamp + static_cast<uint64_t>(i + 1) * kMs);
    }
    FrameStats::Summary summary = stats.Summarize();
    EXPECT_EQ(summary.name, "client");
    EXPECT_EQ(summary.frames, 8u);
    EXPECT_EQ(summary.drops, 2u);
    /* Seven intervals over 9 x 40 ms. */
    EXPECT_NEAR(summary.fps, 7 / 0.36, 1e-9);
    EXPECT_DOUBLE_EQ(summary.medianMs, 5.0);
    EXPECT_DOUBLE_EQ(summary.p99Ms, 8.0);
    EXPECT_EQ(stats.frames(), 8u);
}

TEST(FrameStats, NoFramesNoFigures) {
    FrameStats::Summary summary = FrameStats("none").Summarize();
    EXPECT_EQ(summary.frames, 0u);
    EXPECT_EQ(summary.drops, 0u);
    EXPECT_EQ(summary.fps, 0.0);
    EXPECT_EQ(summary.medianMs, 0.0);
}

TEST(FrameStats, TableHasAHeaderAndOneRowPerClient) {
    FrameStats stats("display");
    stats.Record(0, 0, 2 * kMs);
    std::ostringstream out;
    marlo_demo::PrintStatsTable({stats.Summarize()}, out);
    EXPECT_EQ(out.str(),
              "client                      frames     fps  drops  latency median  latency p99\n"
              "display                          1     0.0      0          2.0 ms       2.0 ms\n");
}

}  // namespace

namespace {

TEST(FrameStats, ACaptureRestartStartsANewSegment) {
    FrameStats stats("client");
    /* 0..4 at 10 ms, then the device comes back 2 s later counting from 0 again, with 2 missed. */
    for (uint32_t s = 0; s < 5; ++s)
        stats.Record(s, 1000 * kMs + s * 10 * kMs, 1000 * kMs + s * 10 * kMs + kMs);
    for (uint32_t s : {0u, 1u, 4u}) {
        uint64_t timestamp = 3000 * kMs + s * 10 * kMs;
        stats.Record(s, timestamp, timestamp + kMs);
    }
    FrameStats::Summary summary = stats.Summarize();
    EXPECT_EQ(summary.frames, 8u);
    EXPECT_EQ(summary.drops, 2u);
    /* Six intervals over 40 + 40 ms: the outage is not counted as capture time. */
    EXPECT_NEAR(summary.fps, 6 / 0.08, 1e-6);

    /* A restart that keeps counting is marked by the client. */
    FrameStats marked("marked");
    marked.Record(10, 0, kMs);
    marked.Record(11, 10 * kMs, 11 * kMs);
    marked.StartSegment();
    marked.Record(40, 500 * kMs, 501 * kMs);
    marked.Record(41, 510 * kMs, 511 * kMs);
    EXPECT_EQ(marked.Summarize().drops, 0u);
    EXPECT_NEAR(marked.Summarize().fps, 100.0, 1e-6);
}

}  // namespace
