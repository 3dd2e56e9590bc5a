#include <errno.h>
#include <gtest/gtest.h>

#include <sstream>

#include <marlo/base/error.h>
#include <marlo/buffer/pixel_format.h>

#include "rearview_report.h"
#include "stream_health.h"

using namespace tessaro::marlo;
using marlo_demo::StreamHealth;

namespace {

constexpr uint64_t kMs = 1000000;

StreamEvent Event(StreamEventType type, uint64_t timestampNs = 0) {
    StreamEvent event;
    event.type = type;
    event.deviceId = "/dev/video0";
    event.clientId = 0;
    event.timestampNs = timestampNs;
    return event;
}

TEST(StreamHealth, EventsAreDescribedInWords) {
    StreamEvent lost = Event(StreamEventType::kDeviceLost);
    lost.status = ERR_CONNECTION_CLOSED;
    lost.systemError = ENODEV;
    EXPECT_EQ(marlo_demo::DescribeEvent(lost),
              "camera lost (No such device), waiting for it to come back");
    lost.systemError = 0;
    EXPECT_EQ(marlo_demo::DescribeEvent(lost),
              "camera lost (its node hung up), waiting for it to come back");
    lost.status = ERR_FAILED;
    EXPECT_EQ(marlo_demo::DescribeEvent(lost),
              "camera lost (" + ErrorToString(ERR_FAILED) + "), waiting for it to come back");
    StreamEvent stalled = Event(StreamEventType::kCaptureStalled);
    stalled.timeoutMs = 500;
    EXPECT_EQ(marlo_demo::DescribeEvent(stalled),
              "camera stalled: no frame for 500 ms, restarting it");
    StreamEvent adjusted = Event(StreamEventType::kFormatAdjusted);
    adjusted.asked = {800, 600, FOURCC_YUYV};
    adjusted.granted = {640, 480, FOURCC_YUYV};
    EXPECT_EQ(marlo_demo::DescribeEvent(adjusted),
              "format adjusted: asked 800x600 YUYV, granted 640x480 YUYV; frames are converted "
              "from what it captures");
    EXPECT_EQ(marlo_demo::DescribeEvent(Event(StreamEventType::kDeviceRecovered)),
              "camera recovered");
    StreamEvent dropped = Event(StreamEventType::kFrameDropped);
    dropped.sequence = 7;
    EXPECT_EQ(marlo_demo::DescribeEvent(dropped), "frame 7 dropped");
}

TEST(StreamHealth, AnOutageLastsFromItsFirstEventToTheNextFrame) {
    StreamHealth health("display (client 0)");
    std::vector<std::string> lines;
    auto listener = health.Listener(
        [&](const StreamEvent&, const std::string& line) { lines.push_back(line); });
    listener(Event(StreamEventType::kStreamStarted, 0));
    EXPECT_FALSE(health.OnFrame(50 * kMs));
    listener(Event(StreamEventType::kDeviceLost, 100 * kMs));
    /* A stall while lost belongs to the same outage. */
    listener(Event(StreamEventType::kCaptureStalled, 300 * kMs));
    EXPECT_TRUE(health.down());
    EXPECT_EQ(marlo_demo::CameraState(health.Summarize(), 1600 * kMs),
              "CAMERA LOST 1.5 s, last picture kept");
    listener(Event(StreamEventType::kDeviceRecovered, 500 * kMs));
    EXPECT_EQ(marlo_demo::CameraState(health.Summarize(), 600 * kMs),
              "CAMERA RECOVERING 0.5 s, last picture kept");
    EXPECT_TRUE(health.OnFrame(512 * kMs));
    EXPECT_FALSE(health.OnFrame(520 * kMs));
    listener(Event(StreamEventType::kFrameDropped, 600 * kMs));

    StreamHealth::Summary summary = health.Summarize();
    EXPECT_EQ(summary.lost, 1u);
    EXPECT_EQ(summary.stalled, 1u);
    EXPECT_EQ(summary.recovered, 1u);
    EXPECT_EQ(summary.dropped, 1u);
    ASSERT_EQ(summary.backAfterMs.size(), 1u);
    EXPECT_DOUBLE_EQ(summary.backAfterMs[0], 412.0);
    EXPECT_EQ(marlo_demo::CameraState(summary, 700 * kMs), "camera live");
    EXPECT_EQ(marlo_demo::BriefHealth(summary),
              "lost 1, stalled 1, recovered 1, back after 412 ms, dropped 1");
    /* Starts, stops and drops are counted only; the others are listed with the client's name. */
    std::vector<std::string> expected = {
        "",
        "display (client 0): camera lost (" + ErrorToString(0) + "), waiting for it to come back",
        "display (client 0): camera stalled: no frame for 0 ms, restarting it",
        "display (client 0): camera recovered", ""};
    EXPECT_EQ(lines, expected);
}

TEST(StreamHealth, TheProgressLineAndTheTableTellEachClient) {
    StreamHealth display("display (client 0)");
    StreamHealth recorder("recorder (client 1)");
    display.Listener(nullptr)(Event(StreamEventType::kDeviceLost, 1000 * kMs));
    recorder.Listener(nullptr)(Event(StreamEventType::kDeviceLost, 1000 * kMs));
    marlo_demo::FrameStats::Summary none;
    EXPECT_EQ(marlo_demo::ProgressLine(6.0, none, none, {display.Summarize(), recorder.Summarize()},
                                       1250 * kMs),
              "rearview: 6.0 s | shown 0 (0.0 fps) | recorded 0 (0.0 fps) | CAMERA LOST 0.2 s, "
              "last picture kept | display: lost 1 | recorder: lost 1");
    display.OnFrame(3412 * kMs);

    std::ostringstream table;
    marlo_demo::PrintHealthTable({display.Summarize(), recorder.Summarize()}, table);
    EXPECT_EQ(table.str(),
              "client                      lost  stalled  refused  recovered     back after  "
              "adjusted  dropped\n"
              "display (client 0)             1        0        0          0        2412 ms  "
              "       0        0\n"
              "recorder (client 1)            1        0        0          0       not back  "
              "       0        0\n");
}

}  // namespace
