#include "support/vivid.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/media.h>
#include <linux/videodev2.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <fstream>

#include <marlo/base/unique_fd.h>

#include "demo_common.h"

namespace marlo_vm {

namespace {

using tessaro::marlo::UniqueFd;

std::string InstancePrefix(Vivid instance) {
    return "vivid-00" + std::to_string(static_cast<int>(instance));
}

std::string ReadLine(const std::string& path) {
    std::ifstream in(path);
    std::string line;
    std::getline(in, line);
    return line;
}

}  // namespace

const char* VividName(Vivid instance) {
    return instance == Vivid::kSinglePlanar ? "single-planar" : "multi-planar";
}

std::string VideoNodeByName(const std::string& name) {
    DIR* dir = opendir("/sys/class/video4linux");
    if (dir == nullptr)
        return "";
    std::string node;
    while (struct dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        std::string base = entry->d_name;
        if (ReadLine("/sys/class/video4linux/" + base + "/name") == name) {
            node = "/dev/" + base;
            break;
        }
    }
    closedir(dir);
    return node;
}

std::string VividCaptureNode(Vivid instance) {
    return VideoNodeByName(InstancePrefix(instance) + "-vid-cap");
}

std::string VividMediaNode(Vivid instance) {
    std::string busInfo = "platform:" + InstancePrefix(instance);
    for (int index = 0; index < 16; ++index) {
        std::string path = "/dev/media" + std::to_string(index);
        UniqueFd fd(open(path.c_str(), O_RDWR | O_CLOEXEC));
        if (!fd.isValid())
            continue;
        media_device_info info = {};
        if (ioctl(fd.get(), MEDIA_IOC_DEVICE_INFO, &info) == 0 && busInfo == info.bus_info)
            return path;
    }
    return "";
}

bool ShowPlainColourBars(const std::string& node) {
    UniqueFd fd(open(node.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.isValid())
        return false;
    /* Menu entries: test pattern 0 is "75% Colorbar", text mode 2 is "None". */
    return marlo_demo::SetControlByName(fd.get(), "Test Pattern", 0) &&
           marlo_demo::SetControlByName(fd.get(), "OSD Text Mode", 2);
}

double SetFrameRate(const std::string& node, unsigned fps) {
    UniqueFd fd(open(node.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.isValid())
        return 0;
    /* The instance answers for its own buffer type only. */
    for (uint32_t type : {V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE}) {
        v4l2_streamparm parm = {};
        parm.type = type;
        parm.parm.capture.timeperframe = {1, fps};
        if (ioctl(fd.get(), VIDIOC_S_PARM, &parm) != 0)
            continue;
        const v4l2_fract& interval = parm.parm.capture.timeperframe;
        if (interval.numerator == 0 || interval.denominator == 0)
            return 0;
        return static_cast<double>(interval.denominator) / interval.numerator;
    }
    return 0;
}

}  // namespace marlo_vm
