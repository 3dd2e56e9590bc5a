#include <marlo/v4l2/v4l2_subdevice.h>

#include <errno.h>
#include <linux/v4l2-subdev.h>
#include <string.h>

#include <marlo/base/error.h>
#include <marlo/base/logger.h>

namespace tessaro::marlo {

namespace {

constexpr char kTag[] = "marlo_v4l2";

}  // namespace

V4l2SubDevice::V4l2SubDevice(const std::string& name) : V4l2Device(name) {}

int V4l2SubDevice::QueryCap() {
    struct v4l2_subdev_capability caps = {};
    int ret = IoCtl(VIDIOC_SUBDEV_QUERYCAP, &caps);
    if (ret < 0)
        marlo_log(MARLO_LOG_ERROR, kTag, "get fmt failed : %s\n", strerror(errno));
    return ret;
}

int V4l2SubDevice::GetFormat(unsigned pad, V4l2SubdevFormat& format) {
    struct v4l2_subdev_format fmt = {};
    fmt.which = V4L2_SUBDEV_FORMAT_ACTIVE;
    fmt.pad = pad;
    int ret = IoCtl(VIDIOC_SUBDEV_G_FMT, &fmt);
    if (ret < 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "get fmt failed : %s\n", strerror(errno));
        return ret;
    }
    format.width = fmt.format.width;
    format.height = fmt.format.height;
    format.code = fmt.format.code;
    return ret;
}

int V4l2SubDevice::SetFormat(unsigned pad, const V4l2SubdevFormat& format) {
    struct v4l2_subdev_format fmt = {};
    fmt.which = V4L2_SUBDEV_FORMAT_ACTIVE;
    fmt.pad = pad;
    fmt.format.width = format.width;
    fmt.format.height = format.height;
    fmt.format.code = format.code;
    int ret = IoCtl(VIDIOC_SUBDEV_S_FMT, &fmt);
    if (ret < 0)
        marlo_log(MARLO_LOG_ERROR, kTag, "set fmt failed : %s\n", strerror(errno));
    return ret;
}

int V4l2SubDevice::GetSelection(unsigned pad, unsigned target, V4l2Rect& rect) {
    struct v4l2_subdev_selection sel = {};
    sel.which = V4L2_SUBDEV_FORMAT_ACTIVE;
    sel.pad = pad;
    sel.target = target;
    sel.flags = 0;
    int ret = IoCtl(VIDIOC_SUBDEV_G_SELECTION, &sel);
    if (ret < 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "get sel failed : %s\n", strerror(errno));
        return ret;
    }
    memcpy(&rect, &sel.r, sizeof(rect));
    return ret;
}

int V4l2SubDevice::SetSelection(unsigned pad, unsigned target, const V4l2Rect& rect) {
    struct v4l2_subdev_selection sel = {};
    sel.which = V4L2_SUBDEV_FORMAT_ACTIVE;
    sel.pad = pad;
    sel.target = target;
    sel.flags = 0;
    memcpy(&sel.r, &rect, sizeof(sel.r));
    int ret = IoCtl(VIDIOC_SUBDEV_S_SELECTION, &sel);
    if (ret < 0)
        marlo_log(MARLO_LOG_ERROR, kTag, "set sel failed : %s\n", strerror(errno));
    return ret;
}

int V4l2SubDevice::GetFrameIntervals(unsigned pad, unsigned* numerator, unsigned* denominator) {
    if (numerator == nullptr || denominator == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "subdev get interval failed : %s\n", strerror(EINVAL));
        return ERR_INVALID_ARGUMENT;
    }
    struct v4l2_subdev_frame_interval fi = {};
    fi.pad = pad;
    int ret = IoCtl(VIDIOC_SUBDEV_G_FRAME_INTERVAL, &fi);
    if (ret < 0) {
        marlo_log(MARLO_LOG_ERROR, kTag, "subdev get interval failed : %s\n", strerror(errno));
        return ret;
    }
    *numerator = fi.interval.numerator;
    *denominator = fi.interval.denominator;
    return ret;
}

int V4l2SubDevice::SetFrameIntervals(unsigned pad, unsigned numerator, unsigned denominator) {
    struct v4l2_subdev_frame_interval fi = {};
    fi.pad = pad;
    fi.interval.numerator = numerator;
    fi.interval.denominator = denominator;
    int ret = IoCtl(VIDIOC_SUBDEV_S_FRAME_INTERVAL, &fi);
    if (ret < 0)
        marlo_log(MARLO_LOG_ERROR, kTag, "subdev set interval failed : %s\n", strerror(errno));
    return ret;
}

int V4l2SubDevice::EnumMbusCode(unsigned pad, std::vector<unsigned>* codes) {
    if (codes == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "subdev enum mbus code failed : %s\n", strerror(EINVAL));
        return ERR_INVALID_ARGUMENT;
    }
    codes->clear();
    struct v4l2_subdev_mbus_code_enum code = {};
    code.pad = pad;
    code.index = 0;
    code.which = 0;
    while (IoCtl(VIDIOC_SUBDEV_ENUM_MBUS_CODE, &code) == 0) {
        codes->push_back(code.code);
        ++code.index;
    }
    /* The end of the enumeration is reported like any failure. */
    marlo_log(MARLO_LOG_ERROR, kTag, "subdev enum mbus code failed : %s\n", strerror(errno));
    return ERR_FAILED;
}

int V4l2SubDevice::EnumFrameSize(unsigned pad, unsigned code,
                                 std::vector<V4l2FrameSizeRange>* sizes) {
    if (sizes == nullptr) {
        marlo_log(MARLO_LOG_ERROR, kTag, "subdev enum frame size failed : %s\n", strerror(EINVAL));
        return ERR_INVALID_ARGUMENT;
    }
    struct v4l2_subdev_frame_size_enum fse = {};
    fse.pad = pad;
    fse.code = code;
    fse.index = 0;
    fse.which = 0;
    while (IoCtl(VIDIOC_SUBDEV_ENUM_FRAME_SIZE, &fse) == 0) {
        sizes->push_back({fse.min_width, fse.min_height, fse.max_width, fse.max_height, 0, 0});
        ++fse.index;
    }
    marlo_log(MARLO_LOG_ERROR, kTag, "subdev enum frame size failed : %s\n", strerror(errno));
    return OK;
}

std::vector<std::pair<unsigned, unsigned>> V4l2SubDevice::EnumFrameInterval(unsigned pad,
                                                                            unsigned code,
                                                                            unsigned width,
                                                                            unsigned height) {
    std::vector<std::pair<unsigned, unsigned>> intervals;
    struct v4l2_subdev_frame_interval_enum fie = {};
    fie.pad = pad;
    fie.code = code;
    fie.width = width;
    fie.height = height;
    fie.index = 0;
    fie.which = 0;
    while (IoCtl(VIDIOC_SUBDEV_ENUM_FRAME_INTERVAL, &fie) == 0) {
        intervals.emplace_back(fie.interval.numerator, fie.interval.denominator);
        ++fie.index;
    }
    /* This message deliberately uses the frame-size wording. */
    marlo_log(MARLO_LOG_ERROR, kTag, "subdev enum frame size failed : %s\n", strerror(errno));
    return intervals;
}

}  // namespace tessaro::marlo
