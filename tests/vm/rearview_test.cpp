/*
 * marlo_rearview on real drivers: vivid's picture on virtio-gpu through the
 * tool's scan-out buffers, a recorder beside it, the report and the files.
 */
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "rearview.h"
#include "support/fd_count.h"
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
    std::vector<std::string> args = {"marlo_rearview", "--device", node, "--mode", "640x480",
                                     "--seconds", "3", "--out", dir,
                                     /* Stamps at the start of the frame: latency from capture. */
                                     "--ctrl", "Timestamp Source=1"};
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    std::ostringstream out;
    std::ostringstream err;
    marlo_test::FdLeakCheck leaks;
    int status = marlo_demo::RunRearview(static_cast<int>(argv.size()), argv.data(), out, err);
    std::string report = out.str();
    ASSERT_EQ(status, 0) << report << err.str();
    EXPECT_TRUE(leaks.unchanged());
    EXPECT_EQ(err.str(), "");
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
    std::vector<std::string> args = {"marlo_rearview", "--device", node, "--mode", "1234x567"};
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    std::ostringstream out;
    std::ostringstream err;
    EXPECT_EQ(marlo_demo::RunRearview(static_cast<int>(argv.size()), argv.data(), out, err), 2);
    EXPECT_EQ(err.str(), "display: no connected display offers that mode\n");
}

}  // namespace
