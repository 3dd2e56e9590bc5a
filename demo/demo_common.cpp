#include "demo_common.h"

#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/videodev2.h>
#include <string.h>
#include <sys/ioctl.h>

#include <cstdlib>

#include <marlo/base/unique_fd.h>

namespace marlo_demo {

namespace {

constexpr char kLogLevelProperty[] = "persist.vendor.tessaro.marlo.loglevel";
/* Errors (the library's default) when verbose; only fatal lines otherwise. */
constexpr char kVerboseLevel[] = "4";
constexpr char kQuietLevel[] = "5";

}  // namespace

std::string FourccText(uint32_t code) {
    std::string text;
    for (int i = 0; i < 4; ++i) {
        char c = static_cast<char>((code >> (8 * i)) & 0xff);
        text.push_back(c >= 0x20 && c < 0x7f ? c : '.');
    }
    return text;
}

bool ParseFourcc(const std::string& text, uint32_t* code) {
    if (text.size() != 4)
        return false;
    uint32_t value = 0;
    for (int i = 0; i < 4; ++i)
        value |= static_cast<uint32_t>(static_cast<unsigned char>(text[i])) << (8 * i);
    *code = value;
    return true;
}

bool ParseNumber(const std::string& text, int minimum, int* value) {
    char* end = nullptr;
    long parsed = strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || parsed < minimum || parsed > 1000000)
        return false;
    *value = static_cast<int>(parsed);
    return true;
}

bool ParseSize(const std::string& text, uint32_t* width, uint32_t* height) {
    size_t x = text.find('x');
    int w = 0;
    int h = 0;
    if (x == std::string::npos || !ParseNumber(text.substr(0, x), 2, &w) ||
        !ParseNumber(text.substr(x + 1), 2, &h) || w > 16384 || h > 16384)
        return false;
    *width = static_cast<uint32_t>(w);
    *height = static_cast<uint32_t>(h);
    return true;
}

double DeviceRate(const std::string& device, std::string* error) {
    tessaro::marlo::UniqueFd fd(open(device.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.isValid()) {
        *error = strerror(errno);
        return 0;
    }
    int failure = EINVAL;
    for (uint32_t type : {V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE}) {
        v4l2_streamparm parm = {};
        parm.type = type;
        if (ioctl(fd.get(), VIDIOC_G_PARM, &parm) != 0) {
            failure = errno;
            /* The other buffer type, unless the node has no frame interval at all. */
            if (failure == EINVAL)
                continue;
            break;
        }
        const v4l2_fract& interval = parm.parm.capture.timeperframe;
        if (interval.numerator == 0 || interval.denominator == 0) {
            *error = "no frame interval";
            return 0;
        }
        return static_cast<double>(interval.denominator) / interval.numerator;
    }
    *error = strerror(failure);
    return 0;
}

bool SetControlByName(int fd, const std::string& name, int32_t value) {
    v4l2_query_ext_ctrl query = {};
    query.id = V4L2_CTRL_FLAG_NEXT_CTRL;
    while (ioctl(fd, VIDIOC_QUERY_EXT_CTRL, &query) == 0) {
        if (name == query.name) {
            v4l2_control control = {};
            control.id = query.id;
            control.value = value;
            return ioctl(fd, VIDIOC_S_CTRL, &control) == 0;
        }
        query.id |= V4L2_CTRL_FLAG_NEXT_CTRL;
    }
    errno = ENOENT;
    return false;
}

bool SetDeviceControl(const std::string& device, const std::string& name, int32_t value,
                      std::string* error) {
    tessaro::marlo::UniqueFd fd(open(device.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd.isValid() || !SetControlByName(fd.get(), name, value)) {
        *error = errno == ENOENT ? "no control named '" + name + "'" : strerror(errno);
        return false;
    }
    return true;
}

ToolLogLevel::ToolLogLevel(bool verbose) {
    char value[PROPERTY_VALUE_MAX];
    property_get(kLogLevelProperty, value, "");
    previous_ = value;
    property_set(kLogLevelProperty, verbose ? kVerboseLevel : kQuietLevel);
}

ToolLogLevel::~ToolLogLevel() {
    property_set(kLogLevelProperty, previous_.c_str());
}

}  // namespace marlo_demo
