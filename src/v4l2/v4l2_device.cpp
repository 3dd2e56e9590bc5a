#include <marlo/v4l2/v4l2_device.h>

#include <errno.h>
#include <fcntl.h>
#include <linux/v4l2-subdev.h>
#include <string.h>

#include <map>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>

#include "base/retrying_ioctl.h"

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_v4l2";

/* The codes are the 64-bit values; keep the table honest against the headers. */
static_assert(VIDIOC_QUERYCAP == 0x80685600u);
static_assert(VIDIOC_ENUM_FMT == 0xc0405602u);
static_assert(VIDIOC_G_FMT == 0xc0d05604u);
static_assert(VIDIOC_S_FMT == 0xc0d05605u);
static_assert(VIDIOC_REQBUFS == 0xc0145608u);
static_assert(VIDIOC_QUERYBUF == 0xc0585609u);
static_assert(VIDIOC_QBUF == 0xc058560fu);
static_assert(VIDIOC_EXPBUF == 0xc0405610u);
static_assert(VIDIOC_DQBUF == 0xc0585611u);
static_assert(VIDIOC_STREAMON == 0x40045612u);
static_assert(VIDIOC_STREAMOFF == 0x40045613u);
static_assert(VIDIOC_G_CTRL == 0xc008561bu);
static_assert(VIDIOC_S_CTRL == 0xc008561cu);
static_assert(VIDIOC_QUERYCTRL == 0xc0445624u);
static_assert(VIDIOC_QUERYMENU == 0xc02c5625u);
static_assert(VIDIOC_TRY_FMT == 0xc0d05640u);
static_assert(VIDIOC_ENUM_FRAMESIZES == 0xc02c564au);
static_assert(VIDIOC_ENUM_FRAMEINTERVALS == 0xc034564bu);
static_assert(VIDIOC_SUBDEV_QUERYCAP == 0x80405600u);
static_assert(VIDIOC_SUBDEV_G_FMT == 0xc0585604u);
static_assert(VIDIOC_SUBDEV_S_FMT == 0xc0585605u);
static_assert(VIDIOC_SUBDEV_G_SELECTION == 0xc040563du);
static_assert(VIDIOC_SUBDEV_S_SELECTION == 0xc040563eu);
static_assert(VIDIOC_SUBDEV_G_FRAME_INTERVAL == 0xc0305615u);
static_assert(VIDIOC_SUBDEV_S_FRAME_INTERVAL == 0xc0305616u);
static_assert(VIDIOC_SUBDEV_ENUM_MBUS_CODE == 0xc0305602u);
static_assert(VIDIOC_SUBDEV_ENUM_FRAME_SIZE == 0xc040564au);
static_assert(VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL == 0xc040564bu);

const std::map<unsigned, std::string>& RequestNames() {
    static const std::map<unsigned, std::string> names = {
        {VIDIOC_QUERYCAP, "querycap"},
        {VIDIOC_ENUM_FMT, "enum_fmt"},
        {VIDIOC_G_FMT, "g_fmt"},
        {VIDIOC_S_FMT, "s_fmt"},
        {VIDIOC_REQBUFS, "reqbuf"},
        {VIDIOC_QUERYBUF, "querybuf"},
        {VIDIOC_QBUF, "qbuf"},
        {VIDIOC_EXPBUF, "expbuf"},
        {VIDIOC_DQBUF, "dqbuf"},
        {VIDIOC_STREAMON, "streamon"},
        {VIDIOC_STREAMOFF, "streamoff"},
        {VIDIOC_G_CTRL, "g_ctrl"},
        {VIDIOC_S_CTRL, "s_ctrl"},
        {VIDIOC_QUERYCTRL, "query_ctrl"},
        {VIDIOC_QUERYMENU, "query_menu"},
        {VIDIOC_TRY_FMT, "try_fmt"},
        {VIDIOC_ENUM_FRAMESIZES, "enum_framesizes"},
        {VIDIOC_ENUM_FRAMEINTERVALS, "enum_frameintervals"},
        {VIDIOC_SUBDEV_QUERYCAP, "subdev_querycap"},
        {VIDIOC_SUBDEV_G_FMT, "subdev_g_fmt"},
        {VIDIOC_SUBDEV_S_FMT, "subdev_s_fmt"},
        {VIDIOC_SUBDEV_G_SELECTION, "subdev_g_selection"},
        {VIDIOC_SUBDEV_S_SELECTION, "subdev_s_selection"},
        {VIDIOC_SUBDEV_G_FRAME_INTERVAL, "subdev_g_frame_interval"},
        {VIDIOC_SUBDEV_S_FRAME_INTERVAL, "subdev_s_frame_interval"},
        {VIDIOC_SUBDEV_ENUM_MBUS_CODE, "subdev_enum_mbus_code"},
        {VIDIOC_SUBDEV_ENUM_FRAME_SIZE, "subdev_enum_frame_size"},
        {VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL, "subdev_enum_frame_interval"},
    };
    return names;
}

