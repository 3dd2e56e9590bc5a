/*
 * The rear-view tool's recorder client over the fake V4L2 kernel: a camera
 * unplugged and brought back gives the loss and recovery lines, the camera
 * state and counts of the progress line and the events table, and the
 * recording goes on by itself.
 */
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <chrono>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fake_v4l2.h"
#include "frame_stats.h"
#include "rearview_report.h"
#include "recorder_client.h"
#include "stream_health.h"
#include "support/fd_count.h"

namespace {

using namespace std::chrono_literals;
using marlo_demo::RecorderClient;
using marlo_demo::StreamHealth;

constexpr char kNode[] = "/dev/video-rearview0";

/* An emulated machine is slow: generous limits. */
template <typename Done>
bool WaitUntil(Done done, std::chrono::milliseconds limit = 60s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

/* The event lines a client's sink received, as the tool's mailbox gets them. */
class Lines {
  public:
    StreamHealth::Sink sink() {
        return [this](const tessaro::marlo::StreamEvent&, const std::string& line) {
            if (line.empty())
                return;
            std::lock_guard<std::mutex> lock(mutex_);
            lines_.push_back(line);
        };
    }
    bool has(const std::string& start) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const std::string& line : lines_)
            if (line.rfind(start, 0) == 0)
                return true;
        return false;
    }
    std::string dump() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::string text;
        for (const std::string& line : lines_)
            text += line + "\n";
        return text;
    }

  private:
    std::mutex mutex_;
    std::vector<std::string> lines_;
};

std::string Progress(const RecorderClient& recorder) {
    StreamHealth::Summary health = recorder.health().Summarize();
    return marlo_demo::ProgressLine(1.0, {}, recorder.stats().Summarize(), {health, health},
                                    marlo_demo::MonotonicNs());
}

class RearviewRecoveryTest : public ::testing::Test {
  protected:
    void TearDown() override { marlo_fake::Reset(); }
};

TEST_F(RearviewRecoveryTest, AnUnpluggedCameraIsShownLostAndTheRecordingResumesWhenItIsBack) {
    marlo_test::FdLeakCheck fds;
    auto node = marlo_fake::AddVideoNode(kNode);
    node->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
    std::shared_ptr<marlo_fake::FakeVideoNode> back;
    Lines lines;
    {
        RecorderClient recorder(1, 32, 24, "", lines.sink());
        std::string error;
        ASSERT_TRUE(recorder.Open(kNode, 64, 48, V4L2_PIX_FMT_NV12, 3, &error)) << error;
        ASSERT_TRUE(recorder.Start(&error)) << error;
        ASSERT_TRUE(WaitUntil([&] { return recorder.stats().frames() >= 10; }));
        EXPECT_NE(Progress(recorder).find(" | camera live"), std::string::npos);

        node->Disconnect();
        marlo_fake::RemoveNode(kNode);
        ASSERT_TRUE(WaitUntil([&] { return recorder.health().down(); }));
        node->StopFrames();
        ASSERT_TRUE(WaitUntil([&] { return lines.has("recorder (client 1): camera lost ("); }))
            << lines.dump();
        std::this_thread::sleep_for(300ms);
        std::string lost = Progress(recorder);
        EXPECT_NE(lost.find(" | CAMERA LOST "), std::string::npos) << lost;
        EXPECT_NE(lost.find(" s, last picture kept | recorder: lost 1"), std::string::npos) << lost;
        uint64_t before = recorder.stats().frames();

        back = marlo_fake::AddVideoNode(kNode);
        back->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
        ASSERT_TRUE(WaitUntil([&] { return recorder.stats().frames() >= before + 10; }));
        ASSERT_TRUE(WaitUntil([&] { return lines.has("recorder (client 1): camera recovered"); }))
            << lines.dump();
        std::string live = Progress(recorder);
        EXPECT_NE(live.find(" | camera live | recorder: lost 1, "), std::string::npos) << live;
        EXPECT_NE(live.find(", back after "), std::string::npos) << live;
        recorder.Stop();
        back->StopFrames();

        StreamHealth::Summary health = recorder.health().Summarize();
        EXPECT_EQ(health.lost, 1u);
        EXPECT_FALSE(health.down);
        /* A slow machine may add a stall and its recovery; the loss is there in any case. */
        ASSERT_GE(health.recovered, 1u);
        ASSERT_FALSE(health.backAfterMs.empty());
        EXPECT_GE(*std::max_element(health.backAfterMs.begin(), health.backAfterMs.end()), 300.0);
        /* The fresh device counts its sequence from 0 again: no bogus gap of the restart. */
        marlo_demo::FrameStats::Summary stats = recorder.stats().Summarize();
        EXPECT_LT(stats.drops, stats.frames + 100) << stats.drops;
        EXPECT_GT(stats.fps, 0.0);

        std::ostringstream report;
        marlo_demo::PrintEventReport({health}, report);
        std::istringstream rows(report.str());
        std::string header, row;
        std::getline(rows, header);
        std::getline(rows, row);
        EXPECT_EQ(row.rfind("recorder (client 1)            1        0        0          1", 0), 0u)
            << report.str();
        EXPECT_NE(row.find(" ms         0"), std::string::npos) << report.str();
        /* The last frame recorded is the returned camera's grey picture. */
        marlo_demo::SheetImage last;
        ASSERT_TRUE(recorder.LastFrame(&last));
        ASSERT_FALSE(last.pixels.empty());
        EXPECT_EQ(last.pixels.front(), 0x80);
        EXPECT_EQ(last.pixels.back(), 0x80);
        recorder.Close();
    }
    EXPECT_EQ(back->OpenDescriptors(), 0u);
    EXPECT_TRUE(fds.unchanged());
}

}  // namespace
