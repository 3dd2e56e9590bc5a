/*
 * marlo_rearview on real drivers: vivid's picture on virtio-gpu through the
 * tool's scan-out buffers, a recorder beside it, the report and the files;
 * the camera unbound and bound again while the tool runs.
 */
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "rearview.h"
#include "support/fd_count.h"
#include "support/kernel_modules.h"
#include "support/vivid.h"

namespace {

/* The numbers of the report row that starts with \a name. */
std::vector<double> Row(const std::string& report, const std::string& name) {
    std::istringstream lines(report);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(name, 0) != 0)
            continue;
        std::istringstream fields(line.substr(name.size()));
        std::vector<double> numbers;
        for (std::string field; fields >> field;) {
            char* end = nullptr;
            double value = strtod(field.c_str(), &end);
            if (end != field.c_str() && *end == '\0')
                numbers.push_back(value);
        }
        return numbers;
    }
    return {};
}

/* Runs the tool with \a args; its report in \a out, its problems in \a err. */
int RunTool(std::vector<std::string> args, std::string* out, std::string* err) {
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    std::ostringstream o;
    std::ostringstream e;
    int status = marlo_demo::RunRearview(static_cast<int>(argv.size()), argv.data(), o, e);
    *out = o.str();
    *err = e.str();
    return status;
}

std::string Head(const std::string& path, size_t bytes) {
    std::ifstream in(path, std::ios::binary);
    std::string head(bytes, '\0');
    in.read(head.data(), static_cast<std::streamsize>(bytes));
    return head.substr(0, static_cast<size_t>(in.gcount()));
}

TEST(Rearview, ShowsTheCameraOnTheDisplayWhileRecording) {
    std::string node = marlo_vm::VividCaptureNode(marlo_vm::Vivid::kSinglePlanar);
    ASSERT_FALSE(node.empty());
    std::string dir = "/tmp/rearview_test";
    mkdir(dir.c_str(), 0755);
    std::string report, err;
    marlo_test::FdLeakCheck leaks;
    int status = RunTool(
        {"marlo_rearview", "--device", node, "--mode", "640x480", "--seconds", "3", "--out", dir,
         /* Stamps at the start of the frame: latency from capture. */
         "--ctrl", "Timestamp Source=1"},
        &report, &err);
    ASSERT_EQ(status, 0) << report << err;
    EXPECT_TRUE(leaks.unchanged());
    EXPECT_EQ(err, "");
    EXPECT_NE(report.find("display 640x480@"), std::string::npos) << report;
    EXPECT_NE(report.find("(virtio_gpu)"), std::string::npos) << report;

    /* frames, fps, drops, latency median, p99 */
    std::vector<double> delivered = Row(report, "display (client 0)");
    std::vector<double> shown = Row(report, "  on screen (page flip)");
    std::vector<double> recorded = Row(report, "recorder (client 1)");
    ASSERT_EQ(delivered.size(), 5u) << report;
    ASSERT_EQ(shown.size(), 5u) << report;
    ASSERT_EQ(recorded.size(), 5u) << report;
    EXPECT_GE(shown[0], 15) << report;
    /* Every delivered frame reached the screen, each after its capture. */
    EXPECT_EQ(shown[0], delivered[0]) << report;
    EXPECT_GT(shown[1], 5) << report;
    EXPECT_GE(delivered[3], 0) << report;
    EXPECT_GE(shown[3], delivered[3]) << report;
    EXPECT_GE(recorded[0], 15) << report;

    /* The recording holds whole 320x240 NV12 frames, the sheet is a PNG. */
    struct stat recording = {};
    ASSERT_EQ(stat((dir + "/rearview_record.nv12").c_str(), &recording), 0);
    EXPECT_GT(recording.st_size, 0);
    EXPECT_EQ(recording.st_size % (320 * 240 * 3 / 2), 0);
    EXPECT_EQ(Head(dir + "/rearview_sheet.png", 8), "\x89PNG\r\n\x1a\n");
}

