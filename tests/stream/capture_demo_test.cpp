/* The capture demo, run for real against the fake V4L2 kernel and the software engine. */
#include <errno.h>
#include <linux/videodev2.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
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
    EXPECT_NE(result.out.find("device rate: asked 30 fps, set by the library at the start\n"),
              std::string::npos)
        << result.out;
    /* The library asked; the tool only reads back what the node runs at. */
    EXPECT_GE(node->CountRequests(VIDIOC_S_PARM), 1u);
    EXPECT_NE(result.out.find("device rate while streaming: not reported (" +
                              std::string(strerror(ENOTTY)) + ")\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("  frames "), std::string::npos) << result.out;
    EXPECT_EQ(result.out.find("  frames 0"), std::string::npos) << result.out;
    EXPECT_EQ(node->OpenDescriptors(), 0u);
}

TEST_F(CaptureDemoTest, TheAskedRateIsSetByTheLibraryBeforeTheStart) {
    TempDir dir;
    marlo_fake::VideoNodeConfig config;
    config.frameInterval = {1, 5};
    auto node = marlo_fake::AddVideoNode(kNode, config);
    node->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
    Result result =
        RunDemo({"--device", kNode, "--size", "64x48", "--format", "NV12", "--client", "32x24:NV12",
                 "--fps", "25", "--frames", "2", "--seconds", "60", "--out", dir.path()});
    node->StopFrames();
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    /* Set once, by the library, before stream-on. */
    std::vector<marlo_fake::RequestRecord> requests = node->Requests();
    size_t parm = requests.size();
    size_t streamOn = requests.size();
    for (size_t i = 0; i < requests.size(); ++i) {
        if (requests[i].request == VIDIOC_S_PARM && parm == requests.size())
            parm = i;
        if (requests[i].request == VIDIOC_STREAMON && streamOn == requests.size())
            streamOn = i;
    }
    ASSERT_LT(parm, requests.size());
    EXPECT_LT(parm, streamOn);
    EXPECT_EQ(node->CountRequests(VIDIOC_S_PARM), 1u);
    EXPECT_NE(result.out.find("device rate while streaming: 25.0 fps\n"), std::string::npos)
        << result.out;
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
    EXPECT_EQ(node->CountRequests(VIDIOC_S_PARM), 0u);
}

TEST_F(CaptureDemoTest, ASizeTheDeviceAdjustsIsReportedAndConvertedFromWhatItCaptures) {
    /* Like vivid's webcam input: a few fixed sizes, the nearest taken instead of the asked one. */
    marlo_fake::VideoNodeConfig config;
    config.frameSizes[V4L2_PIX_FMT_NV12] = {marlo_fake::DiscreteSize(64, 48)};
    TempDir dir;
    auto node = marlo_fake::AddVideoNode(kNode, config);
    node->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
    Result result =
        RunDemo({"--device", kNode, "--size", "80x60", "--format", "NV12", "--client", "32x24:NV12",
                 "--frames", "3", "--seconds", "60", "--out", dir.path()});
    node->StopFrames();
    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_NE(result.out.find("device format while streaming: 64x48 NV12\n"), std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find(" s | client 0: format adjusted: asked 80x60 NV12, granted 64x48 "
                              "NV12; frames are converted from what it captures\n"),
              std::string::npos)
        << result.out;
    EXPECT_NE(result.out.find("client 0: format 80x60 NV12 granted as 64x48 NV12\n"),
              std::string::npos)
        << result.out;
    /* The grey picture converted from the granted size stays grey. */
    std::string path = FileStartingWith(dir.path(), "client0_buf0_32x24_stride");
    ASSERT_FALSE(path.empty());
    std::string bytes = Contents(path);
    ASSERT_GE(bytes.size(), 32u * 24 * 3 / 2);
    EXPECT_EQ(bytes.find_first_not_of('\x80'), std::string::npos);
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(node->OpenDescriptors(), 0u);
}

/* Waits up to 60 s (an emulated machine is slow) for \a done. */
template <typename Done>
bool WaitUntil(Done done) {
    auto deadline = std::chrono::steady_clock::now() + 60s;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

/* The numbers of the line of \a text that starts with \a name, or none. */
std::vector<std::string> Fields(const std::string& text, const std::string& name) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(name, 0) != 0)
            continue;
        std::istringstream in(line.substr(name.size()));
        std::vector<std::string> fields;
        for (std::string field; in >> field;)
            fields.push_back(field);
        return fields;
    }
    return {};
}

/* Dequeues the node answered with a frame. */
size_t FramesDequeued(const marlo_fake::FakeVideoNode& node) {
    size_t count = 0;
    for (const marlo_fake::RequestRecord& request : node.Requests(VIDIOC_DQBUF))
        count += request.result == 0;
    return count;
}

TEST_F(CaptureDemoTest, ACameraUnpluggedAndBackIsReportedWithTheTimeToItsNextFrame) {
    marlo_test::FdLeakCheck fds;
    TempDir dir;
    auto node = marlo_fake::AddVideoNode(kNode);
    /* Slow frames first: the clients are far from their 60 when the camera goes. */
    node->StartFrames(50ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
    Result result;
    std::thread tool([&] {
        result = RunDemo({"--device", kNode, "--size", "64x48", "--format", "NV12", "--client",
                          "32x24:NV12", "--client", "24x32:NV12:rot90", "--frames", "60",
                          "--seconds", "120", "--out", dir.path()});
    });
    bool streaming = WaitUntil([&] { return FramesDequeued(*node) >= 5; });
    /* Unplugged: the path goes away with the device; the library lets go of it. */
    node->Disconnect();
    marlo_fake::RemoveNode(kNode);
    bool released = WaitUntil([&] { return node->OpenDescriptors() == 0; });
    node->StopFrames();
    std::this_thread::sleep_for(1s);
    /* Back at the same path, as a rebind or a module reload brings it; the run ends at 60. */
    auto back = marlo_fake::AddVideoNode(kNode);
    back->StartFrames(5ms, marlo_fake::Frame(-1, {0, 0}, 0x80));
    tool.join();
    back->StopFrames();
    ASSERT_TRUE(streaming);
    ASSERT_TRUE(released);

    EXPECT_EQ(result.status, 0) << result.out << result.err;
    EXPECT_EQ(result.err, "");
    for (const char* client : {"client 0", "client 1"}) {
        std::string name = client;
        EXPECT_NE(result.out.find(" s | " + name + ": camera lost ("), std::string::npos)
            << result.out;
        EXPECT_NE(result.out.find(" s | " + name + ": camera recovered\n"), std::string::npos)
            << result.out;
        /* lost stalled refused recovered back-after... ms adjusted dropped */
        std::vector<std::string> row = Fields(result.out, name + "  ");
        ASSERT_GE(row.size(), 8u) << result.out;
        EXPECT_EQ(row[0], "1") << result.out;
        EXPECT_GE(std::stoi(row[3]), 1) << result.out;
        /* The loss lasted at least the second the device was away (a slow machine may add a stall).
         */
        double longest = 0;
        for (size_t i = 4; i < row.size() && row[i] != "ms"; ++i)
            longest = std::max(longest, std::stod(row[i]));
        EXPECT_GE(longest, 1000.0) << result.out;
    }
    /* The progress lines showed the camera lost, then live again with what happened. */
    EXPECT_NE(result.out.find("| CAMERA LOST, waiting for it\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("(lost 1, "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find(", back after "), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("  frames "), std::string::npos) << result.out;
    EXPECT_EQ(back->OpenDescriptors(), 0u);
    EXPECT_TRUE(fds.unchanged());
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