/* Issues \a request on \a device; a refusal is logged as "<what> failed <error>". */
int IssueOrLog(V4l2Device& device, unsigned request, void* arg, const char* what) {
    if (device.IoCtl(request, arg) >= 0)
        return OK;
    marlo_log(MARLO_LOG_ERROR, kTag, "%s failed %s\n", what, strerror(errno));
    return ERR_FAILED;
}

}  // namespace

namespace detail {

std::string RequestToString(unsigned request) {
    const auto& names = RequestNames();
    auto it = names.find(request);
    return it != names.end() ? it->second : "unknown";
}

}  // namespace detail

V4l2Device::V4l2Device(const std::string& name) : name_(name) {}

V4l2Device::~V4l2Device() = default;

int V4l2Device::Open(bool blocking) {
    int flags = O_RDWR | O_CLOEXEC;
    if (!blocking)
        flags |= O_NONBLOCK;
    int fd = ::open(name_.c_str(), flags, 0666);
    if (fd < 0) {
        int err = errno;
        /* A failed open leaves the object closed, whatever it held before. */
        fd_.reset();
        marlo_log(MARLO_LOG_ERROR, kTag, "Open device %s failed with error %s\n", name_.c_str(),
                  strerror(err));
        return ERR_FAILED;
    }
    fd_.reset(fd);
    return OK;
}

void V4l2Device::Close() {
    fd_.reset();
}

int V4l2Device::IoCtl(unsigned request, void* arg) {
    if (detail::RetryingIoctl(fd_.get(), request, arg) >= 0)
        return OK;

    int err = errno;
    marlo_log(MARLO_LOG_ERROR, kTag, "%s: ioctl request %s failed %s\n", name_.c_str(),
              detail::RequestToString(request).c_str(), strerror(err));
    /* Callers print the system's error text again after this call. */
    errno = err;
    return ERR_FAILED;
}

int V4l2Device::Request(unsigned request, void* arg, const char* what, bool named) {
    int ret = IoCtl(request, arg);
    if (ret < 0) {
        int err = errno;
        LogFailure(what, named, err);
        errno = err;
    }
    return ret;
}

void V4l2Device::LogFailure(const char* what, bool named, int err) const {
    marlo_log(MARLO_LOG_ERROR, kTag, "%s%s%s failed : %s\n", named ? name_.c_str() : "",
              named ? ": " : "", what, strerror(err));
}

int V4l2Device::RefuseMissingOutput(const char* what) const {
    LogFailure(what, false, EINVAL);
    return ERR_INVALID_ARGUMENT;
}

int V4l2Device::QueryCap() {
    struct v4l2_capability caps = {};
    if (IssueOrLog(*this, VIDIOC_QUERYCAP, &caps, "query capabilities") != OK)
        return ERR_FAILED;
    marlo_log(MARLO_LOG_INFO, kTag, "device capabilities: driver\t\t%s\n",
              reinterpret_cast<const char*>(caps.driver));
    marlo_log(MARLO_LOG_INFO, kTag, "                   : card\t\t%s\n",
              reinterpret_cast<const char*>(caps.card));
    marlo_log(MARLO_LOG_INFO, kTag, "                   : bus_info\t\t%s\n",
              reinterpret_cast<const char*>(caps.bus_info));
    marlo_log(MARLO_LOG_INFO, kTag, "                   : version\t\t%d\n", caps.version);
    marlo_log(MARLO_LOG_INFO, kTag, "                   : capabilities\t%x\n", caps.capabilities);
    return OK;
}

int V4l2Device::SubscribeEvent(V4l2EventSubscription& sub) {
    return IssueOrLog(*this, VIDIOC_SUBSCRIBE_EVENT, &sub, "subscribe event");
}

int V4l2Device::UnSubscribeEvent(V4l2EventSubscription& sub) {
    return IssueOrLog(*this, VIDIOC_UNSUBSCRIBE_EVENT, &sub, "unsubscribe event");
}

int V4l2Device::DequeEvent(V4l2Event& event) {
    memset(&event, 0, sizeof(event));
    return IssueOrLog(*this, VIDIOC_DQEVENT, &event, "dq event");
}

}  // namespace tessaro::marlo