TEST(Rearview, ADisplayModeTheScreenLacksIsRefused) {
    std::string node = marlo_vm::VividCaptureNode(marlo_vm::Vivid::kSinglePlanar);
    ASSERT_FALSE(node.empty());
    std::string out, err;
    EXPECT_EQ(RunTool({"marlo_rearview", "--device", node, "--mode", "1234x567"}, &out, &err), 2);
    EXPECT_EQ(err, "display: no connected display offers that mode\n");
}

TEST(Rearview, TheDisplayGoesOnByItselfWhenTheCameraIsUnboundAndBoundAgain) {
    using namespace std::chrono_literals;
    std::string node = marlo_vm::VividCaptureNode(marlo_vm::Vivid::kSinglePlanar);
    ASSERT_FALSE(node.empty());
    std::string dir = "/tmp/rearview_loss_test";
    mkdir(dir.c_str(), 0755);
    std::string out, err;
    int status = -1;
    std::thread tool([&] {
        status = RunTool({"marlo_rearview", "--device", node, "--mode", "640x480", "--seconds", "8",
                          "--out", dir, "--ctrl", "Timestamp Source=1"},
                         &out, &err);
    });
    /* The picture is up, then vivid's device goes from its driver and comes back. */
    std::this_thread::sleep_for(2500ms);
    bool unbound = marlo_vm::WriteSysfs("/sys/bus/platform/drivers/vivid/unbind", "vivid.0");
    int unbindError = errno;
    std::this_thread::sleep_for(1500ms);
    bool bound = marlo_vm::WriteSysfs("/sys/bus/platform/drivers/vivid/bind", "vivid.0");
    int bindError = errno;
    bool back = marlo_vm::WaitForPath(node, 5000);
    tool.join();
    ASSERT_TRUE(unbound) << strerror(unbindError);
    ASSERT_TRUE(bound) << strerror(bindError);
    ASSERT_TRUE(back) << node << " did not come back";
    printf("%s", out.c_str());

    ASSERT_EQ(status, 0) << out << err;
    EXPECT_EQ(err, "");
    for (const char* client : {"display (client 0)", "recorder (client 1)"}) {
        std::string name = client;
        EXPECT_NE(out.find(" s | " + name + ": camera lost ("), std::string::npos) << out;
        EXPECT_NE(out.find(" s | " + name + ": camera recovered\n"), std::string::npos) << out;
    }
    EXPECT_NE(out.find("| CAMERA LOST "), std::string::npos) << out;
    EXPECT_NE(out.find(" s, last picture kept | display: lost 1"), std::string::npos) << out;
    EXPECT_NE(out.find("| camera live | display: lost 1, recovered 1, back after "),
              std::string::npos)
        << out;

    /* The events table: one loss, one recovery, back after the 1.5 s the device was away. */
    size_t table = out.find("client                      lost");
    ASSERT_NE(table, std::string::npos) << out;
    std::string events = out.substr(table);
    for (const char* client : {"display (client 0)", "recorder (client 1)"}) {
        /* lost, stalled, refused, recovered, back after (ms), adjusted, dropped */
        std::vector<double> row = Row(events, client);
        ASSERT_EQ(row.size(), 7u) << events;
        EXPECT_EQ(row[0], 1) << events;
        EXPECT_EQ(row[3], 1) << events;
        EXPECT_GE(row[4], 1500) << events;
        EXPECT_LT(row[4], 4000) << events;
    }
    /* The display showed frames again after the loss, every one it was given. */
    std::vector<double> delivered = Row(out, "display (client 0)");
    std::vector<double> shown = Row(out, "  on screen (page flip)");
    ASSERT_EQ(shown.size(), 5u) << out;
    EXPECT_EQ(shown[0], delivered[0]) << out;
    EXPECT_GE(shown[0], 30) << out;
}

}  // namespace
