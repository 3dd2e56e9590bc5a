/* The capture demo, run for real against the fake V4L2 kernel and the software engine. */
#include <errno.h>
#include <linux/videodev2.h>
#include <string.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "capture_demo.h"
#include "fake_v4l2.h"
#include "support/fd_count.h"

namespace {

using namespace std::chrono_literals;

constexpr char kNode[] = "/dev/video-demo0";

class TempDir {
  public:
    TempDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "marlo_demo_XXXXXX").string();
        char* made = mkdtemp(pattern.data());
        path_ = made != nullptr ? made : "";
    }
    ~TempDir() {
        std::error_code ec;
        if (!path_.empty())
            std::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

struct Result {
    int status;
    std::string out;
    std::string err;
};

Result RunDemo(std::vector<std::string> args) {
    args.insert(args.begin(), "marlo_capture_demo");
    std::vector<char*> argv;
    for (std::string& arg : args)
        argv.push_back(arg.data());
    std::ostringstream out;
    std::ostringstream err;
    int status = marlo_demo::RunCaptureDemo(static_cast<int>(argv.size()), argv.data(), out, err);
    return {status, out.str(), err.str()};
}

/* The one file of \a dir whose name starts with \a prefix, or "". */
std::string FileStartingWith(const std::string& dir, const std::string& prefix) {
    std::string found;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        std::string name = entry.path().filename().string();
        if (name.rfind(prefix, 0) == 0)
            found = found.empty() ? entry.path().string() : "<several>";
    }
    return found;
}

std::string Contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

class CaptureDemoTest : public ::testing::Test {
  protected:
    void TearDown() override { marlo_fake::Reset(); }
};

/*
 * Runs two clients over a fake node that captures a mid grey picture (every
 * byte 0x80) in \a format, and checks the report and the files.
 */
void CaptureGrey(const std::string& format, bool checkAlpha) {
    marlo_test::FdLeakCheck fds;
    TempDir dir;
    ASSERT_FALSE(dir.path().empty());
    {
        auto node = marlo_fake::AddVideoNode(kNode);
        node->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
        Result result =
            RunDemo({"--device", kNode, "--size", "640x480", "--format", format, "--client",
                     "320x240:NV12:crop", "--client", "240x320:AB24:rot90", "--client-id", "3",
                     "--frames", "5", "--seconds", "60", "--out", dir.path()});
        node->StopFrames();
        ASSERT_EQ(result.status, 0) << result.out << result.err;
        EXPECT_NE(result.out.find("marlo_capture_demo: /dev/video-demo0 640x480 " + format +
                                  ", 2 client(s), until 5 frames each or 60 s\n"),
                  std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("client 3: 320x240 NV12 + crop, 3 sets of 2 buffers\n"),
                  std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("client 4: 240x320 AB24 + rot90, 3 sets of 2 buffers\n"),
                  std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("  params: colour " + format +
                                  ", resolution 640x480 @ 30.0 fps, location not in the "
                                  "configuration, lens facing not in the configuration\n"),
                  std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("device format while streaming: 640x480 " + format + "\n"),
                  std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find("  frames "), std::string::npos) << result.out;
        EXPECT_EQ(result.out.find("  frames 0"), std::string::npos) << result.out;
        EXPECT_EQ(node->OpenDescriptors(), 0u);
    }

    /* Whole frame and the cropped middle, both NV12 320x240: a grey picture stays 0x80. */
    for (const char* prefix : {"client3_buf0_320x240_stride", "client3_buf1_320x240_stride"}) {
        std::string path = FileStartingWith(dir.path(), prefix);
        ASSERT_FALSE(path.empty()) << prefix;
        ASSERT_NE(path, "<several>");
        EXPECT_NE(path.find("_NV12_seq"), std::string::npos) << path;
        std::string bytes = Contents(path);
        ASSERT_GE(bytes.size(), 320u * 240 * 3 / 2) << path;
        EXPECT_EQ(bytes.find_first_not_of('\x80'), std::string::npos) << path;
    }
    /* The upright RGBA frame and its transpose: grey. */
    for (const char* prefix : {"client4_buf0_240x320_stride", "client4_buf1_320x240_stride"}) {
        std::string path = FileStartingWith(dir.path(), prefix);
        ASSERT_FALSE(path.empty()) << prefix;
        EXPECT_NE(path.find("_AB24_seq"), std::string::npos) << path;
        std::string bytes = Contents(path);
        ASSERT_GE(bytes.size(), 240u * 320 * 4) << path;
        EXPECT_EQ(bytes[0], bytes[1]);
        EXPECT_EQ(bytes[1], bytes[2]);
        EXPECT_NE(static_cast<uint8_t>(bytes[0]), 0);
        if (checkAlpha) {
            EXPECT_EQ(static_cast<uint8_t>(bytes[3]), 0xff) << path;
        }
    }
    EXPECT_TRUE(fds.unchanged());
}

}  // namespace

TEST_F(CaptureDemoTest, CapturesYuyvForTwoClientsAndWritesTheirFirstFrames) {
    /* Scaled and turned from YUYV through the engine's 32-bit scaler: still opaque. */
    CaptureGrey("YUYV", true);
}

TEST_F(CaptureDemoTest, CapturesNv12ForTwoClientsAndWritesTheirFirstFrames) {
    CaptureGrey("NV12", true);
}

TEST_F(CaptureDemoTest, DeviceThatDeliversNothingEndsWithStatusOne) {
    auto node = marlo_fake::AddVideoNode(kNode);
    TempDir dir;
    Result result = RunDemo({"--device", kNode, "--size", "64x48", "--format", "NV12", "--client",
                             "32x24:NV12", "--seconds", "1", "--out", dir.path()});
    EXPECT_EQ(result.status, 1) << result.out << result.err;
    EXPECT_NE(result.out.find("  frames 0\n"), std::string::npos) << result.out;
    EXPECT_NE(result.err.find("a client received no frame within 1 s"), std::string::npos)
        << result.err;
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_EQ(node->OpenDescriptors(), 0u);
}

TEST_F(CaptureDemoTest, DeviceThatRefusesTheRateKeepsItsOwnAndStillCaptures) {
    /* A node without the frame interval requests, as some capture drivers. */
    TempDir dir;
    marlo_fake::VideoNodeConfig config;
    config.streamParm = false;
    auto node = marlo_fake::AddVideoNode(kNode, config);
    node->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
    Result result =
        RunDemo({"--device", kNode, "--size", "64x48", "--format", "NV12", "--client", "32x24:NV12",
                 "--fps", "30", "--frames", "2", "--seconds", "60", "--out", dir.path()});
    node->StopFrames();
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("device rate: /dev/video-demo0 refused 30 fps (" +
                              std::string(strerror(ENOTTY)) + "), keeping its own\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("device rate while streaming: not reported (" +
                              std::string(strerror(ENOTTY)) + ")\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("  frames "), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("  frames 0"), std::string::npos) << result.out;
    EXPECT_EQ(node->OpenDescriptors(), 0u);
}

TEST_F(CaptureDemoTest, WithoutARateTheDeviceIsNotAsked) {
    TempDir dir;
    auto node = marlo_fake::AddVideoNode(kNode);
    node->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
    Result result =
        RunDemo({"--device", kNode, "--size", "64x48", "--format", "NV12", "--client", "32x24:NV12",
                 "--frames", "1", "--seconds", "60", "--out", dir.path()});
    node->StopFrames();
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.out.find("device rate:"), std::string::npos) << result.out;
}

TEST_F(CaptureDemoTest, DeviceThatChoosesAnotherSizeEndsWithStatusOne) {
    /* Like vivid's webcam input: a few fixed sizes, the nearest taken instead of the asked one. */
    marlo_fake::VideoNodeConfig config;
    config.frameSizes[V4L2_PIX_FMT_NV12] = {marlo_fake::DiscreteSize(64, 48)};
    TempDir dir;
    auto node = marlo_fake::AddVideoNode(kNode, config);
    node->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
    Result result = RunDemo({"--device", kNode, "--size", "80x60", "--format", "NV12", "--client",
                             "32x24:NV12", "--frames", "1", "--seconds", "2", "--out", dir.path()});
    node->StopFrames();
    EXPECT_EQ(result.status, 1) << result.out << result.err;
    EXPECT_NE(result.out.find("device format while streaming: 64x48 NV12\n"), std::string::npos)
        << result.out;
    EXPECT_NE(result.err.find("/dev/video-demo0 captures 64x48 NV12, not the 80x60 NV12 asked "
                              "for: conversions from the asked format cannot work; pass a size "
                              "and format the device offers\n"),
              std::string::npos)
        << result.err;
    EXPECT_EQ(node->OpenDescriptors(), 0u);
}

TEST_F(CaptureDemoTest, MissingDeviceIsReportedBeforeAnythingStarts) {
    Result result = RunDemo({"--device", "/dev/video-demo-missing"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("cannot open /dev/video-demo-missing: No such file or directory"),
              std::string::npos)
        << result.err;
    EXPECT_NE(result.err.find("modprobe vivid"), std::string::npos);
}

TEST_F(CaptureDemoTest, BadOptionsPrintTheUsage) {
    for (std::vector<std::string> args :
         std::vector<std::vector<std::string>>{{"--format", "XXXX"},
                                               {"--client", "320x240:BGR3"},
                                               {"--client", "320x240:NV12:spin"},
                                               {"--size", "640"},
                                               {"--frames", "0"},
                                               {"--fps", "0"},
                                               {"--fps", "fast"},
                                               {"--bogus", "1"},
                                               {"--device"}}) {
        Result result = RunDemo(args);
        EXPECT_EQ(result.status, 2) << args[0];
        EXPECT_NE(result.err.find("usage: marlo_capture_demo"), std::string::npos) << args[0];
    }
    Result help = RunDemo({"--help"});
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.out.find("--client LAYOUT"), std::string::npos);
    EXPECT_NE(help.out.find("--fps N"), std::string::npos);
}
